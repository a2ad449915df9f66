#include <ruma/agent.h>

#include "config/config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t max_size = 262144; // bytes
constexpr mode_t log_mode = 0640;

static_assert(sizeof(snmp_error_record) == 472);

// The record's text with everything but printable ASCII escaped: a line stays one line, and no
// terminal that shows it is driven by it.
std::string printable(const snmp_error_record &record) {
    std::string text;
    const std::size_t length = strnlen(record.text, sizeof record.text);
    for (std::size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(record.text[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            text += static_cast<char>(c);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(c));
            text += escaped;
        }
    }
    return text;
}

std::string utc_time() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// Opens the log for appending and tells its size. Returns a descriptor, or -1.
int open_log(const std::string &path, off_t &size) {
    const int log =
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
             log_mode);
    if (log < 0)
        return -1;
    struct stat status {};
    if (fstat(log, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(log);
        return -1;
    }
    // The agent's umask may have cut the mode of a new file.
    if (status.st_size == 0)
        static_cast<void>(fchmod(log, log_mode));
    size = status.st_size;
    return log;
}

int append(const std::string &line) {
    const std::string path = ruma::run_dir() + "/snmp-errors.log";
    off_t size = 0;
    int log = open_log(path, size);
    if (log >= 0 && size + static_cast<off_t>(line.size()) > max_size) {
        close(log);
        if (rename(path.c_str(), (path + ".1").c_str()) != 0)
            return -1;
        log = open_log(path, size);
    }
    if (log < 0)
        return -1;
    const bool written = write(log, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(log);
    return written ? 0 : -1;
}

} // namespace

extern "C" int log_snmp_error(const struct snmp_error_record *record) {
    if (record == nullptr)
        return -1;
    try {
        const std::string text = printable(*record);
        char code[16];
        std::snprintf(code, sizeof code, "0x%08x", static_cast<unsigned>(record->code));
        snmp_log(LOG_WARNING, "error %s: %s\n", code, text.c_str());
        return append(utc_time() + ", " + code + ", " + text + "\n");
    } catch (const std::bad_alloc &) {
        return -1;
    }
}
