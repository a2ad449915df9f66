// What the file-system daemon can still do once it has confined itself. These tests need a kernel
// with Landlock and seccomp and fail without.
#include "fs_daemon/confinement.cpp"

#include "kernel.h"
#include "provoked.h"
#include "temporary_directory.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

int error_of(long result) { return result >= 0 ? 0 : errno; }

class DaemonConfinement : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GT(ruma::landlock_abi(), 0) << "this kernel has no Landlock";
        ASSERT_GE(prctl(PR_GET_SECCOMP, 0, 0, 0, 0), 0) << "this kernel has no seccomp";
        fs::create_directories(directory / "run/fsd");
        fs::create_directories(directory / "flash/sub");
        fs::create_directory(directory / "etc");
        write_file(directory / "flash/file", "content");
        write_file(directory / "etc/platform.toml", "");
        setenv("RUMA_RUN_DIR", (directory / "run").c_str(), 1);
        setenv("RUMA_CONFIG", (directory / "etc/platform.toml").c_str(), 1);
    }

    // What a probe returns in a process that has confined itself as the daemon does. The directory
    // of the run is remembered by the process, so that each probe has a process of its own.
    static int confined(const std::function<int()> &probe) {
        const pid_t child = fork();
        if (child == 0) {
            try {
                ruma::confine_daemon();
            } catch (const std::exception &error) {
                std::fprintf(stderr, "%s\n", error.what());
                _exit(200);
            }
            _exit(probe());
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status;
    }

    static int opening(const std::string &path, int flags) {
        return confined([&] { return error_of(open(path.c_str(), flags | O_CLOEXEC, 0600)); });
    }

    TemporaryDirectory directory;
};

TEST_F(DaemonConfinement, DirectoriesAreListedAndWatchedAndFileSystemsMeasured) {
    EXPECT_EQ(opening(directory / "flash", O_RDONLY | O_DIRECTORY), 0);
    EXPECT_EQ(confined([&] {
                  const int watches = inotify_init1(IN_CLOEXEC);
                  return watches < 0 && errno == ENOSYS ? 0 : 1;
              }),
              0)
        << "watches are opened before";
    const int watches = inotify_init1(IN_CLOEXEC);
    EXPECT_EQ(confined([&] {
                  return error_of(
                      inotify_add_watch(watches, (directory / "flash/sub").c_str(), IN_CREATE));
              }),
              0);
    close(watches);
    EXPECT_EQ(confined([&] {
                  struct statvfs sizes {};
                  const int flash = open((directory / "flash").c_str(), O_PATH | O_CLOEXEC);
                  return error_of(fstatvfs(flash, &sizes));
              }),
              0);
}

TEST_F(DaemonConfinement, ContentOfFilesCannotBeRead) {
    EXPECT_EQ(opening(directory / "flash/file", O_RDONLY), EACCES);
    EXPECT_EQ(opening("/etc/group", O_RDONLY), EACCES);
}

TEST_F(DaemonConfinement, UsersStillHaveNames) {
    EXPECT_EQ(confined([] {
                  const passwd *root = getpwuid(0);
                  return root != nullptr && std::string(root->pw_name) == "root" ? 0 : 1;
              }),
              0);
}

TEST_F(DaemonConfinement, ConfigurationCanBeReadAgainAlsoWhenItWasReplaced) {
    int confined_now[2], replaced[2];
    ASSERT_EQ(pipe(confined_now) | pipe(replaced), 0);
    // As an editor replaces it: by another process, with another file.
    const pid_t editor = fork();
    if (editor == 0) {
        char byte = 0;
        write_file(directory / "etc/new", "");
        const bool done = read(confined_now[0], &byte, 1) == 1 &&
                          rename((directory / "etc/new").c_str(),
                                 (directory / "etc/platform.toml").c_str()) == 0 &&
                          write(replaced[1], "x", 1) == 1;
        _exit(done ? 0 : 1);
    }
    EXPECT_EQ(confined([&] {
                  char byte = 0;
                  return write(confined_now[1], "x", 1) == 1 && read(replaced[0], &byte, 1) == 1
                             ? error_of(open((directory / "etc/platform.toml").c_str(), O_RDONLY))
                             : 1;
              }),
              0);
    int status = -1;
    waitpid(editor, &status, 0);
    EXPECT_EQ(status, 0);
    for (const int fd : {confined_now[0], confined_now[1], replaced[0], replaced[1]})
        close(fd);
}

