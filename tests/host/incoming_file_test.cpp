// Where a file that is received is put, and what it never follows.
#include "tftp/directory.h"
#include "tftp/incoming_file.h"

#include "temporary_directory.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

unsigned permissions(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::vector<std::string> names_in(const std::string &directory) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    return names;
}

// Both ways to open a directory must agree.
class Directories : public testing::TestWithParam<ruma::UniqueFd (*)(const std::string &)> {
  protected:
    void SetUp() override {
        fs::create_directories(top / "real/sub");
        fs::create_directory_symlink("real", top / "link");
        write_file(top / "file", "text");
        ASSERT_EQ(chdir(top.path().c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // 0 when `path` opens as the directory `expected`, or the errno.
    static int opened(const std::string &path, const std::string &expected) {
        const ruma::UniqueFd directory = GetParam()(path);
        if (!directory)
            return errno;
        EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(directory.get())), expected);
        EXPECT_EQ(fcntl(directory.get(), F_GETFD), FD_CLOEXEC);
        return 0;
    }

    const TemporaryDirectory top;
};

TEST_P(Directories, OpenByEveryPathWithoutALink) {
    for (const char *path : {"/real/sub", "/real/sub/", "//real//sub//", "/real/./sub",
                             "/real/../real/sub", "/./real/sub/."})
        EXPECT_EQ(opened(top.path() + path, top / "real/sub"), 0) << path;
    EXPECT_EQ(opened("real/sub", top / "real/sub"), 0);
    EXPECT_EQ(opened(".", top.path()), 0);
    EXPECT_EQ(opened("./", top.path()), 0);
    EXPECT_EQ(opened("/", "/"), 0);
    EXPECT_EQ(opened("///", "/"), 0);
}

TEST_P(Directories, DoNotOpenThroughALinkAnywhere) {
    for (const char *path : {"link", "link/", "link/.", "link/sub", "link/../real", "./link/sub"})
        EXPECT_EQ(opened(path, ""), ELOOP) << path;
    EXPECT_EQ(opened(top / "link/sub", ""), ELOOP);
}

TEST_P(Directories, SayWhyTheyDoNotOpen) {
    EXPECT_EQ(opened("none", ""), ENOENT);
    EXPECT_EQ(opened("none/sub", ""), ENOENT);
    EXPECT_EQ(opened("", ""), ENOENT);
    EXPECT_EQ(opened("file", ""), ENOTDIR);
    EXPECT_EQ(opened("file/sub", ""), ENOTDIR);
    EXPECT_EQ(opened(std::string(256, 'n'), ""), ENAMETOOLONG);
}

INSTANTIATE_TEST_SUITE_P(How, Directories,
                         testing::Values(ruma::open_directory, ruma::walk_to_directory));

// Lets openat2 fail in this process from now on.
bool forbid_openat2(uint32_t error) {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(DirectoryLookup, GoesOnWithoutTheKernelsHelp) {
    const TemporaryDirectory top;
    fs::create_directory(top / "real");
    fs::create_directory_symlink("real", top / "link");
    for (const int error : {ENOSYS, EPERM}) {
        const pid_t child = fork();
        if (child == 0) {
            if (!forbid_openat2(static_cast<uint32_t>(error)))
                _exit(2);
            const bool opens = static_cast<bool>(ruma::open_directory(top / "real"));
            const bool refuses = !ruma::open_directory(top / "link") && errno == ELOOP;
            _exit(opens && refuses ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << error;
    }
}

class IncomingFile : public testing::Test {
  protected:
    // Replaces the directory by a link that leads elsewhere.
    void swap() const {
        fs::rename(flash, top / "moved");
        fs::create_directory_symlink(outside, flash);
    }

    void SetUp() override {
        fs::create_directory(flash);
        fs::create_directory(outside);
    }

    // Without /proc a file cannot be named later.
    static void hide_proc() {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    }

    const TemporaryDirectory top;
    const std::string flash = top / "flash";
    const std::string outside = top / "outside";
    const std::string destination = flash + "/image";
};

TEST_F(IncomingFile, StaysInTheDirectoryThatWasOpened) {
    ruma::IncomingFile file;
    ASSERT_EQ(file.open(destination), 0);
    ASSERT_EQ(write(file.descriptor(), "text", 4), 4);
    swap();
    EXPECT_EQ(file.commit(), 0);
    EXPECT_TRUE(fs::is_empty(outside));
    EXPECT_EQ(read_file(top / "moved/image"), "text");
}

TEST_F(IncomingFile, WithANameStaysInTheDirectoryThatWasOpenedAndIsItsOwnersAlone) {
    write_file(destination, "old");
    ASSERT_EQ(chmod(destination.c_str(), 0664), 0);
    ASSERT_NO_FATAL_FAILURE(hide_proc());
    {
        ruma::IncomingFile file;
        EXPECT_EQ(file.open(destination), 0);
        EXPECT_EQ(write(file.descriptor(), "text", 4), 4);
        const std::vector<std::string> names = names_in(flash);
        EXPECT_THAT(names, testing::UnorderedElementsAre("image", testing::StartsWith(".tftp-")));
        for (const std::string &name : names)
            EXPECT_EQ(permissions(flash + "/" + name), name == "image" ? 0664U : 0600U);
        swap();
        EXPECT_EQ(file.commit(), 0);
    }
    EXPECT_TRUE(fs::is_empty(outside));
    EXPECT_THAT(names_in(top / "moved"), testing::ElementsAre("image"));
    EXPECT_EQ(read_file(top / "moved/image"), "text");
    EXPECT_EQ(permissions(top / "moved/image"), 0664U);
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_F(IncomingFile, WithANameIsRemovedWhereItWasMadeWhenItIsGivenUp) {
    ASSERT_NO_FATAL_FAILURE(hide_proc());
    {
        ruma::IncomingFile file;
        EXPECT_EQ(file.open(destination), 0);
        swap();
    }
    EXPECT_TRUE(fs::is_empty(top / "moved"));
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_F(IncomingFile, RemovesWhatADeadProcessWasReceivingAndNothingElse) {
    const pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    const std::string left = ".tftp-" + std::to_string(dead) + "-01abef";
    const std::vector<std::string> others = {".tftp-" + std::to_string(getpid()) + "-01abef",
                                             left + "0",
                                             left + ".bak",
                                             ".tftp--1-01abef",
                                             ".tftp-0-01abef",
                                             ".tftp-01abef",
                                             ".tftp-" + std::to_string(dead) + "-0x1abe",
                                             ".tftp-" + std::to_string(dead) + "-+1abef",
                                             ".tftp- " + std::to_string(dead) + "-01abef",
                                             ".tftp-99999999999999999999-01abef",
                                             "image"};
    for (const std::string &name : others)
        write_file(flash + "/" + name, "text");
    write_file(flash + "/" + left, "text");
    ruma::IncomingFile file;
    EXPECT_EQ(file.open(destination), 0);
    EXPECT_THAT(names_in(flash), testing::UnorderedElementsAreArray(others));
}

TEST_F(IncomingFile, OfAKilledProcessIsRemovedByTheNext) {
    ASSERT_NO_FATAL_FAILURE(hide_proc());
    const pid_t killed = fork();
    if (killed == 0) {
        ruma::IncomingFile file;
        if (file.open(destination) == 0)
            raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(killed, &status, 0), killed);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(names_in(flash).size(), 1U);
    {
        ruma::IncomingFile file;
        EXPECT_EQ(file.open(destination), 0);
        EXPECT_EQ(file.commit(), 0);
    }
    EXPECT_THAT(names_in(flash), testing::ElementsAre("image"));
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_F(IncomingFile, IsNewWith0600WhateverTheMask) {
    for (const mode_t mask : {0U, 022U, 0777U}) {
        const mode_t before = umask(mask);
        ruma::IncomingFile file;
        EXPECT_EQ(file.open(destination + std::to_string(mask)), 0);
        EXPECT_EQ(file.commit(), 0);
        umask(before);
        EXPECT_EQ(permissions(destination + std::to_string(mask)), 0600U) << mask;
    }
}

TEST_F(IncomingFile, GivesNoSpecialBitsOn) {
    write_file(destination, "old");
    ASSERT_EQ(chmod(destination.c_str(), 06755), 0);
    ruma::IncomingFile file;
    ASSERT_EQ(file.open(destination), 0);
    ASSERT_EQ(file.commit(), 0);
    EXPECT_EQ(permissions(destination), 0755U);
}

TEST_F(IncomingFile, ReplacesALinkAndGivesItsModeNoFurther) {
    write_file(outside + "/target", "old");
    ASSERT_EQ(chmod((outside + "/target").c_str(), 0666), 0);
    fs::create_symlink(outside + "/target", destination);
    ruma::IncomingFile file;
    ASSERT_EQ(file.open(destination), 0);
    ASSERT_EQ(file.commit(), 0);
    EXPECT_EQ(read_file(outside + "/target"), "old");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(destination)));
    EXPECT_EQ(permissions(destination), 0600U);
}

TEST_F(IncomingFile, IsNotOpenedWhereNoFileCanBe) {
    fs::create_directory_symlink("flash", top / "link");
    ASSERT_EQ(mkfifo((flash + "/fifo").c_str(), 0600), 0);
    const std::pair<std::string, int> refused[] = {{flash, EISDIR},
                                                   {flash + "/", EISDIR},
                                                   {flash + "/.", EISDIR},
                                                   {flash + "/..", EISDIR},
                                                   {flash + "/fifo", EINVAL},
                                                   {top / "none/image", ENOENT},
                                                   {top / "link/image", ELOOP},
                                                   {flash + "/fifo/image", ENOTDIR}};
    for (const auto &[path, error] : refused) {
        ruma::IncomingFile file;
        EXPECT_EQ(file.open(path), error) << path;
    }
}

} // namespace
