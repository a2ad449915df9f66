#include "agent/copy_status.h"
#include "agent/request.h"
#include "config/config.h"

#include <ruma/evwrap.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <net-snmp/library/snmp_transport.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// What the agent calls around a write method; it has no declaration.
extern "C" netsnmp_agent_session *set_current_agent_session(netsnmp_agent_session *session);

namespace {

namespace fs = std::filesystem;

class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        char path[] = "/tmp/agent_test.XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        setenv("RUMA_RUN_DIR", path, 1);
        path_ = path;
        snmp_enable_filelog((path_ + "/agent.log").c_str(), 0);
    }
    void TearDown() override {
        snmp_disable_log();
        fs::remove_all(path_);
    }

  private:
    std::string path_;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class ErrorLog : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove(path);
        fs::remove(path + ".1");
        ruma::leave_request();
    }
    void TearDown() override { ruma::leave_request(); }

    static netsnmp_pdu request_of(long version, std::string &user) {
        netsnmp_pdu pdu{};
        pdu.version = version;
        pdu.securityName = user.data();
        pdu.securityNameLen = user.size();
        return pdu;
    }

    // How a line names the session of the request that is being served.
    static std::string session() { return ", session " + std::to_string(get_snmp_sessionid(0)); }

    static int log(int32_t code, const std::string &text) {
        snmp_error_record record{};
        record.code = code;
        std::memcpy(record.text, text.data(), std::min(text.size(), sizeof record.text));
        return log_snmp_error(&record);
    }

    const std::string path = ruma::run_dir() + "/snmp-errors.log";
};

TEST_F(ErrorLog, HoldsOneLineWithTimeCodeAndText) {
    ASSERT_EQ(log(0x4049001C, "Invalid source file"), 0);
    EXPECT_THAT(read_file(path),
                testing::MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+Z, 0x4049001c, "
                                      "Invalid source file\n"));
}

TEST_F(ErrorLog, GrowsByALinePerRecord) {
    ASSERT_EQ(log(1, "one"), 0);
    ASSERT_EQ(log(2, "two"), 0);
    EXPECT_THAT(read_file(path),
                testing::MatchesRegex(".*Z, 0x00000001, one\n.*Z, 0x00000002, two\n"));
}

TEST_F(ErrorLog, GoesToTheAgentsLogToo) {
    ASSERT_EQ(log(0x4049001C, "for the agent"), 0);
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"),
                testing::HasSubstr("error 0x4049001c: for the agent\n"));
}

TEST_F(ErrorLog, NamesTheUserAndTheSessionOfTheRequest) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(0x4049001C, "Invalid source file"), 0);
    const std::string expected = "Invalid source file, user flashadmin" + session() + "\n";
    EXPECT_THAT(read_file(path), testing::EndsWith("Z, 0x4049001c, " + expected));
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"), testing::HasSubstr(": " + expected));
}

TEST_F(ErrorLog, NamesTheSessionAloneOfARequestWithoutUser) {
    std::string community = "secret";
    ruma::enter_request(request_of(SNMP_VERSION_2c, community));
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", x" + session() + "\n"));
}

TEST_F(ErrorLog, NamesNobodyWhenTheRequestIsOver) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ruma::leave_request();
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", x\n"));
}

TEST_F(ErrorLog, EscapesAUserNameThatWouldReadAsMoreThanOneField) {
    std::string user = "a\nb, session 7\x1b";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path),
                testing::EndsWith(", x, user a\\nb\\x2c session 7\\x1b" + session() + "\n"));
}

TEST_F(ErrorLog, EscapesATextThatWouldReadAsMoreThanOneField) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(1, "no file, user root, session 7"), 0);
    const std::string expected =
        "no file\\x2c user root\\x2c session 7, user flashadmin" + session() + "\n";
    EXPECT_THAT(read_file(path), testing::EndsWith("Z, 0x00000001, " + expected));
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"), testing::HasSubstr(": " + expected));
}

