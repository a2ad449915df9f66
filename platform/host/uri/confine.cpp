#include "uri/confine.h"

#include "base/unique_fd.h"
#include "syserr/codes.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <linux/openat2.h>
#include <memory>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace ruma {
namespace {

using Components = std::vector<std::string>;

// A failed call, by its errno.
int32_t fail(int error, Confined *result) {
    result->error = error;
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return uri_no_directory;
    case EXDEV:
    case ELOOP:
        return uri_outside;
    case ENAMETOOLONG:
        return uri_too_long;
    case ENOMEM:
        return uri_no_memory;
    default:
        return uri_refused;
    }
}

// Splits a name, leaving out empty and "." components. False when a component is "..".
bool split(std::string_view name, Components *components) {
    while (!name.empty()) {
        const std::string_view component = name.substr(0, name.find('/'));
        name.remove_prefix(std::min(name.size(), component.size() + 1));
        if (component == "..")
            return false;
        if (!component.empty() && component != ".")
            components->emplace_back(component);
    }
    return true;
}

std::string join(const std::string &directory, const std::string &name) {
    if (directory.empty() || name.empty())
        return directory + name;
    return directory.back() == '/' ? directory + name : directory + "/" + name;
}

std::string join(const Components &components) {
    std::string name;
    for (const std::string &component : components)
        name = join(name, component);
    return name;
}

// `path` seen from `root`, or nothing when it does not lie below it.
std::optional<std::string> below(const std::string &path, const std::string &root) {
    if (path == root)
        return "";
    const std::string prefix = root.back() == '/' ? root : root + "/";
    if (path.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    return path.substr(prefix.size());
}

// The directory without links on its path, or empty with errno set.
std::string canonical(const std::string &directory) {
    const std::unique_ptr<char, decltype(&std::free)> path(::realpath(directory.c_str(), nullptr),
                                                           std::free);
    return path == nullptr ? "" : path.get();
}

// Where an open directory lies, or empty when the system does not tell.
std::string location(const UniqueFd &directory) {
    char path[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(directory.get());
    const ssize_t length = ::readlink(link.c_str(), path, sizeof(path));
    if (length <= 0 || static_cast<size_t>(length) == sizeof(path) || path[0] != '/')
        return {};
    return std::string(path, static_cast<size_t>(length));
}

UniqueFd open_beneath(const UniqueFd &root, const std::string &name, int flags) {
    open_how how{};
    how.flags = static_cast<uint64_t>(O_PATH | O_CLOEXEC | flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    // A rename elsewhere can disturb a look-up through ".." in a link; the kernel then asks for
    // another attempt.
    constexpr int attempts = 32;
    long fd = -1;
    for (int i = 0; i < attempts; i++) {
        fd = ::syscall(SYS_openat2, root.get(), name.empty() ? "." : name.c_str(), &how,
                       sizeof(how));
        if (fd >= 0 || errno != EAGAIN)
            break;
    }
    return UniqueFd(static_cast<int>(fd));
}

// One look-up below one directory.
class Search {
  public:
    Search(const std::string &root, UniqueFd root_descriptor)
        : root_(root), root_descriptor_(std::move(root_descriptor)) {}

    // Each looks up `name` in the directory `parents` and fills `result`. The first answers nothing
    // when this kernel cannot do it.
    std::optional<int32_t> by_kernel(const Components &parents, const std::string &name,
                                     Confined *result) const {
        const UniqueFd parent = open_beneath(root_descriptor_, join(parents), O_DIRECTORY);
        if (!parent) {
            if (errno == ENOSYS || errno == EPERM) // older, or kept away by a sandbox
                return std::nullopt;
            return fail(errno, result);
        }
        const std::string parent_path = location(parent);
        if (parent_path.empty())
            return std::nullopt;
        const std::optional<std::string> relative = below(parent_path, root_);
        if (!relative)
            return uri_outside;
        result->path = join(parent_path, name);

        // From the root again: a link may point up as long as it stays below.
        const UniqueFd file = open_beneath(root_descriptor_, join(*relative, name), 0);
        if (file) {
            result->status.emplace();
            return ::fstat(file.get(), &*result->status) == 0 ? success : uri_refused;
        }
        if (errno != ENOENT)
            return fail(errno, result);
        // Nothing there, or a link to nothing, which could come to lead anywhere.
        struct stat link {};
        const bool dangling =
            ::fstatat(parent.get(), name.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0;
        return dangling ? uri_outside : success;
    }

    int32_t by_walking(const Components &parents, const std::string &name, Confined *result) const {
        UniqueFd parent(::openat(root_descriptor_.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
        for (const std::string &component : parents) {
            if (!parent)
                break;
            parent = UniqueFd(::openat(parent.get(), component.c_str(),
                                       O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        }
        if (!parent)
            return fail(errno, result);
        result->path = join(join(root_, join(parents)), name);
        struct stat status {};
        if (::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return errno == ENOENT ? success : fail(errno, result);
        if (S_ISLNK(status.st_mode))
            return uri_outside;
        result->status = status;
        return success;
    }

  private:
    const std::string &root_;
    UniqueFd root_descriptor_;
};

} // namespace

int32_t confine(const std::string &directory, std::string_view name, Confined *result,
                Lookup lookup) {
    Components parents;
    if (!split(name, &parents))
        return uri_malformed;
    const std::string root = canonical(directory);
    if (root.empty())
        return fail(errno, result);
    UniqueFd root_descriptor(::open(root.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat root_status {};
    if (!root_descriptor || ::fstat(root_descriptor.get(), &root_status) != 0)
        return fail(errno, result);
    if (parents.empty()) {
        *result = {root, root_status, 0};
        return success;
    }
    const std::string last = std::move(parents.back());
    parents.pop_back();

    const Search search(root, std::move(root_descriptor));
    Confined found;
    std::optional<int32_t> code;
    if (lookup == Lookup::kernel)
        code = search.by_kernel(parents, last, &found);
    if (!code) {
        found = {};
        code = search.by_walking(parents, last, &found);
    }
    if (*code != success) {
        result->error = found.error;
        return *code;
    }
    if (name.back() == '/' && (!found.status || !S_ISDIR(found.status->st_mode)))
        return uri_no_directory;
    *result = std::move(found);
    return success;
}

} // namespace ruma
