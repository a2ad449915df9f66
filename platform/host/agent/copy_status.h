// The end of a copy in the agent: the worker's status message is handed to the module, and the
// station is notified.
#ifndef RUMA_HOST_AGENT_COPY_STATUS_H
#define RUMA_HOST_AGENT_COPY_STATUS_H

#include "pmb/message.h"

#include <flash_records.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace ruma {

constexpr uint32_t copy_status_node = 0xfe000000;
constexpr uint32_t copy_status_sap = 28;
constexpr uint32_t copy_status_opcode = 7786;

// The library callback that hands a status message to the module.
constexpr int copy_status_major = SNMP_CALLBACK_LIBRARY;
constexpr int copy_status_minor = 11;

constexpr int32_t copy_in_progress = 1; // a row's copy status
constexpr int32_t copy_failed = 14;     // as a lost worker's row has it

// What the agent needs of the module; each may be null.
struct CopyModule {
    int32_t (*get_row)(flashCopyEntry *row);
    netsnmp_variable_list *(*build_notification)(const pmb_message *message, oid *id,
                                                 std::size_t *id_length, int *send);
    int32_t (*get_next_row)(flashCopyEntry *row);
    const int32_t *last_worker; // what the module's last fork returned
    int32_t (*get_delete_row)(flashMiscOpEntry *row);
};

// One start of a copy: a row that was destroyed and created again has another one.
struct CopyStart {
    int32_t row;
    flashTimestamp time;

    bool operator==(const CopyStart &other) const {
        return row == other.row && time.seconds == other.time.seconds &&
               time.microseconds == other.time.microseconds;
    }
};

// Finds the module behind the registered callbacks.
CopyModule find_copy_module();

// Reads a row by its index, with tracing off. False when there is none.
bool read_row(const CopyModule &module, int32_t index, flashCopyEntry &row);
bool read_row(const CopyModule &module, int32_t index, flashMiscOpEntry &row);

// The start that a row stands for.
inline CopyStart start_of(const flashCopyEntry &row) { return {row.index, row.startTimestamp}; }

// The status that a status message carries, as the module records it.
int32_t status_of(const pmb_message &message);

// Tells whether a received message is a status message of the process that it names.
bool is_copy_status(const pmb_message &message);

// Tells whether a process is a child of this one that has not been reaped. Reaps nothing.
bool is_child(pid_t pid);

// Leaves one registration of each callback: a module that was loaded again has registered again.
void remove_duplicate_callbacks();

// Raises the callback with a status message, once for each receiver, and sends the notification
// when the message has completed a row that asks for it. Returns false when nobody has registered.
// May block as the module's callback does.
bool deliver_copy_status(pmb_message &message, const CopyModule &module);

// Tells whether the row of a start is there, but is another one by now: created anew, or started
// once more.
bool is_another_by_now(const CopyStart &start, const CopyModule &module);

// Has a worker's message complete no row: the module then only reaps the worker.
void disown(pmb_message &message);

// Tells whether a start's row is there and still in progress since that start.
bool is_in_progress(const CopyStart &start, const CopyModule &module);

// Stands in for the status message of a worker that ended without one, or was never forked (0 or
// less): the start's row, if it is still in progress since, is completed as a failed transfer and
// notified; the module reaps the worker in any case. Blocks no longer than the module's callback,
// which finds the worker dead.
void report_lost_copy(const CopyStart &start, pid_t worker, const CopyModule &module);

// Sends the status message of a failed transfer, as the worker that this process is. May block as
// pmb_send. Without a receiver nothing is sent.
void report_own_failure(int32_t row);

} // namespace ruma

#endif
