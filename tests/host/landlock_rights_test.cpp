// Which rights each version of Landlock knows, and what it leaves open.
#include "sandbox/landlock_rights.h"

#include <gtest/gtest.h>

namespace {

using ruma::known_rights;
using ruma::LandlockRights;
using ruma::left_open;

constexpr LandlockRights everything = {
    ruma::write_rights | LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_READ_FILE |
        LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_IOCTL_DEV,
    LANDLOCK_ACCESS_NET_BIND_TCP | LANDLOCK_ACCESS_NET_CONNECT_TCP,
    LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET | LANDLOCK_SCOPE_SIGNAL,
};

// The kernel's own numbers, as its documentation has them for each ABI.
struct Version {
    int abi;
    LandlockRights known;
    const char *open;
};

class EachVersion : public testing::TestWithParam<Version> {};

TEST_P(EachVersion, KnowsWhatItsKernelDenies) {
    EXPECT_EQ(known_rights(everything, GetParam().abi), GetParam().known);
}

TEST_P(EachVersion, LeavesOpenWhatLaterOnesDeny) {
    EXPECT_EQ(left_open(everything, GetParam().abi), GetParam().open);
}

TEST_P(EachVersion, KnowsNothingThatIsNotWanted) {
    EXPECT_EQ(known_rights({}, GetParam().abi), LandlockRights{});
    EXPECT_EQ(left_open({}, GetParam().abi), "");
}

INSTANTIATE_TEST_SUITE_P(
    Landlock, EachVersion,
    testing::Values(
        Version{0,
                {0, 0, 0},
                "files and programs, truncating files, TCP, controlling devices, abstract sockets, "
                "signals"},
        Version{1,
                {0x1fff, 0, 0},
                "truncating files, TCP, controlling devices, abstract sockets, signals"},
        Version{2,
                {0x3fff, 0, 0},
                "truncating files, TCP, controlling devices, abstract sockets, signals"},
        Version{3, {0x7fff, 0, 0}, "TCP, controlling devices, abstract sockets, signals"},
        Version{4, {0x7fff, 3, 0}, "controlling devices, abstract sockets, signals"},
        Version{5, {0xffff, 3, 0}, "abstract sockets, signals"}, Version{6, {0xffff, 3, 3}, ""},
        Version{7, {0xffff, 3, 3}, ""}, Version{99, {0xffff, 3, 3}, ""}),
    [](const auto &version) { return "Abi" + std::to_string(version.param.abi); });

TEST(LandlockRights, MovesBetweenDirectoriesAreRefusedByAKernelThatCannotAllowThem) {
    EXPECT_EQ(left_open({LANDLOCK_ACCESS_FS_REFER, 0, 0}, 1), "");
}

TEST(LandlockRights, OneScopeIsLeftOpenWithoutTheOther) {
    EXPECT_EQ(left_open({0, 0, LANDLOCK_SCOPE_SIGNAL}, 5), "signals");
    EXPECT_EQ(left_open({0, 0, LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET}, 5), "abstract sockets");
}

} // namespace
