// Other kernels than the running one, for this process and what it starts.
#ifndef KERNEL_H
#define KERNEL_H

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <dlfcn.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// The version of Landlock that this process's kernel claims to be; 0 for the real one.
inline int claimed_landlock;

// Stands before the C library's own.
extern "C" inline __attribute__((used)) long syscall(long number, ...) noexcept {
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    va_list list;
    va_start(list, number);
    long words[6];
    for (long &word : words)
        word = va_arg(list, long);
    va_end(list);
    if (number == SYS_landlock_create_ruleset && words[2] == LANDLOCK_CREATE_RULESET_VERSION &&
        claimed_landlock > 0)
        return claimed_landlock;
    return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

// Has a system call fail with this error from now on: always, or when its first argument is the one
// given. Without a kernel that can do that the process ends.
inline void take_away(long call, int error, long argument = -1) {
    const auto number = static_cast<uint32_t>(call);
    const auto word = static_cast<uint32_t>(argument);
    const bool any = argument < 0;
    sock_filter filter[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, number},
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, args)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, any ? uint8_t{0} : uint8_t{1}, word},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    sock_fprog program{std::size(filter), filter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(199);
}

#endif
