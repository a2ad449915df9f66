#include "tftp/local_result.h"

#include <ruma/tftp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// What the next calls of fsync fail with; 0 lets one through.
std::vector<int> fsync_errors;

} // namespace

// Stands before the C library's own.
extern "C" int fsync(int descriptor) {
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    if (!fsync_errors.empty()) {
        errno = fsync_errors.front();
        fsync_errors.erase(fsync_errors.begin());
        if (errno != 0)
            return -1;
    }
    return real(descriptor);
}

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uid_t nobody = 65534;

std::string content(std::size_t size) {
    std::string text(size, '\0');
    uint32_t state = 12345;
    for (char &c : text) {
        state = state * 1664525 + 1013904223;
        c = static_cast<char>(state >> 24);
    }
    return text;
}

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const fs::path &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
    ASSERT_EQ(read_file(path), text);
}

unsigned permissions(const fs::path &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// A loopback address of this process's own, so that servers of other tests are not in the way.
std::string own_address() {
    const auto pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string(64 + (pid >> 16) % 64) + "." + std::to_string(pid >> 8 & 255) +
           "." + std::to_string(pid & 255);
}

sockaddr_in socket_address(const std::string &host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

double seconds_of(const std::function<void()> &body) {
    const auto began = Clock::now();
    body();
    return std::chrono::duration<double>(Clock::now() - began).count();
}

// Each test has a directory "local" of its own and one "server", writable by the server's user.
class Tftp : public testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/tftp_test.XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        ASSERT_EQ(chmod(path, 0755), 0);
        top = path;
        local = top / "local";
        server = top / "server";
        fs::create_directory(local);
        fs::create_directory(server);
        ASSERT_EQ(chmod(server.c_str(), 0777), 0);
        ASSERT_EQ(chdir(local.c_str()), 0);
        ASSERT_EQ(tftp_timeout_set(20), 0);
        ASSERT_EQ(tftp_connect(own_address().c_str(), -1), 0);
    }

    void TearDown() override {
        ASSERT_EQ(chdir("/"), 0);
        fs::remove_all(top);
    }

    // Mounts a file system of 64 KiB, gone with this process at the latest.
    void mount_small(const fs::path &where) {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", where.c_str(), "tmpfs", 0, "size=64k,mode=0777"), 0);
    }

    std::vector<std::string> local_files() const {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(local))
            names.push_back(entry.path().filename());
        return names;
    }

    fs::path top;
    fs::path local;
    fs::path server;
};

// With a real server.
class TftpServed : public Tftp {
  protected:
    void TearDown() override {
        stop();
        Tftp::TearDown();
    }

