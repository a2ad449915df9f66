#include "tftp/incoming_file.h"

#include "tftp/directory.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ruma {
namespace {

// The path of an open file that link() can follow to its content.
std::string descriptor_path(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// Tries random names until `make` takes one, which is returned. Empty with errno set when it does
// not. Names tell whose they are, and are short, so that every name that the destination may have
// is possible.
template <typename Make>
std::string make_temporary(const Make &make) {
    constexpr int max_attempts = 100;
    for (int i = 0; i < max_attempts; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, ".tftp-%d-%06x", getpid(), arc4random() & 0xffffff);
        if (make(name))
            return name;
        if (errno != EEXIST)
            break;
    }
    return {};
}

// Whether a name is that of a file which a process was receiving that is no more.
bool is_leftover(std::string_view name) {
    constexpr std::string_view prefix = ".tftp-";
    constexpr std::size_t suffix_length = 6;
    if (name.substr(0, prefix.size()) != prefix)
        return false;
    name.remove_prefix(prefix.size());
    pid_t owner = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), owner);
    const std::string_view rest(end, static_cast<std::size_t>(name.data() + name.size() - end));
    return error == std::errc() && owner > 0 && rest.size() == 1 + suffix_length &&
           rest[0] == '-' &&
           rest.find_first_not_of("0123456789abcdef", 1) == std::string_view::npos &&
           kill(owner, 0) != 0 && errno == ESRCH;
}

// Keeps signals away while it lives: one that ends the worker would leave a name behind.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

  private:
    sigset_t former_;
};

// Removes from a directory what was being received when its process was ended: it could not.
void remove_leftovers(UniqueFd directory) {
    DIR *names = fdopendir(directory.get());
    if (names == nullptr)
        return;
    directory.release(); // the stream's now
    while (const dirent *entry = readdir(names)) {
        if (is_leftover(entry->d_name))
            unlinkat(dirfd(names), entry->d_name, 0);
    }
    closedir(names);
}

} // namespace

IncomingFile::~IncomingFile() {
    if (!temporary_.empty())
        unlinkat(directory_.get(), temporary_.c_str(), 0);
}

int IncomingFile::open(const std::string &destination) {
    const auto slash = destination.rfind('/');
    name_ = destination.substr(slash + 1); // the whole without a slash: npos + 1 is 0
    directory_ =
        open_directory(slash == std::string::npos ? "." : destination.substr(0, slash + 1));
    if (!directory_)
        return errno;
    if (name_.empty())
        return EISDIR;
    remove_leftovers(readable_directory());
    struct stat status {};
    if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(status.st_mode))
            return EISDIR;
        if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
            return EINVAL;
        if (S_ISREG(status.st_mode))
            mode_ = status.st_mode & 0777;
    } else if (errno != ENOENT) {
        return errno;
    }
    if (access("/proc/self/fd", X_OK) == 0)
        file_ = UniqueFd(openat(directory_.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    return file_ ? 0 : open_named();
}

int IncomingFile::open_named() {
    temporary_ = make_temporary([this](const char *name) {
        file_ = UniqueFd(openat(directory_.get(), name,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return static_cast<bool>(file_);
    });
    return temporary_.empty() ? errno : 0;
}

int IncomingFile::give_name() {
    const std::string source = descriptor_path(file_.get());
    temporary_ = make_temporary([this, &source](const char *name) {
        return linkat(AT_FDCWD, source.c_str(), directory_.get(), name, AT_SYMLINK_FOLLOW) == 0;
    });
    return temporary_.empty() ? errno : 0;
}

UniqueFd IncomingFile::readable_directory() const {
    return UniqueFd(openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Makes the names in the directory durable. One that may not be read, or a file system that knows
// no such thing, has to do without.
int IncomingFile::sync_directory() const {
    const UniqueFd directory = readable_directory();
    if (!directory || fsync(directory.get()) == 0 || errno == EINVAL)
        return 0;
    return errno;
}

int IncomingFile::take_place() {
    const SignalsBlocked blocked;
    if (temporary_.empty()) {
        if (const int error = give_name())
            return error;
    }
    if (renameat(directory_.get(), temporary_.c_str(), directory_.get(), name_.c_str()) != 0)
        return errno;
    temporary_.clear();
    return 0;
}

int IncomingFile::commit() {
    if (fchmod(file_.get(), mode_) != 0 || fsync(file_.get()) != 0)
        return errno;
    const int error = take_place();
    return error != 0 ? error : sync_directory();
}

} // namespace ruma
