#include "agent/copy_status.h"

#include "evwrap/quiet.h"
#include "evwrap/row.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ruma {
namespace {

constexpr int32_t notify_wanted = 1;
constexpr int32_t found = 0;
constexpr int32_t no_row = 0; // an index that no row has
constexpr oid snmp_trap_oid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

// The payload of a status message.
struct CopyStatus {
    int32_t status;
    int32_t index;
    int32_t pid;
};
static_assert(sizeof(CopyStatus) == 12);

CopyStatus payload_of(const pmb_message &message) {
    CopyStatus status{};
    std::memcpy(&status, message.payload, sizeof status);
    return status;
}

template <typename Row>
bool read(int32_t (*get)(Row *), int32_t index, Row &row) {
    const QuietTracing quiet;
    row = {};
    row.index = index;
    return get != nullptr && get(&row) == found;
}

void send_notification(const CopyModule &module, int32_t status) {
    if (module.build_notification == nullptr)
        return;
    const uint32_t payload = htonl(static_cast<uint32_t>(status));
    const pmb_message message = pmb_make_message(copy_status_node, copy_status_sap,
                                                 copy_status_opcode, &payload, sizeof payload);
    oid id[MAX_OID_LEN] = {};
    std::size_t id_length = 0;
    int send = 0;
    netsnmp_variable_list *bindings = module.build_notification(&message, id, &id_length, &send);
    netsnmp_variable_list *list = nullptr;
    if (send != 0 && bindings != nullptr && id_length > 0 && id_length <= MAX_OID_LEN &&
        snmp_varlist_add_variable(&list, snmp_trap_oid, OID_LENGTH(snmp_trap_oid), ASN_OBJECT_ID,
                                  id, id_length * sizeof(oid)) != nullptr) {
        list->next_variable = bindings;
        bindings = nullptr;
        send_v2trap(list);
    }
    snmp_free_varbind(list);
    snmp_free_varbind(bindings);
}

// The first registration that has an equal one after it.
const snmp_gen_callback *first_duplicate() {
    for (const auto *a = snmp_callback_list(copy_status_major, copy_status_minor); a != nullptr;
         a = a->next) {
        for (const auto *b = a->next; b != nullptr; b = b->next) {
            if (a->sc_callback == b->sc_callback && a->sc_client_arg == b->sc_client_arg)
                return a;
        }
    }
    return nullptr;
}

} // namespace

bool read_row(const CopyModule &module, int32_t index, flashCopyEntry &row) {
    return read(module.get_row, index, row);
}

bool read_row(const CopyModule &module, int32_t index, flashMiscOpEntry &row) {
    return read(module.get_delete_row, index, row);
}

int32_t status_of(const pmb_message &message) {
    const int32_t status = payload_of(message).status;
    return status == 0 ? copy_failed : status;
}

CopyModule find_copy_module() {
    CopyModule module{};
    for (const auto *callback = snmp_callback_list(copy_status_major, copy_status_minor);
         callback != nullptr && module.get_row == nullptr; callback = callback->next) {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void *>(callback->sc_callback), &info) == 0)
            continue;
        void *handle = dlopen(info.dli_fname, RTLD_NOLOAD | RTLD_NOW);
        if (handle == nullptr)
            continue;
        module.get_row =
            reinterpret_cast<decltype(module.get_row)>(dlsym(handle, "getFlashCopyEntry"));
        module.get_next_row =
            reinterpret_cast<decltype(module.get_next_row)>(dlsym(handle, "getnextFlashCopyEntry"));
        module.last_worker = static_cast<const int32_t *>(dlsym(handle, "flash_copy_pid"));
        module.get_delete_row =
            reinterpret_cast<decltype(module.get_delete_row)>(dlsym(handle, "getFlashMiscOpEntry"));
        module.build_notification = reinterpret_cast<decltype(module.build_notification)>(
            dlsym(handle, "handle_notifications"));
        // Only the reference that was just taken; the module stays loaded.
        dlclose(handle);
    }
    return module;
}

bool is_copy_status(const pmb_message &message) {
    if (message.opcode != copy_status_opcode || message.length != sizeof(CopyStatus))
        return false;
    const int32_t pid = payload_of(message).pid;
    return pid > 0 && pid == message.sender_pid;
}

bool is_child(pid_t pid) {
    siginfo_t info{};
    return pid > 0 &&
           (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 ||
            errno != ECHILD);
}

void remove_duplicate_callbacks() {
    while (const snmp_gen_callback *duplicate = first_duplicate()) {
        // Unregistering takes all equal ones, and this one with them.
        const snmp_gen_callback kept = *duplicate;
        if (snmp_unregister_callback(copy_status_major, copy_status_minor, kept.sc_callback,
                                     kept.sc_client_arg, 1) == 0)
            return;
        netsnmp_register_callback(copy_status_major, copy_status_minor, kept.sc_callback,
                                  kept.sc_client_arg, kept.priority);
    }
}

bool deliver_copy_status(pmb_message &message, const CopyModule &module) {
    remove_duplicate_callbacks();
    if (snmp_callback_list(copy_status_major, copy_status_minor) == nullptr)
        return false;
    const int32_t index = payload_of(message).index;
    const RowScope about(
        {index == no_row ? RowTable::none : RowTable::copy, static_cast<uint32_t>(index)});
    flashCopyEntry row;
    const bool running = read_row(module, index, row) && row.copyStatus == copy_in_progress;
    snmp_call_callbacks(copy_status_major, copy_status_minor, &message);
    // A second message for a row, or one for a row that is gone, completes nothing.
    if (running && read_row(module, index, row) && row.copyStatus != copy_in_progress &&
        row.notifyOnCompletion == notify_wanted)
        send_notification(module, row.copyStatus);
    return true;
}

bool is_another_by_now(const CopyStart &start, const CopyModule &module) {
    flashCopyEntry row;
    return read_row(module, start.row, row) && !(start_of(row) == start);
}

void disown(pmb_message &message) {
    CopyStatus status = payload_of(message);
    status.index = no_row;
    std::memcpy(message.payload, &status, sizeof status);
}

bool is_in_progress(const CopyStart &start, const CopyModule &module) {
    flashCopyEntry row;
    return read_row(module, start.row, row) && row.copyStatus == copy_in_progress &&
           start_of(row) == start;
}

void report_lost_copy(const CopyStart &start, pid_t worker, const CopyModule &module) {
    const CopyStatus status{copy_failed, is_in_progress(start, module) ? start.row : no_row,
                            worker};
    if (status.index == no_row && worker <= 0)
        return;
    pmb_message message = pmb_make_message(copy_status_node, copy_status_sap, copy_status_opcode,
                                           &status, sizeof status);
    deliver_copy_status(message, module);
}

void report_own_failure(int32_t row) {
    constexpr pmb_queue_attributes attributes{1, 0, 1024, 0, 0, 15};
    constexpr pmb_send_options options{{1}};
    const CopyStatus status{copy_failed, row, getpid()};
    const int handle = pmb_bind(1, -1, &attributes, "flash_copy_task");
    pmb_send(handle, copy_status_node, copy_status_sap, copy_status_opcode, &status, sizeof status,
             &options);
    pmb_unbind(handle, 0);
}

} // namespace ruma
