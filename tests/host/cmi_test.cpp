// cmi_req_resp against a daemon that does what each test tells it to.
#include "base/peer.h"
#include "cmi/cmi_wire.h"
#include "ruma/cmi.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ruma::CmiHeader;

constexpr uint32_t opcode = 0x1E5B;
constexpr uint32_t size = 204;

// One run directory for the whole program, since the platform reads its name once.
class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        char name[] = "/tmp/cmi_test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        path = name;
        setenv("RUMA_RUN_DIR", name, 1);
        std::filesystem::create_directory(daemon());
        const std::string config = path + "/platform.toml";
        std::ofstream(config) << "[agent]\nuser = \"sys\"\n[fs_daemon]\nuser = \"daemon\"\n";
        setenv("RUMA_CONFIG", config.c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(path); }

    static std::string daemon() { return path + "/fsd"; }
    static std::string socket() { return daemon() + "/" + ruma::fs_daemon_socket; }

    static inline std::string path;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

struct Seen {
    CmiHeader header;
    std::string payload;
    pid_t sender;
};

// What the daemon sends for a request, packet by packet; it may wait as long as it likes.
using Script = std::function<std::vector<std::string>(const Seen &)>;

std::string packet(const CmiHeader &header, const std::string &payload) {
    std::string result(sizeof header, '\0');
    memcpy(result.data(), &header, sizeof header);
    return result + payload;
}

CmiHeader good_header(const Seen &seen) {
    CmiHeader header = seen.header;
    header.magic = ruma::cmi_response_magic;
    return header;
}

std::vector<std::string> good(const Seen &seen) {
    return {packet(good_header(seen), std::string(seen.header.length, 'r'))};
}

std::vector<std::string> silent(const Seen &) { return {}; }

