#include "config/config.h"
#include "pmb/receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using ruma::PmbHeader;
using ruma::PmbReceiver;

constexpr uint32_t node = 0xfe000000;
constexpr uint32_t sap = 28;
constexpr uint32_t opcode = 7786;
constexpr uid_t nobody = 65534;

// What others do as soon as a socket has been given a name.
std::function<void()> after_bind;

const pmb_queue_attributes attributes{1, 0, 1024, 0, 0, 15};
const pmb_send_options plain{{1}};

} // namespace

// Stands before the C library's own.
extern "C" int bind(int socket, const sockaddr *address, socklen_t length) noexcept {
    using Bind = int (*)(int, const sockaddr *, socklen_t);
    static const auto real = reinterpret_cast<Bind>(dlsym(RTLD_NEXT, "bind"));
    const int result = real(socket, address, length);
    if (after_bind)
        after_bind();
    return result;
}

namespace {

class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        char path[] = "/tmp/pmb_test.XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        // Everybody may come as far as the sockets, as on an installed platform.
        ASSERT_EQ(chmod(path, 0755), 0);
        path_ = path;
        setenv("RUMA_RUN_DIR", path, 1);
    }
    void TearDown() override { std::filesystem::remove_all(path_); }

  private:
    std::string path_;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

int send_text(const std::string &text, uint32_t to = sap) {
    const int handle = pmb_bind(1, -1, &attributes, "test_task");
    const int result =
        pmb_send(handle, node, to, opcode, text.data(), static_cast<uint32_t>(text.size()), &plain);
    const int error = errno;
    pmb_unbind(handle, 0);
    errno = error;
    return result;
}

// Runs `body` in another process, as another user when `user` is not root, and returns its pid
// when it has ended with the result true.
pid_t run_elsewhere(uid_t user, const std::function<bool()> &body) {
    const pid_t child = fork();
    if (child == 0)
        _exit((user == 0 || setuid(user) == 0) && body() ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the other process failed";
    return child;
}

std::string text_of(const pmb_message &message) {
    uint32_t length = 0;
    const void *payload = pmb_payload_get(&message, &length);
    return {static_cast<const char *>(payload), length};
}

class Pmb : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove(path);
        ASSERT_EQ(receiver.open(node, sap), 0);
    }

    // Sends bytes past the service.
    void send_raw(const std::vector<unsigned char> &bytes) {
        const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        ASSERT_EQ(ruma::pmb_socket_address(path, address), 0);
        EXPECT_EQ(sendto(socket, bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  static_cast<ssize_t>(bytes.size()));
        close(socket);
    }

    void send_raw(const PmbHeader &header, std::size_t payload) {
        std::vector<unsigned char> bytes(sizeof header + payload);
        std::memcpy(bytes.data(), &header, sizeof header);
        send_raw(bytes);
    }

    const std::string path = ruma::pmb_socket_path(node, sap);
    PmbReceiver receiver;
    pmb_message message{};
};

