// The loadable module that makes the stock agent the device's agent: it receives the copy workers'
// status messages, watches over the workers and knows whose request is being served.
//
// Everything is set up once per process and stays. SIGHUP makes the agent unload and load its
// modules, but this one is never unmapped, and callbacks, alarms and read descriptors outlive the
// reload: a message that arrives meanwhile waits in the socket.
#include "agent/confinement.h"
#include "agent/copy_reports.h"
#include "agent/copy_status.h"
#include "agent/flash_directories.h"
#include "agent/request.h"
#include "agent/row_watch.h"
#include "agent/workers.h"
#include "base/peer.h"
#include "base/presence.h"
#include "base/run_directory.h"
#include "config/config.h"
#include "evwrap/row.h"
#include "pmb/receiver.h"
#include "report/transfer_report.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <net-snmp/agent/agent_registry.h>

#include <net-snmp/library/fd_event_manager.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <pthread.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int max_messages_per_event = 16;
constexpr unsigned int log_interval = 10;  // seconds
constexpr unsigned int retry_interval = 2; // seconds; of the look after the socket too

// Never destroyed: the agent's loop may still call while the process ends.
ruma::PmbReceiver &receiver = *new ruma::PmbReceiver;
ruma::CopyWorkers &workers = *new ruma::CopyWorkers;
ruma::CopyReports &reports = *new ruma::CopyReports;
uint64_t refused;  // messages from the right user that are no status message
uint64_t strange;  // status messages of processes that are no workers, or have sent one
uint64_t unwanted; // status messages while no module was there to take them
uint64_t logged;   // dropped messages that the log knows of
bool log_alarm_pending;
bool leave_alarm_pending;
unsigned int retry_alarm;                // 0 while none is registered
unsigned int look_alarm;                 // likewise
std::optional<ruma::CopyStart> starting; // what the fork under way is the worker of
bool is_worker;                          // this process is one
int fork_error;                          // of the last fork of a worker, if it has failed

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
             " not of a worker, %" PRIu64 " without a module\n",
             counters.foreign, counters.malformed, counters.truncated, refused, strange, unwanted);
    log_alarm_pending = snmp_alarm_register(log_interval, 0, log_drops, nullptr) != 0;
}

// The worker has ended, or is one that nobody watches.
void deliver(pmb_message &message, const ruma::CopyModule &module) {
    const auto start = workers.start_of_worker(message.sender_pid);
    if (start) {
        if (ruma::is_another_by_now(*start, module))
            ruma::disown(message);
        // Before the worker is reaped: its process id may be another's afterwards.
        reports.ended(*start, message.sender_pid, ruma::status_of(message));
    }
    if (ruma::deliver_copy_status(message, module))
        workers.reported(message.sender_pid);
    else
        ++unwanted;
}

void receive_message(pmb_message &message, const ruma::CopyModule &module) {
    const pid_t sender = message.sender_pid;
    if (!ruma::is_copy_status(message)) {
        ++refused;
    } else if (workers.keep(message)) {
        workers.end_group(sender);
    } else if (!workers.start_of_worker(sender) && ruma::is_child(sender) &&
               module.last_worker != nullptr && sender == *module.last_worker) {
        deliver(message, module); // a worker for whose watch memory was missing
    } else {
        ++strange;
    }
}

// Receives what has arrived, up to a limit. Returns whether nothing is left.
bool receive_messages(const ruma::CopyModule &module) {
    pmb_message message;
    for (int i = 0; i < max_messages_per_event && receiver.receive(message); ++i)
        receive_message(message, module);
    if (dropped() != logged && !log_alarm_pending)
        log_drops(0, nullptr);
    return !receiver.waiting();
}

void take_leave_of(const ruma::LostCopy &lost, const ruma::CopyModule &module) {
    reports.lost(lost.start, lost.worker, fork_error,
                 ruma::config().report_lost_workers ? ruma::copy_failed : ruma::copy_in_progress);
    if (ruma::config().report_lost_workers)
        ruma::report_lost_copy(lost.start, lost.worker, module);
}

void look(unsigned int, void *);

void look_after(std::chrono::microseconds wait) {
    if (look_alarm != 0)
        snmp_alarm_unregister(look_alarm);
    timeval interval{};
    interval.tv_sec = static_cast<decltype(interval.tv_sec)>(wait.count() / 1000000);
    interval.tv_usec = static_cast<decltype(interval.tv_usec)>(wait.count() % 1000000);
    look_alarm = snmp_alarm_register_hr(interval, 0, look, nullptr);
}

