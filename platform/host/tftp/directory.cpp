#include "tftp/directory.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ruma {
namespace {

constexpr int lookup_flags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// errno after a component that does not open as a directory: a link is told apart from a file.
int error_at(int directory, const std::string &name, int error) {
    struct stat status {};
    const bool link = error == ENOTDIR &&
                      fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                      S_ISLNK(status.st_mode);
    return link ? ELOOP : error;
}

} // namespace

UniqueFd open_directory(const std::string &path) {
    open_how how{};
    how.flags = lookup_flags;
    how.resolve = RESOLVE_NO_SYMLINKS;
    UniqueFd directory(
        static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    if (!directory && (errno == ENOSYS || errno == EPERM))
        return walk_to_directory(path);
    return directory;
}

UniqueFd walk_to_directory(const std::string &path) {
    if (path.empty()) {
        errno = ENOENT;
        return {};
    }
    UniqueFd directory(open(path.front() == '/' ? "/" : ".", lookup_flags));
    std::size_t start = 0;
    while (directory && (start = path.find_first_not_of('/', start)) != path.npos) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, end - start);
        UniqueFd below(openat(directory.get(), name.c_str(), lookup_flags | O_NOFOLLOW));
        if (!below)
            errno = error_at(directory.get(), name, errno);
        directory = std::move(below);
        start = end;
    }
    return directory;
}

} // namespace ruma
