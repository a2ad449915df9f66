// cmi_req_resp: daemons that hang, die or come back, forks, threads, bad calls.
#include "fake_daemon.h"

#include "cmi/cmi_wire.h"
#include "cmi/daemon_state.h"
#include "ruma/cmi.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace cmi;

TEST(Cmi, ASilentDaemonCostsOneBoundedWaitAndThenNothing) {
    FakeDaemon daemon(silent);
    const Answer first = ask();
    EXPECT_NE(first.result, 0);
    EXPECT_GE(first.took, 250ms);
    EXPECT_LT(first.took, bounded);
    for (int call = 0; call < 50; ++call) {
        const Answer further = ask();
        EXPECT_NE(further.result, 0);
        EXPECT_TRUE(further.response_null);
        EXPECT_LT(further.took, at_once);
    }
    EXPECT_EQ(daemon.seen().size(), 1U);
}

TEST(Cmi, ADaemonThatAnswersAgainIsAskedAgain) {
    FakeDaemon daemon(silent);
    EXPECT_NE(ask().result, 0);
    EXPECT_NE(ask().result, 0);
    const Seen unanswered = daemon.seen().front();
    daemon.follow(good);
    daemon.say(packet(good_header(unanswered), std::string(size, 'l')));
    EXPECT_EQ(ask().record, std::string(size, 'r')) << "the late answer belongs to no call";
    EXPECT_EQ(daemon.connections(), 1U);
}

TEST(Cmi, ALateFailureEndsTheSilenceToo) {
    FakeDaemon daemon(silent);
    EXPECT_NE(ask().result, 0);
    CmiHeader late = good_header(daemon.seen().front());
    late.result = ruma::cmi_no_such_record;
    late.length = 0;
    daemon.follow(good);
    daemon.say(packet(late, ""));
    EXPECT_EQ(ask().result, 0);
}

TEST(Cmi, AHungDaemonThatIsReplacedIsForgotten) {
    {
        FakeDaemon hung(silent);
        EXPECT_NE(ask().result, 0);
        EXPECT_NE(ask().result, 0);
    }
    FakeDaemon daemon(good);
    const Answer answer = ask();
    EXPECT_EQ(answer.result, 0);
    EXPECT_LT(answer.took, at_once);
}

TEST(Cmi, ADaemonKilledWhileItIsAskedCostsNoWait) {
    FakeDaemon daemon(good);
    daemon.follow([&daemon](const Seen &) -> std::vector<std::string> {
        daemon.hang_up();
        return {};
    });
    const Answer answer = ask();
    EXPECT_NE(answer.result, 0);
    EXPECT_LT(answer.took, at_once);
    daemon.follow(good);
    EXPECT_EQ(ask().result, 0);
}

TEST(Cmi, ADaemonKilledBetweenCallsIsMissedByNoCallOnceItIsBack) {
    for (int life = 0; life < 3; ++life) {
        {
            FakeDaemon daemon(good);
            EXPECT_EQ(ask().result, 0);
        }
        const Answer meanwhile = ask();
        EXPECT_NE(meanwhile.result, 0);
        EXPECT_LT(meanwhile.took, at_once);
    }
}

