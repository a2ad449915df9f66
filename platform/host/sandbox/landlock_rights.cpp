#include "sandbox/landlock_rights.h"

namespace ruma {
namespace {

// Rights, the ABI that they came with, and what is open without. An ABI without REFER refuses what
// it stands for, so that nothing is open.
struct Version {
    int abi;
    LandlockRights rights;
    const char *open;
};

constexpr uint64_t first_rights = LANDLOCK_ACCESS_FS_REFER - 1;

constexpr Version versions[] = {
    {1, {first_rights, 0, 0}, "files and programs"},
    {2, {LANDLOCK_ACCESS_FS_REFER, 0, 0}, nullptr},
    {3, {LANDLOCK_ACCESS_FS_TRUNCATE, 0, 0}, "truncating files"},
    {4, {0, LANDLOCK_ACCESS_NET_BIND_TCP | LANDLOCK_ACCESS_NET_CONNECT_TCP, 0}, "TCP"},
    {5, {LANDLOCK_ACCESS_FS_IOCTL_DEV, 0, 0}, "controlling devices"},
    {6, {0, 0, LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET}, "abstract sockets"},
    {6, {0, 0, LANDLOCK_SCOPE_SIGNAL}, "signals"},
};

LandlockRights both(const LandlockRights &a, const LandlockRights &b) {
    return {a.files & b.files, a.network & b.network, a.scope & b.scope};
}

} // namespace

LandlockRights known_rights(const LandlockRights &wanted, int abi) {
    LandlockRights known;
    for (const Version &version : versions) {
        if (version.abi > abi)
            continue;
        const LandlockRights added = both(wanted, version.rights);
        known.files |= added.files;
        known.network |= added.network;
        known.scope |= added.scope;
    }
    return known;
}

std::string left_open(const LandlockRights &wanted, int abi) {
    std::string text;
    for (const Version &version : versions) {
        if (version.abi <= abi || version.open == nullptr ||
            both(wanted, version.rights) == LandlockRights{})
            continue;
        text += (text.empty() ? "" : ", ") + std::string(version.open);
    }
    return text;
}

} // namespace ruma