TEST_F(ErrorLog, ShowsNegativeCodes) {
    ASSERT_EQ(log(-1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::HasSubstr(", 0xffffffff, x\n"));
}

TEST_F(ErrorLog, IsReadableByItsGroupOnly) {
    const mode_t before = umask(077);
    const int result = log(1, "x");
    umask(before);
    ASSERT_EQ(result, 0);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(ErrorLog, EscapesControlCharactersAndTheEscapeItself) {
    ASSERT_EQ(log(1, "a\nb\tc\\d\x1b[0m\x7f\x9b"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", a\\nb\\x09c\\\\d\\x1b[0m\\x7f\\x9b\n"));
}

TEST_F(ErrorLog, TakesATextWithoutTerminator) {
    ASSERT_EQ(log(1, std::string(256, 't')), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", " + std::string(256, 't') + "\n"));
}

TEST_F(ErrorLog, StaysBelowItsLimitAndKeepsOnePredecessor) {
    constexpr std::uintmax_t limit = 262144;
    for (int i = 0; i < 4000; ++i) {
        ASSERT_EQ(log(i, std::string(200, 't')), 0);
        ASSERT_LE(fs::file_size(path), limit);
    }
    EXPECT_GT(fs::file_size(path + ".1"), limit - 300);
    EXPECT_LE(fs::file_size(path + ".1"), limit);
    EXPECT_THAT(read_file(path), testing::HasSubstr(", 0x00000f9f, "));
    EXPECT_FALSE(fs::exists(path + ".2"));
}

TEST_F(ErrorLog, DoesNotFollowALink) {
    std::ofstream(path + ".target") << "precious";
    fs::create_symlink(path + ".target", path);
    EXPECT_EQ(log(1, "x"), -1);
    EXPECT_EQ(read_file(path + ".target"), "precious");
}

TEST_F(ErrorLog, RefusesToWriteIntoWhatIsNoFile) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(log(1, "x"), -1);
}

TEST_F(ErrorLog, RefusesNoRecord) { EXPECT_EQ(log_snmp_error(nullptr), -1); }

const oid object[] = {1, 3, 6, 1, 4, 1, 32473, 7};

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

// A module of one row, which a status message completes.
flashCopyEntry row;
bool row_exists;
int traced;
int calls;
int other_calls;
const pmb_message *delivered;
int32_t delivered_index;
int32_t delivered_pid;
int32_t notified_status;
bool send_wanted;
std::vector<std::vector<oid>> trap_names;
std::vector<oid> trap_id;

const oid notification[] = {1, 3, 6, 1, 4, 1, 32473, 1, 1, 1, 3, 0, 1};

int take_status(int, int, void *message, void *) {
    ++calls;
    delivered = static_cast<const pmb_message *>(message);
    int32_t payload[3];
    std::memcpy(payload, delivered->payload, sizeof payload);
    delivered_index = payload[1];
    delivered_pid = payload[2];
    if (delivered_index == row.index)
        row.copyStatus = payload[0];
    return 0;
}

int take_status_too(int, int, void *, void *) {
    ++other_calls;
    return 0;
}

int32_t get_row(flashCopyEntry *entry) {
    // As the module traces its look-ups.
    traced += evwrap_hist_event_subtype_check(0x730000, 100) +
              evwrap_hist_event_subtype_check(0x730000, 101) + evwrap_chk_int(101, 0, 0, 1);
    if (!row_exists || entry->index != row.index)
        return 0x40490002;
    *entry = row;
    return 0;
}

netsnmp_variable_list *build_notification(const pmb_message *message, oid *id,
                                          std::size_t *id_length, int *send) {
    uint32_t length = 0;
    uint32_t status = 0;
    std::memcpy(&status, pmb_payload_get(message, &length), sizeof status);
    EXPECT_EQ(length, 4U);
    notified_status = static_cast<int32_t>(ntohl(status));
    std::memcpy(id, notification, sizeof notification);
    *id_length = OID_LENGTH(notification);
    *send = send_wanted ? 1 : 0;
    return build_varbind(nullptr, &notified_status, ASN_INTEGER, 4, object, OID_LENGTH(object));
}

