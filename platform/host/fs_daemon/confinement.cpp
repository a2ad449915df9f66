#include "fs_daemon/confinement.h"

#include "config/config.h"
#include "sandbox/landlock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <seccomp.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <system_error>

namespace ruma {
namespace {

// Socket and lock, made again when somebody has taken them away.
constexpr uint64_t own_rights =
    files_rights | LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_READ_FILE;

// The names of both word sizes: those that a machine does not have are passed over.
constexpr const char *allowed_calls[] = {
    // Files and directories
    "close", "faccessat", "faccessat2", "fcntl", "fcntl64", "flock", "fstat", "fstat64",
    "fstatat64", "fstatfs", "fstatfs64", "getdents64", "inotify_add_watch", "inotify_rm_watch",
    "lseek", "_llseek", "lstat64", "mkdir", "newfstatat", "openat", "read", "stat64", "statx",
    "umask", "unlink", "unlinkat", "write",
    // Clients and the service manager
    "accept4", "bind", "connect", "getsockopt", "listen", "recv", "recvfrom", "send", "sendmsg",
    "sendto", "setsockopt",
    // The loop
    "clock_gettime", "clock_gettime64", "epoll_ctl", "epoll_wait", "restart_syscall",
    // The process itself
    "brk", "exit_group", "futex", "futex_time64", "getegid", "getegid32", "geteuid", "geteuid32",
    "getgid", "getgid32", "getpid", "getrandom", "gettid", "getuid", "getuid32", "madvise",
    "mremap", "munmap", "rt_sigprocmask", "rt_sigreturn", "sigreturn", "tgkill"};

// Memory that becomes code is none of the daemon's business.
constexpr const char *mapping_calls[] = {"mmap", "mmap2", "mprotect"};
constexpr unsigned int protection_argument = 2;

Confinement confinement() {
    Confinement result;
    result.denied.files = write_rights | LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_READ_FILE |
                          LANDLOCK_ACCESS_FS_IOCTL_DEV;
    result.denied.network = LANDLOCK_ACCESS_NET_BIND_TCP | LANDLOCK_ACCESS_NET_CONNECT_TCP;
    result.denied.scope = LANDLOCK_SCOPE_SIGNAL;
    // The service manager may listen at an abstract socket.
    const char *manager = std::getenv("NOTIFY_SOCKET");
    if (manager == nullptr || *manager != '@')
        result.denied.scope |= LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET;
    const std::string configuration = config_path();
    result.rules = {
        {fs_daemon_dir(), own_rights},
        {configuration.substr(0, configuration.rfind('/') + 1) + ".", LANDLOCK_ACCESS_FS_READ_FILE},
        // For the names of users that are refused; one that came later is told as a number.
        {"/etc/nsswitch.conf", LANDLOCK_ACCESS_FS_READ_FILE},
        {"/etc/passwd", LANDLOCK_ACCESS_FS_READ_FILE},
    };
    return result;
}

class Filter {
  public:
    // What is not allowed is to the daemon as if the kernel had no such call: a newer C library
    // that asks for a newer call then does with the older one, and neither it nor a call that was
    // forgotten here ends the inventory.
    Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), seccomp_release) {
        check(context_ == nullptr ? -ENOMEM : 0, "a filter");
        check(seccomp_attr_set(context_.get(), SCMP_FLTATR_API_SYSRAWRC, 1), "a filter");
    }

    template <typename... Conditions>
    void allow(const char *call, Conditions... conditions) {
        const int number = seccomp_syscall_resolve_name(call);
        if (number == __NR_SCMP_ERROR) // an older libseccomp
            return;
        const scmp_arg_cmp list[] = {conditions..., scmp_arg_cmp{}};
        check(seccomp_rule_add_array(context_.get(), SCMP_ACT_ALLOW, number, sizeof...(conditions),
                                     list),
              call);
    }

    void load() { check(seccomp_load(context_.get()), "seccomp"); }

  private:
    static void check(int result, const char *what) {
        if (result < 0)
            throw std::system_error(-result, std::generic_category(), what);
    }

    std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
};

void filter_calls() {
    Filter filter;
    for (const char *call : allowed_calls)
        filter.allow(call);
    for (const char *call : mapping_calls)
        filter.allow(call, scmp_arg_cmp{protection_argument, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0});
    filter.allow("socket", scmp_arg_cmp{0, SCMP_CMP_EQ, AF_UNIX, 0});
    filter.load();
}

void confine_files() {
    const ConfinementState &state = confine(confinement());
    if (state.kind == ConfinementState::Kind::unavailable)
        std::fprintf(stderr, "fs_daemon: this kernel has no Landlock: files are not confined\n");
    else if (!state.open.empty())
        std::fprintf(stderr, "fs_daemon: this kernel's Landlock leaves open: %s\n",
                     state.open.c_str());
}

} // namespace

void confine_daemon() {
    try {
        confine_files();
        if (prctl(PR_GET_SECCOMP, 0, 0, 0, 0) < 0)
            std::fprintf(stderr,
                         "fs_daemon: this kernel has no seccomp: system calls are not filtered\n");
        else
            filter_calls();
    } catch (const std::system_error &error) {
        throw std::runtime_error(std::string("cannot confine itself: ") + error.what());
    }
}

} // namespace ruma
