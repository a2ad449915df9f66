#include "flash_validate.h"

#include "flash_codes.h"
#include "flash_copy.h"
#include "flash_rows.h"
#include "flash_trace.h"
#include "orvex_flash_mib.h"
#include "ruma/agent.h"
#include "ruma/pmb.h"
#include "ruma/svcmgr.h"
#include "ruma/syserr.h"
#include "ruma/syslog.h"
#include "ruma/uri.h"

#include <cstdio>
#include <cstring>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

using namespace flash;

namespace {

constexpr const char *systemLogName = "log:messages";
constexpr const char *systemLogFile = "/var/log/external/messages";
constexpr const char *systemLogDump = "/var/tmp/intsyslog";

// Schemes that a copy accepts; a delete accepts all but the last.
constexpr const char *schemes[] = {"bootflash", "slot0", "logflash", "log"};
constexpr std::size_t copySchemes = 4;
constexpr std::size_t deleteSchemes = 3;

bool is_scheme(const char *token, std::size_t count) {
    for (std::size_t i = 0; i < count; i++)
        if (std::strcmp(token, schemes[i]) == 0)
            return true;
    return false;
}

// Copies a text, cut to what the field holds.
template <std::size_t Size>
void copy_text(char (&field)[Size], const char *text) {
    const std::size_t length = strnlen(text, Size - 1);
    std::memcpy(field, text, length);
    field[length] = '\0';
}

void trace_scheme(const char *scheme) {
    flash_trace(traceDebug, "Found a valid scheme name.\n");
    flash_trace(traceDebug, "Trying to print scheme name.\n");
    flash_trace(traceDebug, "scheme name is %s\n", scheme);
}

void trace_no_scheme(const char *operation) {
    flash_trace(traceError, "ERROR  %s : The Filename does NOT contain :\n", operation);
}

void trace_not_stored(const char *operation, int32_t index) {
    flash_trace(traceError, "ERROR  %s : Set to entry (index= %d) failed \n", operation, index);
}

// A local path as the resolvers fill it.
typedef char LocalPath[255];

int32_t resolve(const char *name, LocalPath &path) {
    std::memset(path, 0, sizeof path);
    const int32_t result = uriutil_uri_to_path(name, path, sizeof path, 0);
    path[sizeof path - 1] = '\0';
    return result;
}

int32_t validate_destination(flashCopyEntry *entry) {
    LocalPath path;
    flash_trace(traceDebug,
                "validate_filename: calling uriutil_uri_to_path for destination file=%s\n",
                entry->destinationName);
    if (resolve(entry->destinationName, path) != 0) {
        flash_trace(traceError, "uriutil_uri_to_path for destination returned ERROR.\n");
        return 0;
    }
    uriutil_stat status{};
    if (uriutil_stat_get(entry->destinationName, &status, 0) != 0) {
        flash_trace(traceDebug, "Adding a new file.\n");
    } else if (status.file_type == URIUTIL_TYPE_DIRECTORY) {
        flash_trace(traceError, "destination cannot be directory.\n");
        return 0;
    }
    copy_text(entry->destinationPath, path);
    flash_trace(traceDebug, "validate_filename: returning SUCCESS with dest filename=%s\n", path);
    return 1;
}

int32_t dump_system_log(flashCopyEntry *entry) {
    flash_trace(traceDebug, "validate_filename: want to copy a logfile.\n");
    syslog_dump_request request{};
    copy_text(request.user, get_snmp_username(0));
    request.session = get_snmp_sessionid(0);
    request.kind = SYSLOG_DUMP_PLAIN;
    if (syslog_disp_logfile(&request, systemLogFile, systemLogDump, 0, 0, 0) != 0) {
        flash_trace(traceError, "syslog_disp_logfile returned ERROR.\n");
        return 0;
    }
    copy_text(entry->sourcePath, systemLogDump);
    // Prints the destination although the source was set, deliberately.
    flash_trace(traceDebug, "Tring to print expandedDestFileName..\n");
    flash_trace(traceDebug, "expandedDestFileName is %s\n", entry->destinationPath);
    return 1;
}

int32_t validate_source(flashCopyEntry *entry) {
    if (std::strcmp(entry->sourceName, systemLogName) == 0)
        return dump_system_log(entry);

    LocalPath path;
    flash_trace(traceDebug, "validate_filename: calling uriutil_uri_to_path for source file=%s\n",
                entry->sourceName);
    if (resolve(entry->sourceName, path) != 0) {
        flash_trace(traceDebug, "uriutil_uri_to_path for source returned ERROR.\n");
        svcmgr_path core{};
        const int32_t result = svcmgrcmi_core_uri_to_path(pmb_response_q, entry->sourceName, &core);
        if (result != 0 && result != coreResolvedElsewhere) {
            flash_trace(traceError, "svcmgrcmi_core_uri_to_path for source returned ERROR (%x).\n",
                        static_cast<unsigned>(result));
            return 0;
        }
        core.text[sizeof core.text - 1] = '\0';
        copy_text(path, core.text);
    }
    copy_text(entry->sourcePath, path);
    flash_trace(traceDebug, "validate_filename: returning SUCCESS with source filename=%s\n", path);
    return 1;
}

// The verdict on a copy row: what the rules leave in the row and in the SNMP error status.
int32_t refuse(flashCopyEntry *entry, int32_t *error, int32_t copyStatus, int32_t snmpError) {
    entry->copyStatus = copyStatus;
    *error = snmpError;
    return 0;
}

// The refusals of a command or a protocol. A later one overwrites an earlier one's verdict.
struct Rule {
    bool (*applies)(const flashCopyEntry &entry);
    const char *message; // has one %s, the operation
    const char *object;  // the message about the object
    int32_t copyStatus;
};

bool copies_to_flash(const flashCopyEntry &entry) {
    return entry.command == commandToFlash || entry.command == commandToFlashWithoutErase;
}

constexpr Rule rules[] = {
    {[](const flashCopyEntry &entry) {
         return entry.protocol == protocolRcp || entry.protocol == protocolLex;
     },
     "ERROR  %s : lex and rcp protocols not supported. \n",
     "flashCopyProtocol:rcp and lex not supported. ...\n", copyInvalidProtocol},
    {[](const flashCopyEntry &entry) { return entry.command == commandFromFlashLog; },
     "ERROR  %s : copyFromFlhLog command is not supported\n",
     "flashCopyCommand:COPY_FROM_FLHLOG not supported. ...\n", copyInvalidCommand},
    {[](const flashCopyEntry &entry) { return entry.command == commandToFlashWithoutErase; },
     "ERROR  %s : Copy without ERASE NOT supported\n",
     "flashCopyCommand:Copy without ERASE NOT supported. ...\n", copyInvalidCommand},
    // The wording contradicts the first rule, deliberately.
    {[](const flashCopyEntry &entry) {
         return copies_to_flash(entry) && entry.protocol == protocolLex;
     },
     "ERROR  %s : Only allowed protocol are TFTP and RCP \n",
     "flashCopyProtocol:COPY_PROT_LEX not supported. ...\n", copyInvalidProtocol},
};

} // namespace