int take_trap(int, int, void *trap, void *) {
    for (const netsnmp_variable_list *binding = static_cast<netsnmp_pdu *>(trap)->variables;
         binding != nullptr; binding = binding->next_variable) {
        trap_names.emplace_back(binding->name, binding->name + binding->name_length);
        if (binding->type == ASN_OBJECT_ID)
            trap_id.assign(binding->val.objid, binding->val.objid + binding->val_len / sizeof(oid));
    }
    return 0;
}

const ruma::CopyModule module{get_row, build_notification, nullptr, nullptr, nullptr};

class CopyStatus : public testing::Test {
  protected:
    void SetUp() override {
        snmp_unregister_callback(0, 11, take_status, nullptr, 0);
        snmp_unregister_callback(0, 11, take_status_too, nullptr, 0);
        snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, take_trap,
                                 nullptr, 0);
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, take_trap,
                               nullptr);
        snmp_register_callback(0, 11, take_status, nullptr);
        row = {};
        row.index = 7;
        row.copyStatus = 1;
        row.notifyOnCompletion = 1;
        row.startTimestamp = {100, 5};
        row_exists = true;
        traced = 0;
        delivered_index = -1;
        delivered_pid = -1;
        calls = 0;
        other_calls = 0;
        notified_status = 0;
        send_wanted = true;
        trap_names.clear();
        trap_id.clear();
    }

    static pmb_message message(int32_t status = 2, int32_t index = 7, int32_t pid = getpid()) {
        const int32_t payload[] = {status, index, pid};
        return ruma::pmb_make_message(0xfe000000, 28, 7786, payload, sizeof payload);
    }

    static bool deliver(pmb_message made = message()) {
        return ruma::deliver_copy_status(made, module);
    }
};

TEST_F(CopyStatus, IsAMessageOfTwelveBytesThatNamesItsSender) {
    EXPECT_TRUE(ruma::is_copy_status(message()));
}

TEST_F(CopyStatus, IsNotAMessageThatNamesAnotherProcess) {
    EXPECT_FALSE(ruma::is_copy_status(message(2, 7, 1)));
}

TEST_F(CopyStatus, IsNotAMessageOfAProcessThatIsNone) {
    for (const int32_t pid : {0, -1}) {
        pmb_message made = message(2, 7, pid);
        made.sender_pid = pid;
        EXPECT_FALSE(ruma::is_copy_status(made)) << pid;
    }
}

TEST(IsChild, HoldsFromTheForkUntilTheProcessIsReaped) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte;
        close(ready[1]);
        _exit(read(ready[0], &byte, 1) == 0 ? 0 : 1);
    }
    EXPECT_TRUE(ruma::is_child(child));
    close(ready[0]);
    close(ready[1]);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(ruma::is_child(child));
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(ruma::is_child(child));
}

TEST(IsChild, IsFalseForEverybodyElse) {
    for (const pid_t pid : {getpid(), getppid(), 1, 0, -1})
        EXPECT_FALSE(ruma::is_child(pid)) << pid;
}

TEST_F(CopyStatus, IsNotAMessageOfAnotherOpcode) {
    pmb_message made = message();
    made.opcode = 7785;
    EXPECT_FALSE(ruma::is_copy_status(made));
}

TEST_F(CopyStatus, IsNotAMessageOfAnotherLength) {
    for (const uint32_t length : {0U, 4U, 11U, 13U, 1024U}) {
        pmb_message made = message();
        made.length = length;
        EXPECT_FALSE(ruma::is_copy_status(made)) << length;
    }
}

TEST_F(CopyStatus, ReachesTheModuleAsItCame) {
    pmb_message made = message();
    EXPECT_TRUE(ruma::deliver_copy_status(made, module));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(delivered, &made);
}

TEST_F(CopyStatus, ReachesAModuleThatRegisteredRepeatedlyOnce) {
    for (int i = 0; i < 3; ++i) {
        snmp_register_callback(0, 11, take_status_too, nullptr);
        snmp_register_callback(0, 11, take_status, nullptr);
    }
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(other_calls, 1);
    EXPECT_EQ(snmp_count_callbacks(0, 11), 2);
    deliver();
    EXPECT_EQ(calls, 2);
}

