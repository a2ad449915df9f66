#include "base/run_directory.h"

#include "base/peer.h"
#include "base/unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ruma {
namespace {

[[noreturn]] void fail(const std::string &path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// Whether the directory was missing. Its mode does not depend on the umask of whoever comes first.
bool make(const std::string &path) {
    const mode_t mask = umask(0022);
    const bool made = mkdir(path.c_str(), 0755) == 0;
    const int error = errno;
    umask(mask);
    errno = error;
    if (!made && errno != EEXIST)
        fail(path);
    return made;
}

} // namespace

void prepare_run_dir(const std::string &path, std::optional<uid_t> user) {
    // A slash at the end would follow a link.
    const std::string name = path.substr(0, path.find_last_not_of('/') + 1);
    const bool made = make(name);
    // From here on the directory itself and not its name, which may come to mean another one.
    const UniqueFd directory(open(name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0)
        fail(name);
    if (S_ISLNK(status.st_mode))
        throw std::runtime_error(name + " is a symbolic link");
    if (!S_ISDIR(status.st_mode))
        throw std::runtime_error(name + " is not a directory");
    if (!is_trusted(status.st_uid, user))
        throw std::runtime_error(name + " belongs to another user");
    // With an access list the group's bits are its mask: they tell of further users too.
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw std::runtime_error(name + " can be written by others than its owner");
    if (made && user && geteuid() == 0 &&
        fchownat(directory.get(), "", *user, static_cast<gid_t>(-1), AT_EMPTY_PATH) != 0)
        fail(name);
}

} // namespace ruma