    void start(const std::vector<std::string> &options = {}) {
        std::vector<std::string> words{
            "atftpd",    "--daemon", "--no-fork", "--user",         "nobody.nogroup", "--logfile",
            top / "log", "--port",   "69",        "--bind-address", own_address()};
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

TEST_F(TftpServed, BlockNumbersMayWrap) {
    start({"--no-blksize"});
    const std::string text = content(std::size_t{64} << 20);
    write_file(server / "there", text);
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_TRUE(read_file(local / "here") == text);
}

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

TEST_F(TftpServed, ProxiesOfTheEnvironmentAreIgnored) {
    start();
    setenv("all_proxy", "http://127.0.0.1:1", 1);
    setenv("tftp_proxy", "http://127.0.0.1:1", 1);
    write_file(server / "there", "text");
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    unsetenv("all_proxy");
    unsetenv("tftp_proxy");
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

// With a server that is played by the test, one datagram at a time.
class TftpPlayed : public Tftp {
  protected:
    using Bytes = std::string;
    // Answers one datagram; an empty answer is silence.
    using Script = std::function<Bytes(const Bytes &)>;

    void SetUp() override {
        Tftp::SetUp();
        socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = socket_address(own_address(), 69);
        ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    void TearDown() override {
        if (thread_.joinable()) {
            ended_ = true;
            thread_.join();
        }
        close(socket_);
        Tftp::TearDown();
    }

    void play(const Script &script) {
        thread_ = std::thread([this, script] {
            while (!ended_) {
                pollfd wait{socket_, POLLIN, 0};
                if (poll(&wait, 1, 20) != 1)
                    continue;
                char buffer[2048];
                sockaddr_in client{};
                socklen_t length = sizeof client;
                const ssize_t size = recvfrom(socket_, buffer, sizeof buffer, 0,
                                              reinterpret_cast<sockaddr *>(&client), &length);
                const Bytes answer = script(Bytes(buffer, static_cast<std::size_t>(size)));
                if (!answer.empty())
                    sendto(socket_, answer.data(), answer.size(), 0,
                           reinterpret_cast<const sockaddr *>(&client), length);
            }
        });
    }

    static Bytes word(unsigned value) {
        return {static_cast<char>(value >> 8), static_cast<char>(value & 255)};
    }
    static Bytes data(unsigned block, std::size_t size) {
        return word(3) + word(block) + Bytes(size, 'd');
    }
    static Bytes acknowledgement(unsigned block) { return word(4) + word(block); }
    static Bytes error(unsigned code) { return word(5) + word(code) + Bytes("no\0", 3); }
    static unsigned opcode(const Bytes &bytes) { return static_cast<unsigned char>(bytes.at(1)); }
    static unsigned block(const Bytes &bytes) {
        return static_cast<unsigned>(static_cast<unsigned char>(bytes.at(2)) << 8 |
                                     static_cast<unsigned char>(bytes.at(3)));
    }

    void expect_time_out(const std::function<int()> &transfer) {
        ASSERT_EQ(tftp_timeout_set(3), 0);
        int result = 0;
        const double took = seconds_of([&] { result = transfer(); });
        EXPECT_EQ(result, -ETIMEDOUT);
        EXPECT_GE(took, 2.5);
        EXPECT_LE(took, 5.0);
    }

  private:
    int socket_ = -1;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

TEST_F(TftpPlayed, AServerThatNeverAnswersAGetTimesOut) {
    expect_time_out([&] { return tftp_get2("there", (local / "here").c_str(), 0); });
    EXPECT_THAT(local_files(), testing::IsEmpty());
}

TEST_F(TftpPlayed, AServerThatNeverAnswersAPutTimesOut) {
    write_file(local / "sent", "text");
    expect_time_out([&] { return tftp_put("sent", 0); });
}

TEST_F(TftpPlayed, AServerThatStallsInAGetTimesOut) {
    play([](const Bytes &bytes) {
        if (opcode(bytes) == 1)
            return data(1, 512);
        return opcode(bytes) == 4 && block(bytes) < 5 ? data(block(bytes) + 1, 512) : Bytes();
    });
    expect_time_out([&] { return tftp_get2("there", (local / "here").c_str(), 0); });
    EXPECT_THAT(local_files(), testing::IsEmpty());
}

TEST_F(TftpPlayed, AServerThatStallsInAPutTimesOut) {
    write_file(local / "sent", content(10000));
    play([](const Bytes &bytes) {
        if (opcode(bytes) == 2)
            return acknowledgement(0);
        return opcode(bytes) == 3 && block(bytes) < 5 ? acknowledgement(block(bytes)) : Bytes();
    });
    expect_time_out([&] { return tftp_put("sent", 0); });
}

TEST_F(TftpPlayed, AServerThatOnlyRepeatsItselfTimesOut) {
    play([](const Bytes &) { return data(1, 512); });
    expect_time_out([&] { return tftp_get2("there", (local / "here").c_str(), 0); });
}

TEST_F(TftpPlayed, ASlowTransferThatMovesIsNotCut) {
    ASSERT_EQ(tftp_timeout_set(2), 0);
    play([](const Bytes &bytes) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const unsigned next = opcode(bytes) == 1 ? 1 : block(bytes) + 1;
        return data(next, next < 10 ? 512 : 1);
    });
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0); }),
              4.0);
    EXPECT_EQ(fs::file_size(local / "here"), 9 * 512 + 1U);
}