TEST_F(Pmb, SocketIsNamedAfterNodeAndAccessPoint) {
    EXPECT_EQ(path, ruma::run_dir() + "/pmb-fe000000-28.sock");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(Pmb, TheModeOfTheSocketDoesNotDependOnTheUmask) {
    const mode_t before = umask(077);
    PmbReceiver other;
    EXPECT_EQ(other.open(node, sap + 5), 0);
    EXPECT_EQ(umask(before), 077U);
    struct stat status {};
    ASSERT_EQ(stat(ruma::pmb_socket_path(node, sap + 5).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(Pmb, ALinkPlantedAtTheTemporaryNameDoesNotReachItsTarget) {
    const std::string target = ruma::run_dir() + "/precious";
    std::ofstream(target) << "precious";
    ASSERT_EQ(chmod(target.c_str(), 0600), 0);
    const std::string place = ruma::pmb_socket_path(node, sap + 6);
    const std::string temporary = place + "." + std::to_string(getpid());
    const auto plant = [&] {
        std::filesystem::remove(temporary);
        std::filesystem::create_symlink(target, temporary);
    };
    // Before the receiver comes, and again as soon as its socket has the name.
    plant();
    after_bind = plant;
    PmbReceiver other;
    static_cast<void>(other.open(node, sap + 6));
    after_bind = nullptr;
    struct stat status {};
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(std::filesystem::file_size(target), 8U);
    std::filesystem::remove(target);
    std::filesystem::remove(place);
}

TEST_F(Pmb, AReceiverThatWasClosedIsGoneAndMayOpenAgain) {
    receiver.close();
    EXPECT_EQ(receiver.descriptor(), -1);
    EXPECT_NE(send_text("x"), 0);
    EXPECT_EQ(errno, ECONNREFUSED);
    ASSERT_EQ(receiver.open(node, sap), 0);
    ASSERT_EQ(send_text("x"), 0);
    EXPECT_TRUE(receiver.receive(message));
}

TEST_F(Pmb, AReceiverKnowsWhetherItsSocketFileIsStillThere) {
    EXPECT_TRUE(receiver.in_place());
    std::filesystem::rename(path, path + ".away");
    EXPECT_FALSE(receiver.in_place());
    std::ofstream(path) << "another file";
    EXPECT_FALSE(receiver.in_place());
    std::filesystem::rename(path + ".away", path);
    EXPECT_TRUE(receiver.in_place());
}

TEST_F(Pmb, DeliversAMessageOfAnotherProcessWithItsSender) {
    const pid_t sender = run_elsewhere(0, [] { return send_text("twelve bytes") == 0; });
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(message.node, node);
    EXPECT_EQ(message.sap, sap);
    EXPECT_EQ(message.opcode, opcode);
    EXPECT_EQ(message.sender_pid, sender);
    EXPECT_EQ(message.sender_uid, 0U);
    EXPECT_EQ(text_of(message), "twelve bytes");
    EXPECT_EQ(receiver.counters().delivered, 1U);
    EXPECT_EQ(receiver.counters().dropped(), 0U);
    EXPECT_FALSE(receiver.receive(message));
}

TEST_F(Pmb, MakesTheDescriptorReadable) {
    pollfd wait{receiver.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 0), 0);
    ASSERT_EQ(send_text("x"), 0);
    EXPECT_EQ(poll(&wait, 1, 0), 1);
}

TEST_F(Pmb, TellsWhetherAnythingWaits) {
    EXPECT_FALSE(receiver.waiting());
    ASSERT_EQ(send_text("one"), 0);
    ASSERT_EQ(send_text("two"), 0);
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_TRUE(receiver.waiting());
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_FALSE(receiver.waiting());
    receiver.close();
    EXPECT_FALSE(receiver.waiting());
}

TEST_F(Pmb, CarriesAnEmptyPayload) {
    ASSERT_EQ(send_text(""), 0);
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(text_of(message), "");
}

TEST_F(Pmb, CarriesTheLongestPayload) {
    const std::string text(ruma::pmb_max_payload, 'x');
    ASSERT_EQ(send_text(text), 0);
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(text_of(message), text);
}

TEST_F(Pmb, RefusesToSendALongerPayload) {
    EXPECT_NE(send_text(std::string(ruma::pmb_max_payload + 1, 'x')), 0);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_FALSE(receiver.receive(message));
}

TEST_F(Pmb, DropsAndCountsAMessageOfAnotherUser) {
    run_elsewhere(nobody, [] { return send_text("forged") == 0; });
    EXPECT_FALSE(receiver.receive(message));
    EXPECT_EQ(receiver.counters().foreign, 1U);
    EXPECT_EQ(receiver.counters().delivered, 0U);
}

TEST_F(Pmb, AForgedMessageDoesNotHoldUpAGenuineOne) {
    run_elsewhere(nobody, [] { return send_text("forged") == 0; });
    ASSERT_EQ(send_text("genuine"), 0);
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(text_of(message), "genuine");
    EXPECT_EQ(receiver.counters().foreign, 1U);
}

TEST_F(Pmb, JudgesSendersByTheUserThatTheReceiverHasBecome) {
    ASSERT_EQ(seteuid(nobody), 0);
    run_elsewhere(0,
                  [] { return seteuid(0) == 0 && setuid(nobody) == 0 && send_text("own") == 0; });
    const bool own = receiver.receive(message);
    const uint32_t own_uid = message.sender_uid;
    run_elsewhere(0, [] { return seteuid(0) == 0 && setuid(1) == 0 && send_text("other") == 0; });
    const bool other = receiver.receive(message);
    run_elsewhere(0, [] { return seteuid(0) == 0 && send_text("root") == 0; });
    const bool root = receiver.receive(message);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(own);
    EXPECT_EQ(own_uid, nobody);
    EXPECT_FALSE(other);
    EXPECT_FALSE(root) << "only the receiver's own user is served, whoever else sends";
    EXPECT_EQ(receiver.counters().foreign, 2U);
}

TEST_F(Pmb, TwoSendersOfOneNameDoNotDisturbEachOther) {
    const int first = pmb_bind(1, -1, &attributes, "flash_copy_task");
    const int second = pmb_bind(1, -1, &attributes, "flash_copy_task");
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    EXPECT_EQ(pmb_send(first, node, sap, opcode, "one", 3, &plain), 0);
    EXPECT_EQ(pmb_unbind(first, 0), 0);
    EXPECT_EQ(pmb_send(second, node, sap, opcode, "two", 3, &plain), 0);
    EXPECT_EQ(pmb_unbind(second, 0), 0);
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(text_of(message), "one");
    ASSERT_TRUE(receiver.receive(message));
    EXPECT_EQ(text_of(message), "two");
}

TEST_F(Pmb, DropsAndCountsMalformedMessages) {
    const PmbHeader good{ruma::pmb_magic, ruma::pmb_version, opcode, 12};
    PmbHeader wrong_magic = good;
    wrong_magic.magic ^= 1;
    PmbHeader wrong_version = good;
    ++wrong_version.version;
    PmbHeader huge = good;
    huge.length = 0xffffffff;
    send_raw({});
    send_raw(std::vector<unsigned char>(sizeof(PmbHeader) - 1));
    send_raw(wrong_magic, 12);
    send_raw(wrong_version, 12);
    send_raw(good, 11);
    send_raw(good, 13);
    send_raw(huge, 12);
    send_raw(good, 12);
    EXPECT_TRUE(receiver.receive(message));
    EXPECT_EQ(message.length, 12U);
    EXPECT_EQ(receiver.counters().malformed, 7U);
    EXPECT_EQ(receiver.counters().delivered, 1U);
}

TEST_F(Pmb, DropsAndCountsAMessageThatIsTooLong) {
    send_raw({ruma::pmb_magic, ruma::pmb_version, opcode, ruma::pmb_max_payload + 1},
             ruma::pmb_max_payload + 1);
    EXPECT_FALSE(receiver.receive(message));
    EXPECT_EQ(receiver.counters().truncated, 1U);
}

TEST_F(Pmb, DropsAMessageThatCarriesDescriptorsAndKeepsNone) {
    const int before = dup(0);
    close(before);
    PmbHeader header{ruma::pmb_magic, ruma::pmb_version, opcode, 0};
    iovec part{&header, sizeof header};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))]{};
    sockaddr_un address{};
    ASSERT_EQ(ruma::pmb_socket_address(path, address), 0);
    msghdr datagram{};
    datagram.msg_name = &address;
    datagram.msg_namelen = sizeof address;
    datagram.msg_iov = &part;
    datagram.msg_iovlen = 1;
    datagram.msg_control = control;
    datagram.msg_controllen = sizeof control;
    cmsghdr *rights = CMSG_FIRSTHDR(&datagram);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    const int handle = pmb_bind(1, -1, &attributes, "test_task");
    std::memcpy(CMSG_DATA(rights), &handle, sizeof handle);
    ASSERT_GT(sendmsg(handle, &datagram, 0), 0);
    pmb_unbind(handle, 0);
    EXPECT_FALSE(receiver.receive(message));
    EXPECT_EQ(receiver.counters().malformed, 1U);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(Pmb, SendGivesUpAfterTwoSecondsWhenTheQueueStaysFull) {
    int sent = 0;
    std::chrono::steady_clock::time_point began;
    do {
        ASSERT_LT(++sent, 10000);
        began = std::chrono::steady_clock::now();
    } while (send_text("x") == 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - began;
    EXPECT_GE(waited.count(), 1.9);
    EXPECT_LE(waited.count(), 3.0);
}

TEST_F(Pmb, SendGoesThroughAsSoonAsAFullQueueHasRoom) {
    // Leave the queue one short of where a send would wait.
    std::ifstream limit_file("/proc/sys/net/unix/max_dgram_qlen");
    int limit = 0;
    ASSERT_TRUE(limit_file >> limit);
    for (int i = 0; i <= limit; ++i)
        ASSERT_EQ(send_text("filler"), 0);
    const pid_t sender = fork();
    if (sender == 0)
        _exit(send_text("last") == 0 ? 0 : 1);
    while (text_of(message) != "last") {
        pollfd wait{receiver.descriptor(), POLLIN, 0};
        ASSERT_EQ(poll(&wait, 1, 5000), 1);
        ASSERT_TRUE(receiver.receive(message));
    }
    int status = -1;
    EXPECT_EQ(waitpid(sender, &status, 0), sender);
    EXPECT_EQ(status, 0);
}

TEST_F(Pmb, SendFailsWithoutAReceiver) {
    EXPECT_NE(send_text("x", sap + 1), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Pmb, SendFailsOnABadHandle) {
    EXPECT_NE(pmb_send(-1, node, sap, opcode, "x", 1, &plain), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Pmb, SendRefusesMissingArguments) {
    const int handle = pmb_bind(1, -1, &attributes, "test_task");
    EXPECT_NE(pmb_send(handle, node, sap, opcode, nullptr, 1, &plain), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(pmb_send(handle, node, sap, opcode, "x", 1, nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
    pmb_unbind(handle, 0);
}

TEST_F(Pmb, BindRefusesWhatIsNoPlainSender) {
    EXPECT_EQ(pmb_bind(2, -1, &attributes, "test_task"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(pmb_bind(1, 28, &attributes, "test_task"), -1);
    EXPECT_EQ(pmb_bind(1, -1, nullptr, "test_task"), -1);
    EXPECT_EQ(pmb_bind(1, -1, &attributes, nullptr), -1);
}

TEST_F(Pmb, UnbindIgnoresANegativeHandle) { EXPECT_EQ(pmb_unbind(-1, 0), 0); }

TEST_F(Pmb, DescriptorsAreClosedAtExec) {
    const int handle = pmb_bind(1, -1, &attributes, "test_task");
    EXPECT_EQ(fcntl(handle, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(receiver.descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    pmb_unbind(handle, 0);
}

TEST_F(Pmb, APathThatALiveReceiverHoldsIsNotTaken) {
    PmbReceiver second;
    EXPECT_EQ(second.open(node, sap), EADDRINUSE);
    ASSERT_EQ(send_text("x"), 0);
    EXPECT_TRUE(receiver.receive(message));
}

TEST_F(Pmb, ASocketThatNobodyHoldsIsReplaced) {
    ASSERT_NE(run_elsewhere(0,
                            [] {
                                PmbReceiver other;
                                return other.open(node, sap + 2) == 0;
                            }),
              -1);
    EXPECT_NE(send_text("x", sap + 2), 0);
    EXPECT_EQ(errno, ECONNREFUSED);
    PmbReceiver next;
    ASSERT_EQ(next.open(node, sap + 2), 0);
    ASSERT_EQ(send_text("x", sap + 2), 0);
    EXPECT_TRUE(next.receive(message));
}

TEST_F(Pmb, AFileThatIsNoSocketIsNotReplaced) {
    const std::string file = ruma::pmb_socket_path(node, sap + 3);
    std::ofstream(file) << "precious";
    PmbReceiver other;
    EXPECT_EQ(other.open(node, sap + 3), EEXIST);
    EXPECT_EQ(std::filesystem::file_size(file), 8U);
}

TEST_F(Pmb, OnlyTheSocketStaysInTheRunDirectory) {
    PmbReceiver other;
    ASSERT_EQ(other.open(node, sap + 4), 0);
    for (const auto &entry : std::filesystem::directory_iterator(ruma::run_dir()))
        EXPECT_THAT(entry.path().string(), testing::Not(testing::HasSubstr(".sock.")));
}

TEST(PmbMessage, MadeLocallyIsAsReceived) {
    const pmb_message made = ruma::pmb_make_message(node, sap, opcode, "twelve bytes", 12);
    EXPECT_EQ(text_of(made), "twelve bytes");
    EXPECT_EQ(made.opcode, opcode);
    EXPECT_EQ(made.sender_pid, getpid());
}

TEST(PmbMessage, PayloadIsAlignedForWords) {
    const pmb_message made{};
    uint32_t length = 0;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pmb_payload_get(&made, &length)) % 4, 0U);
}

TEST(PmbMessage, NoMessageHasNoPayload) {
    uint32_t length = 7;
    EXPECT_EQ(pmb_payload_get(nullptr, &length), nullptr);
    EXPECT_EQ(length, 0U);
}

TEST(PmbResponseQueue, IsZero) { EXPECT_EQ(pmb_response_q, 0); }

} // namespace