TEST(Cmi, ADaemonThatNeverAcceptsCostsBoundedWaits) {
    const std::string path = RunDirectory::path + "/" + ruma::fs_daemon_socket;
    unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    EXPECT_LT(ask().took, bounded);
    EXPECT_LT(ask().took, at_once);
    close(listener);

    // And with a full queue, where connecting itself would block.
    unlink(path.c_str());
    const int full = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(full, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(full, 0), 0);
    const int other = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(other, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    const Answer answer = ask();
    EXPECT_NE(answer.result, 0);
    EXPECT_LT(answer.took, at_once);
    close(other);
    close(full);
}

TEST(Cmi, SignalsNeitherEndAWaitNorProlongIt) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval often{{0, 10'000}, {0, 10'000}};
    const itimerval never{};
    // The daemon's threads do not take the signals.
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    FakeDaemon daemon([](const Seen &seen) {
        std::this_thread::sleep_for(100ms); // longer than several signals
        return good(seen);
    });
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    std::thread caller([&] {
        pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
        EXPECT_EQ(ask().result, 0);
        daemon.follow(silent);
        const Answer unanswered = ask();
        EXPECT_NE(unanswered.result, 0);
        EXPECT_LT(unanswered.took, bounded);
    });
    caller.join();
    setitimer(ITIMER_REAL, &never, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

TEST(Cmi, AClosedConnectionRaisesNoSignal) {
    // SIGPIPE has its default here, which would end the test.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ASSERT_EQ(sigaction(SIGPIPE, &action, nullptr), 0);
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    daemon.hang_up();
    EXPECT_EQ(ask().result, 0);
}

TEST(Cmi, AForkedProcessAsksOverAConnectionOfItsOwn) {
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(ask().result == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ask().result, 0);
    const std::vector<Seen> seen = daemon.seen();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[0].sender, getpid());
    EXPECT_EQ(seen[1].sender, child);
    EXPECT_EQ(seen[2].sender, getpid());
    EXPECT_EQ(daemon.connections(), 2U);
}

TEST(Cmi, AForkedProcessLeavesTheNumberOfTheInheritedConnectionAlone) {
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // As the worker does: everything closed, and the numbers used for something else.
        for (int fd = 3; fd < 256; ++fd) {
            close(fd);
        }
        int pipe_ends[2] = {-1, -1};
        if (pipe(pipe_ends) != 0) {
            _exit(2);
        }
        for (int fd = 16; fd < 128; ++fd) {
            dup2(pipe_ends[0], fd);
        }
        const int result = ask().result;
        int open_still = 0;
        for (int fd = 16; fd < 128; ++fd) {
            open_still += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
        }
        for (int fd = pipe_ends[0]; fd <= pipe_ends[1]; ++fd) {
            open_still += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
        }
        _exit(result == 0 && open_still == 114 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Cmi, TheConnectionIsClosedOnExec) {
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    int inherited = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_un peer{};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) == 0 &&
            peer.sun_family == AF_UNIX &&
            std::string(peer.sun_path).ends_with(ruma::fs_daemon_socket)) {
            ++inherited;
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        }
    }
    EXPECT_EQ(inherited, 1);
}

TEST(Cmi, ThreadsThatCallAtOnceEachGetTheirAnswer) {
    FakeDaemon daemon(good);
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int call = 0; call < 25; ++call) {
                failures += ask().result == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(daemon.connections(), 1U);
}

TEST(Cmi, ARefusalByTheDaemonIsNoted) {
    const std::string refusal =
        packet({ruma::cmi_response_magic, 0, 0, 0, ruma::cmi_refused, 0}, {});
    FakeDaemon daemon([&](const Seen &) { return std::vector<std::string>{refusal}; });
    EXPECT_NE(ask().result, 0);
    EXPECT_EQ(ruma::daemon_state(), ruma::DaemonState::refusing);
}

TEST(Cmi, TheStateOfTheDaemonIsWhatTheLastCallHasFound) {
    {
        FakeDaemon daemon(good);
        EXPECT_EQ(ask().result, 0);
        EXPECT_EQ(ruma::daemon_state(), ruma::DaemonState::up);
        daemon.follow(silent);
        EXPECT_NE(ask().result, 0);
        EXPECT_EQ(ruma::daemon_state(), ruma::DaemonState::hung);
    }
    EXPECT_NE(ask().result, 0);
    EXPECT_EQ(ruma::daemon_state(), ruma::DaemonState::down);
    EXPECT_NEAR(static_cast<double>(ruma::daemon_state_since()),
                static_cast<double>(std::time(nullptr)), 2);
}

TEST(Cmi, ACallThatCannotBeMadeIsRefused) {
    FakeDaemon daemon(good);
    char request[4] = {};
    void *response = request;
    uint32_t length = sizeof request;
    EXPECT_NE(cmi_req_resp(1, 1, nullptr, &response, &length, "test", 0, 102, 0, 4), 0);
    EXPECT_EQ(response, nullptr);
    response = request;
    EXPECT_NE(cmi_req_resp(1, 1, request, &response, nullptr, "test", 0, 102, 0, 4), 0);
    EXPECT_EQ(response, nullptr);
    EXPECT_NE(cmi_req_resp(1, 1, request, nullptr, &length, "test", 0, 102, 0, 4), 0);
    length = 0;
    EXPECT_NE(cmi_req_resp(1, 1, request, &response, &length, "test", 0, 102, 0, 4), 0);
    length = UINT32_MAX;
    EXPECT_NE(cmi_req_resp(1, 1, request, &response, &length, "test", 0, 102, 0, 4), 0);
    EXPECT_TRUE(daemon.seen().empty());
}

} // namespace
