// The agent module in an agent of one process: this one.
#include "config/config.h"
#include "idle_thread.h"
#include "kernel.h"
#include "pmb/message.h"
#include "provoked.h"
#include "temporary_directory.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/fd_event_manager.h>

#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

constexpr uint32_t node = 0xfe000000;
constexpr uint32_t sap = 28;

int attempts; // to make the run directory

} // namespace

// Stands before the C library's own.
extern "C" int mkdir(const char *path, mode_t mode) noexcept {
    ++attempts;
    return mkdirat(AT_FDCWD, path, mode);
}

namespace {

// The module keeps its state for the life of the process, so each test is a process of its own.
class RumaAgent : public testing::Test {
  protected:
    void SetUp() override {
        setenv("RUMA_CONFIG", (directory / "platform.toml").c_str(), 1);
        setenv("RUMA_RUN_DIR", (directory / "state/run").c_str(), 1);
        setenv("RUMA_STATE_DIR", directory.path().c_str(), 1);
        fs::permissions(directory.path(), fs::perms(0755));
        write_file(directory / "platform.toml", "[agent]\nuser = \"nobody\"\n");
    }

    void load() {
        snmp_enable_filelog((directory / "agent.log").c_str(), 0);
        // The alarms run when the test says so, and not when a signal comes.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
        const std::string module =
            fs::canonical("/proc/self/exe").parent_path().parent_path() / "lib/ruma_agent.so";
        void *handle = dlopen(module.c_str(), RTLD_NOW);
        check(handle != nullptr, "the module loads");
        init_ = reinterpret_cast<void (*)()>(dlsym(handle, "init_ruma_agent"));
        init();
    }

    void init() { init_(); }

    static bool receives() {
        const pmb_queue_attributes attributes{1, 0, 1024, 0, 0, 15};
        const pmb_send_options plain{{1}};
        const int handle = pmb_bind(1, -1, &attributes, "test_task");
        const int result = pmb_send(handle, node, sap, 7786, "x", 1, &plain);
        pmb_unbind(handle, 0);
        return result == 0;
    }

    static void run_alarms_until(const std::function<bool()> &condition) {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            check(Clock::now() < deadline, "an alarm does its work in time");
            run_alarms();
            usleep(10000);
        }
    }

    // Whenever they are due.
    static void run_due_alarms_once() {
        std::set<unsigned int> seen;
        for (auto *alarm = sa_find_next(); alarm != nullptr; alarm = sa_find_next()) {
            if (!seen.insert(alarm->clientreg).second)
                break;
            alarm->thecallback(alarm->clientreg, alarm->clientarg);
            snmp_alarm_unregister(alarm->clientreg);
        }
    }

    // How often the agent's log says `text`.
    int logged(const std::string &text) const {
        const std::string log = read_file(directory / "agent.log");
        int count = 0;
        for (auto at = log.find(text); at != log.npos; at = log.find(text, at + 1))
            ++count;
        return count;
    }

    static void check(bool holds, const char *what) {
        if (!holds) {
            std::fprintf(stderr, "not so: %s\n", what);
            _exit(1);
        }
    }

    // Everything that `body` checks must hold.
    void expect_of_a_process(const std::function<void()> &body) {
        EXPECT_EXIT(
            {
                body();
                _exit(0);
            },
            testing::ExitedWithCode(0), "");
    }

    TemporaryDirectory directory;

  private:
    void (*init_)() = nullptr;
};

TEST_F(RumaAgent, MakesTheRunDirectoryForTheAgentsUserAndReceives) {
    expect_of_a_process([this] {
        fs::create_directory(directory / "state");
        load();
        check(receives(), "messages are received");
        struct stat status {};
        check(stat(ruma::run_dir().c_str(), &status) == 0, "the run directory is there");
        check(status.st_uid == 65534 && (status.st_mode & 07777) == 0755, "it is the agent user's");
        check(logged("ruma_agent") == 0, "nothing to complain of");
    });
}

TEST_F(RumaAgent, ReceivesAsSoonAsTheRunDirectoryCanBeMadeAndSaysItOnce) {
    expect_of_a_process([this] {
        load();
        check(!receives(), "there is no run directory yet");
        init(); // as after SIGHUP
        const int begun = attempts;
        run_alarms_until([begun] { return attempts >= begun + 2; });
        check(logged("cannot receive messages yet") == 1, "one complaint for all attempts");
        fs::create_directory(directory / "state");
        run_alarms_until(receives);
        check(logged("receives messages now") == 1, "the log knows that it is over");
        const int ended = attempts;
        run_due_alarms_once();
        check(attempts == ended, "the attempts are over");
    });
}

TEST_F(RumaAgent, ClosesTheReceiverThatTheAgentDoesNotWatchAndTriesAgain) {
    expect_of_a_process([this] {
        fs::create_directory(directory / "state");
        for (int i = 0; i < NUM_EXTERNAL_FDS; ++i)
            check(register_readfd(
                      500 + i, [](int, void *) {}, nullptr) == FD_REGISTERED_OK,
                  "the agent takes descriptors");
        load();
        check(logged("does not watch") == 1, "the agent takes no more");
        check(!receives(), "no message waits unread");
        unregister_readfd(500);
        run_alarms_until(receives);
    });
    EXPECT_PROVOKED(read_file(directory / "agent.log"),
                    "ruma_agent: looks after its workers once a second only");
}

