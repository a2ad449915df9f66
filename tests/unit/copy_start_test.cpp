// Start of a copy: the agent's side, the worker's job, and the worker as a process of its own.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

extern "C" {
pid_t __real_fork(void);
pid_t __real_waitpid(pid_t pid, int *status, int options);
int __real_kill(pid_t pid, int signal);
int __real_setpgid(pid_t pid, pid_t group);
int __real_system(const char *command);
int __real_snmp_log(int priority, const char *format, ...);
}

namespace {

using namespace fakes;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

flashCopyEntry request(int32_t command, int32_t protocol = flash::protocolTftp) {
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.index = 7;
        r.command = command;
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.copyStatus = flash::copyInProgress;
        r.entryStatus = flash::rowActive;
        fakes::put(r.sourceName, "remote.bin");
        fakes::put(r.destinationPath, "/bootflash/local.bin");
        fakes::put(r.sourcePath, "/bootflash/image.bin");
        fakes::put(r.destinationName, "kept.bin");
    });
}

using CopyStartTest = fakes::FlashTest;

// The agent's side

TEST_F(CopyStartTest, TheAgentReturnsTheCopyStatus) {
    for (int32_t status : {1, 3, 14, 17}) {
        SCOPED_TRACE(status);
        flashCopyEntry row = request(1);
        row.copyStatus = status;
        EXPECT_EQ(start_flash_copy(&row), status);
        EXPECT_EQ(row.copyStatus, status);
    }
}

TEST_F(CopyStartTest, TheAgentReturnsZeroWhenTheCopyStatusIsSuccess) {
    flashCopyEntry row = request(1);
    row.copyStatus = 2;
    EXPECT_EQ(start_flash_copy(&row), 0);
}

TEST_F(CopyStartTest, TheAgentTracesTheStart) {
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "Entered start_flash_copy()...\n"},
                      {debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"},
                      {debug_level, "DEBUG : start_flash_copy : Copy returned with status 1\n"}}));
}

TEST_F(CopyStartTest, TheAgentForksOnceAndTransfersNothingItself) {
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    EXPECT_EQ(fakes::calls(), (Lines{"fork"}));
}

TEST_F(CopyStartTest, TheWorkersProcessIdIsKept) {
    flashCopyEntry row = request(1);
    os().fork.returns(5001).returns(5002);
    start_flash_copy(&row);
    EXPECT_EQ(flash_copy_pid, 5001);
    start_flash_copy(&row);
    EXPECT_EQ(flash_copy_pid, 5002);
}

TEST_F(CopyStartTest, AFailedForkIsKeptAsMinusOneAndNotReported) {
    flashCopyEntry row = request(1);
    flash_copy_pid = 5001;
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start_flash_copy(&row), 1);
    EXPECT_EQ(flash_copy_pid, -1);
    EXPECT_EQ(row.copyStatus, 1);
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "Entered start_flash_copy()...\n"},
                      {debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"},
                      {debug_level, "DEBUG : start_flash_copy : Copy returned with status 1\n"}}));
    EXPECT_THAT(platform().sent, IsEmpty());
}

// The worker's job

// The status messages sent, as {status, row}.
std::vector<std::pair<int32_t, int32_t>> sent() {
    std::vector<std::pair<int32_t, int32_t>> result;
    for (const fakes::SentMessage &message : platform().sent)
        result.emplace_back(message.word(0), message.word(1));
    return result;
}

// A failing transfer of each status.
struct Failure {
    int32_t protocol;
    int result; // of the TFTP client or of `system`
    int32_t status;
};
const Failure failures[] = {
    {flash::protocolTftp, -2, 5},     {flash::protocolTftp, -16, 8},
    {flash::protocolTftp, -28, 12},   {flash::protocolTftp, -1, 14},
    {flash::protocolTftp, -12, 16},   {flash::protocolFtp, 1 << 8, 8},
    {flash::protocolFtp, 2 << 8, 5},  {flash::protocolFtp, 3 << 8, 16},
    {flash::protocolFtp, 9 << 8, 14}, {flash::protocolScp, 4 << 8, 18},
    {flash::protocolSftp, -1, 14},
};

