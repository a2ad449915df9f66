#include "flash_copy.h"

#include "flash_codes.h"
#include "flash_root.h"
#include "flash_rows.h"
#include "flash_strict.h"
#include "flash_trace.h"
#include "flash_validate.h"
#include "orvex_flash_mib.h"
#include "ruma/agent.h"
#include "ruma/pmb.h"
#include "ruma/tftp.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <net-snmp/library/snmp_logging.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using namespace flash;

int32_t flash_copy_pid;

namespace {

// The worker named by flash_copy_pid once that very one has been reaped, else 0: its process id may
// belong to anybody then. Kept as the id, so that it says nothing of an id set from outside.
pid_t reapedWorker;

// --- The worker's surroundings -------------------------------------------------------------------

// Passes the signal on to the transfer's processes; restored to its default, it then ends the
// worker itself.
void end_process_group(int signal) {
    std::signal(signal, SIG_DFL);
    const pid_t self = getpid();
    kill(getpgrp() == self ? 0 : self, signal); // never the agent's group
}

// The agent's handlers mean nothing in the worker, and its dispositions would keep an abort from
// working.
void reset_signals() {
    for (int signal = 1; signal < NSIG; signal++)
        if (signal != SIGKILL && signal != SIGSTOP)
            std::signal(signal, SIG_DFL);
    struct sigaction action = {};
    action.sa_handler = end_process_group;
    sigaction(SIGTERM, &action, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void close_span(int first, int last) {
    if (first > last ||
        close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0)
        return;
    const long limit = sysconf(_SC_OPEN_MAX);
    for (int descriptor = first; descriptor <= last && descriptor < limit; descriptor++)
        close(descriptor);
}

// Closes what the worker inherited but for standard streams, the pipe and the agent's log files: an
// inherited socket would keep the agent's port busy. Whatever else the logging library holds open
// it must forget, or it would write into a descriptor of the transfer.
void close_inherited_descriptors() {
    constexpr std::size_t most = 16;
    int keep[most + 2] = {mypipe[0], mypipe[1]};
    std::size_t kept = 2;

    closelog();
    for (netsnmp_log_handler *log = get_logh_head(); log != nullptr; log = log->next) {
        if (log->type != NETSNMP_LOGHANDLER_FILE || log->magic == nullptr)
            continue;
        const int descriptor = fileno(static_cast<std::FILE *>(log->magic));
        if (kept < most + 2 && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0)
            keep[kept++] = descriptor;
        else
            log->enabled = 0;
    }

    std::sort(keep, keep + kept);
    int first = STDERR_FILENO + 1;
    for (std::size_t i = 0; i < kept; i++) {
        close_span(first, keep[i] - 1);
        first = std::max(first, keep[i] + 1);
    }
    close_span(first, 0x7FFFFFFF);
}

// --- Transfers -----------------------------------------------------------------------------------

constexpr const char *transferName = "do_flash_upload_download";

int32_t fail(flashCopyEntry *entry, int32_t status) {
    entry->copyStatus = status;
    return failure;
}

// The last component of a path, or null when there is no "/" in it.
const char *last_component(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? nullptr : slash + 1;
}

void make_readable(const char *path, const char *protocol, TraceSubtype failureSubtype) {
    const int result = chmod(path, 0666);
    if (result != 0)
        flash_trace(failureSubtype,
                    "%s : Could not change the file permissions to 666 after successful %s copy. "
                    "ret_code1=%d\n",
                    transferName, protocol, result);
}

// A result of the TFTP client: an error of this side or of the server's, by its errno.
int32_t tftp_status(int result) {
    int64_t error = -static_cast<int64_t>(result);
    if (error > 100)
        error -= 100;
    switch (error) {
    case ENOENT:
        return copyInvalidSourceName;
    case ENOMEM:
        return copyNoMemory;
    case EBUSY:
        return copyBusy;
    case ENOSPC:
        return copyDeviceFull;
    default:
        return STATUS_FILE_TRANSFERERR;
    }
}

int32_t tftp_fetch(flashCopyEntry *entry) {
    const char *source = entry->sourceName;
    const char *component = last_component(source);
    if (component == nullptr)
        component = source;

    const int result = tftp_get2(source, entry->destinationPath, 0);
    if (result < 0) {
        flash_trace(traceDebug, "ERROR : %s : Getting from tftp server failed : %s\n", transferName,
                    tftp_strerror(result));
        snmp_log(LOG_ERR, "ERROR: Getting file:%s from tftp server failed Error=%d\n", source,
                 result);
        snmp_log(LOG_ERR, "ERROR: Getting file to:%s failed \n", component);
        return fail(entry, tftp_status(result));
    }
    flash_trace(traceDebug, "DEBUG :%s :  File %s is downloaded\n", transferName, source);
    snmp_log(LOG_DEBUG, "DEBUG: file:%s downloaded. \n", source);
    make_readable(entry->destinationPath, "tftp", traceError);
    return success;
}

// Copies a file byte by byte. Returns 0, or -1 when it cannot be opened or written.
int copy_file(const char *from, const char *to) {
    // The strict build makes a new file: it replaces none and follows no link.
    constexpr const char *mode = strict ? "wxe" : "we";
    std::FILE *in = std::fopen(from, "re");
    if (in == nullptr)
        return -1;
    std::FILE *out = std::fopen(to, mode);
    if (out == nullptr)
        return -1; // the source stays open, deliberately: the worker is about to end
    for (int byte = std::getc(in); byte != EOF; byte = std::getc(in))
        std::putc(byte, out);
    const bool unread = std::ferror(in) != 0;
    const bool unwritten = std::ferror(out) != 0;
    std::fclose(in);
    return std::fclose(out) == 0 && !unread && !unwritten ? 0 : -1;
}

// Copies a file into the working directory under its own name.
int stage_by_own_name(const char *path) {
    if constexpr (strict) {
        if (strict_refuses_path(path))
            return -1;
        const char *name = last_component(path);
        return name == nullptr ? 0 : copy_file(path, name); // without a name nothing is sent
    }
    char command[sizeof flashCopyEntry::sourcePath + sizeof "cp  ."];
    std::snprintf(command, sizeof command, "cp %s .", path);
    // A cp that fails goes unnoticed, deliberately: what stands under the name then is sent.
    return std::system(command) < 0 ? -1 : 0;
}

bool is_no_file(const char *path) {
    struct stat status;
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

// Puts the file to send into the working directory, under the name that it is to have on the
// server: the client sends a file under its own name. A new file is for the agent's user alone.
int stage(const flashCopyEntry *entry) {
    const char *name = entry->destinationName[0] != '\0' ? entry->destinationName
                                                         : last_component(entry->sourcePath);
    // What the client would not send, it would be no good to write to: a FIFO's other end need
    // never be opened, a device would take the content.
    if (strict_refuses_staging(entry->destinationName) || (name != nullptr && is_no_file(name)))
        return -1;
    const mode_t mask = umask(077);
    const int result = entry->destinationName[0] == '\0'
                           ? stage_by_own_name(entry->sourcePath)
                           : copy_file(entry->sourcePath, entry->destinationName);
    umask(mask);
    return result;
}

int32_t tftp_send(flashCopyEntry *entry) {
    flash_trace(traceDebug, "DEBUG : %s : Putting the file (%s)to the server\n", transferName,
                entry->sourcePath);
    flash_trace(traceDebug, "strlen of entry->flashCopyDestinationName is %d\n",
                static_cast<int>(std::strlen(entry->destinationName)));
    if (stage(entry) < 0) {
        flash_trace(traceDebug, "%s : STATUS_FILE_TRANSFERERR for %s\n", transferName,
                    entry->sourcePath);
        return fail(entry, STATUS_FILE_TRANSFERERR);
    }

    const char *staged = entry->destinationName;
    if (staged[0] == '\0') {
        flash_trace(traceDebug, "No destination file specified..........\n");
        flash_trace(traceDebug, "expanded source files is %s\n", entry->sourcePath);
        staged = last_component(entry->sourcePath);
        if (staged == nullptr) {
            flash_trace(traceDebug, "No file specified\n");
            return fail(entry, copyInvalidSourceName);
        }
    }
    flash_trace(traceDebug, "The file to be copied is %s\n", staged);
    flash_trace(traceDebug, "%s : file to be copied is %s\n", transferName, staged);

    const int result = tftp_put(staged, 0);
    if (result < 0) {
        const char *text = tftp_strerror(result);
        flash_trace(traceDebug, "The file which was tried to be copied is %s\n", staged);
        flash_trace(traceDebug, "ERROR : %s : Putting to  the tftp server failed : %s\n",
                    transferName, text);
        flash_trace(traceError, "%s : Putting to  the tftp server failed : %s\n", transferName,
                    text);
        return fail(entry, STATUS_FILE_TRANSFERERR);
    }
    flash_trace(traceDebug, "%s : DEBUG File %s is uploaded\n", transferName, staged);
    if (unlink(staged) != 0)
        flash_trace(traceError, "%s : temporary file NOT removed!!!!\n", transferName);
    return success;
}

int32_t transfer_by_tftp(int32_t direction, const char *server, flashCopyEntry *entry) {
    constexpr int timeoutSeconds = 20;
    constexpr int standardPort = -1;

    int result = tftp_timeout_set(timeoutSeconds);
    if (result < 0) {
        flash_trace(traceDebug, "ERROR : %s : Setting timeout failed : %s\n", transferName,
                    tftp_strerror(result));
        return fail(entry, STATUS_FILE_TRANSFERERR);
    }
    result = tftp_connect(server, standardPort);
    if (result < 0) {
        flash_trace(traceDebug, "ERROR : %s : Connecting to the tftp server failed : %s\n",
                    transferName, tftp_strerror(result));
        return fail(entry, STATUS_FILE_TRANSFERERR);
    }
    switch (direction) {
    case directionToFlash:
        return tftp_fetch(entry);
    case directionFromFlash:
        return tftp_send(entry);
    default:
        return success;
    }
}

// Longer than any command line: a script and its fixed arguments, an address, the row's fields.
constexpr std::size_t commandSize = 1280;
static_assert(commandSize >
              64 + INET_ADDRSTRLEN + sizeof(flashCopyEntry::sourceName) +
                  sizeof(flashCopyEntry::destinationName) + sizeof(flashCopyEntry::remoteUserName) +
                  sizeof(flashCopyEntry::sourcePath) + sizeof(flashCopyEntry::password));

// The fields of a command line that a script takes, in the script's own order.
struct Fields {
    const char *script;
    const char *server;
    const char *user;
    const char *password;
    const char *source;
    const char *destination;
};

// A transfer script: its command lines, what is said about it, what its exit codes mean.
struct Script {
    int32_t protocol;
    const char *path;
    const char *name;      // in the trace of its exit code
    const char *spoken;    // in the trace of its command line
    const char *chmodName; // in the trace of a failed mode change; null when modes are left alone
    TraceSubtype chmodSubtype; // of that trace
    const char *beginning;     // traced first, or null
    const char *putting;
    bool pathFirst; // the trace of a get prints the destination first
    int32_t exitCode4;
    int (*compose_get)(char *command, const Fields &fields);
    int (*compose_put)(char *command, const Fields &fields);
};

int compose_ftp(char *command, const Fields &f, const char *verb) {
    return std::snprintf(command, commandSize, "%s %s %s  %s %s \"%s\" %s %s", f.script, f.server,
                         f.source, f.destination, f.user, f.password, verb, "3000");
}

int compose_sftp(char *command, const Fields &f, const char *verb) {
    return std::snprintf(command, commandSize, "%s %s %s \"%s\"  %s %s %s %s", f.script, f.server,
                         f.user, f.password, verb, f.source, f.destination, "720");
}

constexpr Script scripts[] = {
    {.protocol = protocolFtp,
     .path = "/ruma/bin/snmp.ftp.expect",
     .name = "ftp.expect",
     .spoken = "FTP",
     .chmodName = nullptr,
     .chmodSubtype = traceDebug,
     .beginning = nullptr,
     .putting = "%s : Putting the file (%s)to the server (%s)\n",
     .pathFirst = false,
     .exitCode4 = STATUS_FILE_TRANSFERERR,
     .compose_get = [](char *command, const Fields &f) { return compose_ftp(command, f, "get"); },
     .compose_put = [](char *command, const Fields &f) { return compose_ftp(command, f, "put"); }},
    // Its command line is traced with the FTP wording, and a get's names the wrong way round,
    // deliberately.
    {.protocol = protocolScp,
     .path = "/ruma/bin/scp.expect",
     .name = "scp.expect",
     .spoken = "FTP",
     .chmodName = "scp",
     .chmodSubtype = traceError,
     .beginning = "%s : Copying thorugh SCP......\n",
     .putting = "%s : SCP: Putting the file (%s)to the server (%s)\n",
     .pathFirst = true,
     .exitCode4 = copyScpFailure,
     .compose_get =
         [](char *command, const Fields &f) {
             return std::snprintf(command, commandSize, "%s %s%s%s:%s %s \"%s\" %s %s", f.script,
                                  f.user, "@", f.server, f.source, f.destination, f.password, "2",
                                  "600");
         },
     .compose_put =
         [](char *command, const Fields &f) {
             return std::snprintf(command, commandSize, "%s %s %s%s%s:%s \"%s\" %s %s", f.script,
                                  f.source, f.user, "@", f.server, f.destination, f.password, "2",
                                  "600");
         }},
    {.protocol = protocolSftp,
     .path = "/ruma/bin/sftp.expect",
     .name = "sftp.expect",
     .spoken = "SFTP",
     .chmodName = "sftp",
     .chmodSubtype = traceDebug, // unlike the others', deliberately
     .beginning = nullptr,
     .putting = "%s : Putting the file (%s)to the server (%s)\n",
     .pathFirst = false,
     .exitCode4 = STATUS_FILE_TRANSFERERR,
     .compose_get = [](char *command, const Fields &f) { return compose_sftp(command, f, "get"); },
     .compose_put = [](char *command, const Fields &f) { return compose_sftp(command, f, "put"); }},
};

int32_t script_status(const Script &script, int exitCode) {
    switch (exitCode) {
    case 1:
        return copyBusy;
    case 2:
        return copyInvalidSourceName;
    case 3:
        return copyNoMemory;
    case 4:
        return script.exitCode4;
    default:
        return STATUS_FILE_TRANSFERERR;
    }
}

// The name that a file to send is to have on the server, or null when there is none.
const char *remote_name(const flashCopyEntry *entry) {
    if (entry->destinationName[0] != '\0')
        return entry->destinationName;
    flash_trace(traceDebug, "%s : No destination file specified\n", transferName);
    flash_trace(traceDebug, "%s :expanded source file is %s\n", transferName, entry->sourcePath);
    const char *slash = std::strrchr(entry->sourcePath, '/');
    flash_trace(traceDebug, "tmp AFTER the strrchr is %s\n", slash != nullptr ? slash : "(null)");
    if (slash == nullptr) {
        flash_trace(traceDebug, "No file specified\n");
        flash_trace(traceError, "%s :No file specified\n", transferName);
        return nullptr;
    }
    const char *name = slash + 1;
    flash_trace(traceDebug, "tmp_file should be picked from here and is  %s\n", name);
    flash_trace(traceDebug, "%s :tmp_file is%s\n", transferName, name);
    return name;
}

int32_t transfer_by_script(const Script &script, int32_t direction, const char *server,
                           flashCopyEntry *entry) {
    char command[commandSize];
    int length = 0;
    Fields fields{script.path,           server,
                  entry->remoteUserName, entry->password,
                  entry->sourceName,     entry->destinationPath};

    if (script.beginning != nullptr)
        flash_trace(traceDebug, script.beginning, transferName);
    if (strict_refuses_path(direction == directionFromFlash ? entry->sourcePath
                                                            : entry->destinationPath))
        return fail(entry, STATUS_FILE_TRANSFERERR);
    if (direction == directionFromFlash) {
        fields.source = entry->sourcePath;
        fields.destination = remote_name(entry);
        if (fields.destination == nullptr)
            return fail(entry, copyInvalidSourceName);
        flash_trace(traceDebug, script.putting, transferName, entry->sourcePath, server);
        length = script.compose_put(command, fields);
    } else {
        flash_trace(traceDebug, "%s : Getting file %s to local file %s \n", transferName,
                    script.pathFirst ? fields.destination : fields.source,
                    script.pathFirst ? fields.source : fields.destination);
        length = script.compose_get(command, fields);
    }
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof command)
        return fail(entry, STATUS_FILE_TRANSFERERR);

    flash_trace(traceDebug, "%s : Command being executed for %s: %s\n", transferName, script.spoken,
                command);
    const int status = std::system(command);
    if (status < 0) {
        if (script.protocol == protocolScp)
            flash_trace(traceError, "%s : Command executed for SCP returned error=%d\n",
                        transferName, status);
        return fail(entry, STATUS_FILE_TRANSFERERR);
    }
    // The exit code alone, deliberately: a script killed by a signal reads as success.
    const int exitCode = (status >> 8) & 0xFF;
    flash_trace(traceDebug, "%s : Return code from %s is  %d\n", transferName, script.name,
                exitCode);
    if (exitCode != 0)
        return fail(entry, script_status(script, exitCode));
    if (script.chmodName != nullptr)
        make_readable(entry->destinationPath, script.chmodName, script.chmodSubtype);
    return success;
}

// --- Completion ----------------------------------------------------------------------------------

constexpr int ageOutSeconds = 305;

// The status message.
struct StatusPayload {
    int32_t status;
    int32_t row;
    int32_t worker;
};
static_assert(sizeof(StatusPayload) == 12);

flashTimestamp now() {
    struct timeval time;
    gettimeofday(&time, nullptr);
    return {static_cast<int32_t>(time.tv_sec), static_cast<int32_t>(time.tv_usec)};
}

// Seconds from one time to another in the rows' width, right across the wrap of 2038.
int32_t seconds_between(int32_t from, std::time_t until) {
    return static_cast<int32_t>(static_cast<uint32_t>(until) - static_cast<uint32_t>(from));
}

// The agent's uptime at a time of day, in hundredths of a second.
uint32_t uptime_at(const flashTimestamp &timestamp) {
    struct timeval time = {timestamp.seconds, timestamp.microseconds};
    return static_cast<uint32_t>(netsnmp_timeval_uptime(&time));
}

pid_t wait_for(int32_t worker) {
    // Anything else would wait for some other child of the agent's.
    if (worker <= 0)
        return -1;
    pid_t result;
    do
        result = waitpid(worker, nullptr, 0);
    while (result == -1 && errno == EINTR);
    const bool gone = result > 0 || errno == ECHILD; // somebody else may have reaped it
    if (gone && worker == flash_copy_pid)
        reapedWorker = worker;
    return result;
}

} // namespace

int32_t start_flash_copy(flashCopyEntry *entry) {
    sigset_t all, former;

    flash_trace(traceDebug, "Entered start_flash_copy()...\n");
    // An abort that comes before the worker is ready waits until it is.
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &former);
    flash_copy_pid = fork();
    reapedWorker = 0;
    if (flash_copy_pid == 0) {
        setpgid(0, 0);
        close_inherited_descriptors();
        reset_signals();
        flash_copy_function(entry);
        _exit(0);
    }
    sigprocmask(SIG_SETMASK, &former, nullptr);
    flash_trace(traceDebug, "DEBUG : %s : Done starting the copy\n", "start_flash_copy");
    flash_trace(traceDebug, "DEBUG : %s : Copy returned with status %d\n", "start_flash_copy",
                entry->copyStatus);
    return entry->copyStatus == copySuccess ? 0 : entry->copyStatus;
}

void flash_copy_function(flashCopyEntry *entry) {
    constexpr const char *self = "flash_copy_function";
    constexpr const char *directory = ".";

    switch (entry->command) {
    case commandToFlash:
    case commandToFlashWithoutErase:
        flash_trace(traceDebug, "DEBUG  %s : Copy TO flash\n", self);
        if (do_flash_upload_download(directionToFlash, directory, entry) == success) {
            write_to_pipe(mypipe[1], copySuccess, entry->index);
        } else {
            flash_trace(traceDebug, "DEBUG : %s : Download of file %s to FLASH failed.\n", self,
                        entry->sourceName);
            flash_trace(traceDebug, "calling write_to_pipe with status =%d\n", entry->copyStatus);
            write_to_pipe(mypipe[1], entry->copyStatus, entry->index);
        }
        // Says FAILURE after a success too, deliberately.
        flash_trace(traceDebug, "sending a FAILURE message to proc=%d\n",
                    static_cast<int>(getppid()));
        return;
    case commandFromFlash:
        if (do_flash_upload_download(directionFromFlash, directory, entry) == success) {
            write_to_pipe(mypipe[1], copySuccess, entry->index);
            return;
        }
        flash_trace(traceDebug, "DEBUG : %s : Upload of file %s from FLASH failed.\n", self,
                    entry->sourceName);
        flash_trace(traceDebug, "%s : Upload of file %s from FLASH failed.\n", self,
                    entry->sourceName);
        write_to_pipe(mypipe[1], entry->copyStatus, entry->index);
        return;
    default:
        // Nothing to transfer: the status as it is leaves the row in progress, deliberately.
        write_to_pipe(mypipe[1], entry->copyStatus, entry->index);
    }
}

int32_t do_flash_upload_download(int32_t direction, const char *, flashCopyEntry *entry) {
    char server[INET_ADDRSTRLEN];
    const in_addr address{entry->serverAddress};

    std::snprintf(server, sizeof server, "%s", inet_ntoa(address));
    flash_trace(traceDebug, "%s : Entering \n", transferName);
    flash_trace(traceDebug, "In do_flash_upload_download trying to print the source file.\n");
    flash_trace(traceDebug, "source file =%s\n", entry->sourceName);
    flash_trace(traceDebug, "In do_flash_upload_download trying to print the destination file.\n");
    flash_trace(traceDebug, "destination file =%s\n", entry->destinationPath);

    if (entry->protocol == protocolTftp)
        return transfer_by_tftp(direction, server, entry);
    for (const Script &script : scripts)
        if (script.protocol == entry->protocol)
            return transfer_by_script(script, direction, server, entry);
    flash_trace(traceError, "%s : Protocol not supported\n", transferName);
    return fail(entry, STATUS_FILE_TRANSFERERR);
}

void write_to_pipe(int, int32_t status, int32_t row) {
    constexpr const char *bindFailed = "pmb_bind failed. errno %d\n";
    constexpr int attempts = 3;
    constexpr unsigned pauseSeconds = 2;
    static constexpr pmb_queue_attributes attributes{1, 0, 1024, 0, 0, 15};
    static constexpr pmb_send_options options{{1}};

    int handle = -1;
    for (int attempt = 0; attempt < attempts; attempt++) {
        handle = pmb_bind(1, -1, &attributes, "flash_copy_task");
        if (handle >= 0)
            break;
        flash_trace(traceDebug, bindFailed, errno);
        sleep(pauseSeconds);
    }
    // Only -1 stops the message, deliberately: another failure shows at the send.
    if (handle == -1) {
        flash_trace(traceDebug, bindFailed, errno);
        return;
    }
    const StatusPayload payload{status, row, getpid()};
    if (pmb_send(handle, statusMessageNode, statusMessageSap, statusMessageOpcode, &payload,
                 sizeof payload, &options) != 0)
        flash_trace(traceDebug, "pmb_send failed. errno %d\n", errno);
    pmb_unbind(handle, 0);
}

int handle_flash_copy_status(int, int, void *message, void *) {
    constexpr const char *self = "handle_flash_copy_status";
    flash_trace(traceDebug, "Entered %s\n", self);
    if (message == nullptr)
        return -1;
    uint32_t length = 0;
    const void *bytes = pmb_payload_get(static_cast<const pmb_message *>(message), &length);
    StatusPayload payload;
    if (bytes == nullptr || length < sizeof payload)
        return -1;
    std::memcpy(&payload, bytes, sizeof payload);
    flash_trace(traceDebug, "%s: The values returned are status = %d,index = %d, pid = %d\n", self,
                payload.status, payload.row, payload.worker);
    handle_flash_copy_done(payload.status, payload.row, payload.worker);
    return 0;
}

void handle_flash_copy_done(int32_t status, int32_t row, int32_t worker) {
    constexpr const char *self = "handle_flash_copy_done";
    flash_trace(traceDebug, "DEBUG : %s : Copy is done with status %d\n", self, status);
    flash_trace(traceDebug, "DEBUG : %s : Entering with whichRow=  %d\n", self, row);

    flashCopyEntry entry{};
    if (get_flash_entry_with_index(static_cast<uint32_t>(row), &entry) == success) {
        entry.endTimestamp = now();
        entry.copyStatus = status == 0 ? STATUS_FILE_TRANSFERERR : status;
        entry.copyTime = uptime_at(entry.endTimestamp) - uptime_at(entry.startTimestamp);
        entry.endTime = static_cast<int32_t>(std::time(nullptr));
        // Registered anew at every completion and never taken back, deliberately.
        snmp_alarm_register(ageOutSeconds, SA_REPEAT, flash_ageouttimerhandler, nullptr);
        if (setFlashCopyEntry(&entry) != success)
            flash_trace(traceDebug, "ERROR  %s : Set to entry (index= %d) failed \n", self,
                        entry.index);
    } else {
        // Prints 0, not the row, deliberately.
        flash_trace(traceError, "ERROR  %s : No copy is running... %d \n", self, 0);
    }
    flash_trace(traceError, "Waitpid status = %d", static_cast<int>(wait_for(worker)));
}

int32_t handle_flash_abort(const flashCopyEntry *entry) {
    if (entry->copyStatus == copyInProgress && flash_copy_pid > 0 && flash_copy_pid != reapedWorker)
        kill(flash_copy_pid, SIGTERM);
    return 0;
}

void flash_ageouttimerhandler(unsigned int, void *) {
    flashCopyEntry entry{};
    const std::time_t current = std::time(nullptr);
    while (getnextFlashCopyEntry(&entry) == success) {
        if (seconds_between(entry.endTime, current) > ageOutSeconds &&
            entry.copyStatus != copyInProgress) {
            flash_trace(traceDebug, "%s: Deleting the aged out entry %d\n",
                        "flash_ageouttimerhandler", entry.index);
            deleteFlashCopyEntry(&entry);
        }
    }
}

netsnmp_variable_list *handle_notifications(const struct pmb_message *message, oid *id,
                                            size_t *id_length, int *send) {
    static constexpr oid notification[] = {ORVEX_FLASH_ROOT, 1, 3, 0, 1};
    // The column without an instance, deliberately.
    static constexpr oid copyStatus[] = {ORVEX_FLASH_ROOT, 1, 2, 1, 1, 8};

    uint32_t length = 0;
    const void *payload = message == nullptr ? nullptr : pmb_payload_get(message, &length);
    uint32_t word;
    if (payload == nullptr || length < sizeof word) {
        *send = 0;
        return nullptr;
    }
    *send = 1;
    std::memcpy(&word, payload, sizeof word);
    const auto value = static_cast<int32_t>(ntohl(word));
    netsnmp_variable_list *bindings = build_varbind(nullptr, &value, ASN_INTEGER, sizeof value,
                                                    copyStatus, OID_LENGTH(copyStatus));
    std::memcpy(id, notification, sizeof notification);
    *id_length = OID_LENGTH(notification);
    return bindings;
}

int32_t read_from_pipe(int, flashPipeLine *line) {
    constexpr int32_t notALine = copyStatusInitial;
    char text[20];
    flashToken fields[sizeof text / 2];

    flash_trace(traceDebug, "calling fgets.\n");
    if (read_stream == nullptr || std::fgets(text, sizeof text, read_stream) == nullptr)
        return 0;
    if (snmp_uri_map_str_split(text, ":", fields) < 2) {
        flash_trace(traceError, "ERROR  %s : pipe does not contain a :\n", "read_from_pipe");
        snmp_log(LOG_ERR, "ERROR:pipe does not contain a : \n");
        return notALine;
    }
    flash_trace(traceDebug, "calling atoi...\n");
    line->status = static_cast<int32_t>(std::strtol(fields[0], nullptr, 10));
    line->row = static_cast<int32_t>(std::strtol(fields[1], nullptr, 10));
    flash_trace(traceDebug, "read_from_pipe returning status =%d for row=%d\n", line->status,
                line->row);
    return line->status;
}

void handle_flash_copy_over(void) {
    flashPipeLine line{};
    flash_trace(traceDebug, "Entering %s..\n", "handle_flash_copy_over");
    const int32_t status = read_from_pipe(mypipe[0], &line);
    handle_flash_copy_done(status, line.row, flash_copy_pid);
    std::fputs("Entering handle_flash_copy_success()..", stdout);
    flash_trace(traceDebug, "Entering handle_flash_copy_success()..\n");
}