TEST_F(CopyStatus, IsNotDeliveredWithoutAModule) {
    snmp_unregister_callback(0, 11, take_status, nullptr, 0);
    EXPECT_FALSE(deliver());
}

TEST_F(CopyStatus, SendsTheNotificationThatTheModuleBuilds) {
    EXPECT_TRUE(deliver());
    EXPECT_EQ(notified_status, 2);
    EXPECT_EQ(trap_id, std::vector<oid>(std::begin(notification), std::end(notification)));
    EXPECT_THAT(trap_names,
                testing::Contains(std::vector<oid>(std::begin(object), std::end(object))));
}

TEST_F(CopyStatus, NotifiesOfAFailureToo) {
    deliver(message(14));
    EXPECT_EQ(notified_status, 14);
    EXPECT_FALSE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyWhenTheRowDoesNotAskForIt) {
    row.notifyOnCompletion = 2;
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyTwiceOfOneCopy) {
    deliver();
    trap_names.clear();
    deliver();
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyOfARowThatStaysInProgress) {
    deliver(message(1));
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyOfAnUnknownRow) {
    row_exists = false;
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyWhenTheModuleSaysNotTo) {
    send_wanted = false;
    deliver();
    EXPECT_EQ(notified_status, 2);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, IsDeliveredWithoutATraceOfThePlatformsOwnLook) {
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(traced, 0);
    get_row(&row);
    EXPECT_GT(traced, 0) << "tracing is off for good";
}

using LostCopy = CopyStatus;

TEST_F(LostCopy, CompletesItsRowAsAFailedTransferAndNotifies) {
    ruma::report_lost_copy({7, {100, 5}}, 1234, module);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(delivered_index, 7);
    EXPECT_EQ(delivered_pid, 1234);
    EXPECT_EQ(row.copyStatus, 14);
    EXPECT_EQ(notified_status, 14);
    EXPECT_FALSE(trap_names.empty());
    EXPECT_EQ(traced, 0);
}

TEST_F(LostCopy, CompletesItsRowWhenItsWorkerCouldNotBeForked) {
    ruma::report_lost_copy({7, {100, 5}}, -1, module);
    EXPECT_EQ(delivered_index, 7);
    EXPECT_EQ(delivered_pid, -1);
    EXPECT_EQ(row.copyStatus, 14);
}

TEST_F(LostCopy, ReachesTheModuleOnceHoweverOftenItRegistered) {
    snmp_register_callback(0, 11, take_status, nullptr);
    ruma::report_lost_copy({7, {100, 5}}, 1234, module);
    EXPECT_EQ(calls, 1);
}

// Its worker is handed over to be reaped, under an index that no row has.
TEST_F(LostCopy, LeavesItsRowAloneWhenThatIsGoneOverOrAnothers) {
    const struct {
        bool exists;
        int32_t status;
        flashTimestamp start;
    } cases[] = {
        {false, 1, {100, 5}}, {true, 2, {100, 5}}, {true, 17, {100, 5}},
        {true, 1, {100, 6}},  {true, 1, {101, 5}},
    };
    for (const auto &each : cases) {
        row_exists = each.exists;
        row.copyStatus = each.status;
        row.startTimestamp = each.start;
        calls = 0;
        ruma::report_lost_copy({7, {100, 5}}, 1234, module);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(delivered_index, 0);
        EXPECT_EQ(delivered_pid, 1234);
        EXPECT_EQ(row.copyStatus, each.status);
        EXPECT_TRUE(trap_names.empty());
    }
}

TEST_F(LostCopy, IsNoMatterWithoutARowAndAWorker) {
    row_exists = false;
    ruma::report_lost_copy({7, {100, 5}}, -1, module);
    EXPECT_EQ(calls, 0);
}

TEST_F(CopyStatus, ReachesAModuleThatBuildsNoNotifications) {
    pmb_message made = message();
    EXPECT_TRUE(ruma::deliver_copy_status(made, {}));
    EXPECT_EQ(calls, 1);
}

} // namespace