TEST_F(CopyStartTest, ACopyToFlashThatSucceedsSendsStatus2) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        flash_copy_function(&row);
        EXPECT_THAT(sent(), ElementsAre(std::pair(2, 7)));
        EXPECT_THAT(fakes::calls("tftp_get2"),
                    ElementsAre("tftp_get2 remote=remote.bin local=/bootflash/local.bin flags=0"));
    }
}

TEST_F(CopyStartTest, ACopyToFlashThatFailsSendsTheTransfersStatus) {
    for (int32_t command : {1, 2})
        for (const Failure &failure : failures) {
            SCOPED_TRACE(failure.status);
            fakes::forget();
            flashCopyEntry row = request(command, failure.protocol);
            platform().tftp_get2.always(failure.result);
            os().system.always(failure.result);
            flash_copy_function(&row);
            EXPECT_THAT(sent(), ElementsAre(std::pair(failure.status, 7)));
        }
}

TEST_F(CopyStartTest, ACopyToFlashThatSucceedsIsTraced) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        flash_copy_function(&row);
        const Traces all = fakes::traces();
        ASSERT_GE(all.size(), 2U);
        EXPECT_EQ(all.front(),
                  (Trace{debug_level, "DEBUG  flash_copy_function : Copy TO flash\n"}));
        EXPECT_EQ(all.back(), (Trace{debug_level, "sending a FAILURE message to proc=" +
                                                      std::to_string(getppid()) + "\n"}));
        for (const Trace &trace : all)
            EXPECT_EQ(trace.text.find("calling write_to_pipe"), std::string::npos) << trace.text;
    }
}

TEST_F(CopyStartTest, ACopyToFlashThatFailsIsTraced) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = request(command);
        platform().tftp_get2.always(-28);
        flash_copy_function(&row);
        const Traces expected = {
            {debug_level, "DEBUG  flash_copy_function : Copy TO flash\n"},
            {debug_level, "ERROR : do_flash_upload_download : Getting from tftp server failed : "
                          "tftp text -28\n"},
            {debug_level, "DEBUG : flash_copy_function : Download of file remote.bin to FLASH "
                          "failed.\n"},
            {debug_level, "calling write_to_pipe with status =12\n"},
            {debug_level, "sending a FAILURE message to proc=" + std::to_string(getppid()) + "\n"}};
        EXPECT_EQ(picked(expected), expected);
    }
}

TEST_F(CopyStartTest, TheParentIsNamedAfterTheMessageWasSent) {
    for (int result : {0, -2}) {
        SCOPED_TRACE(result);
        fakes::forget();
        flashCopyEntry row = request(1);
        platform().tftp_get2.always(result);
        flash_copy_function(&row);
        const Lines all = fakes::everything();
        const auto begins = [&all](const char *with) {
            return std::find_if(all.begin(), all.end(),
                                [&](const std::string &line) { return line.starts_with(with); });
        };
        const auto message = begins("pmb_send ");
        const auto named = begins("trace 101 sending a FAILURE message to proc=");
        ASSERT_NE(message, all.end());
        ASSERT_NE(named, all.end());
        EXPECT_LT(message - all.begin(), named - all.begin());
    }
}

TEST_F(CopyStartTest, ACopyFromFlashThatSucceedsSendsStatus2) {
    flashCopyEntry row = request(3, flash::protocolSftp);
    flash_copy_function(&row);
    EXPECT_THAT(sent(), ElementsAre(std::pair(2, 7)));
    const Lines run = fakes::calls("system");
    ASSERT_EQ(run.size(), 1U);
    EXPECT_NE(run[0].find(" put /bootflash/image.bin kept.bin "), std::string::npos) << run[0];
}