TEST_F(DaemonConfinement, NothingIsWrittenButInTheDaemonsDirectory) {
    EXPECT_EQ(opening(directory / "run/fsd/lock", O_RDWR | O_CREAT), 0);
    EXPECT_EQ(opening(directory / "run/file", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(opening(directory / "flash/new", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(opening(directory / "flash/file", O_WRONLY), EACCES);
    EXPECT_EQ(opening(directory / "etc/platform.toml", O_WRONLY), EACCES);
    EXPECT_EQ(confined([&] { return error_of(unlink((directory / "flash/file").c_str())); }),
              EACCES);
    EXPECT_EQ(confined([&] { return error_of(mkdir((directory / "flash/new").c_str(), 0700)); }),
              EACCES);
}

TEST_F(DaemonConfinement, ModesOwnersAndTimesCannotBeChangedNorFilesMoved) {
    const std::string file = directory / "flash/file";
    const std::string socket = directory / "run/fsd/socket";
    EXPECT_EQ(confined([&] { return error_of(chmod(file.c_str(), 0777)); }), ENOSYS);
    EXPECT_EQ(confined([&] { return error_of(chown(file.c_str(), 1, 1)); }), ENOSYS);
    EXPECT_EQ(confined([&] { return error_of(utimensat(AT_FDCWD, file.c_str(), nullptr, 0)); }),
              ENOSYS);
    EXPECT_EQ(confined([&] { return error_of(rename(file.c_str(), socket.c_str())); }), ENOSYS);
    EXPECT_EQ(confined([&] { return error_of(truncate(file.c_str(), 0)); }), ENOSYS);
}

TEST_F(DaemonConfinement, NoProgramStartsAndNoProcess) {
    EXPECT_EQ(confined([] {
                  execl("/bin/true", "true", nullptr);
                  return errno;
              }),
              ENOSYS);
    EXPECT_EQ(confined([] { return error_of(fork()); }), ENOSYS);
}

TEST_F(DaemonConfinement, NoSocketIsMadeButUnixOnes) {
    EXPECT_EQ(confined([] { return error_of(socket(AF_UNIX, SOCK_SEQPACKET, 0)); }), 0);
#ifndef __i386__ // where a filter does not see the arguments of such calls
    for (const int family : {AF_INET, AF_INET6, AF_NETLINK, AF_PACKET})
        EXPECT_EQ(confined([family] { return error_of(socket(family, SOCK_DGRAM, 0)); }), ENOSYS);
#endif
    EXPECT_NE(confined([] {
                  sockaddr_in address{};
                  address.sin_family = AF_INET;
                  const int made = socket(AF_INET, SOCK_STREAM, 0);
                  return error_of(
                      bind(made, reinterpret_cast<sockaddr *>(&address), sizeof address));
              }),
              0);
}

TEST_F(DaemonConfinement, SocketIsMadeAndRemovedInTheDaemonsDirectory) {
    EXPECT_EQ(confined([&] {
                  sockaddr_un address{};
                  address.sun_family = AF_UNIX;
                  (directory / "run/fsd/socket").copy(address.sun_path, sizeof address.sun_path);
                  const int made = socket(AF_UNIX, SOCK_SEQPACKET, 0);
                  if (bind(made, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
                      return errno;
                  return error_of(unlink(address.sun_path));
              }),
              0);
}

TEST_F(DaemonConfinement, MemoryCannotBecomeCode) {
    EXPECT_EQ(confined([] {
                  void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                  return page == MAP_FAILED ? errno
                                            : error_of(mprotect(page, 4096, PROT_READ | PROT_EXEC));
              }),
              ENOSYS);
}

TEST_F(DaemonConfinement, NoProcessIsSignalledAndNoneLookedInto) {
    EXPECT_EQ(confined([] { return error_of(kill(getppid(), 0)); }), ENOSYS);
    EXPECT_EQ(opening("/proc/" + std::to_string(getpid()) + "/environ", O_RDONLY), EACCES);
}

// ---- What it says

class DaemonOnAnotherKernel : public DaemonConfinement {
  protected:
    // What the daemon says when it confines itself on a kernel that was changed by `change`.
    std::string said(const std::function<void()> &change) {
        const pid_t child = fork();
        if (child == 0) {
            const int errors = open((directory / "errors").c_str(), O_WRONLY | O_CREAT, 0600);
            dup2(errors, STDERR_FILENO);
            change();
            try {
                ruma::confine_daemon();
            } catch (const std::runtime_error &error) {
                std::fprintf(stderr, "fs_daemon: %s\n", error.what());
            }
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        return read_file(directory / "errors");
    }
};

TEST_F(DaemonOnAnotherKernel, OneThatHasEverythingNeedsNoWords) {
    if (ruma::landlock_abi() >= 6) {
        EXPECT_EQ(said([] {}), "");
    }
}

TEST_F(DaemonOnAnotherKernel, OneWithoutLandlockIsTold) {
    EXPECT_PROVOKED(said([] { take_away(SYS_landlock_create_ruleset, ENOSYS); }),
                    "fs_daemon: this kernel has no Landlock: files are not confined");
}

TEST_F(DaemonOnAnotherKernel, OneWithAnEarlyLandlockIsToldWithWhatItLeavesOpen) {
    const std::string text = said([] { claimed_landlock = 3; });
    EXPECT_EQ(text, "fs_daemon: this kernel's Landlock leaves open: TCP, controlling devices, "
                    "abstract sockets, signals\n");
    EXPECT_PROVOKED(text, "fs_daemon: this kernel's Landlock leaves open: …");
}

TEST_F(DaemonOnAnotherKernel, OneWithoutSeccompIsTold) {
    EXPECT_PROVOKED(said([] { take_away(SYS_prctl, EINVAL, PR_GET_SECCOMP); }),
                    "fs_daemon: this kernel has no seccomp: system calls are not filtered");
}

TEST_F(DaemonOnAnotherKernel, OneThatRefusesIsAnError) {
    EXPECT_PROVOKED(said([] { take_away(SYS_landlock_restrict_self, E2BIG); }),
                    "fs_daemon: cannot confine itself: …");
    EXPECT_PROVOKED(said([] { take_away(SYS_landlock_add_rule, ENOMEM); }),
                    "fs_daemon: cannot confine itself: …");
}

} // namespace
