// Bindings, and who sent the request being served.
#include "run_directory.h"

#include "agent/request.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/snmp_transport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <set>
#include <string>

// What the agent calls around a write method; it has no declaration.
extern "C" netsnmp_agent_session *set_current_agent_session(netsnmp_agent_session *session);

namespace {

using namespace agent;

TEST(BuildVarbind, StartsAList) {
    const int32_t value = -5;
    netsnmp_variable_list *list =
        build_varbind(nullptr, &value, ASN_INTEGER, 4, object, OID_LENGTH(object));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->type, ASN_INTEGER);
    EXPECT_EQ(*list->val.integer, -5);
    EXPECT_EQ(snmp_oid_compare(list->name, list->name_length, object, OID_LENGTH(object)), 0);
    EXPECT_EQ(list->next_variable, nullptr);
    snmp_free_varbind(list);
}

TEST(BuildVarbind, AppendsToAList) {
    const int32_t value = 1;
    netsnmp_variable_list *list =
        build_varbind(nullptr, &value, ASN_INTEGER, 4, object, OID_LENGTH(object));
    EXPECT_EQ(build_varbind(list, "text", ASN_OCTET_STR, 4, object, 3), list);
    ASSERT_NE(list->next_variable, nullptr);
    EXPECT_EQ(list->next_variable->name_length, 3U);
    EXPECT_EQ(std::memcmp(list->next_variable->val.string, "text", 4), 0);
    snmp_free_varbind(list);
}

TEST(BuildVarbind, CopiesTheValue) {
    char text[] = "text";
    netsnmp_variable_list *list = build_varbind(nullptr, text, ASN_OCTET_STR, 4, object, 3);
    ASSERT_NE(list, nullptr);
    text[0] = 'n';
    EXPECT_EQ(list->val.string[0], 't');
    snmp_free_varbind(list);
}

TEST(BuildVarbind, RefusesANameOrValueThatIsNone) {
    EXPECT_EQ(build_varbind(nullptr, "x", ASN_OCTET_STR, 1, nullptr, 3), nullptr);
    EXPECT_EQ(build_varbind(nullptr, "x", ASN_OCTET_STR, 1, object, 0), nullptr);
    EXPECT_EQ(build_varbind(nullptr, "x", ASN_OCTET_STR, 1, object, MAX_OID_LEN + 1), nullptr);
    EXPECT_EQ(build_varbind(nullptr, nullptr, ASN_OCTET_STR, 1, object, 3), nullptr);
}

TEST(BuildVarbind, LeavesTheListAsItWasWhenItFails) {
    netsnmp_variable_list *list = build_varbind(nullptr, "x", ASN_OCTET_STR, 1, object, 3);
    EXPECT_EQ(build_varbind(list, "x", ASN_OCTET_STR, 1, object, 0), nullptr);
    EXPECT_EQ(list->next_variable, nullptr);
    snmp_free_varbind(list);
}

class Request : public testing::Test {
  protected:
    void SetUp() override { ruma::leave_request(); }

    static netsnmp_pdu pdu(long version, char *user) {
        netsnmp_pdu made{};
        made.version = version;
        made.securityName = user;
        made.securityNameLen = user == nullptr ? 0 : std::strlen(user);
        return made;
    }

    char operator_[9] = "operator";
};

TEST_F(Request, IsAnonymousOutsideARequest) {
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_EQ(get_snmp_sessionid(0), 0);
}

TEST_F(Request, OfVersion3HasTheUser) {
    ruma::enter_request(pdu(SNMP_VERSION_3, operator_));
    EXPECT_STREQ(get_snmp_username(0), "operator");
}

TEST_F(Request, OfAnotherVersionHasNoUser) {
    for (const long version : {SNMP_VERSION_1, SNMP_VERSION_2c}) {
        ruma::enter_request(pdu(version, operator_));
        EXPECT_STREQ(get_snmp_username(0), "");
    }
}

TEST_F(Request, DoesNotInheritTheUserOfTheOneBefore) {
    ruma::enter_request(pdu(SNMP_VERSION_3, operator_));
    ruma::enter_request(pdu(SNMP_VERSION_2c, nullptr));
    EXPECT_STREQ(get_snmp_username(0), "");
}

TEST_F(Request, IsForgottenWhenItIsOver) {
    ruma::enter_request(pdu(SNMP_VERSION_3, operator_));
    ruma::leave_request();
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_EQ(get_snmp_sessionid(0), 0);
}

TEST_F(Request, TakesAUserNameOfAnyLength) {
    std::string user(1000, 'u');
    ruma::enter_request(pdu(SNMP_VERSION_3, user.data()));
    EXPECT_EQ(std::strlen(get_snmp_username(0)), 255U);
}

TEST_F(Request, BeingWrittenIsTheOneThatTheAgentNames) {
    char writer_name[] = "writer";
    netsnmp_pdu writer = pdu(SNMP_VERSION_3, writer_name);
    netsnmp_agent_session session{};
    session.pdu = &writer;
    ruma::enter_request(pdu(SNMP_VERSION_3, operator_));
    set_current_agent_session(&session);
    const std::string during = get_snmp_username(0);
    set_current_agent_session(nullptr);
    EXPECT_EQ(during, "writer");
    EXPECT_STREQ(get_snmp_username(0), "operator");
}