TEST_F(CopyStartTest, ACopyFromFlashThatFailsSendsTheTransfersStatus) {
    for (const Failure &failure : failures) {
        if (failure.protocol == flash::protocolTftp)
            continue;
        SCOPED_TRACE(failure.status);
        fakes::forget();
        flashCopyEntry row = request(3, failure.protocol);
        os().system.always(failure.result);
        flash_copy_function(&row);
        EXPECT_THAT(sent(), ElementsAre(std::pair(failure.status, 7)));
    }
}

TEST_F(CopyStartTest, ACopyFromFlashThatFailsIsTraced) {
    flashCopyEntry row = request(3, flash::protocolFtp);
    os().system.always(2 << 8);
    flash_copy_function(&row);
    const Traces expected = {
        {debug_level, "do_flash_upload_download : Return code from ftp.expect is  2\n"},
        {debug_level, "DEBUG : flash_copy_function : Upload of file remote.bin from FLASH "
                      "failed.\n"},
        {debug_level, "flash_copy_function : Upload of file remote.bin from FLASH failed.\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(CopyStartTest, ACopyFromFlashDoesNotNameTheParent) {
    for (int result : {0, 2 << 8}) {
        SCOPED_TRACE(result);
        fakes::forget();
        flashCopyEntry row = request(3, flash::protocolFtp);
        os().system.always(result);
        flash_copy_function(&row);
        for (const Trace &trace : fakes::traces()) {
            EXPECT_FALSE(trace.text.starts_with("sending a FAILURE message")) << trace.text;
            EXPECT_FALSE(trace.text.ends_with("Copy TO flash\n")) << trace.text;
        }
    }
}

TEST_F(CopyStartTest, AnyOtherCommandSendsTheRowsStatusWithoutATransfer) {
    for (int32_t command : {0, 4, 5, -1, INT_MAX})
        for (int32_t status : {1, 17}) {
            SCOPED_TRACE(command);
            fakes::forget();
            flashCopyEntry row = request(command);
            row.copyStatus = status;
            flash_copy_function(&row);
            EXPECT_THAT(sent(), ElementsAre(std::pair(status, 7)));
            EXPECT_THAT(fakes::calls("tftp_"), IsEmpty());
            EXPECT_THAT(fakes::calls("system"), IsEmpty());
        }
}

// The worker as the child of the fork, in this process

TEST_F(CopyStartTest, TheWorkerExitsWithZeroWhateverTheOutcome) {
    for (int32_t command : {1, 2, 3, 4})
        for (int result : {0, -2}) {
            SCOPED_TRACE(command);
            fakes::forget();
            flashCopyEntry row = request(command);
            fakes::put(row.sourcePath, "/dev/null");
            fakes::put(row.destinationName, "/dev/null");
            os().unlink.always(-1, EPERM); // /dev/null is the staging copy
            platform().tftp_get2.always(result);
            platform().tftp_put.always(-2);
            const auto code = fakes::run_as_child([&row] { start_flash_copy(&row); });
            EXPECT_EQ(code, 0);
            EXPECT_EQ(platform().sent.size(), 1U);
        }
}

TEST_F(CopyStartTest, TheWorkerIsNoWorkersParent) {
    flashCopyEntry row = request(1);
    int32_t seen = -2;
    platform().tftp_get2.does([&seen](const char *, const char *, int) {
        seen = flash_copy_pid;
        return 0;
    });
    fakes::run_as_child([&row] { start_flash_copy(&row); });
    EXPECT_EQ(seen, 0);
}

TEST_F(CopyStartTest, TheWorkerDoesNotTraceTheAgentsSide) {
    flashCopyEntry row = request(1);
    fakes::run_as_child([&row] { start_flash_copy(&row); });
    EXPECT_TRUE(fakes::traced(debug_level, "Entered start_flash_copy()...\n"));
    EXPECT_FALSE(fakes::traced(debug_level, "DEBUG : start_flash_copy : Done starting the copy\n"));
}

// The worker as a process

// What the worker tells the test: memory that both share, since its descriptors are closed.
struct Shared {
    std::atomic<int> reached;  // times the transfer was reached
    std::atomic<int> messages; // times a message was sent
    int32_t sent[3];
    pid_t process;
    pid_t group;
    bool handled[65];  // signals whose disposition is not the default
    bool inherits[65]; // of those, with the agent's handler
    bool masked[65];
    int open[64]; // descriptors above 2
    int open_count;
    bool closed_at_exec[64];
    char target[64][256];
};

void agents_handler(int) {}

// Counts the SIGTERM that a process gets.
std::atomic<int> *terminations = nullptr;

void look_around(Shared &shared) {
    shared.process = getpid();
    shared.group = getpgrp();
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int signal = 1; signal <= 64; ++signal) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) != 0)
            continue;
        shared.handled[signal] = action.sa_handler != SIG_DFL;
        shared.inherits[signal] = action.sa_handler == agents_handler;
        shared.masked[signal] = sigismember(&mask, signal) == 1;
    }
    for (int descriptor = 3; descriptor < 1024 && shared.open_count < 64; ++descriptor) {
        const int flags = fcntl(descriptor, F_GETFD);
        if (flags < 0)
            continue;
        const int at = shared.open_count++;
        shared.open[at] = descriptor;
        shared.closed_at_exec[at] = (flags & FD_CLOEXEC) != 0;
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
        if (readlink(link, shared.target[at], sizeof shared.target[at] - 1) < 0)
            shared.target[at][0] = '\0';
    }
}

