// What can be denied by Landlock, and what each version of it leaves open. Nothing here asks the
// kernel.
#ifndef RUMA_HOST_SANDBOX_LANDLOCK_RIGHTS_H
#define RUMA_HOST_SANDBOX_LANDLOCK_RIGHTS_H

#include <cstdint>
#include <linux/landlock.h>
#include <string>

// What the distribution's header, which knows ABI 2, lacks. Kernels are often newer than the
// headers that programs are built with, and these numbers are the kernel's promise.
#ifndef LANDLOCK_ACCESS_FS_REFER
#define LANDLOCK_ACCESS_FS_REFER (1ULL << 13)
#endif
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15)
#endif
#ifndef LANDLOCK_ACCESS_NET_BIND_TCP
#define LANDLOCK_ACCESS_NET_BIND_TCP (1ULL << 0)
#define LANDLOCK_ACCESS_NET_CONNECT_TCP (1ULL << 1)
#endif
#ifndef LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET
#define LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET (1ULL << 0)
#define LANDLOCK_SCOPE_SIGNAL (1ULL << 1)
#endif

namespace ruma {

// Rights in the kernel's own numbers.
struct LandlockRights {
    uint64_t files = 0;   // LANDLOCK_ACCESS_FS_*
    uint64_t network = 0; // LANDLOCK_ACCESS_NET_*
    uint64_t scope = 0;   // LANDLOCK_SCOPE_*: what does not reach a process outside

    bool operator==(const LandlockRights &) const = default;
};

// What a program does with the regular files of a directory: makes, writes, replaces, removes.
constexpr uint64_t files_rights = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_TRUNCATE |
                                  LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_REMOVE_FILE;

// All that changes what is there.
constexpr uint64_t write_rights =
    files_rights | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_MAKE_CHAR |
    LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO |
    LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_REFER;

// Those that a rule for something else than a directory may hold.
constexpr uint64_t rights_of_a_file = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                      LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_TRUNCATE |
                                      LANDLOCK_ACCESS_FS_IOCTL_DEV;

// What an ABI knows of `wanted`. Nothing for an ABI below 1; a later one knows at least what is
// known here.
LandlockRights known_rights(const LandlockRights &wanted, int abi);

// What an ABI does not deny although `wanted` says so, for a log: "truncating files, signals";
// empty when that is nothing. What no ABI denies is not in it.
std::string left_open(const LandlockRights &wanted, int abi);

} // namespace ruma

#endif