TEST_F(TftpPlayed, LargeBlocksAreNegotiated) {
    std::string request;
    play([&](const Bytes &bytes) {
        if (opcode(bytes) == 1) {
            request = bytes;
            return word(6) + Bytes("blksize\0001468\0", 13);
        }
        return data(block(bytes) + 1, block(bytes) == 0 ? 1468 : 1);
    });
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_THAT(request, testing::HasSubstr(Bytes("blksize\0001468\0", 13)));
    EXPECT_EQ(fs::file_size(local / "here"), 1469U);
}

TEST_F(TftpPlayed, ANameOf255BytesIsSentWhole) {
    const Bytes name(255, 'r');
    Bytes request;
    play([&](const Bytes &bytes) {
        if (opcode(bytes) != 1)
            return Bytes();
        request = bytes;
        return data(1, 1);
    });
    EXPECT_EQ(tftp_get2(name.c_str(), (local / "here").c_str(), 0), 0);
    EXPECT_THAT(request, testing::StartsWith(word(1) + name + Bytes("\0octet\0", 7)));
}

TEST_F(TftpPlayed, AServerThatRefusesOptionsIsAskedWithout) {
    play([](const Bytes &bytes) {
        if (opcode(bytes) == 1)
            return bytes.find("blksize") != Bytes::npos ? error(8) : data(1, 3);
        return Bytes();
    });
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), 0);
    EXPECT_EQ(read_file(local / "here"), "ddd");
}

TEST_F(TftpPlayed, AServerThatRefusesOptionsIsSentTheWholeFile) {
    write_file(local / "sent", content(700));
    std::atomic<std::size_t> received{0};
    play([&](const Bytes &bytes) {
        if (opcode(bytes) == 2)
            return bytes.find("blksize") != Bytes::npos ? error(8) : acknowledgement(0);
        received += bytes.size() - 4;
        return acknowledgement(block(bytes));
    });
    EXPECT_EQ(tftp_put("sent", 0), 0);
    EXPECT_EQ(received, 700U);
}

TEST_F(TftpPlayed, ErrorsOfTheServerAreToldApart) {
    const std::pair<unsigned, int> errors[] = {{0, EPROTO}, {1, ENOENT}, {2, EACCES}, {3, ENOSPC},
                                               {4, EPROTO}, {6, EEXIST}, {7, EPERM}};
    std::atomic<unsigned> code{0};
    play([&](const Bytes &) { return error(code); });
    for (const auto &[sent, expected] : errors) {
        SCOPED_TRACE(sent);
        code = sent;
        EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -(100 + expected));
    }
}

TEST_F(TftpPlayed, AKilledTransferLeavesNothing) {
    std::atomic<int> blocks{0};
    play([&](const Bytes &bytes) {
        if (opcode(bytes) == 1)
            return data(1, 512);
        blocks = static_cast<int>(block(bytes));
        return blocks < 5 ? data(block(bytes) + 1, 512) : Bytes();
    });
    const pid_t child = fork();
    if (child == 0)
        _exit(tftp_get2("there", (local / "here").c_str(), 0) == 0 ? 0 : 1);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (blocks < 5 && Clock::now() < deadline)
        std::this_thread::yield();
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(blocks, 5);
    EXPECT_THAT(local_files(), testing::IsEmpty());
}

TEST_F(Tftp, AnotherPortThanTheProtocolsOwnIsUsed) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = socket_address(own_address(), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&address), length), 0);
    ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length), 0);
    ASSERT_EQ(tftp_connect(own_address().c_str(), ntohs(address.sin_port)), 0);
    ASSERT_EQ(tftp_timeout_set(1), 0);
    EXPECT_EQ(tftp_get2("there", (local / "here").c_str(), 0), -ETIMEDOUT);
    pollfd wait{socket, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 0), 1);
    close(socket);
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

TEST_F(Tftp, ADirectoryIsNotSent) {
    fs::create_directory(local / "directory");
    EXPECT_EQ(tftp_put("directory", 0), -EISDIR);
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
    EXPECT_EQ(tftp_get2(std::string(600, 'r').c_str(), (local / "here").c_str(), 0), -ENAMETOOLONG);
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
