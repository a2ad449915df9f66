#include "orvex_flash_mib.h"

#include "flash_answer.h"
#include "flash_codes.h"
#include "flash_copy.h"
#include "flash_inventory.h"
#include "flash_root.h"
#include "flash_rows.h"
#include "flash_trace.h"
#include "ruma/evwrap.h"
#include "ruma/syserr.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <net-snmp/agent/util_funcs/header_generic.h>
#include <unistd.h>

using namespace flash;

oid orvex_flash_mib_variables_oid[orvexFlashRootLength] = {ORVEX_FLASH_ROOT};

namespace {

constexpr u_short ro = NETSNMP_OLDAPI_RONLY;
constexpr u_short rw = NETSNMP_OLDAPI_RWRITE;

} // namespace

// Magic, type, access, handler, arcs of the suffix, suffix; ascending. The handlers come in three
// families: the scalar's own; the inventory's, which ask the file-system daemon; the writable
// tables', which look into the row stores and offer a write method.
struct variable7 orvex_flash_mib_variables[orvexFlashObjects] = {
    // clang-format off
    {magicScalar, ASN_UNSIGNED, ro, get_orvex_flash_mib, 3, {1, 1, 1}},
    // Devices. Columns 9 to 13 are registered and never answered, deliberately.
    {magicDeviceSize, ASN_UNSIGNED, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 2}},
    {magicDeviceFree, ASN_UNSIGNED, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 3}},
    {magicDeviceBlockSize, ASN_UNSIGNED, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 4}},
    {magicDevicePartitions, ASN_UNSIGNED, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 5}},
    {magicDevicePresent, ASN_INTEGER, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 6}},
    {magicDeviceName, ASN_OCTET_STR, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 7}},
    {magicDeviceDescr, ASN_OCTET_STR, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 8}},
    {magicDeviceReserved9, ASN_OCTET_STR, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 9}},
    {magicDeviceReserved10, ASN_OBJECT_ID, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 10}},
    {magicDeviceReserved11, ASN_INTEGER, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 11}},
    {magicDeviceReserved12, ASN_TIMETICKS, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 12}},
    {magicDeviceReserved13, ASN_INTEGER, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 13}},
    {magicDeviceCapacity, ASN_COUNTER64, ro, get_orvexFlashDeviceTable, 5, {1, 1, 2, 1, 16}},
    // Partitions.
    {magicPartitionState, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 2}},
    {magicPartitionFsType, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 3}},
    {magicPartitionSize, ASN_UNSIGNED, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 4}},
    {magicPartitionFree, ASN_UNSIGNED, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 5}},
    {magicPartitionBlockSize, ASN_UNSIGNED, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 6}},
    {magicPartitionFiles, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 7}},
    {magicPartitionMaxNameLength, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 8}},
    {magicPartitionPercentUsed, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 9}},
    {magicPartitionName, ASN_OCTET_STR, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 10}},
    {magicPartitionFormatRequired, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 11}},
    {magicPartitionWriteAccess, ASN_INTEGER, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 12}},
    {magicPartitionCapacity, ASN_COUNTER64, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 13}},
    {magicPartitionFreeCapacity, ASN_COUNTER64, ro, get_orvexFlashPartitionTable, 6, {1, 1, 4, 1, 1, 14}},
    // Files.
    {magicFileSize, ASN_UNSIGNED, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 2}},
    {magicFileName, ASN_OCTET_STR, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 3}},
    {magicFileStatus, ASN_INTEGER, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 4}},
    {magicFilePath, ASN_OCTET_STR, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 5}},
    {magicFileType, ASN_INTEGER, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 6}},
    {magicFileModified, ASN_OCTET_STR, ro, get_orvexFlashFileTable, 7, {1, 1, 4, 2, 1, 1, 7}},
    // Copy rows.
    {magicCopyCommand, ASN_INTEGER, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 2}},
    {magicCopyProtocol, ASN_INTEGER, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 3}},
    {magicCopyServerAddress, ASN_IPADDRESS, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 4}},
    {magicCopySourceName, ASN_OCTET_STR, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 5}},
    {magicCopyDestinationName, ASN_OCTET_STR, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 6}},
    {magicCopyRemoteUserName, ASN_OCTET_STR, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 7}},
    {magicCopyStatus, ASN_INTEGER, ro, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 8}},
    {magicCopyNotifyOnCompletion, ASN_INTEGER, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 9}},
    {magicCopyTime, ASN_TIMETICKS, ro, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 10}},
    {magicCopyEntryStatus, ASN_INTEGER, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 11}},
    {magicCopyPassword, ASN_OCTET_STR, rw, get_orvexFlashCopyTable, 5, {1, 2, 1, 1, 12}},
    // Misc-operation rows.
    {magicMiscOpCommand, ASN_INTEGER, rw, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 2}},
    {magicMiscOpDestinationName, ASN_OCTET_STR, rw, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 3}},
    {magicMiscOpStatus, ASN_INTEGER, ro, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 4}},
    {magicMiscOpNotifyOnCompletion, ASN_INTEGER, rw, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 5}},
    {magicMiscOpTime, ASN_TIMETICKS, ro, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 6}},
    {magicMiscOpEntryStatus, ASN_INTEGER, rw, get_orvexFlashMiscOpTable, 5, {1, 2, 3, 1, 7}},
    // clang-format on
};

int32_t mypipe[2] = {-1, -1};
int32_t pipe_status;
std::FILE *write_stream;
std::FILE *read_stream;