// One turn for messages and workers together: their order matters. A worker sends before it ends,
// so that its message, if there is one, is in the queue when its end has been seen.
void take_turn() {
    ruma::leave_request();
    try {
        const ruma::CopyModule module = ruma::find_copy_module();
        workers.settle(module);
        workers.note_ended();
        const bool all = receive_messages(module);
        for (pmb_message &message : workers.take_reports())
            deliver(message, module);
        if (all)
            for (const ruma::LostCopy &lost : workers.take_lost())
                take_leave_of(lost, module);
        if (const auto wait = workers.next_look())
            look_after(*wait);
    } catch (const std::bad_alloc &) {
        look_after(std::chrono::seconds(1));
    }
}

void look(unsigned int, void *) {
    look_alarm = 0;
    take_turn();
}

void descriptor_is_readable(int, void *) { take_turn(); }

// Runs in the process that forks, before the fork.
void before_fork() {
    starting.reset();
    // Only the agent's own thread serves requests.
    if (is_worker || gettid() != getpid())
        return;
    try {
        const ruma::CopyModule module = ruma::find_copy_module();
        starting = workers.before_fork(module);
        if (!starting)
            return;
        look_after(std::chrono::microseconds(1)); // when the request is over
        flashCopyEntry row;
        if (ruma::read_row(module, starting->row, row))
            reports.started(row, get_snmp_username(0));
    } catch (const std::bad_alloc &) {
        snmp_log(LOG_ERR, "ruma_agent: no memory to watch a worker\n");
    }
}

// Runs in the process that forked, also when that has failed, with its errno.
void after_fork() {
    if (starting)
        fork_error = errno;
}

// A worker runs commands that hold a station's words: one that cannot be confined as it was asked
// for transfers nothing. Whatever the module does next in this process, it does confined.
void confine_worker() {
    try {
        ruma::make_known_hosts_directory();
        ruma::confine(ruma::worker_confinement());
    } catch (const std::exception &error) {
        snmp_log(LOG_ERR, "ruma_agent: copy %" PRIu32 " fails, its worker cannot be confined: %s\n",
                 static_cast<uint32_t>(starting->row), error.what());
        ruma::report_cause({ruma::CauseKind::verdict, 0, "the worker cannot be confined", ""});
        ruma::report_own_failure(starting->row);
        _exit(EXIT_SUCCESS); // as workers do
    }
}

void after_fork_in_child() {
    if (!starting)
        return;
    is_worker = true;
    ruma::begin_transfer_report();
    ruma::set_process_row({ruma::RowTable::copy, static_cast<uint32_t>(starting->row)});
    if (ruma::config().confine_agent)
        confine_worker();
}

void log_confinement(const ruma::ConfinementState &state) {
    if (state.kind == ruma::ConfinementState::Kind::unavailable) {
        snmp_log(LOG_WARNING,
                 "ruma_agent: this kernel has no Landlock: the agent and the workers of "
                 "its copies are not confined\n");
        return;
    }
    snmp_log(LOG_INFO, "ruma_agent: confined by Landlock, version %d\n", state.abi);
    const std::string open = ruma::left_open(ruma::worker_confinement().denied, state.abi);
    if (!open.empty())
        snmp_log(LOG_WARNING, "ruma_agent: this kernel's Landlock leaves open to workers: %s\n",
                 open.c_str());
    if (state.threads)
        snmp_log(LOG_WARNING, "ruma_agent: other threads of the agent are not confined\n");
    for (const std::string &path : state.skipped)
        snmp_log(LOG_WARNING,
                 "ruma_agent: \"%s\" is the root directory, to which a confined agent "
                 "may not write\n",
                 path.c_str());
}

// An agent that cannot be confined serves on: its other tables do not matter less.
void confine_agent(unsigned int, void *) {
    try {
        log_confinement(ruma::confine(ruma::agent_confinement()));
    } catch (const std::exception &error) {
        snmp_log(LOG_ERR, "ruma_agent: the agent is not confined: %s\n", error.what());
    }
}