// A daemon in a thread: each connection has one of its own, so that it may hang.
class FakeDaemon {
  public:
    explicit FakeDaemon(Script script) : script_(std::move(script)) {
        const std::string path = RunDirectory::socket();
        unlink(path.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        acceptor_ = std::thread([this] { accept_all(); });
    }

    ~FakeDaemon() {
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        close(listener_);
        {
            const std::lock_guard lock(mutex_);
            for (const int fd : connections_) {
                shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread &thread : threads_) {
            thread.join();
        }
        for (const int fd : connections_) {
            close(fd);
        }
    }

    void follow(Script script) {
        const std::lock_guard lock(mutex_);
        script_ = std::move(script);
    }
    std::size_t connections() {
        const std::lock_guard lock(mutex_);
        return connections_.size();
    }
    std::vector<Seen> seen() {
        const std::lock_guard lock(mutex_);
        return seen_;
    }
    // Sends on the latest connection without being asked.
    void say(const std::string &text) {
        const std::lock_guard lock(mutex_);
        send(connections_.back(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    // Ends every connection, as the kernel does for a daemon that is killed.
    void hang_up() {
        const std::lock_guard lock(mutex_);
        for (const int fd : connections_) {
            shutdown(fd, SHUT_RDWR);
        }
    }

  private:
    void accept_all() {
        for (int fd = 0; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const std::lock_guard lock(mutex_);
            connections_.push_back(fd);
            threads_.emplace_back([this, fd] { serve(fd); });
        }
    }

    void serve(int fd) {
        char buffer[8192];
        for (ssize_t got = 0; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;) {
            Seen seen{};
            memcpy(&seen.header, buffer, sizeof seen.header);
            seen.payload.assign(buffer + sizeof seen.header, buffer + got);
            ucred credentials{};
            socklen_t length = sizeof credentials;
            getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
            seen.sender = credentials.pid;
            Script script;
            {
                const std::lock_guard lock(mutex_);
                seen_.push_back(seen);
                script = script_;
            }
            for (const std::string &answer : script(seen)) {
                send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
        }
    }

    std::mutex mutex_;
    Script script_;
    int listener_ = -1;
    std::thread acceptor_;
    std::vector<int> connections_;
    std::vector<std::thread> threads_;
    std::vector<Seen> seen_;
};

struct Answer {
    int result;
    std::string record;
    Clock::duration took;
    bool response_null;
};

Answer ask(uint32_t length = size) {
    const std::string request(length, 'q');
    void *response = reinterpret_cast<void *>(1);
    const Clock::time_point start = Clock::now();
    const int result =
        cmi_req_resp(opcode, CMI_NEXT, request.data(), &response, &length, "test", 0, 102, 0, 4);
    Answer answer{result, {}, Clock::now() - start, response == nullptr};
    if (result == 0 && response != nullptr) {
        answer.record.assign(static_cast<const char *>(response), length);
    }
    free(response);
    return answer;
}

// A call that fails without having waited takes far less than a call that waited.
constexpr auto at_once = 200ms;
constexpr auto bounded = 1000ms;

TEST(Cmi, TheRequestTravelsWholeAndTheAnswerComesBack) {
    FakeDaemon daemon(good);
    const Answer answer = ask();
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.record, std::string(size, 'r'));
    ASSERT_EQ(daemon.seen().size(), 1U);
    const Seen seen = daemon.seen().front();
    EXPECT_EQ(seen.header.magic, ruma::cmi_request_magic);
    EXPECT_EQ(seen.header.opcode, opcode);
    EXPECT_EQ(seen.header.message_type, uint32_t{CMI_NEXT});
    EXPECT_EQ(seen.header.length, size);
    EXPECT_EQ(seen.payload, std::string(size, 'q'));
}

TEST(Cmi, OneConnectionServesManyCallsEachWithItsOwnTag) {
    FakeDaemon daemon(good);
    for (int call = 0; call < 20; ++call) {
        EXPECT_EQ(ask().result, 0);
    }
    EXPECT_EQ(daemon.connections(), 1U);
    const std::vector<Seen> seen = daemon.seen();
    EXPECT_NE(seen[0].header.tag, seen[1].header.tag);
}

TEST(Cmi, WithoutADaemonACallFailsAtOnce) {
    unlink((RunDirectory::path + "/" + ruma::fs_daemon_socket).c_str());
    const Answer answer = ask();
    EXPECT_NE(answer.result, 0);
    EXPECT_TRUE(answer.response_null);
    EXPECT_LT(answer.took, at_once);
}

TEST(Cmi, AReportedFailureFailsTheCallAndKeepsTheConnection) {
    FakeDaemon daemon([](const Seen &seen) -> std::vector<std::string> {
        CmiHeader header = good_header(seen);
        header.result = ruma::cmi_no_such_record;
        header.length = 0;
        return {packet(header, "")};
    });
    for (int call = 0; call < 3; ++call) {
        const Answer answer = ask();
        EXPECT_NE(answer.result, 0);
        EXPECT_TRUE(answer.response_null);
        EXPECT_LT(answer.took, at_once);
    }
    daemon.follow(good);
    EXPECT_EQ(ask().result, 0);
    EXPECT_EQ(daemon.connections(), 1U);
}

struct BadAnswer {
    const char *name;
    std::string (*make)(const Seen &);
};

class CmiBadAnswer : public testing::TestWithParam<BadAnswer> {};

TEST_P(CmiBadAnswer, IsDroppedAndTheNextGoodOneIsTaken) {
    FakeDaemon daemon(
        [](const Seen &seen) -> std::vector<std::string> { return {GetParam().make(seen)}; });
    for (int call = 0; call < 2; ++call) {
        const Answer answer = ask();
        EXPECT_NE(answer.result, 0);
        EXPECT_TRUE(answer.response_null);
        EXPECT_LT(answer.took, at_once);
    }
    daemon.follow(good);
    EXPECT_EQ(ask().record, std::string(size, 'r'));
}

std::string with(const Seen &seen, const std::function<void(CmiHeader &)> &change) {
    CmiHeader header = good_header(seen);
    change(header);
    return packet(header, std::string(size, 'r'));
}

INSTANTIATE_TEST_SUITE_P(
    , CmiBadAnswer,
    testing::Values(
        BadAnswer{"Short",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = size - 1;
                      return packet(header, std::string(size - 1, 'r'));
                  }},
        BadAnswer{"Long",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = size + 1;
                      return packet(header, std::string(size + 1, 'r'));
                  }},
        BadAnswer{"MuchLonger",
                  [](const Seen &seen) {
                      CmiHeader header = good_header(seen);
                      header.length = 60000;
                      return packet(header, std::string(60000, 'r'));
                  }},
        BadAnswer{"CutShort",
                  [](const Seen &seen) { return packet(good_header(seen), std::string(10, 'r')); }},
        BadAnswer{"WithoutRecord", [](const Seen &seen) { return packet(good_header(seen), ""); }},
        BadAnswer{"LessThanAHeader", [](const Seen &) { return std::string(7, 'r'); }},
        BadAnswer{"WrongLengthField",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.length = UINT32_MAX; });
                  }},
        BadAnswer{"WrongOpcode",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { ++header.opcode; });
                  }},
        BadAnswer{
            "WrongTag",
            [](const Seen &seen) { return with(seen, [](CmiHeader &header) { --header.tag; }); }},
        BadAnswer{"WrongMessageType",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.message_type = CMI_EXACT; });
                  }},
        BadAnswer{
            "WrongMagic",
            [](const Seen &seen) { return with(seen, [](CmiHeader &header) { ++header.magic; }); }},
        BadAnswer{"FailureWithARecord",
                  [](const Seen &seen) {
                      return with(seen, [](CmiHeader &header) { header.result = 5; });
                  }},
        BadAnswer{"AnEcho", [](const Seen &seen) { return packet(seen.header, seen.payload); }}),
    [](const auto &instance) { return instance.param.name; });

