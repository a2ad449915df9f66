#include "tftp/incoming_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ruma {
namespace {

constexpr int max_name_attempts = 100;

// The path of an open file that link() can follow to its content.
std::string descriptor_path(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// The directory that holds `path`, with a slash at its end. Names made in it are short, so that
// every name that the destination may have is possible.
std::string directory_of(const std::string &path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

// Makes the names in a directory durable. One that may not be read, or a file system that knows no
// such thing, has to do without.
int sync_directory(const std::string &path) {
    const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || fsync(directory.get()) == 0 || errno == EINVAL)
        return 0;
    return errno;
}

constexpr const char *temporary_prefix = ".tftp-";

} // namespace

IncomingFile::~IncomingFile() {
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

int IncomingFile::open(const std::string &destination) {
    struct stat status {};
    if (lstat(destination.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode))
            return EISDIR;
        if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
            return EINVAL;
        if (S_ISREG(status.st_mode))
            mode_ = status.st_mode & 0777;
    } else if (errno != ENOENT) {
        return errno;
    }
    destination_ = destination;
    if (access("/proc/self/fd", X_OK) == 0)
        file_ = UniqueFd(
            ::open(directory_of(destination).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    return file_ ? 0 : open_named();
}

int IncomingFile::open_named() {
    temporary_ = directory_of(destination_) + temporary_prefix + "XXXXXX";
    file_ = UniqueFd(mkostemp(temporary_.data(), O_CLOEXEC));
    if (file_)
        return 0;
    temporary_.clear();
    return errno;
}

int IncomingFile::give_name() {
    const std::string source = descriptor_path(file_.get());
    for (int i = 0; i < max_name_attempts; ++i) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, "%06lx",
                      static_cast<unsigned long>(arc4random()) & 0xffffff);
        std::string name = directory_of(destination_) + temporary_prefix + suffix;
        if (linkat(AT_FDCWD, source.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            temporary_ = std::move(name);
            return 0;
        }
        if (errno != EEXIST)
            return errno;
    }
    return EEXIST;
}

int IncomingFile::commit() {
    if (fchmod(file_.get(), mode_) != 0 || fsync(file_.get()) != 0)
        return errno;
    if (temporary_.empty()) {
        if (const int error = give_name())
            return error;
    }
    if (rename(temporary_.c_str(), destination_.c_str()) != 0)
        return errno;
    temporary_.clear();
    return sync_directory(directory_of(destination_));
}

} // namespace ruma
