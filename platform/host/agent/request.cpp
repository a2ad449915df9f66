#include "agent/request.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/snmp_transport.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// FNV-1a, over fields one after the other.
class Digest {
  public:
    void add(const void *bytes, size_t size) {
        const auto *octets = static_cast<const unsigned char *>(bytes);
        for (size_t i = 0; i < size; ++i)
            value_ = (value_ ^ octets[i]) * 16777619U;
    }
    template <typename Value>
    void add(const Value &value) {
        add(&value, sizeof value);
    }
    // With its length first, so that where one field ends and the next begins makes a difference.
    void add_field(const void *bytes, size_t size) {
        if (bytes == nullptr)
            size = 0;
        add(size);
        add(bytes, size);
    }
    // Positive.
    int32_t result() const {
        const auto folded = static_cast<int32_t>((value_ ^ value_ >> 31) & 0x7FFFFFFF);
        return folded == 0 ? 1 : folded;
    }

  private:
    uint32_t value_ = 2166136261U;
};

// The far end of an IP transport alone: what the agent keeps beside it says through which interface
// a packet came.
bool add_ip_address(Digest &digest, const netsnmp_pdu &pdu) {
    netsnmp_indexed_addr_pair ends;
    if (pdu.transport_data == nullptr ||
        static_cast<size_t>(pdu.transport_data_length) != sizeof ends)
        return false;
    std::memcpy(&ends, pdu.transport_data, sizeof ends);
    switch (ends.remote_addr.sa.sa_family) {
    case AF_INET:
        digest.add(ends.remote_addr.sin.sin_addr);
        digest.add(ends.remote_addr.sin.sin_port);
        return true;
    case AF_INET6:
        digest.add(ends.remote_addr.sin6.sin6_addr);
        digest.add(ends.remote_addr.sin6.sin6_port);
        digest.add(ends.remote_addr.sin6.sin6_scope_id);
        return true;
    default:
        return false;
    }
}

// Agent sessions are no use as an id: the agent serves all managers of an endpoint in one.
int32_t session_of(const netsnmp_pdu &pdu) {
    Digest digest;
    if (pdu.version == SNMP_VERSION_3) {
        digest.add_field(pdu.contextEngineID, pdu.contextEngineIDLen);
        digest.add_field(pdu.contextName, pdu.contextNameLen);
        digest.add_field(pdu.securityName, pdu.securityNameLen);
    } else {
        digest.add_field(pdu.tDomain, pdu.tDomainLen * sizeof(oid));
        if (!add_ip_address(digest, pdu))
            digest.add_field(pdu.transport_data, static_cast<size_t>(pdu.transport_data_length));
    }
    return digest.result();
}

struct Requester {
    char user[256];
    int32_t session;
    bool known; // there is a request
};

Requester checked;

void fill(Requester &requester, const netsnmp_pdu &pdu) {
    requester = {};
    requester.known = true;
    requester.session = session_of(pdu);
    // The other versions carry a community, which is no user.
    if (pdu.version == SNMP_VERSION_3 && pdu.securityName != nullptr)
        std::memcpy(requester.user, pdu.securityName,
                    std::min(pdu.securityNameLen, sizeof requester.user - 1));
}

// While a write method runs, the agent says itself which request it is for. This matters when a
// request has waited for a subagent: others were checked meanwhile.
const Requester &requester() {
    const netsnmp_agent_session *session = netsnmp_get_current_agent_session();
    if (session == nullptr || session->pdu == nullptr)
        return checked;
    static Requester writer;
    fill(writer, *session->pdu);
    return writer;
}

// A writable table: its entry's name, to which a column and the row are added.
struct WritableTable {
    ruma::RowTable table;
    oid entry[13];
};
constexpr WritableTable writable_tables[] = {
    {ruma::RowTable::copy, {1, 3, 6, 1, 4, 1, ORVEX_ENTERPRISE_NUMBER, 1, 1, 1, 2, 1, 1}},
    {ruma::RowTable::misc_op, {1, 3, 6, 1, 4, 1, ORVEX_ENTERPRISE_NUMBER, 1, 1, 1, 2, 3, 1}},
};
constexpr int max_variables = 64;

// The row of a writable table that a variable lies in; of no table where it is none of them.
ruma::TracedRow row_of(const netsnmp_variable_list &variable) {
    for (const auto &[table, entry] : writable_tables) {
        if (variable.name_length == std::size(entry) + 2 &&
            std::equal(std::begin(entry), std::end(entry), variable.name))
            return {table, static_cast<uint32_t>(variable.name[std::size(entry) + 1])};
    }
    return {};
}

} // namespace

namespace ruma {

void enter_request(const netsnmp_pdu &pdu) { fill(checked, pdu); }

void leave_request() { checked = {}; }

bool serving_request() { return requester().known; }

TracedRow row_of_request() {
    const netsnmp_agent_session *session = netsnmp_get_current_agent_session();
    if (session == nullptr || session->pdu == nullptr)
        return {};
    TracedRow found;
    int count = 0;
    for (const auto *variable = session->pdu->variables; variable != nullptr;
         variable = variable->next_variable) {
        const TracedRow row = row_of(*variable);
        const bool another = found.table != RowTable::none && !(row == found);
        if (++count > max_variables || (row.table != RowTable::none && another))
            return {};
        if (row.table != RowTable::none)
            found = row;
    }
    return found;
}

} // namespace ruma

extern "C" {

const char *get_snmp_username(int) { return requester().user; }

int32_t get_snmp_sessionid(int) { return requester().session; }
}
