#include "report/explain.h"

#include "base/system_error.h"
#include "base/transfer_tools.h"
#include "flash_codes.h"
#include "report/sentence.h"
#include "ruma/syserr.h"
#include "syslog/last_dump.h"
#include "uri/refusal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace ruma {
namespace {

constexpr const char *system_log_name = "log:messages";
constexpr std::string_view nvram_scheme = "ilc-nvram";

// A platform code's sentence, as part of another one.
std::string text_of(int32_t code) {
    std::string text = syserr_format(code);
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

std::string describe(const Refusal &refusal) {
    std::string text = text_of(refusal.code);
    if (refusal.error != 0)
        text += " (" + system_error_text(refusal.error, refusal.path) + ")";
    return text;
}

// A system call's answer, as a cause.
std::string unless_zero(int result, const std::string &path) {
    return result == 0 ? "" : system_error_text(errno, path);
}

std::string explain_access(const std::string &path, int mode) {
    return unless_zero(faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS), path);
}

std::string directory_of(const std::string &path) {
    const auto slash = path.rfind('/');
    if (slash == path.npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string last_component(const std::string &path) { return path.substr(path.rfind('/') + 1); }

bool copies_to_flash(const flashCopyEntry &row) {
    return row.command == flash::commandToFlash || row.command == flash::commandToFlashWithoutErase;
}

std::string explain_missing(const flashCopyEntry &row) {
    if (row.serverAddress == 0)
        return "the server address is not set";
    if (row.sourceName[0] == '\0')
        return "the source name is not set";
    if (row.protocol == flash::protocolUnset)
        return "the protocol is not set";
    return {};
}

std::string explain_destination(const flashCopyEntry &row) {
    const Refusal refusal = why_refused(row.destinationName, UriKind::device);
    if (refusal.code != 0)
        return "the destination name: " + describe(refusal);
    return refusal.directory ? "the destination name: It is that of a directory" : "";
}

std::string explain_source(const flashCopyEntry &row) {
    if (std::strcmp(row.sourceName, system_log_name) == 0)
        return last_dump_result() == 0 ? "" : "the source name: " + text_of(last_dump_result());
    const bool core = std::strncmp(row.sourceName, "core:", 5) == 0;
    const Refusal refusal = why_refused(row.sourceName, core ? UriKind::core : UriKind::device);
    return refusal.code == 0 ? "" : "the source name: " + describe(refusal);
}

std::string explain_name(const flashCopyEntry &row) {
    if (copies_to_flash(row))
        return explain_destination(row);
    return row.command == flash::commandFromFlash ? explain_source(row) : "";
}

std::string explain_command(const flashCopyEntry &row) {
    switch (row.command) {
    case flash::commandToFlashWithoutErase:
        return "the command copyToFlashWithoutErase(2) is not supported";
    case flash::commandFromFlashLog:
        return "the command copyFromFlashLog(4) is not supported";
    default:
        return {};
    }
}

// The module puts the file into its working directory under the name that the server is to see.
std::string explain_staging(const flashCopyEntry &row) {
    std::string problem = explain_access(row.sourcePath, R_OK);
    if (!problem.empty())
        return problem;
    std::string name = row.destinationName;
    if (name.empty())
        name = last_component(row.sourcePath);
    char directory[4096];
    if (getcwd(directory, sizeof directory) == nullptr)
        return "the agent's working directory is gone";
    const std::string path = name.front() == '/' ? name : std::string(directory) + "/" + name;
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode))
            return "the file to send cannot be staged: " + quoted(path) + " is no regular file";
        problem = explain_access(path, W_OK);
    } else {
        problem = explain_access(directory_of(path), W_OK | X_OK);
    }
    struct statvfs space {};
    if (problem.empty() && statvfs(directory_of(path).c_str(), &space) == 0 && space.f_bavail == 0)
        problem = system_error_text(ENOSPC, directory_of(path));
    return problem.empty() ? "" : "the file to send cannot be staged: " + problem;
}

} // namespace

std::string explain_refusal(const flashCopyEntry &row) {
    switch (row.copyStatus) {
    case flash::copyInvalidCommand:
        return explain_command(row);
    case flash::copyInvalidProtocol:
        return row.protocol == flash::protocolLex ? "the protocol lex(3) is not supported"
                                                  : explain_missing(row);
    case flash::copyInvalidDestinationName:
        return explain_destination(row);
    case flash::copyInvalidSourceName:
        return explain_source(row);
    default: {
        const std::string missing = explain_missing(row);
        return missing.empty() ? explain_name(row) : missing;
    }
    }
}

std::string explain_transfer(const flashCopyEntry &row) {
    if (row.protocol == flash::protocolTftp)
        return row.command == flash::commandFromFlash ? explain_staging(row) : "";
    for (const TransferScript &script : transfer_scripts) {
        if (script.protocol == row.protocol && script.protocol != flash::protocolUnset)
            return explain_access(std::string(transfer_script_directory) + "/" + script.name, X_OK);
    }
    return "no transfer speaks " + protocol_name(row.protocol);
}

std::string explain_delete(const flashMiscOpEntry &row) {
    const Refusal refusal = why_refused(row.destinationName, UriKind::device);
    if (refusal.code != 0)
        return "the name: " + describe(refusal);
    const std::string path = row.destinationFile;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return system_error_text(errno, path);
    if (S_ISDIR(status.st_mode))
        return system_error_text(EISDIR, path);
    const std::string problem = explain_access(directory_of(path), W_OK | X_OK);
    return problem.empty() ? system_error_text(EPERM, path) : problem;
}

bool delete_name_resolves(const flashMiscOpEntry &row) {
    const std::string_view name = row.destinationName;
    return name.substr(0, name.find(':')) == nvram_scheme ||
           why_refused(row.destinationName, UriKind::device).code == 0;
}

std::string explain_directory(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
        return system_error_text(ENOTDIR, path);
    return explain_access(path, R_OK | W_OK | X_OK);
}

} // namespace ruma