template <class Condition>
bool await(Condition condition, std::chrono::milliseconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class WorkerTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        shared = new (memory) Shared{};
        // Orphans of a worker come to this process, so that their end can be seen.
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        std::copy(std::begin(mypipe), std::end(mypipe), saved_pipe_);
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        std::copy(std::begin(ends), std::end(ends), mypipe);
        sigprocmask(SIG_SETMASK, nullptr, &saved_mask_);
        os().fork.passes_through();
        platform().tftp_get2.does([this](const char *, const char *, int) {
            look_around(*shared);
            ++shared->reached;
            return 0;
        });
        platform().pmb_send.does([this](int, uint32_t, uint32_t, uint32_t, const void *payload,
                                        uint32_t length, const pmb_send_options *) {
            std::memcpy(shared->sent, payload, std::min<size_t>(length, sizeof shared->sent));
            ++shared->messages;
            return 0;
        });
    }
    void TearDown() override {
        end_workers();
        sigprocmask(SIG_SETMASK, &saved_mask_, nullptr);
        for (int signal : {SIGTERM, SIGPIPE, SIGHUP, SIGCHLD})
            std::signal(signal, SIG_DFL);
        ::close(mypipe[0]);
        ::close(mypipe[1]);
        std::copy(std::begin(saved_pipe_), std::end(saved_pipe_), mypipe);
        prctl(PR_SET_CHILD_SUBREAPER, 0);
        munmap(shared, sizeof *shared);
        FlashTest::TearDown();
    }

    // The agent as it is: it catches SIGTERM and SIGHUP, ignores SIGPIPE, blocks some signals.
    static void act_as_the_agent() {
        std::signal(SIGTERM, agents_handler);
        std::signal(SIGHUP, agents_handler);
        std::signal(SIGPIPE, SIG_IGN);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigaddset(&blocked, SIGUSR1);
        sigaddset(&blocked, SIGALRM);
        sigprocmask(SIG_SETMASK, &blocked, nullptr);
    }

    // Starts a worker and waits for its end: its exit status.
    int run(flashCopyEntry row) {
        start_flash_copy(&row);
        EXPECT_GT(flash_copy_pid, 0);
        return reap(flash_copy_pid);
    }
    // Waits for the end of a child, with a limit: its exit status.
    static int reap(pid_t process) {
        int status = -1;
        EXPECT_TRUE(await([&] { return __real_waitpid(process, &status, WNOHANG) == process; }))
            << "process " << process << " does not end";
        return status;
    }
    // Reaps what comes to this process from a group until none of it is left.
    static bool group_ends(pid_t group, std::chrono::milliseconds limit) {
        return await(
            [group] {
                while (__real_waitpid(-group, nullptr, WNOHANG) > 0) {
                }
                return __real_kill(-group, 0) != 0 && errno == ESRCH;
            },
            limit);
    }
    // Leaves no process of a failed test behind: orphans have come to this process too.
    static void end_workers() {
        await([] {
            std::ifstream list("/proc/thread-self/children");
            for (pid_t process = 0; list >> process;)
                __real_kill(process, SIGKILL);
            while (__real_waitpid(-1, nullptr, WNOHANG) > 0) {
            }
            return __real_waitpid(-1, nullptr, WNOHANG) < 0;
        });
    }

    Shared *shared = nullptr;

  private:
    int32_t saved_pipe_[2] = {};
    sigset_t saved_mask_{};
};

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
    const int low = open("/dev/null", O_RDONLY);
    ASSERT_GE(high, 700);
    ASSERT_GE(low, 3);
    run(request(1));
    ::close(high);
    ::close(low);
    ASSERT_EQ(shared->reached, 1);
    std::vector<int> left(shared->open, shared->open + shared->open_count);
    std::vector<int> pipe(std::begin(mypipe), std::end(mypipe));
    std::sort(pipe.begin(), pipe.end());
    EXPECT_EQ(left, pipe);
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
    const int low = open("/dev/null", O_RDONLY);
    ASSERT_EQ(high, 1023);
    ASSERT_GE(low, 3);
    run(request(1));
    ::close(high);
    ::close(low);
    ASSERT_EQ(shared->reached, 1);
    std::vector<int> left(shared->open, shared->open + shared->open_count);
    std::vector<int> pipe(std::begin(mypipe), std::end(mypipe));
    std::sort(pipe.begin(), pipe.end());
    EXPECT_EQ(left, pipe);
}