int32_t snmp_uri_map_str_split(char *text, const char *delimiters, flashToken *slots) {
    flash_trace(traceDebug, "In snmp_uri_map_str_split: str is %s and delimiters is %s\n", text,
                delimiters);
    int32_t count = 0;
    char *rest = nullptr;
    for (const char *token = strtok_r(text, delimiters, &rest); token != nullptr;
         token = strtok_r(nullptr, delimiters, &rest)) {
        const std::size_t length = std::strlen(token);
        if (count == 0)
            flash_trace(traceDebug, "was able to tokenize and found a COLON..\n");
        else if (length >= flashTokenSize)
            continue;
        // The first token is as long as it is, deliberately: it may run on into the next slots.
        char *slot =
            reinterpret_cast<char *>(slots) + static_cast<std::size_t>(count) * flashTokenSize;
        std::memcpy(slot, token, length + 1);
        count++;
    }
    flash_trace(traceDebug, "returning ctr = %d\n", count);
    return count;
}

int32_t parse_file_n_get_scheme(flashCopyEntry *entry, int32_t side) {
    constexpr const char *self = "parse_file_n_get_scheme";
    char name[sizeof entry->sourceName];
    flashToken tokens[flashNameTokens];

    copy_text(name, side == sideDestination ? entry->destinationName : entry->sourceName);
    if (snmp_uri_map_str_split(name, ":", tokens) == 0) {
        trace_no_scheme(self);
        return 0;
    }
    const char *scheme = tokens[0];
    if (!is_scheme(scheme, copySchemes)) {
        flash_trace(traceError, "ERROR  %s : NOT a valid scheme- %s :\n", self, scheme);
        return 0;
    }
    copy_text(entry->schemeName, scheme);
    trace_scheme(entry->schemeName);
    return 1;
}

