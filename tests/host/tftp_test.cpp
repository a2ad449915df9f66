#include "failing_fsync.h"
#include "tftp/local_result.h"
#include "tftp_fixture.h"

#include <ruma/tftp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace tftp_test;

// With a real server, whose user may write in its directory.
class TftpServed : public Tftp {
  protected:
    void SetUp() override {
        Tftp::SetUp();
        fs::create_directory(server);
        ASSERT_EQ(chmod(server.c_str(), 0777), 0);
    }

    void TearDown() override {
        stop();
        Tftp::TearDown();
    }

    void start(const std::vector<std::string> &options = {}) {
        std::vector<std::string> words{
            "atftpd",      "--daemon", "--no-fork", "--user",         "nobody.nogroup", "--logfile",
            above / "log", "--port",   "69",        "--bind-address", own_address()};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back(server);
        std::vector<char *> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string &word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        ASSERT_GT(pid_, 0);
        await_port();
    }

    void stop() {
        if (pid_ <= 0)
            return;
        // Asked politely, it waits for clients that left in the middle.
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    void get_and_put(std::size_t size) {
        const std::string text = content(size);
        write_file(server / "there", text);
        EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
        EXPECT_TRUE(read_file(local / "here") == text) << "got other content, size " << size;
        write_file(local / "sent", text);
        EXPECT_EQ(tftp_put("sent", 0), 0);
        // The server may still be writing when its acknowledgement is here.
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (read_file(server / "sent") != text && Clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_TRUE(fs::exists(server / "sent"));
        EXPECT_TRUE(read_file(server / "sent") == text) << "put other content, size " << size;
        EXPECT_THAT(local_files(), testing::UnorderedElementsAre("here", "sent"));
    }

    const fs::path server = above / "server";

  private:
    // Waits until the server holds its port.
    void await_port() {
        const sockaddr_in address = socket_address(own_address(), 69);
        char wanted[16];
        std::snprintf(wanted, sizeof wanted, "%08X:0045",
                      static_cast<unsigned>(address.sin_addr.s_addr));
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (read_proc("/proc/net/udp").find(wanted) == std::string::npos) {
            ASSERT_LT(Clock::now(), deadline) << "the server did not start";
            ASSERT_EQ(waitpid(pid_, nullptr, WNOHANG), 0) << "the server ended";
            std::this_thread::yield();
        }
    }

    static std::string read_proc(const char *path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    pid_t pid_ = -1;
};

class TftpSizes : public TftpServed, public testing::WithParamInterface<std::size_t> {};

TEST_P(TftpSizes, GoBothWaysUnchanged) {
    start();
    get_and_put(GetParam());
}

TEST_P(TftpSizes, GoBothWaysUnchangedWithAServerWithoutBlockSizes) {
    start({"--no-blksize"});
    get_and_put(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Bytes, TftpSizes,
                         testing::Values(0, 1, 511, 512, 513, 1024, 1467, 1468, 1469, 2936,
                                         1048576),
                         testing::PrintToStringParamName());

TEST_F(TftpServed, ANewFileIsItsOwnersAlone) {
    start();
    write_file(server / "there", "new");
    ASSERT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(permissions(local / "here"), 0600U);
}

TEST_F(TftpServed, AReplacedFileHandsItsPermissionsOn) {
    start();
    write_file(server / "there", "new");
    write_file(local / "here", "old");
    ASSERT_EQ(chmod((local / "here").c_str(), 0644), 0);
    ASSERT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(read_file(local / "here"), "new");
    EXPECT_EQ(permissions(local / "here"), 0644U);
}

TEST_F(TftpServed, ASymbolicLinkIsReplacedAndNotFollowed) {
    start();
    write_file(server / "there", "new");
    write_file(local / "target", "old");
    fs::create_symlink("target", local / "here");
    ASSERT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(read_file(local / "target"), "old");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(local / "here")));
}

TEST_F(TftpServed, AMissingRemoteFileIsNoSuchFileOfTheServer) {
    start();
    EXPECT_EQ(tftp_get2("missing", (local / "here").c_str(), 0), -(100 + ENOENT));
    EXPECT_THAT(local_files(), testing::IsEmpty());
}

TEST_F(TftpServed, AFailedGetLeavesTheOldDestinationUntouched) {
    start();
    write_file(local / "here", "old");
    EXPECT_EQ(tftp_get2("missing", (local / "here").c_str(), 0), -(100 + ENOENT));
    EXPECT_EQ(read_file(local / "here"), "old");
    EXPECT_THAT(local_files(), testing::ElementsAre("here"));
}

TEST_F(TftpServed, AServerThatMayNotWriteRefusesAccess) {
    ASSERT_EQ(chmod(server.c_str(), 0555), 0);
    start();
    write_file(local / "sent", "text");
    EXPECT_EQ(tftp_put("sent", 0), -(100 + EACCES));
}

TEST_F(TftpServed, AServerThatMayNotReadReportsAnError) {
    start();
    write_file(server / "secret", "text");
    ASSERT_EQ(chmod((server / "secret").c_str(), 0600), 0);
    const int result = tftp_get2("secret", (local / "here").c_str(), 0);
    EXPECT_THAT(result, testing::AnyOf(-(100 + ENOENT), -(100 + EACCES)));
    EXPECT_THAT(local_files(), testing::IsEmpty());
}

TEST_F(TftpServed, AFullLocalDiskIsNoSpace) {
    mount_small(local);
    ASSERT_EQ(chdir(local.c_str()), 0);
    start();
    write_file(server / "there", content(1 << 20));
    write_file(local / "here", "old");
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -ENOSPC);
    EXPECT_EQ(read_file(local / "here"), "old");
    EXPECT_THAT(local_files(), testing::ElementsAre("here"));
    stop();
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(umount(local.c_str()), 0);
}

TEST_F(TftpServed, AQuotaUsedUpIsNoSpaceOfThisSide) {
    start();
    write_file(server / "there", "text");
    write_file(local / "here", "old");
    fsync_errors = {EDQUOT};
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -ENOSPC);
    EXPECT_TRUE(fsync_errors.empty());
    EXPECT_EQ(read_file(local / "here"), "old");
    EXPECT_THAT(local_files(), testing::ElementsAre("here"));
}

