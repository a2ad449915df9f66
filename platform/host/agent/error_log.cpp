#include <ruma/agent.h>

#include "agent/error_log.h"
#include "agent/request.h"
#include "base/printable.h"
#include "base/unique_fd.h"
#include "config/config.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t max_size = 262144; // bytes
constexpr mode_t log_mode = 0640;

static_assert(sizeof(snmp_error_record) == 472);

// A text or a name as one field of a line: its commas are escaped, lest it reads as two.
std::string field(std::string_view content) { return ruma::printable(content, ","); }

// Who asked for what went wrong, as a line's last fields.
std::string requester() {
    if (!ruma::serving_request())
        return {};
    const std::string user = field(get_snmp_username(0));
    return (user.empty() ? "" : ", user " + user) + ", session " +
           std::to_string(get_snmp_sessionid(0));
}

std::string utc_time() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// Opens the log for appending and tells its size. Empty when it cannot be used.
ruma::UniqueFd open_log(const std::string &path, off_t &size) {
    ruma::UniqueFd log(open(path.c_str(),
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                            log_mode));
    struct stat status {};
    if (!log || fstat(log.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    // The agent's umask may have cut the mode of a new file.
    if (status.st_size == 0)
        static_cast<void>(fchmod(log.get(), log_mode));
    size = status.st_size;
    return log;
}

int append(const std::string &line) {
    const std::string path = ruma::run_dir() + "/snmp-errors.log";
    off_t size = 0;
    ruma::UniqueFd log = open_log(path, size);
    if (log && size + static_cast<off_t>(line.size()) > max_size) {
        log.close();
        if (rename(path.c_str(), (path + ".1").c_str()) != 0)
            return -1;
        log = open_log(path, size);
    }
    if (!log)
        return -1;
    return write(log.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) ? 0 : -1;
}

std::string code_text(int32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(code));
    return text;
}

} // namespace

int ruma::append_to_error_log(int32_t code, const std::string &text) {
    return append(utc_time() + ", " + code_text(code) + ", " + text + "\n");
}

extern "C" int log_snmp_error(const struct snmp_error_record *record) {
    if (record == nullptr)
        return -1;
    try {
        const std::string text =
            field({record->text, strnlen(record->text, sizeof record->text)}) + requester();
        snmp_log(LOG_WARNING, "error %s: %s\n", code_text(record->code).c_str(), text.c_str());
        return ruma::append_to_error_log(record->code, text);
    } catch (const std::bad_alloc &) {
        return -1;
    }
}