// How an agent opens its log file: afresh, or with -A behind what it holds.
enum LogMode { truncating = 0, appending = 1 };

// The agent's log in a file.
class WorkerWithLogFileTest : public WorkerTest, public testing::WithParamInterface<LogMode> {
  protected:
    void SetUp() override {
        WorkerTest::SetUp();
        std::string name = (fs::temp_directory_path() / "copy_start_test.XXXXXX").string();
        const int descriptor = mkstemp(name.data());
        ASSERT_GE(descriptor, 0);
        ::close(descriptor);
        path_ = name;
        std::ofstream(path_) << "of a former run\n";
        snmp_enable_filelog(path_.c_str(), GetParam());
    }
    void TearDown() override {
        snmp_disable_filelog();
        fs::remove(path_);
        WorkerTest::TearDown();
    }
    Lines log() const {
        Lines lines;
        std::ifstream file(path_);
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }
    // What the log holds of a former run, and these lines.
    static Lines with_former(Lines lines) {
        if (GetParam() == appending)
            lines.insert(lines.begin(), "of a former run");
        return lines;
    }
    std::string path_;
};

INSTANTIATE_TEST_SUITE_P(Modes, WorkerWithLogFileTest, testing::Values(truncating, appending),
                         [](const auto &mode) {
                             return std::string(mode.param == appending ? "Appending"
                                                                        : "Truncating");
                         });

TEST_P(WorkerWithLogFileTest, LinesOfAgentAndWorkerStandInTheFileInTheirOrder) {
    platform().tftp_get2.does([this](const char *, const char *, int) {
        __real_snmp_log(LOG_ERR, "from the worker\n");
        ++shared->reached;
        await([this] { return shared->messages == 1; }); // the agent's sign to go on
        __real_snmp_log(LOG_ERR, "from the worker again\n");
        return 0;
    });
    __real_snmp_log(LOG_ERR, "from the agent before\n");
    flashCopyEntry row = request(1);
    start_flash_copy(&row);
    ASSERT_TRUE(await([this] { return shared->reached == 1; }));
    __real_snmp_log(LOG_ERR, "from the agent meanwhile\n");
    ++shared->messages;
    reap(flash_copy_pid);
    __real_snmp_log(LOG_ERR, "from the agent after\n");
    __real_snmp_log(LOG_ERR, "from the agent at last\n");
    EXPECT_EQ(log(), with_former({"from the agent before", "from the worker",
                                  "from the agent meanwhile", "from the worker again",
                                  "from the agent after", "from the agent at last"}));
}

