// Abort of a transfer under way.
#include "request.h"
#include "worker.h"

#include "flash_trace.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace copy_start;

// Counts the SIGTERM that a process gets.
std::atomic<int> *terminations = nullptr;

class AbortedWorkerTest : public WorkerTest {
  protected:
    void SetUp() override {
        WorkerTest::SetUp();
        os().kill.passes_through();
        os().system.does([this](const char *) {
            ++shared->reached;
            return __real_system("sleep 1000 & sleep 1000");
        });
    }
    // Starts a copy and waits until both of the script's commands run.
    void start(int32_t protocol) {
        row_ = request(1, protocol);
        start_flash_copy(&row_);
        ASSERT_GT(flash_copy_pid, 0);
        ASSERT_TRUE(await([this] { return sleepers() == 2; })) << "the script does not run";
    }
    // Running `sleep` commands in the worker's process group.
    int sleepers() const {
        int count = 0;
        for (const auto &entry : fs::directory_iterator("/proc")) {
            std::ifstream file(entry.path() / "stat");
            std::string line;
            if (!std::getline(file, line))
                continue;
            int group = 0;
            char state = 0;
            int parent = 0;
            const size_t behind_name = line.rfind(')');
            if (behind_name != std::string::npos && line.find("(sleep)") != std::string::npos &&
                std::sscanf(line.c_str() + behind_name + 1, " %c %d %d", &state, &parent, &group) ==
                    3)
                count += group == flash_copy_pid && state != 'Z' ? 1 : 0;
        }
        return count;
    }
    flashCopyEntry row_{};
};

TEST_F(AbortedWorkerTest, EndsWithEveryProcessOfItsScript) {
    for (int32_t protocol : {flash::protocolFtp, flash::protocolScp, flash::protocolSftp}) {
        SCOPED_TRACE(protocol);
        ASSERT_NO_FATAL_FAILURE(start(protocol));
        EXPECT_EQ(handle_flash_abort(&row_), 0);
        const int status = reap(flash_copy_pid);
        EXPECT_TRUE(WIFSIGNALED(status) || WIFEXITED(status));
        EXPECT_TRUE(group_ends(flash_copy_pid, 2s)) << "processes of the transfer are left";
        EXPECT_EQ(shared->messages, 0);
    }
}

TEST_F(AbortedWorkerTest, EndsAlsoWhenTheAgentCatchesAndBlocksSigterm) {
    act_as_the_agent();
    ASSERT_NO_FATAL_FAILURE(start(flash::protocolFtp));
    EXPECT_EQ(handle_flash_abort(&row_), 0);
    reap(flash_copy_pid);
    EXPECT_TRUE(group_ends(flash_copy_pid, 2s)) << "processes of the transfer are left";
    EXPECT_EQ(shared->messages, 0);
}

TEST_F(AbortedWorkerTest, TakesTheShellsCopyOfATftpPutWithIt) {
    row_ = request(3);
    fakes::put(row_.destinationName, "");
    start_flash_copy(&row_);
    ASSERT_TRUE(await([this] { return sleepers() == 2; }));
    handle_flash_abort(&row_);
    reap(flash_copy_pid);
    EXPECT_TRUE(group_ends(flash_copy_pid, 2s));
    EXPECT_EQ(shared->messages, 0);
}

TEST_F(AbortedWorkerTest, EndsInATransferWithoutAScript) {
    platform().tftp_get2.does([this](const char *, const char *, int) {
        ++shared->reached;
        for (;;)
            pause();
        return 0;
    });
    row_ = request(1);
    start_flash_copy(&row_);
    ASSERT_TRUE(await([this] { return shared->reached == 1; }));
    handle_flash_abort(&row_);
    reap(flash_copy_pid);
    EXPECT_EQ(shared->messages, 0);
}

TEST_F(AbortedWorkerTest, ASigtermRightAfterTheForkIsNotLost) {
    std::signal(SIGTERM, agents_handler);
    os().fork.does([] {
        const pid_t process = __real_fork();
        if (process == 0)
            raise(SIGTERM);
        return process;
    });
    row_ = request(1, flash::protocolFtp);
    start_flash_copy(&row_);
    reap(flash_copy_pid);
    EXPECT_EQ(shared->reached, 0);
    EXPECT_EQ(shared->messages, 0);
}

TEST_F(AbortedWorkerTest, TheAgentItselfIsNotEnded) {
    act_as_the_agent();
    ASSERT_NO_FATAL_FAILURE(start(flash::protocolFtp));
    handle_flash_abort(&row_);
    reap(flash_copy_pid);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGTERM), 0);
}

// The agent here is a child in a group of its own, whose signals can be seen.
TEST_F(AbortedWorkerTest, AWorkerThatLeadsNoGroupEndsAlone) {
    os().setpgid.always(-1, EPERM);
    platform().tftp_get2.does([this](const char *, const char *, int) {
        shared->group = getpgrp();
        ++shared->reached;
        for (;;)
            pause();
        return 0;
    });
    const pid_t agent = __real_fork();
    ASSERT_GE(agent, 0);
    if (agent == 0) {
        __real_setpgid(0, 0);
        terminations = &shared->messages; // which no worker sends here
        std::signal(SIGTERM, [](int) { ++*terminations; });
        row_ = request(1);
        start_flash_copy(&row_);
        const bool reached = await([this] { return shared->reached == 1; });
        handle_flash_abort(&row_);
        const int status = reached ? reap(flash_copy_pid) : -1;
        shared->sent[0] = WIFSIGNALED(status) ? WTERMSIG(status) : -1;
        _exit(0);
    }
    const int status = reap(agent);
    EXPECT_TRUE(WIFEXITED(status)) << "the agent was ended too";
    EXPECT_EQ(shared->group, agent) << "the worker has a group of its own";
    EXPECT_EQ(shared->sent[0], SIGTERM) << "the worker was not ended";
    EXPECT_EQ(shared->messages, 0) << "the agent was signalled";
}

TEST_F(AbortedWorkerTest, OneWorkersEndLeavesTheOtherAlone) {
    ASSERT_NO_FATAL_FAILURE(start(flash::protocolFtp));
    const pid_t first = flash_copy_pid;
    ASSERT_NO_FATAL_FAILURE(start(flash::protocolFtp));
    const pid_t second = flash_copy_pid;
    handle_flash_abort(&row_);
    reap(second);
    EXPECT_TRUE(group_ends(second, 2s));
    flash_copy_pid = first;
    EXPECT_EQ(sleepers(), 2);
    handle_flash_abort(&row_);
    reap(first);
    EXPECT_TRUE(group_ends(first, 2s));
}

} // namespace