namespace {

constexpr const char *moduleName = "orvex_flash_mib";
constexpr std::size_t errorTextLimit = 200;

snmp_error_record errorRecord;
static_assert(sizeof errorRecord == 472);
static_assert(sizeof errorRecord.text > errorTextLimit);

void report_registration_failure() {
    constexpr const char *header = "%s(): %s, %d:\n";
    constexpr const char *text = "%s registration failed\n";
    // The line that has always been reported, wherever the call stands now.
    constexpr int line = 3027;
    debugmsgtoken("trace", header, "init_orvex_flash_mib", "platform/apps/flash/orvex_flash_mib",
                  line);
    debugmsg("trace", header, "init_orvex_flash_mib", "platform/apps/flash/orvex_flash_mib", line);
    debugmsgtoken("register_mib", text, moduleName);
    debugmsg("register_mib", text, moduleName);
}

// A reload of the agent's configuration starts the module again in the same process.
void close_former_pipe() {
    std::FILE **const streams[] = {&read_stream, &write_stream}; // in the order of mypipe
    for (int end = 0; end < 2; end++) {
        if (*streams[end] != nullptr)
            std::fclose(*streams[end]);
        else if (mypipe[end] >= 0)
            close(mypipe[end]);
        *streams[end] = nullptr;
        mypipe[end] = -1;
    }
}

void create_pipe() {
    constexpr const char *failed = "Could not open the pipe\n";
    if (pipe(mypipe) != 0) {
        std::fputs(failed, stderr);
        flash_trace(traceDebug, "%s", failed);
        pipe_status = pipeFailed;
        return;
    }
    for (const int descriptor : mypipe)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    pipe_status = pipeCreated;
    flash_trace(traceDebug, "mypipe[0]=%d and mypipe[1]=%d\n", mypipe[0], mypipe[1]);
}

} // namespace

void init_orvex_flash_mib(void) {
    // A failure does not stop the start: the pipe exists even if the objects do not.
    if (register_mib(moduleName, reinterpret_cast<struct variable *>(orvex_flash_mib_variables),
                     sizeof(struct variable7), orvexFlashObjects, orvex_flash_mib_variables_oid,
                     orvexFlashRootLength) != MIB_REGISTERED_OK &&
        snmp_get_do_debugging())
        report_registration_failure();

    snmp_register_callback(statusCallbackMajor, statusCallbackMinor, handle_flash_copy_status,
                           nullptr);

    close_former_pipe();
    create_pipe();
    write_stream = fdopen(mypipe[1], "w");
    if (write_stream == nullptr) {
        flash_trace(traceDebug, "Could not open the stream for writing; ERRNO=%d\n", errno);
        return;
    }
    read_stream = fdopen(mypipe[0], "r");
    if (read_stream == nullptr) {
        flash_trace(traceDebug, "Could not open the stream for reading; ERRNO=%d\n", errno);
        return;
    }
    flash_trace(traceDebug, "Read and Write Streams are OPEN.\n");
}

void deinit_orvex_flash_mib(void) {
    flash_trace(traceDebug, "DEBUG : ENTER %s \n", "deinit_orvex_flash_mib");
    // The stock agent registers each row as a subtree of its own and knows nothing at the root.
    if (unregister_mib(orvex_flash_mib_variables_oid, orvexFlashRootLength) !=
        MIB_UNREGISTERED_OK) {
        for (const struct variable7 &object : orvex_flash_mib_variables) {
            oid name[orvexFlashRootLength + std::size(variable7{}.name)];
            std::memcpy(name, orvex_flash_mib_variables_oid, sizeof orvex_flash_mib_variables_oid);
            std::memcpy(name + orvexFlashRootLength, object.name, object.namelen * sizeof(oid));
            unregister_mib(name, orvexFlashRootLength + object.namelen);
        }
    }
    flash_trace(traceDebug, "DEBUG : EXIT %s \n", "deinit_orvex_flash_mib");
}

u_char *get_orvex_flash_mib(struct variable *vp, oid *name, size_t *length, int exact,
                            size_t *var_len, WriteMethod **write_method) {
    static int32_t value;
    if (header_generic(vp, name, length, exact, var_len, write_method) == MATCH_FAILED)
        return nullptr;
    if (vp->magic != magicScalar)
        return answer_unserved();
    value = 1;
    return answer_word(value, var_len);
}

int flash_log_snmp_error(int32_t code) {
    return log_snmp_error(&fill_error_record(code, ErrorRecord::clear));
}

const snmp_error_record &flash::fill_error_record(int32_t code, ErrorRecord before) {
    if (before == ErrorRecord::clear)
        std::memset(&errorRecord, 0, sizeof errorRecord);
    errorRecord.code = code;
    const char *text = syserr_format(code);
    const std::size_t length = strnlen(text, errorTextLimit);
    std::memcpy(errorRecord.text, text, length);
    errorRecord.text[length] = '\0';
    errorRecord.text[errorTextLimit] = '\0';
    return errorRecord;
}

void flash::flash_trace(TraceSubtype subtype, const char *format, ...) {
    constexpr uint32_t traceId = 0x730000;
    struct {
        int32_t subtype;
        char text[512];
    } record;
    const int savedErrno = errno;
    va_list arguments;

    if (evwrap_hist_event_subtype_check(traceId, static_cast<uint32_t>(subtype))) {
        va_start(arguments, format);
        const int wanted = std::vsnprintf(record.text, sizeof record.text, format, arguments);
        va_end(arguments);
        if (wanted >= 0) {
            record.subtype = subtype;
            const auto bytes = sizeof record.subtype + std::strlen(record.text) + 1;
            evwrap_hist_event(traceId, &record, static_cast<uint32_t>(bytes));
        }
    }
    if (evwrap_chk_int(subtype, 0, 0, 1)) {
        va_start(arguments, format);
        dbgout(1, evwrap_dbg_modname, format, arguments);
        va_end(arguments);
    }
    errno = savedErrno;
}
