#include "evwrap/file.h"

#include "evwrap/format.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ruma {
namespace {

constexpr const char *file_name = "event-history";

[[noreturn]] void fail(const std::string &directory, const std::string &reason) {
    throw HistoryError(history_path(directory) + ": " + reason);
}

[[noreturn]] void fail(const std::string &directory, int error) {
    fail(directory, error == ELOOP ? "is a symbolic link" : std::generic_category().message(error));
}

// The header of an empty history that takes errors.
constexpr std::array<uint32_t, header_words> empty_header() {
    std::array<uint32_t, header_words> header{};
    header[header_magic] = history_magic;
    header[header_version] = history_version;
    header[header_size] = history_size;
    return header;
}

// Puts a new, empty history in place, unless another process was faster.
void create(const std::string &directory, int directory_fd, std::optional<uid_t> user) {
    const std::string temporary = std::string(file_name) + "." + std::to_string(::getpid());
    ::unlinkat(directory_fd, temporary.c_str(), 0); // left by a process of the same id
    const UniqueFd fd(::openat(directory_fd, temporary.c_str(),
                               O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd)
        fail(directory, errno);
    // All of its space at once: a full file system must not end a process that writes to the
    // mapping.
    int error = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(history_size));
    if (error == 0) {
        constexpr auto header = empty_header();
        if (::pwrite(fd.get(), header.data(), sizeof header, 0) !=
            static_cast<ssize_t>(sizeof header))
            error = EIO;
        else if (::geteuid() == 0 && user && ::fchown(fd.get(), *user, static_cast<gid_t>(-1)) != 0)
            error = errno;
        else if (::linkat(directory_fd, temporary.c_str(), directory_fd, file_name, 0) != 0 &&
                 errno != EEXIST)
            error = errno;
    }
    ::unlinkat(directory_fd, temporary.c_str(), 0);
    if (error != 0)
        fail(directory, error);
}

// Refuses a file that others could have put there or could read.
void check_owner(const std::string &directory, const struct stat &status, HistoryAccess access,
                 std::optional<uid_t> user) {
    if (!S_ISREG(status.st_mode))
        fail(directory, "is not a regular file");
    const bool root_may =
        ::geteuid() == 0 && (access != HistoryAccess::record || status.st_uid == user);
    if (status.st_uid != ::geteuid() && !root_may)
        fail(directory, "belongs to another user");
    if ((status.st_mode & 077) != 0)
        fail(directory, "is open to other users");
}

// Whether the file is a history of this program's layout.
bool is_history(int fd, const struct stat &status) {
    constexpr auto wanted = empty_header();
    std::array<uint32_t, header_size + 1> words{};
    return status.st_size == static_cast<off_t>(history_size) &&
           ::pread(fd, words.data(), sizeof words, 0) == static_cast<ssize_t>(sizeof words) &&
           std::equal(words.begin(), words.end(), wanted.begin());
}

} // namespace

UniqueFd open_history(const std::string &directory, HistoryAccess access,
                      std::optional<uid_t> user) {
    const bool recording = access == HistoryAccess::record;
    const int mode = access == HistoryAccess::view ? O_RDONLY : O_RDWR;
    const UniqueFd directory_fd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_fd)
        fail(directory, errno);
    // More than once only when other processes create or remove the file at the same time.
    for (int attempt = 0; attempt < 8; attempt++) {
        UniqueFd fd(
            ::openat(directory_fd.get(), file_name, mode | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (!fd) {
            if (errno != ENOENT || !recording)
                fail(directory, errno);
            create(directory, directory_fd.get(), user);
            continue;
        }
        struct stat status {};
        if (::fstat(fd.get(), &status) != 0)
            fail(directory, errno);
        check_owner(directory, status, access, user);
        if (is_history(fd.get(), status))
            return fd;
        if (!recording)
            fail(directory, "is not an event history of this version");
        if (::unlinkat(directory_fd.get(), file_name, 0) != 0 && errno != ENOENT)
            fail(directory, errno);
    }
    fail(directory, "keeps changing");
}

bool is_history_of(const std::string &directory, const UniqueFd &file) noexcept {
    struct stat there {};
    struct stat ours {};
    return ::lstat((directory + "/" + file_name).c_str(), &there) == 0 &&
           ::fstat(file.get(), &ours) == 0 && there.st_dev == ours.st_dev &&
           there.st_ino == ours.st_ino;
}

std::string history_path(const std::string &directory) { return directory + "/" + file_name; }

uint32_t this_boot() {
    const UniqueFd file(::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char text[36]; // a UUID
    if (!file || ::read(file.get(), text, sizeof text) != static_cast<ssize_t>(sizeof text))
        return 0;
    uint32_t number = 2166136261U; // FNV-1a
    for (const char c : std::string_view(text, sizeof text))
        number = (number ^ static_cast<unsigned char>(c)) * 16777619U;
    return std::max(number, 1U);
}

uint32_t uptime() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

} // namespace ruma
