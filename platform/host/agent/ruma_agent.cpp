// The loadable module that makes the stock agent the device's agent: it receives the copy workers'
// status messages and knows whose request is being served.
//
// Everything is set up once per process and stays. SIGHUP makes the agent unload and load its
// modules, but this one is never unmapped, and callbacks, alarms and read descriptors outlive the
// reload: a message that arrives meanwhile waits in the socket.
#include "agent/copy_status.h"
#include "agent/flash_directories.h"
#include "agent/request.h"
#include "cmi/peer.h"
#include "config/config.h"
#include "config/run_directory.h"
#include "pmb/receiver.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <net-snmp/agent/agent_registry.h>

#include <net-snmp/library/fd_event_manager.h>

#include <cinttypes>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int max_messages_per_event = 16;
constexpr unsigned int log_interval = 10;  // seconds
constexpr unsigned int retry_interval = 2; // seconds

// Never destroyed: the agent's loop may still call while the process ends.
ruma::PmbReceiver &receiver = *new ruma::PmbReceiver;
uint64_t refused;  // messages from the right user that are no status message
uint64_t strange;  // status messages of processes that are no children of the agent
uint64_t unwanted; // status messages while no module was there to take them
uint64_t logged;   // dropped messages that the log knows of
bool log_alarm_pending;
bool leave_alarm_pending;
unsigned int retry_alarm; // 0 while none is registered

uint64_t dropped() { return receiver.counters().dropped() + refused + strange + unwanted; }

// Logs the drops that the log does not know of, at once for the first of a burst and then once per
// interval until it is over.
void log_drops(unsigned int, void *) {
    log_alarm_pending = false;
    if (dropped() == logged)
        return;
    logged = dropped();
    const ruma::PmbCounters &counters = receiver.counters();
    snmp_log(LOG_WARNING,
             "ruma_agent: messages dropped so far: %" PRIu64 " of other users, %" PRIu64
             " malformed, %" PRIu64 " too long, %" PRIu64 " not a copy status, %" PRIu64
             " not of a child of the agent, %" PRIu64 " without a module\n",
             counters.foreign, counters.malformed, counters.truncated, refused, strange, unwanted);
    log_alarm_pending = snmp_alarm_register(log_interval, 0, log_drops, nullptr) != 0;
}

void receive_messages(int, void *) {
    ruma::leave_request();
    pmb_message message;
    for (int i = 0; i < max_messages_per_event && receiver.receive(message); ++i) {
        if (!ruma::is_copy_status(message))
            ++refused;
        else if (!ruma::is_child(message.sender_pid))
            ++strange;
        else if (!ruma::deliver_copy_status(message, ruma::find_copy_module()))
            ++unwanted;
    }
    if (dropped() != logged && !log_alarm_pending)
        log_drops(0, nullptr);
}

void request_over(unsigned int, void *) {
    leave_alarm_pending = false;
    ruma::leave_request();
}

// The agent announces the beginning of a request by its access check, but not the end. An alarm
// that is due at once runs when the agent is back in its loop.
int access_checked(int, int, void *parameters, void *) {
    const auto *view = static_cast<const view_parameters *>(parameters);
    if (view == nullptr || view->pdu == nullptr)
        return 0;
    ruma::enter_request(*view->pdu);
    if (!leave_alarm_pending) {
        const timeval at_once{0, 1};
        leave_alarm_pending = snmp_alarm_register_hr(at_once, 0, request_over, nullptr) != 0;
    }
    return 0;
}

void register_access_checks() {
    static bool registered;
    if (registered)
        return;
    // The first is the check at the beginning of each request, the second that of each variable.
    for (const int check : {SNMPD_CALLBACK_ACM_CHECK_INITIAL, SNMPD_CALLBACK_ACM_CHECK}) {
        if (snmp_register_callback(SNMP_CALLBACK_APPLICATION, check, access_checked, nullptr) !=
            SNMPERR_SUCCESS)
            snmp_log(LOG_ERR, "ruma_agent: cannot watch the access checks\n");
    }
    registered = true;
}

// Throws std::exception with the reason when messages cannot be received.
void open_receiver() {
    ruma::prepare_run_dir(ruma::run_dir(), ruma::agent_user_number(ruma::config().agent_user));
    const int error = receiver.open(ruma::copy_status_node, ruma::copy_status_sap);
    if (error != 0)
        throw std::system_error(
            error, std::generic_category(),
            ruma::pmb_socket_path(ruma::copy_status_node, ruma::copy_status_sap));
    if (register_readfd(receiver.descriptor(), receive_messages, nullptr) != FD_REGISTERED_OK) {
        receiver.close();
        throw std::runtime_error("the agent does not watch the message socket");
    }
}

// Opens the receiver, or keeps trying: without it no copy ever completes.
void start_receiving(unsigned int, void *) {
    if (receiver.descriptor() < 0) {
        try {
            open_receiver();
        } catch (const std::exception &error) {
            if (retry_alarm == 0) {
                snmp_log(LOG_ERR, "ruma_agent: cannot receive messages yet: %s\n", error.what());
                retry_alarm =
                    snmp_alarm_register(retry_interval, SA_REPEAT, start_receiving, nullptr);
            }
            return;
        }
    }
    if (retry_alarm != 0) {
        snmp_alarm_unregister(retry_alarm);
        retry_alarm = 0;
        snmp_log(LOG_WARNING, "ruma_agent: receives messages now\n");
    }
}

} // namespace

extern "C" {

// Entry points of the agent's module loader.
__attribute__((visibility("default"))) void init_ruma_agent();
__attribute__((visibility("default"))) void deinit_ruma_agent();

void init_ruma_agent() {
    register_access_checks();
    // Reads the configuration while the agent still has the rights that it starts with, and makes
    // the run directory before the modules that come later open the event history in it.
    start_receiving(0, nullptr);
    ruma::warn_of_writable_directories();
}

void deinit_ruma_agent() {}
}