TEST_F(RumaAgent, MakesTheSocketAgainWhenItOrItsDirectoryIsTakenAway) {
    expect_of_a_process([this] {
        fs::create_directory(directory / "state");
        load();
        const std::string name = ruma::pmb_socket_path(node, sap);
        fs::remove(name);
        check(!receives(), "the socket has gone");
        run_alarms_until(receives);
        check(logged("the message socket has gone and is made again") == 1, "the log says so");
        // A whole directory in its place, with a socket of nobody's.
        fs::rename(ruma::run_dir(), directory / "former");
        run_alarms_until(receives);
        check(logged("the message socket has gone and is made again") == 2, "the log says so");
        check(logged("cannot receive") == 0, "at once");
        fs::remove_all(directory / "state");
        run_alarms_until([this] { return logged("cannot receive messages yet") == 1; });
        fs::create_directory(directory / "state");
        run_alarms_until(receives);
        check(logged("receives messages now") == 1, "the log knows that it is over");
    });
}

TEST_F(RumaAgent, TakesWhatHasArrivedBeforeItMakesTheSocketAgain) {
    expect_of_a_process([this] {
        fs::create_directory(directory / "state");
        load();
        check(receives(), "a message waits");
        fs::remove(ruma::pmb_socket_path(node, sap));
        run_alarms_until(receives);
        check(logged("messages dropped so far") == 1, "it has been looked at");
    });
}

TEST_F(RumaAgent, SaysThatThereIsNoStateDirectory) {
    expect_of_a_process([this] {
        const std::string missing = directory / "none";
        setenv("RUMA_STATE_DIR", missing.c_str(), 1);
        fs::create_directory(directory / "state");
        load();
        check(logged(missing + ": No such file or directory; known host keys are kept in " +
                     ruma::run_dir() + "/ssh, which a boot may clear") == 1,
              "the log says so");
    });
    EXPECT_PROVOKED(read_file(directory / "agent.log"),
                    "ruma_agent: …: …; known host keys are kept in …, which a boot may clear");
}

TEST_F(RumaAgent, DoesNotUseARunDirectoryThatIsALink) {
    expect_of_a_process([this] {
        fs::create_directories(directory / "elsewhere");
        fs::create_directory(directory / "state");
        fs::create_symlink(directory / "elsewhere", directory / "state/run");
        load();
        check(logged("is a symbolic link") == 1, "the reason is logged");
        check(fs::is_empty(directory / "elsewhere"), "nothing is put there");
    });
}

TEST_F(RumaAgent, ReportsAnAgentUserWhoDoesNotExist) {
    expect_of_a_process([this] {
        write_file(directory / "platform.toml", "[agent]\nuser = \"no-such-user\"\n");
        fs::create_directory(directory / "state");
        load();
        check(logged("there is no user no-such-user") == 1, "the reason is logged");
        check(!receives(), "nothing is received");
    });
}

class ConfinedAgent : public RumaAgent {
  protected:
    void SetUp() override {
        RumaAgent::SetUp();
        write_file(directory / "platform.toml", "[agent]\nuser = \"nobody\"\nconfine = true\n");
        fs::create_directory(directory / "state");
        fs::create_directory(directory / "work");
        setenv("RUMA_STATE_DIR", (directory / "work").c_str(), 1);
    }

    // Everything that `body` checks must hold of an agent that has come to its loop.
    void expect_in_loop(const std::function<void()> &before, const std::function<void()> &body) {
        expect_of_a_process([&] {
            fs::current_path(directory / "work");
            before();
            load();
            check(!confined(), "it waits until it is in its loop");
            run_due_alarms_once();
            check(confined(), "it is confined");
            init(); // as after SIGHUP
            run_due_alarms_once();
            check(logged("confined by Landlock") == 1, "once");
            body();
        });
    }

    // The log lies in the directory, where the agent may make files therefore.
    bool confined() const {
        const std::string name = directory / "elsewhere";
        return mkdirat(AT_FDCWD, name.c_str(), 0700) != 0 ? errno == EACCES
                                                          : rmdir(name.c_str()) != 0;
    }
};

TEST_F(ConfinedAgent, IsConfinedInItsLoopAndOnlyOnce) {
    expect_in_loop([] {}, [this] { check(logged("root directory") == 0, "nothing is skipped"); });
}

TEST_F(ConfinedAgent, SaysThatNothingCanBeStagedInTheRootDirectory) {
    expect_in_loop([] { fs::current_path("/"); },
                   [this] { check(logged("root directory") == 1, "the log says so"); });
    EXPECT_PROVOKED(read_file(directory / "agent.log"),
                    "ruma_agent: \"…\" is the root directory, to which a confined agent may not "
                    "write");
}

TEST_F(ConfinedAgent, SaysWhatItsKernelLeavesOpen) {
    expect_in_loop([] { claimed_landlock = 2; },
                   [this] { check(logged("truncating files") == 1, "the log says so"); });
    EXPECT_PROVOKED(read_file(directory / "agent.log"),
                    "ruma_agent: this kernel's Landlock leaves open to workers: …");
}

TEST_F(ConfinedAgent, SaysThatItsOtherThreadsAreNotConfined) {
    expect_in_loop(start_idle_thread,
                   [this] { check(logged("other threads") == 1, "the log says so"); });
    EXPECT_PROVOKED(read_file(directory / "agent.log"),
                    "ruma_agent: other threads of the agent are not confined");
}

} // namespace
