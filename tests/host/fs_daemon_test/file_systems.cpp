// File systems that come and go.
#include "daemon.h"

#include "cmi/cmi_wire.h"
#include "provoked.h"
#include "ruma/cmi.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sysexits.h>

namespace {

using namespace fs_daemon;

// ---- File systems that come and go

TEST_F(FsDaemon, ADirectoryThatDisappearsIsUnavailableUntilItReturns) {
    write_file(first / "a");
    write_file(second / "b");
    start();
    fs::rename(first, base / "away");
    ASSERT_TRUE(eventually([&] { return partition(1)->state == 3; }));
    EXPECT_TRUE(lists({"2:b"}));
    EXPECT_EQ(partition(1)->files, 0);
    EXPECT_EQ(partition(1)->size, 0U);
    EXPECT_EQ(Client(socket_path()).device(CMI_EXACT, 1)->size, 0U);
    EXPECT_NE(errors().find(first.string() + " is unavailable"), std::string::npos);
    EXPECT_PROVOKED(errors(), "fs_daemon: …: … is unavailable");
    write_file(base / "away/c");
    fs::rename(base / "away", first);
    ASSERT_TRUE(eventually([&] { return lists({"1:a", "1:c", "2:b"}); }));
    EXPECT_EQ(walk().at("1:a"), 1U);
    EXPECT_EQ(partition(1)->state, 1);
    EXPECT_PROVOKED(errors(), "fs_daemon: …: … is available");
    write_file(first / "d");
    EXPECT_TRUE(eventually([&] { return walk().contains("1:d"); }));
}

TEST_F(FsDaemon, ADirectoryThatIsReplacedIsListedAnew) {
    write_file(first / "a");
    start();
    fs::remove_all(first);
    fs::create_directory(first);
    write_file(first / "b");
    EXPECT_TRUE(eventually([&] { return lists({"1:b"}); }));
    write_file(first / "c");
    EXPECT_TRUE(eventually([&] { return lists({"1:b", "1:c"}); }));
}

TEST_F(FsDaemon, ADirectoryThatAppearsAfterTheStartIsServed) {
    fs::remove(first);
    start();
    EXPECT_EQ(partition(1)->state, 3);
    fs::create_directory(first);
    write_file(first / "a");
    EXPECT_TRUE(eventually([&] { return lists({"1:a"}); }));
    EXPECT_EQ(partition(1)->state, 1);
}

// Mounts of this process and its children only.
class FsDaemonMounts : public FsDaemon {
  protected:
    void SetUp() override {
        FsDaemon::SetUp();
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "only root can mount: " << strerror(errno);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    }
    void TearDown() override {
        EXPECT_EQ(stop(), 0) << errors();
        umount(first.c_str());
        FsDaemon::TearDown();
    }
    static bool mount_tmpfs(const fs::path &directory, unsigned long flags = 0) {
        return mount("fs_daemon_test", directory.c_str(), "tmpfs", flags, "size=1m") == 0;
    }
};

TEST_F(FsDaemonMounts, AnUnmountedFileSystemIsUnavailableUntilItIsMountedAgain) {
    write_file(first / "beneath");
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "a");
    start();
    EXPECT_TRUE(lists({"1:a"}));
    EXPECT_EQ(partition(1)->fsType, 5);
    EXPECT_EQ(partition(1)->size, 1U << 20);
    ASSERT_EQ(umount(first.c_str()), 0) << "the daemon keeps the file system busy";
    ASSERT_TRUE(eventually([&] { return partition(1)->state == 3; }));
    EXPECT_TRUE(walk().empty());
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "b");
    ASSERT_TRUE(eventually([&] { return lists({"1:b"}); }));
    EXPECT_EQ(partition(1)->state, 1);
}

TEST_F(FsDaemonMounts, AReadOnlyFileSystemSaysSo) {
    ASSERT_TRUE(mount_tmpfs(first, MS_RDONLY));
    start();
    EXPECT_EQ(partition(1)->state, 2);
    EXPECT_EQ(partition(1)->writeAccess, 2);
    ASSERT_EQ(mount(nullptr, first.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    EXPECT_EQ(partition(1)->state, 1);
}

TEST_F(FsDaemonMounts, FilesOfAnotherFileSystemMountedInsideAreNotListed) {
    fs::create_directory(first / "sub");
    write_file(first / "sub/hidden");
    write_file(first / "a");
    start();
    EXPECT_TRUE(lists({"1:a", "1:sub/hidden"}));
    ASSERT_TRUE(mount_tmpfs(first / "sub"));
    write_file(first / "sub/foreign");
    write_file(first / "sub/hidden", "another one");
    EXPECT_TRUE(lists({"1:a"}));
    stop();
    start();
    EXPECT_TRUE(lists({"1:a"}));
    stop();
    ASSERT_EQ(umount((first / "sub").c_str()), 0);
}

TEST_F(FsDaemonMounts, AFullFileSystemIsUsedTo100PerCent) {
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "fill", std::string(2U << 20, 'x'));
    start();
    EXPECT_EQ(partition(1)->percentUsed, 100);
    EXPECT_EQ(partition(1)->free, 0U);
    fs::remove(first / "fill");
    EXPECT_EQ(partition(1)->percentUsed, 0);
}

} // namespace