int32_t parse_MiscOpfile_n_get_scheme(flashMiscOpEntry *entry) {
    flashToken tokens[flashNameTokens];
    tokens[1][0] = '\0'; // a name of one token leaves the slot alone

    if (snmp_uri_map_str_split(entry->destinationName, ":", tokens) == 0) {
        trace_no_scheme("parse_MiscOpfile_n_get_scheme");
        return 0;
    }
    if (!is_scheme(tokens[0], deleteSchemes))
        return 0;
    copy_text(entry->schemeName, tokens[0]);
    copy_text(entry->intermediateName, tokens[1]);
    trace_scheme(entry->schemeName);
    flash_trace(traceDebug, "intermediate dest name is %s\n", entry->intermediateName);
    return 1;
}

int32_t parse_file_n_get_pathname(flashCopyEntry *entry, int32_t side) {
    constexpr int32_t neitherKind = 3;
    constexpr int32_t refused = -1;
    const bool destination = side == sideDestination;
    char *name = destination ? entry->destinationName : entry->sourceName;
    flashToken tokens[flashNameTokens];
    tokens[1][0] = '\0';

    const int32_t count = snmp_uri_map_str_split(name, "//", tokens);
    if (count == 0) {
        snmp_uri_map_str_split(name, ":", tokens);
        copy_text(destination ? entry->destinationPathName : entry->sourcePathName, tokens[1]);
        entry->pathKind = pathOrdinary;
        return pathOrdinary;
    }
    // The kind of a name of one token would show in a second token, which there is none of: no
    // name is found to lie on the standby supervisor here.
    return count > 1 || side == sideSource ? refused : neitherKind;
}

int32_t validate_filename(flashCopyEntry *entry, int32_t side) {
    return side == sideDestination ? validate_destination(entry) : validate_source(entry);
}

int32_t validate_flash_entry(flashCopyEntry *entry, int32_t *error) {
    constexpr const char *self = "validate_flash_entry";
    int32_t result = 1;

    flash_trace(traceDebug, "Entering validate_flash_entry()...\n");
    *error = SNMP_ERR_NOERROR;
    for (const Rule &rule : rules) {
        if (!rule.applies(*entry))
            continue;
        flash_trace(traceError, rule.message, self);
        flash_trace(traceError, "%s", rule.object);
        result = refuse(entry, error, rule.copyStatus, SNMP_ERR_WRONGVALUE);
    }

    if (entry->serverAddress == 0 || entry->sourceName[0] == '\0' ||
        entry->protocol == protocolUnset) {
        if (entry->entryStatus == rowActive)
            return refuse(entry, error, copyInvalidProtocol, SNMP_ERR_INCONSISTENTVALUE);
        flash_trace(traceError,
                    "ERROR  %s : Protocol,Server addr and source name are MANDATORY objects\n",
                    self);
        result = 0;
        entry->entryStatus = rowNotReady;
    }

    if (copies_to_flash(*entry) && validate_filename(entry, sideDestination) != 1) {
        if (entry->entryStatus == rowActive) {
            const snmp_error_record &record =
                fill_error_record(invalidDestinationFile, ErrorRecord::clear);
            flash_trace(traceDebug, "Logged the error %s\n", record.text);
            log_snmp_error(&record);
            return refuse(entry, error, copyInvalidDestinationName, SNMP_ERR_GENERR);
        }
        result = 0;
        entry->entryStatus = rowNotReady;
    }
    if (entry->command != commandFromFlash)
        return result;

    if (validate_filename(entry, sideSource) == 1)
        return result;
    if (entry->entryStatus != rowActive) {
        entry->entryStatus = rowNotReady;
        return 0;
    }
    // The record is written over and not cleared, deliberately.
    log_snmp_error(&fill_error_record(invalidSourceFile, ErrorRecord::keep));
    return refuse(entry, error, copyInvalidSourceName, SNMP_ERR_GENERR);
}