// A request by its parts. Version 3 has a context and a user, the others have a sender.
class Session : public testing::Test {
  protected:
    void TearDown() override { ruma::leave_request(); }

    static netsnmp_indexed_addr_pair ends(int family, const char *address, uint16_t port,
                                          int if_index = 1) {
        netsnmp_indexed_addr_pair pair{};
        sockaddr_in &four = pair.remote_addr.sin;
        sockaddr_in6 &six = pair.remote_addr.sin6;
        pair.remote_addr.sa.sa_family = static_cast<sa_family_t>(family);
        EXPECT_EQ(inet_pton(family, address,
                            family == AF_INET ? static_cast<void *>(&four.sin_addr)
                                              : static_cast<void *>(&six.sin6_addr)),
                  1);
        (family == AF_INET ? four.sin_port : six.sin6_port) = htons(port);
        pair.if_index = if_index;
        return pair;
    }

    static int32_t from(netsnmp_indexed_addr_pair pair, long version = SNMP_VERSION_2c) {
        netsnmp_pdu pdu{};
        pdu.version = version;
        pdu.transport_data = &pair;
        pdu.transport_data_length = sizeof pair;
        pdu.tDomain = netsnmpUDPDomain;
        pdu.tDomainLen = netsnmpUDPDomain_len;
        return id(pdu);
    }

    static int32_t of(std::string engine, std::string context, std::string user,
                      uint16_t port = 1) {
        netsnmp_indexed_addr_pair pair = ends(AF_INET, "10.0.0.1", port);
        netsnmp_pdu pdu{};
        pdu.version = SNMP_VERSION_3;
        pdu.transport_data = &pair;
        pdu.transport_data_length = sizeof pair;
        pdu.contextEngineID = reinterpret_cast<u_char *>(engine.data());
        pdu.contextEngineIDLen = engine.size();
        pdu.contextName = context.data();
        pdu.contextNameLen = context.size();
        pdu.securityName = user.data();
        pdu.securityNameLen = user.size();
        return id(pdu);
    }

    static int32_t id(const netsnmp_pdu &pdu) {
        ruma::enter_request(pdu);
        const int32_t found = get_snmp_sessionid(0);
        EXPECT_GT(found, 0);
        return found;
    }
};

TEST_F(Session, IsTheSameForEveryRequestFromOneAddressAndPort) {
    for (const long version : {SNMP_VERSION_1, SNMP_VERSION_2c}) {
        const int32_t first = from(ends(AF_INET, "10.0.0.1", 5000), version);
        EXPECT_EQ(from(ends(AF_INET, "10.0.0.1", 5000, 2), version), first);
        const int32_t six = from(ends(AF_INET6, "fe80::1", 5000), version);
        EXPECT_EQ(from(ends(AF_INET6, "fe80::1", 5000, 2), version), six);
    }
}

TEST_F(Session, DiffersByAddressAndByPort) {
    const int32_t first = from(ends(AF_INET, "10.0.0.1", 5000));
    EXPECT_NE(from(ends(AF_INET, "10.0.0.1", 5001)), first);
    EXPECT_NE(from(ends(AF_INET, "10.0.0.2", 5000)), first);
    const int32_t six = from(ends(AF_INET6, "fe80::1", 5000));
    EXPECT_NE(from(ends(AF_INET6, "fe80::1", 5001)), six);
    EXPECT_NE(from(ends(AF_INET6, "fe80::2", 5000)), six);
}

TEST_F(Session, DiffersOverALargeNetwork) {
    std::set<int32_t> ids;
    for (int host = 1; host < 250; ++host)
        for (uint16_t port = 40000; port < 40010; ++port)
            ids.insert(from(ends(AF_INET, ("10.0.0." + std::to_string(host)).c_str(), port)));
    EXPECT_EQ(ids.size(), 2490U);
}

TEST_F(Session, OfAnotherTransportIsOfTheWholeAddress) {
    char one[] = "first address";
    char two[] = "other address";
    netsnmp_pdu pdu{};
    pdu.version = SNMP_VERSION_2c;
    pdu.transport_data = one;
    pdu.transport_data_length = sizeof one;
    const int32_t first = id(pdu);
    pdu.transport_data = two;
    EXPECT_NE(id(pdu), first);
}

TEST_F(Session, OfARequestWithoutAnythingIsOneToo) {
    netsnmp_pdu pdu{};
    id(pdu);
    pdu.version = SNMP_VERSION_3;
    id(pdu);
}

TEST_F(Session, OfVersion3IsOfEngineContextAndUserWhereverTheyAre) {
    const int32_t first = of("engine", "context", "user", 5000);
    EXPECT_EQ(of("engine", "context", "user", 5001), first);
    EXPECT_NE(of("engin3", "context", "user"), first);
    EXPECT_NE(of("engine", "contexT", "user"), first);
    EXPECT_NE(of("engine", "context", "used"), first);
    EXPECT_NE(of("enginec", "ontext", "user"), first);
    EXPECT_NE(of("engine", "contextu", "ser"), first);
}

} // namespace
