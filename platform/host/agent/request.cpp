#include "agent/request.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <cstring>

namespace {

struct Requester {
    char user[256];
    int32_t session;
    bool known; // there is a request
};

Requester checked;

void fill(Requester &requester, const netsnmp_pdu &pdu) {
    requester = {};
    requester.known = true;
    requester.session = static_cast<int32_t>(pdu.sessid);
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

} // namespace

namespace ruma {

void enter_request(const netsnmp_pdu &pdu) { fill(checked, pdu); }

void leave_request() { checked = {}; }

bool serving_request() { return requester().known; }

} // namespace ruma

extern "C" {

const char *get_snmp_username(int) { return requester().user; }

int32_t get_snmp_sessionid(int) { return requester().session; }
}