int32_t validate_n_start_flash_copy(flashCopyEntry *entry) {
    constexpr const char *self = "validate_n_start_flash_copy";

    flash_trace(traceDebug, "Entering validate_n_start_flash_copy()...\n");
    if (entry->protocol == protocolRcp) {
        // A copy of line-card NVRAM is answered as done.
        entry->entryStatus = rowActive;
        flash_trace(traceDebug, "Calling  rumapi_CopyIlcNVRAM with srcfile=%s and dstFile=%s\n",
                    entry->sourceName, entry->destinationName);
        entry->copyStatus = copySuccess;
        if (setFlashCopyEntry(entry) == success)
            return SNMP_ERR_NOERROR;
        trace_not_stored(self, entry->index);
        return SNMP_ERR_GENERR;
    }

    int32_t error;
    const bool accepted = validate_flash_entry(entry, &error) == 1;
    if (accepted) {
        struct timeval now;
        entry->entryStatus = rowActive;
        entry->copyStatus = copyInProgress;
        gettimeofday(&now, nullptr);
        entry->startTimestamp = {static_cast<int32_t>(now.tv_sec),
                                 static_cast<int32_t>(now.tv_usec)};
        flash_trace(traceDebug, "DEBUG  %s : Ready to copy\n", self);
        flash_trace(traceDebug, "%s Ready to copy\n", self);
    } else {
        flash_trace(traceDebug, "validate_flash_entry FAILED.\n");
    }
    if (setFlashCopyEntry(entry) != success) {
        trace_not_stored(self, entry->index);
        return SNMP_ERR_GENERR;
    }
    if (!accepted)
        return error;

    std::puts("calling start_flash_copy().....");
    flash_trace(traceDebug, "Calling start_flash_copy()\n");
    start_flash_copy(entry);
    if (getFlashCopyEntry(entry) != success)
        return SNMP_ERR_NOSUCHNAME;
    flash_trace(traceDebug, "%s: status returned is %d\n", self, entry->copyStatus);
    return SNMP_ERR_NOERROR;
}

int32_t validate_flashMiscOp_entry(flashMiscOpEntry *entry) {
    LocalPath path;
    flash_trace(traceDebug,
                "validate_flashMiscOp_entry: calling uriutil_uri_to_path for destination file:%s\n",
                entry->destinationName);
    const int32_t result = resolve(entry->destinationName, path);
    if (result != 0) {
        flash_trace(traceDebug, "uriutil_uri_to_path for destination returned ERROR. %s  \n",
                    syserr2str(result));
        return 0;
    }
    copy_text(entry->destinationFile, path);
    flash_trace(traceDebug, "validate_flashMiscOp_entry: returning SUCCESS with dest filename=%s\n",
                path);
    return 1;
}

void start_flash_delete(flashMiscOpEntry *entry) {
    constexpr const char *failed = "ERROR:delete of the file:%s failed\n";
    flash_trace(traceDebug, "start_flash_delete(): Trying to delete %s...\n",
                entry->destinationFile);
    if (unlink(entry->destinationFile) < 0) {
        entry->operationStatus = miscOpFailed;
        snmp_log(LOG_ERR, failed, entry->destinationFile);
        flash_trace(traceDebug, failed, entry->destinationFile);
        return;
    }
    flash_trace(traceDebug, "start_flash_delete(): deleted %s...\n", entry->destinationFile);
    entry->operationStatus = miscOpSuccess;
}

int32_t validate_n_start_flash_delete(flashMiscOpEntry *entry) {
    constexpr const char *self = "validate_n_start_flash_delete";
    char name[sizeof entry->destinationName] = {};
    flashToken tokens[flashNameTokens];

    flash_trace(traceDebug, "Entering validate_n_start_flash_delete()...\n");
    copy_text(name, entry->destinationName);
    if (snmp_uri_map_str_split(name, ":", tokens) == 0) {
        trace_no_scheme(self);
        entry->operationStatus = miscOpFailed;
        return SNMP_ERR_GENERR;
    }
    if (std::strcmp(tokens[0], "ilc-nvram") == 0) {
        // A delete on line-card NVRAM is answered as done.
        flash_trace(traceDebug, "Calling  rumapi_CopyIlcNVRAM with srcfile=%s\n",
                    entry->destinationName);
        entry->operationStatus = miscOpSuccess;
    } else if (validate_flashMiscOp_entry(entry) == 1) {
        flash_trace(traceDebug, "Calling start_flash_delete()...\n");
        start_flash_delete(entry);
        return SNMP_ERR_NOERROR; // stored by the caller
    } else {
        flash_trace(traceDebug, "validate_flash_entry FAILED.\n");
    }
    if (setFlashMiscOpEntry(entry) == success)
        return SNMP_ERR_NOERROR;
    trace_not_stored(self, entry->index);
    return SNMP_ERR_GENERR;
}
