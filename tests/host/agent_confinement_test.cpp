// What the agent and its workers keep when they are confined. These tests need a kernel with
// Landlock and fail without.
#include "agent/confinement.h"

#include "temporary_directory.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

TEST(SocketDirectories, AreThoseOfUnixAddresses) {
    EXPECT_THAT(ruma::socket_directories("/var/agentx/master"), ElementsAre("/var/agentx/"));
    EXPECT_THAT(ruma::socket_directories("unix:/run/agentx/master"), ElementsAre("/run/agentx/"));
    EXPECT_THAT(ruma::socket_directories("tcp:localhost:705,/a/b,unix:/c/d,udp6:[::1]:705"),
                ElementsAre("/a/", "/c/"));
}

TEST(SocketDirectories, AreNoneOfOtherAddresses) {
    EXPECT_THAT(ruma::socket_directories(""), IsEmpty());
    EXPECT_THAT(ruma::socket_directories(",,"), IsEmpty());
    EXPECT_THAT(ruma::socket_directories("localhost:705"), IsEmpty());
    EXPECT_THAT(ruma::socket_directories("unix:relative/path"), IsEmpty());
}

// A worker beside an agent that is not confined: it is narrow by itself.
class Worker : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GT(ruma::landlock_abi(), 0) << "this kernel has no Landlock";
        for (const char *name : {"flash", "run", "state", "work"})
            fs::create_directory(directory / name);
        write_file(directory / "platform.toml", "[[file_system]]\nscheme = \"bootflash\"\n"
                                                "directory = \"" +
                                                    directory / "flash" + "\"\n");
        setenv("RUMA_CONFIG", (directory / "platform.toml").c_str(), 1);
        setenv("RUMA_RUN_DIR", (directory / "run").c_str(), 1);
        setenv("RUMA_STATE_DIR", (directory / "state").c_str(), 1);
    }

    // What a probe returns in a worker.
    int confined(const std::function<int()> &probe) const {
        const pid_t child = fork();
        if (child == 0) {
            fs::current_path(directory / "work");
            ruma::make_known_hosts_directory();
            ruma::confine(ruma::worker_confinement());
            _exit(probe());
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status;
    }

    int making(const std::string &name) const {
        return confined([&] {
            const std::string path = name[0] == '/' ? name : directory / name;
            return open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600) < 0 ? errno : 0;
        });
    }

    int starting(const char *program) const {
        return confined([program] {
            const int nothing = open("/dev/null", O_RDWR);
            for (const int standard : {0, 1, 2})
                dup2(nothing, standard);
            execl(program, program, nullptr);
            return errno == EACCES ? EACCES : 255;
        });
    }

    TemporaryDirectory directory;
};

TEST_F(Worker, WritesFilesWhereTransfersDo) {
    for (const char *name : {"flash/file", "state/file", "work/file", "/dev/null"})
        EXPECT_EQ(making(name), 0) << name;
}

TEST_F(Worker, WritesItsPageInTheRunDirectoryAndNothingElseThere) {
    fs::create_directory(directory / "run/transfer");
    write_file(directory / "run/transfer/1", "page");
    write_file(directory / "run/snmp-errors.log", "errors");
    EXPECT_EQ(making("run/transfer/1"), 0);
    EXPECT_EQ(making("run/transfer/2"), EACCES);
    EXPECT_EQ(making("run/snmp-errors.log"), EACCES);
    EXPECT_EQ(making("run/file"), EACCES);
}

TEST_F(Worker, WithoutAStateDirectoryKeepsKnownHostsInADirectoryOfTheirOwnAmongTheRunFiles) {
    fs::remove(directory / "state");
    EXPECT_EQ(making("run/ssh/known_hosts"), 0);
    EXPECT_EQ(fs::status(directory / "run/ssh").permissions(), fs::perms::owner_all);
}

TEST_F(Worker, WithoutAStateDirectoryWritesNothingElseInTheRunDirectory) {
    fs::remove(directory / "state");
    write_file(directory / "run/event-history", "records");
    EXPECT_EQ(making("run/event-history"), EACCES);
    EXPECT_EQ(making("run/file"), EACCES);
}

TEST_F(Worker, WritesNowhereElse) {
    for (const char *name : {"file", "/tmp/file", "/var/tmp/file", "/etc/file", "/dev/shm/file"})
        EXPECT_EQ(making(name), EACCES) << name;
}

TEST_F(Worker, MakesNothingButFiles) {
    const std::string name = directory / "flash/made";
    EXPECT_EQ(confined([&] { return mkdir(name.c_str(), 0700) == 0 ? 0 : errno; }), EACCES);
    EXPECT_EQ(confined([&] { return symlink("/etc", name.c_str()) == 0 ? 0 : errno; }), EACCES);
    EXPECT_EQ(confined([&] { return mkfifo(name.c_str(), 0600) == 0 ? 0 : errno; }), EACCES);
}

TEST_F(Worker, StartsWhatTransfersNeed) {
    for (const char *program :
         {"/bin/sh", "/bin/cp", "/usr/bin/expect", "/usr/bin/timeout", "/bin/stty",
          "/usr/bin/tnftp", "/usr/bin/ssh", "/usr/bin/scp", "/usr/bin/sftp", "/bin/sleep"})
        EXPECT_NE(starting(program), EACCES) << program;
}

TEST_F(Worker, StartsNothingElse) {
    for (const char *program :
         {"/usr/bin/touch", "/usr/bin/id", "/bin/mv", "/bin/chmod", "/bin/bash", "/usr/bin/perl"})
        EXPECT_EQ(starting(program), EACCES) << program;
}

TEST_F(Worker, TakesNoConnections) {
    if (ruma::landlock_abi() < 4)
        GTEST_SKIP() << "this kernel's Landlock leaves TCP open";
    EXPECT_EQ(confined([] {
                  sockaddr_in address{};
                  address.sin_family = AF_INET;
                  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                  const int made = socket(AF_INET, SOCK_STREAM, 0);
                  return bind(made, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
                             ? 0
                             : errno;
              }),
              EACCES);
}

TEST_F(Worker, SignalsItsOwnTransferAlone) {
    if (ruma::landlock_abi() < 6)
        GTEST_SKIP() << "this kernel's Landlock leaves signals open";
    EXPECT_EQ(confined([] { return kill(getppid(), 0) == 0 ? 0 : errno; }), EPERM);
    EXPECT_EQ(confined([] { return setpgid(0, 0) == 0 && kill(0, 0) == 0 ? 0 : errno; }), 0);
}

} // namespace
