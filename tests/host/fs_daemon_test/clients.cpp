// The daemon and those who ask it.
#include "daemon.h"

#include "cmi/cmi_wire.h"
#include "cmi/daemon_state.h"
#include "flash_codes.h"
#include "flash_records.h"
#include "provoked.h"
#include "ruma/cmi.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace fs_daemon;

// ---- Clients

TEST_F(FsDaemon, AMalformedRequestClosesItsConnectionOnlyAndIsCounted) {
    start();
    Client good(socket_path());
    const std::string request = Client::request(flash::opcodeDevice, CMI_NEXT, {0}, 204);
    const auto with = [&](std::size_t offset, uint32_t word) {
        std::string changed = request;
        std::memcpy(&changed[offset], &word, sizeof word);
        return changed;
    };
    const std::vector<std::string> bad = {
        std::string(1, 'x'),
        request.substr(0, 23),
        request.substr(0, 24),
        request.substr(0, request.size() - 1),
        request + "x",
        std::string(100'000, '\0'),
        with(0, 'x'),         // magic
        with(8, 'x'),         // opcode
        with(12, 3),          // message type
        with(12, 0),          // message type
        with(16, 1),          // result
        with(20, 203),        // length
        with(20, 0x780000cc), // length
        Client::request(flash::opcodeFile, CMI_NEXT, {0}, 320),
        Client::request(flash::opcodePartition, CMI_NEXT, {0}, 204),
        Client::request(flash::opcodeFile + 1, CMI_NEXT, {0}, 204),
    };
    for (std::size_t i = 0; i < bad.size(); ++i) {
        Client client(socket_path());
        ASSERT_TRUE(client.send(bad[i])) << i;
        EXPECT_EQ(client.receive(), "") << i;
        EXPECT_TRUE(good.device(CMI_NEXT, 0)) << i;
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(errors().find(std::to_string(bad.size()) + " malformed requests"), std::string::npos)
        << errors();
    EXPECT_PROVOKED(errors(),
                    "fs_daemon: … malformed requests, … connections of other users refused");
}

TEST_F(FsDaemon, AClientThatTakesNoAnswersHoldsUpNobody) {
    start();
    Client greedy(socket_path());
    const std::string request = Client::request(flash::opcodeFile, CMI_NEXT, {0}, 872);
    Client good(socket_path());
    for (int round = 0; round < 5000 && greedy.send(request, MSG_DONTWAIT); ++round) {
    }
    EXPECT_TRUE(good.device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, ManyClientsAreServedAndTheIdlestMakeRoom) {
    start();
    Client busy(socket_path());
    ASSERT_TRUE(busy.device(CMI_NEXT, 0));
    std::vector<std::unique_ptr<Client>> idle;
    for (int i = 0; i < 200; ++i) {
        idle.push_back(std::make_unique<Client>(socket_path()));
        ASSERT_TRUE(idle.back()->connected());
        EXPECT_TRUE(busy.device(CMI_NEXT, 0)) << i;
    }
    EXPECT_FALSE(idle.front()->device(CMI_NEXT, 0));
    EXPECT_TRUE(idle.back()->device(CMI_NEXT, 0));
    const auto open =
        fs::directory_iterator(numbered("/proc/", static_cast<uint64_t>(daemon)) + "/fd");
    EXPECT_LT(std::distance(begin(open), end(open)), 90);
}

TEST_F(FsDaemon, RequestsThatArriveTogetherAreAnsweredInOrder) {
    start();
    Client client(socket_path());
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(client.send(
            Client::request(flash::opcodeDevice, CMI_EXACT, {i % 2 == 0 ? 1U : 2U}, 204)));
    }
    for (int i = 0; i < 8; ++i) {
        const std::string answer = client.receive();
        ASSERT_EQ(answer.size(), sizeof(ruma::CmiHeader) + 204);
        uint32_t index = 0;
        std::memcpy(&index, &answer[sizeof(ruma::CmiHeader)], sizeof index);
        EXPECT_EQ(index, i % 2 == 0 ? 1U : 2U);
    }
}

// Runs `body` as another user, in a process of its own; returns its result, or -1.
int as_user(uid_t user, const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(setresuid(user, user, user) == 0 ? body() : 125);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FsDaemon, OnlyTheConfiguredUserIsAnsweredBesideRootAndItself) {
    ASSERT_EQ(geteuid(), 0U) << "only root can play other users";
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const uid_t agent = nobody->pw_uid;
    configure("[agent]\nuser = \"nobody\"\n");
    start();
    const auto answered = [this] {
        Client client(socket_path());
        return !client.connected() ? 3 : client.device(CMI_NEXT, 0) ? 1 : 2;
    };
    const auto refused = [this] {
        Client client(socket_path());
        const std::string answer = client.receive();
        ruma::CmiHeader header{};
        std::memcpy(&header, answer.data(), std::min(answer.size(), sizeof header));
        return answer.size() == sizeof header && header.magic == ruma::cmi_response_magic &&
                       header.result == ruma::cmi_refused && header.tag == 0 &&
                       client.receive().empty()
                   ? 1
                   : 2;
    };
    EXPECT_EQ(answered(), 1);
    EXPECT_EQ(as_user(agent, answered), 1);
    EXPECT_EQ(as_user(12345, refused), 1);
    EXPECT_EQ(as_user(12345, refused), 1);
    EXPECT_EQ(as_user(1, refused), 1);
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(errors().find("3 connections of other users refused"), std::string::npos) << errors();
    EXPECT_PROVOKED(errors(), "fs_daemon: refuses user …: if the agent is that user's, set [agent] "
                              "user = \"…\" in … and restart the daemon");
    // Once for each user.
    const std::string advice = ": if the agent is that user's, set [agent] user = ";
    const std::string path = base / "platform.toml";
    const auto count = [this](const std::string &line) {
        const std::string said = errors();
        int found = 0;
        for (auto at = said.find(line); at != said.npos; at = said.find(line, at + 1))
            ++found;
        return found;
    };
    EXPECT_EQ(count("fs_daemon: refuses user 12345" + advice + "\"12345\" in " + path), 1);
    EXPECT_EQ(count("fs_daemon: refuses user 1 (daemon)" + advice + "\"daemon\" in " + path), 1);
}

// ---- With the agent's own client

class FsDaemonCmi : public FsDaemon {
  protected:
    void SetUp() override {
        FsDaemon::SetUp();
        setenv("RUMA_RUN_DIR", run_dir().c_str(), 1);
        setenv("RUMA_CONFIG", (base / "platform.toml").c_str(), 1);
    }
};

TEST_F(FsDaemonCmi, ADaemonThatHangsDiesOrRestartsIsFoundAgain) {
    start();
    EXPECT_TRUE(eventually(ruma::daemon_has_a_device));
    // Hung: nothing answers, until it goes on.
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    EXPECT_FALSE(ruma::daemon_has_a_device());
    EXPECT_FALSE(ruma::daemon_has_a_device());
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    EXPECT_TRUE(eventually(ruma::daemon_has_a_device));
    // Killed, then started again.
    stop(SIGKILL);
    EXPECT_FALSE(ruma::daemon_has_a_device());
    start();
    EXPECT_TRUE(eventually(ruma::daemon_has_a_device));
    // Killed while it hangs, then started again.
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    EXPECT_FALSE(ruma::daemon_has_a_device());
    stop(SIGKILL);
    start();
    EXPECT_TRUE(eventually(ruma::daemon_has_a_device));
}

} // namespace
