// The log dump: a copy of the log file, or of the end of a large one, beside the output and moved
// into its place when it is whole.
#include "ruma/syslog.h"

#include "base/unique_fd.h"
#include "syserr/codes.h"
#include "syslog/last_dump.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr off_t max_size = 64 << 20; // bytes of a dump

// A file that disappears unless it was moved elsewhere.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::string name) : name_(std::move(name)) {}
    ~TemporaryFile() {
        if (!moved_)
            ::unlink(name_.c_str());
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

    bool move_to(const char *target) {
        moved_ = std::rename(name_.c_str(), target) == 0;
        return moved_;
    }

  private:
    std::string name_;
    bool moved_ = false;
};

int32_t output_error(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG ? ruma::log_no_space
                                                                : ruma::log_output_failed;
}

bool write_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Where the newest max_size bytes of a larger log begin: at the beginning of a line, but for a line
// longer than that. Negative when the log cannot be read.
off_t beginning_of_end(int log, off_t size) {
    std::array<char, 65536> buffer;
    const off_t earliest = size - max_size;
    // A line that begins there is whole when the byte before ends another. The last byte ends the
    // last line and begins none.
    for (off_t at = earliest - 1; at < size - 1;) {
        const size_t wanted =
            static_cast<size_t>(std::min(size - 1 - at, static_cast<off_t>(buffer.size())));
        const ssize_t got = ::pread(log, buffer.data(), wanted, at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0) // cut short meanwhile
            break;
        const void *newline = std::memchr(buffer.data(), '\n', static_cast<size_t>(got));
        if (newline != nullptr)
            return at + (static_cast<const char *>(newline) - buffer.data()) + 1;
        at += got;
    }
    return earliest;
}

// Copies at most `length` bytes: a log that grows meanwhile does not keep the caller.
int32_t copy(int from, int to, off_t length) {
    std::array<char, 65536> buffer;
    while (length > 0) {
        const size_t wanted =
            static_cast<size_t>(std::min(length, static_cast<off_t>(buffer.size())));
        const ssize_t got = ::read(from, buffer.data(), wanted);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return ruma::log_unreadable;
        }
        if (!write_all(to, buffer.data(), static_cast<size_t>(got)))
            return output_error(errno);
        length -= got;
    }
    return ruma::success;
}

int32_t dump(const char *log, const char *output) {
    // Not blocking, lest a FIFO in the log's place holds up the agent.
    const ruma::UniqueFd from(::open(log, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!from) {
        switch (errno) {
        case ENOENT:
        case ENOTDIR:
            return ruma::log_not_found;
        case ELOOP:
        case ENXIO:
            return ruma::log_not_a_file;
        default:
            return ruma::log_unreadable;
        }
    }
    struct stat status {};
    if (::fstat(from.get(), &status) != 0)
        return ruma::log_unreadable;
    if (!S_ISREG(status.st_mode))
        return ruma::log_not_a_file;
    off_t begin = 0;
    if (status.st_size > max_size) {
        begin = beginning_of_end(from.get(), status.st_size);
        if (begin < 0 || ::lseek(from.get(), begin, SEEK_SET) < 0)
            return ruma::log_unreadable;
    }

    std::string name = std::string(output) + ".XXXXXX";
    ruma::UniqueFd to(::mkostemp(name.data(), O_CLOEXEC)); // exclusive, mode 0600
    if (!to)
        return output_error(errno);
    TemporaryFile temporary(name);
    const int32_t result = copy(from.get(), to.get(), status.st_size - begin);
    if (result != ruma::success)
        return result;
    if (to.close() != 0 || !temporary.move_to(output))
        return output_error(errno);
    return ruma::success;
}

int32_t last_result = ruma::success;

int32_t checked_dump(const syslog_dump_request *request, const char *log, const char *output,
                     int first, int last, int flags) {
    if (request == nullptr || request->kind != SYSLOG_DUMP_PLAIN || log == nullptr ||
        output == nullptr || *output == '\0' || first != 0 || last != 0 || flags != 0)
        return ruma::log_bad_request;
    try {
        return dump(log, output);
    } catch (const std::bad_alloc &) {
        return ruma::log_output_failed;
    }
}

} // namespace

int32_t ruma::last_dump_result() { return last_result; }

extern "C" int32_t syslog_disp_logfile(const syslog_dump_request *request, const char *log,
                                       const char *output, int first, int last, int flags) {
    last_result = checked_dump(request, log, output, first, last, flags);
    return last_result;
}
