// The worker as a process of its own: group, signals, descriptors.
#include "worker.h"
#include "request.h"

#include "flash_trace.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace copy_start;

TEST_F(WorkerTest, TransfersSendsOneMessageAndExitsWithZero) {
    const int status = run(request(1));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(shared->reached, 1);
    EXPECT_EQ(shared->messages, 1);
    EXPECT_THAT(shared->sent, ElementsAre(2, 7, flash_copy_pid));
}

TEST_F(WorkerTest, AFailureIsInTheMessageAndNotInTheExitCode) {
    platform().tftp_get2.always(-28);
    const int status = run(request(1));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(shared->messages, 1);
    EXPECT_THAT(shared->sent, ElementsAre(12, 7, flash_copy_pid));
}

TEST_F(WorkerTest, WhatItWritesIntoTheRowStaysWithIt) {
    platform().tftp_get2.always(-28);
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    reap(flash_copy_pid);
    EXPECT_EQ(row.copyStatus, 1);
}

TEST_F(WorkerTest, IsAProcessGroupOfItsOwn) {
    run(request(1));
    EXPECT_EQ(shared->process, flash_copy_pid);
    EXPECT_EQ(shared->group, flash_copy_pid);
    EXPECT_NE(shared->group, getpgrp());
}

TEST_F(WorkerTest, HasDefaultSignalDispositionsWhateverTheAgentHandles) {
    act_as_the_agent();
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    for (int signal = 1; signal <= 64; ++signal) {
        EXPECT_FALSE(shared->inherits[signal]) << "signal " << signal;
        // What it does on its own at SIGTERM is another matter.
        if (signal != SIGTERM) {
            EXPECT_FALSE(shared->handled[signal]) << "signal " << signal;
        }
    }
}

TEST_F(WorkerTest, BlocksNoSignalWhateverTheAgentBlocks) {
    act_as_the_agent();
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    for (int signal = 1; signal <= 64; ++signal)
        EXPECT_FALSE(shared->masked[signal]) << "signal " << signal;
}

TEST_F(WorkerTest, LeavesTheAgentsSignalsAsTheyWere) {
    act_as_the_agent();
    run(request(1));
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int signal = 1; signal <= 64; ++signal) {
        if (signal == 32 || signal == 33)
            continue; // the C library's own
        EXPECT_EQ(sigismember(&mask, signal) == 1,
                  signal == SIGTERM || signal == SIGUSR1 || signal == SIGALRM)
            << "signal " << signal;
    }
    const std::pair<int, sighandler_t> handlers[] = {
        {SIGTERM, agents_handler}, {SIGHUP, agents_handler}, {SIGPIPE, SIG_IGN},
        {SIGUSR1, SIG_DFL},        {SIGCHLD, SIG_DFL},       {SIGINT, SIG_DFL}};
    for (const auto &[signal, handler] : handlers) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_handler, handler) << "signal " << signal;
    }
}

TEST_F(WorkerTest, LeavesTheAgentsSignalsAsTheyWereWhenTheForkFails) {
    act_as_the_agent();
    os().fork.always(-1, EAGAIN);
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGINT), 0);
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
    struct sigaction action {};
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, agents_handler);
}

TEST_F(WorkerTest, LeavesTheAgentInItsProcessGroup) {
    const pid_t before = getpgrp();
    run(request(1));
    EXPECT_EQ(getpgrp(), before);
}

TEST_F(WorkerTest, HasNoDescriptorAboveTwoButThePipe) {
    const int high = fcntl(mypipe[0], F_DUPFD, 700);
    ASSERT_GE(high, 700);
    expect_only_the_pipe();
    ::close(high);
}

TEST_F(WorkerTest, LeavesTheAgentsDescriptorsOpen) {
    const int descriptor = open("/dev/null", O_RDONLY);
    run(request(1));
    EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
    EXPECT_NE(fcntl(mypipe[0], F_GETFD), -1);
    EXPECT_NE(fcntl(mypipe[1], F_GETFD), -1);
    ::close(descriptor);
}

TEST_F(WorkerTest, ClosesItsDescriptorsWithoutAPipe) {
    const int ends[2] = {mypipe[0], mypipe[1]};
    mypipe[0] = mypipe[1] = 0; // the module before its start
    const int status = run(request(1));
    mypipe[0] = ends[0];
    mypipe[1] = ends[1];
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(shared->reached, 1);
    EXPECT_EQ(shared->open_count, 0);
}

// Where close_range() does not exist.
class WorkerWithoutCloseRangeTest : public WorkerTest {
  protected:
    void SetUp() override {
        WorkerTest::SetUp();
        os().close_range.always(-1, ENOSYS);
        // Descriptors are closed one by one up to this limit.
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former_), 0);
        rlimit low = former_;
        low.rlim_cur = 1024;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    }
    void TearDown() override {
        setrlimit(RLIMIT_NOFILE, &former_);
        WorkerTest::TearDown();
    }

  private:
    rlimit former_{};
};

TEST_F(WorkerWithoutCloseRangeTest, HasNoDescriptorAboveTwoButThePipe) {
    const int high = fcntl(mypipe[0], F_DUPFD, 1023);
    ASSERT_EQ(high, 1023);
    expect_only_the_pipe();
    ::close(high);
}

} // namespace