TEST_P(WorkerWithLogFileTest, LinesOfSeveralWorkersAreAllKept) {
    platform().tftp_get2.does([](const char *, const char *, int) {
        __real_snmp_log(LOG_ERR, "from a worker\n");
        return 0;
    });
    Lines expected;
    for (int i = 0; i < 3; ++i) {
        run(request(1));
        __real_snmp_log(LOG_ERR, "from the agent\n");
        expected.insert(expected.end(), {"from a worker", "from the agent"});
    }
    EXPECT_EQ(log(), with_former(expected));
}

TEST_P(WorkerWithLogFileTest, TheAgentsOwnDescriptorIsLeftAsItWas) {
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    int logs = 0;
    for (int i = 0; i < shared->open_count; ++i)
        if (shared->target[i] == path_) {
            EXPECT_EQ(fcntl(shared->open[i], F_GETFD), 0) << "descriptor " << shared->open[i];
            ++logs;
        }
    EXPECT_EQ(logs, 1);
}

TEST_P(WorkerWithLogFileTest, TheFileIsClosedAtExec) {
    run(request(1));
    ASSERT_EQ(shared->reached, 1);
    int logs = 0;
    for (int i = 0; i < shared->open_count; ++i) {
        if (shared->open[i] == mypipe[0] || shared->open[i] == mypipe[1])
            continue;
        EXPECT_EQ(shared->target[i], path_) << "descriptor " << shared->open[i];
        EXPECT_TRUE(shared->closed_at_exec[i]) << "descriptor " << shared->open[i];
        ++logs;
    }
    EXPECT_EQ(logs, 1);
}

TEST_P(WorkerWithLogFileTest, LogLinesAreNotWrittenIntoWhatTheWorkerOpens) {
    const std::string opened = path_ + ".opened";
    platform().tftp_get2.does([&opened](const char *, const char *, int) {
        // As many files as the worker closed descriptors, and more.
        for (int i = 0; i < 8; ++i)
            open(opened.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        __real_snmp_log(LOG_ERR, "from the worker\n");
        return 0;
    });
    run(request(1));
    ASSERT_TRUE(fs::exists(opened));
    EXPECT_EQ(fs::file_size(opened), 0U);
    fs::remove(opened);
}

// More log files than the worker keeps.
TEST_F(WorkerTest, WritesIntoNothingItOpensHoweverManyLogFilesTheAgentHas) {
    constexpr size_t kept = 16;
    constexpr size_t all = kept + 4;
    std::string directory = (fs::temp_directory_path() / "copy_start_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const auto log = [&](size_t n) { return directory + "/" + std::to_string(n); };
    for (size_t n = 0; n < all; ++n)
        snmp_enable_filelog(log(n).c_str(), truncating);
    const std::string opened = directory + "/opened";
    platform().tftp_get2.does([&](const char *, const char *, int) {
        for (size_t n = 0; n < 2 * all; ++n)
            open(opened.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        __real_snmp_log(LOG_ERR, "from the worker\n");
        return 0;
    });
    const int status = run(request(1));
    EXPECT_TRUE(WIFEXITED(status));
    __real_snmp_log(LOG_ERR, "from the agent\n");
    size_t with_worker = 0;
    for (size_t n = 0; n < all; ++n) {
        std::ifstream file(log(n));
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const bool has_worker = text == "from the worker\nfrom the agent\n";
        EXPECT_TRUE(has_worker || text == "from the agent\n") << text;
        with_worker += has_worker ? 1 : 0;
    }
    snmp_disable_filelog();
    EXPECT_EQ(with_worker, kept);
    ASSERT_TRUE(fs::exists(opened));
    EXPECT_EQ(fs::file_size(opened), 0U);
    fs::remove_all(directory);
}

// Abort of a transfer under way

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