// Sockets and the pid file are made, and the rights of the start given up, after the modules have
// been loaded: the agent confines itself when it comes to its loop.
void confine_in_loop() {
    static bool pending;
    if (pending || !ruma::config().confine_agent)
        return;
    pending = true;
    const timeval at_once{0, 1};
    if (snmp_alarm_register_hr(at_once, 0, confine_agent, nullptr) == 0)
        snmp_log(LOG_ERR, "ruma_agent: the agent is not confined: no memory\n");
}

void watch_workers() {
    static bool watching;
    if (watching)
        return;
    watching = true;
    if (!ruma::watch_rows(reports, workers))
        snmp_log(LOG_ERR, "ruma_agent: cannot watch the requests\n");
    if (workers.open() != 0 || register_readfd(workers.descriptor(), descriptor_is_readable,
                                               nullptr) != FD_REGISTERED_OK) {
        workers.close();
        snmp_log(LOG_WARNING, "ruma_agent: looks after its workers once a second only\n");
    }
    if (pthread_atfork(before_fork, after_fork, after_fork_in_child) != 0)
        snmp_log(LOG_ERR, "ruma_agent: cannot watch workers\n");
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
    ruma::prepare_run_dir(ruma::run_dir(), ruma::configured_user_number(ruma::config().agent_user));
    const int error = receiver.open(ruma::copy_status_node, ruma::copy_status_sap);
    if (error != 0)
        throw std::system_error(
            error, std::generic_category(),
            ruma::pmb_socket_path(ruma::copy_status_node, ruma::copy_status_sap));
    if (register_readfd(receiver.descriptor(), descriptor_is_readable, nullptr) !=
        FD_REGISTERED_OK) {
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

// Makes the message socket again when somebody has taken it or the run directory away.
void look_after_socket(unsigned int, void *) {
    try {
        if (receiver.descriptor() < 0 || receiver.in_place())
            return;
        take_turn(); // what has arrived by the old one
        snmp_log(LOG_WARNING, "ruma_agent: the message socket has gone and is made again\n");
        unregister_readfd(receiver.descriptor());
        receiver.close();
        start_receiving(0, nullptr);
    } catch (const std::bad_alloc &) {
        // Looks again.
    }
}

void watch_socket() {
    static bool watching;
    if (!watching)
        watching = snmp_alarm_register(retry_interval, SA_REPEAT, look_after_socket, nullptr) != 0;
}

// Not whether it can be written: the agent may still be root, and its scripts say so themselves.
void warn_of_state_directory() {
    if (access(ruma::state_dir().c_str(), F_OK) != 0)
        snmp_log(LOG_WARNING,
                 "ruma_agent: %s: %s; known host keys are kept in %s, which a boot may clear\n",
                 ruma::state_dir().c_str(), strerror(errno), ruma::known_hosts_directory().c_str());
}

// Once, not after a reload: the module's registrations outlive it.
void notice_order() {
    static bool noticed;
    if (noticed)
        return;
    noticed = true;
    ruma::agent_module_is_there();
    if (snmp_callback_list(ruma::copy_status_major, ruma::copy_status_minor) != nullptr)
        snmp_log(LOG_WARNING, "ruma_agent: loaded after orvex_flash_mib: put its dlmod line before "
                              "that of orvex_flash_mib\n");
}

void agent_has_its_user(unsigned int, void *) {
    try {
        ruma::remove_leftover_reports();
        ruma::warn_of_closed_directories();
    } catch (const std::bad_alloc &) {
        snmp_log(LOG_ERR, "ruma_agent: no memory to look after its directories\n");
    }
}

} // namespace

extern "C" {

// Entry points of the agent's module loader.
__attribute__((visibility("default"))) void init_ruma_agent();
__attribute__((visibility("default"))) void deinit_ruma_agent();

// For whoever checks the installation.
__attribute__((visibility("default"))) extern const char ruma_agent_version[];
const char ruma_agent_version[] = RUMA_VERSION;

void init_ruma_agent() {
    notice_order();
    ruma::set_row_source(ruma::row_of_request);
    register_access_checks();
    watch_workers();
    // Reads the configuration while the agent still has the rights that it starts with, and makes
    // the run directory before the modules that come later open the event history in it.
    start_receiving(0, nullptr);
    watch_socket();
    ruma::warn_of_writable_directories();
    // The agent changes its user before its loop begins.
    const timeval at_once{0, 1};
    snmp_alarm_register_hr(at_once, 0, agent_has_its_user, nullptr);
    warn_of_state_directory();
    confine_in_loop();
}

void deinit_ruma_agent() {}
}
