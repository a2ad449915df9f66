#include "cmi/daemon_state.h"

#include "flash_codes.h"
#include "flash_records.h"
#include "ruma/cmi.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

#include <chrono>
#include <cstdlib>

namespace ruma {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds interval(10);

DaemonState current = DaemonState::unknown;
DaemonState logged = DaemonState::unknown;
std::time_t since;
Clock::time_point quiet_until;

bool is_well(DaemonState state) {
    return state == DaemonState::up || state == DaemonState::unknown;
}

void log_state(const std::string &detail) {
    switch (current) {
    case DaemonState::unknown:
        break;
    case DaemonState::up:
        if (!is_well(logged))
            snmp_log(LOG_WARNING, "ruma: fs_daemon answers again\n");
        break;
    case DaemonState::down:
        snmp_log(LOG_WARNING, "ruma: fs_daemon is down and the inventory empty: %s\n",
                 detail.c_str());
        break;
    case DaemonState::hung:
        snmp_log(LOG_WARNING, "ruma: fs_daemon does not answer and the inventory is empty\n");
        break;
    case DaemonState::refusing:
        snmp_log(LOG_WARNING, "ruma: fs_daemon refuses user %s\n", detail.c_str());
        break;
    case DaemonState::untrusted:
        snmp_log(LOG_WARNING, "ruma: fs_daemon runs as user %s\n", detail.c_str());
        break;
    }
}

} // namespace

bool daemon_has_a_device() {
    flashDeviceEntry key{};
    void *response = nullptr;
    uint32_t length = sizeof key;
    const int result = cmi_req_resp(flash::opcodeDevice, CMI_NEXT, &key, &response, &length,
                                    "ruma_host", 0, 0, 0, 0);
    std::free(response);
    return result == 0;
}

DaemonState daemon_state() { return current; }

std::time_t daemon_state_since() { return since; }

void note_daemon_state(DaemonState state, const std::string &detail) {
    if (state != current) {
        current = state;
        since = std::time(nullptr);
    }
    if (current == logged)
        return;
    const Clock::time_point now = Clock::now();
    if (!is_well(current)) {
        if (now < quiet_until)
            return;
        quiet_until = now + interval;
    }
    log_state(detail);
    logged = current;
}

} // namespace ruma