TEST_F(TftpServed, ADirectoryThatCannotBeMadeDurableIsAnError) {
    start();
    write_file(server / "there", "text");
    fsync_errors = {0, EIO};
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -EIO);
    EXPECT_TRUE(fsync_errors.empty());
}

TEST_F(TftpServed, AFileSystemThatCannotSyncDirectoriesIsNoError) {
    start();
    write_file(server / "there", "text");
    fsync_errors = {0, EINVAL};
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_TRUE(fsync_errors.empty());
    EXPECT_EQ(read_file(local / "here"), "text");
}

TEST_F(TftpServed, AFullServerIsNoSpaceOfTheServer) {
    mount_small(server);
    start();
    write_file(local / "sent", content(1 << 20));
    EXPECT_EQ(tftp_put("sent", 0), -(100 + ENOSPC));
    stop();
    EXPECT_EQ(umount(server.c_str()), 0);
}

TEST_F(TftpServed, ADestinationInAMissingDirectoryIsNoSuchFile) {
    start();
    write_file(server / "there", "text");
    EXPECT_EQ(tftp_get2("there", (local / "none" / "here").c_str(), 0), -ENOENT);
}

TEST_F(TftpServed, ADirectoryIsNotReplaced) {
    start();
    write_file(server / "there", "text");
    fs::create_directory(local / "here");
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -EISDIR);
}

TEST_F(TftpServed, ASpecialFileIsNotReplaced) {
    start();
    write_file(server / "there", "text");
    ASSERT_EQ(mkfifo((local / "here").c_str(), 0600), 0);
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -EINVAL);
    EXPECT_TRUE(fs::is_fifo(local / "here"));
    EXPECT_EQ(tftp_put("here", 0), -EINVAL);
}

TEST_F(TftpServed, ADestinationMayHaveTheLongestName) {
    start();
    write_file(server / "there", "text");
    const fs::path destination = local / std::string(255, 'n');
    EXPECT_EQ(tftp_get2("there", destination.c_str(), 0), 0);
    EXPECT_EQ(read_file(destination), "text");
}

TEST_F(TftpServed, NamesReachTheServerByteForByte) {
    start();
    for (const std::string name :
         {"with space", "50%", "%41", "what?", "sharp#1", "a;mode=netascii", "semi;colon", "a&b=c",
          "plus+", "\xc3\xa9t\xc3\xa9", "\xff\xfe", "back\\slash", "quote\"'`$(x)",
          "tab\tnew\nline", "[1]{2}*", "sub/name", "sub/./dotted", "user@host:69", "-dash"}) {
        SCOPED_TRACE(name);
        fs::create_directories((server / name).parent_path());
        write_file(server / name, name);
        EXPECT_EQ(tftp_get2(name.c_str(), (local / "here").c_str(), 0), 0);
        EXPECT_EQ(read_file(local / "here"), name);
    }
}

TEST_F(TftpServed, AnAbsoluteNameKeepsItsSlash) {
    start();
    write_file(server / "there", "text");
    EXPECT_EQ(tftp_get2((server / "there").c_str(), (local / "here").c_str(), 0), 0);
    EXPECT_EQ(read_file(local / "here"), "text");
}