TEST(Cmi, ASecondAnswerToOneRequestIsNotTakenForTheNext) {
    FakeDaemon daemon([](const Seen &seen) -> std::vector<std::string> {
        return {packet(good_header(seen), std::string(size, '1')),
                packet(good_header(seen), std::string(size, '2'))};
    });
    EXPECT_EQ(ask().record, std::string(size, '1'));
    for (int call = 0; call < 20; ++call) {
        EXPECT_NE(ask().record, std::string(size, '2'));
    }
}

TEST(Cmi, AnUnaskedAnswerIsNotTaken) {
    FakeDaemon daemon(good);
    EXPECT_EQ(ask().result, 0);
    CmiHeader guess{};
    guess.magic = ruma::cmi_response_magic;
    guess.tag = daemon.seen().back().header.tag + 1;
    guess.opcode = opcode;
    guess.message_type = CMI_NEXT;
    guess.length = size;
    daemon.say(packet(guess, std::string(size, 'x')));
    EXPECT_EQ(ask().record, std::string(size, 'r'));
}

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

// Whether a client of the user 11, in a process of its own, asks a daemon of that user.
bool asks_daemon_of(uid_t user) {
    const std::string path = RunDirectory::socket();
    const pid_t child = fork();
    if (child == 0) {
        chmod(RunDirectory::path.c_str(), 0755);
        if (chmod(RunDirectory::daemon().c_str(), 0777) != 0 || setresuid(user, user, 0) != 0) {
            _exit(2);
        }
        unlink(path.c_str());
        FakeDaemon *const daemon = new FakeDaemon(good);
        if (chmod(path.c_str(), 0777) != 0 || seteuid(0) != 0 || setresuid(11, 11, 0) != 0) {
            _exit(3);
        }
        const bool answered = ask().result == 0;
        _exit(answered && !daemon->seen().empty() ? 0 : daemon->seen().empty() ? 1 : 4);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
    return status == 0;
}

TEST(Cmi, OnlyADaemonOfRootTheClientOrTheConfiguredUserIsAsked) {
    ASSERT_EQ(geteuid(), 0U) << "only root can play two users";
    EXPECT_TRUE(asks_daemon_of(0));
    EXPECT_TRUE(asks_daemon_of(11));
    EXPECT_TRUE(asks_daemon_of(*ruma::user_number("daemon")));
    EXPECT_FALSE(asks_daemon_of(*ruma::user_number("sys"))) << "the agent's user is another";
    EXPECT_FALSE(asks_daemon_of(10));
}

TEST(Peer, RootOneselfAndTheConfiguredUserAreTrustedAndNobodyElse) {
    const uid_t other = geteuid() + 1000;
    EXPECT_TRUE(ruma::is_trusted(0, std::nullopt));
    EXPECT_TRUE(ruma::is_trusted(geteuid(), std::nullopt));
    EXPECT_FALSE(ruma::is_trusted(other, std::nullopt));
    EXPECT_FALSE(ruma::is_trusted(other, other + 1));
    EXPECT_TRUE(ruma::is_trusted(other, other));
}

TEST(Peer, UsersAreFoundByName) {
    EXPECT_EQ(ruma::user_number("root"), uid_t{0});
    EXPECT_EQ(ruma::user_number("no such user here"), std::nullopt);
}

TEST(Peer, TheKernelTellsTheUserOfASocketAndOfNothingElse) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(ruma::peer_user(ends[0]), geteuid());
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(ruma::peer_user(-1), std::nullopt);
}

} // namespace