TEST_F(TftpServed, TwoTransfersInARowWork) {
    start();
    write_file(server / "one", "1");
    write_file(server / "two", "22");
    EXPECT_EQ(tftp_get2("one", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(tftp_get2("two", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(read_file(local / "here"), "22");
}

TEST_F(TftpServed, AForkedChildTransfersAfterItsParentDid) {
    start();
    write_file(server / "there", "text");
    ASSERT_EQ(tftp_get2("there", (local / "parent").c_str(), 0), 0);
    const pid_t child = fork();
    if (child == 0)
        _exit(tftp_get2("there", (local / "child").c_str(), 0) == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(local / "child"), "text");
}

TEST_F(Tftp, AServerThatIsNoDottedQuadIsRefused) {
    for (const char *server_name : {"", "localhost", "127.0.0", "127.0.0.1.1", "127.0.0.256",
                                    "127.0.0.1 ", "::1", "127.0.0.1/x", "1"})
        EXPECT_LT(tftp_connect(server_name, -1), 0) << server_name;
    EXPECT_LT(tftp_connect(nullptr, -1), 0);
}

TEST_F(Tftp, APortOutOfRangeIsRefused) {
    for (const int port : {-2, 0, 65536})
        EXPECT_LT(tftp_connect("127.0.0.1", port), 0) << port;
}

TEST_F(Tftp, ATimeThatIsNotPositiveIsRefused) {
    EXPECT_LT(tftp_timeout_set(0), 0);
    EXPECT_LT(tftp_timeout_set(-1), 0);
}

TEST_F(Tftp, AMissingLocalFileIsNoSuchFile) { EXPECT_EQ(tftp_put("missing", 0), -ENOENT); }

TEST_F(Tftp, WhatIsNoRegularFileIsNotSentAndNotWaitedFor) {
    fs::create_directory(local / "directory");
    EXPECT_EQ(tftp_put("directory", 0), -EISDIR);
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    EXPECT_EQ(tftp_put("fifo", 0), -EINVAL);
    EXPECT_EQ(tftp_put("/dev/zero", 0), -EINVAL);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{AF_UNIX, "socket"};
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(tftp_put("socket", 0), -ENXIO);
    close(listener);
}

TEST_F(Tftp, AnUnreadableLocalFileIsNoAccess) {
    write_file(local / "secret", "text");
    ASSERT_EQ(chmod("secret", 0600), 0);
    ASSERT_EQ(seteuid(nobody), 0);
    const int result = tftp_put("secret", 0);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(result, -EACCES);
}

TEST_F(Tftp, AnEmptyRemoteNameIsRefused) {
    EXPECT_EQ(tftp_get2("", (local / "here").c_str(), 0), -EINVAL);
}

TEST_F(Tftp, ARemoteNameThatFitsNoRequestIsRefused) {
    EXPECT_EQ(tftp_get2(std::string(504, 'r').c_str(), (local / "here").c_str(), 0), -ENAMETOOLONG);
}

TEST_F(Tftp, MissingArgumentsAreRefused) {
    EXPECT_EQ(tftp_get2(nullptr, "here", 0), -EINVAL);
    EXPECT_EQ(tftp_get2("there", nullptr, 0), -EINVAL);
    EXPECT_EQ(tftp_get2("there", "here", 1), -EINVAL);
    EXPECT_EQ(tftp_put(nullptr, 0), -EINVAL);
}

TEST(TftpLocalResult, IsTheNegativeErrnoUpTo100) {
    for (int error = 0; error <= 100; ++error)
        EXPECT_EQ(ruma::local_result(error), -error);
}

TEST(TftpLocalResult, OfAnotherErrnoIsNoResultOfTheServer) {
    for (int error = 101; error <= 4095; ++error) {
        const int expected = error == ETIMEDOUT ? -ETIMEDOUT : error == EDQUOT ? -ENOSPC : -EIO;
        EXPECT_EQ(ruma::local_result(error), expected) << error;
    }
}

TEST(TftpUnconnected, TransfersNothing) {
    // In a process that starts anew, since this one may have named a server already.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        _exit(tftp_put("sent", 0) == -EDESTADDRREQ && tftp_get2("there", "here", 0) == -EDESTADDRREQ
                  ? 0
                  : 1),
        testing::ExitedWithCode(0), "");
}

TEST(TftpStrerror, DoesNotTakeAServersErrorForALocalOne) {
    EXPECT_STREQ(tftp_strerror(-(100 + EISDIR)), "Unknown error");
}

TEST(TftpStrerror, TellsTheServersErrorsFromLocalOnes) {
    EXPECT_STREQ(tftp_strerror(-(100 + ENOENT)), "The server has no such file");
    EXPECT_STREQ(tftp_strerror(-ENOENT), "No such file or directory");
    EXPECT_STREQ(tftp_strerror(-(100 + ENOSPC)), "The server's disk is full");
    EXPECT_STREQ(tftp_strerror(-ENOSPC), "No space left on device");
    EXPECT_STREQ(tftp_strerror(-ETIMEDOUT), "The server did not answer in time");
}

TEST(TftpStrerror, HasATextForEveryResult) {
    for (const int result : {0, 1, -1, -99999, INT32_MIN, INT32_MAX})
        EXPECT_STRNE(tftp_strerror(result), "") << result;
}

} // namespace
