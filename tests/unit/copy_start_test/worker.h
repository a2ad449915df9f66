// The worker as a real process, and what it tells the test.
#ifndef UNIT_COPY_START_WORKER_H
#define UNIT_COPY_START_WORKER_H

#include "request.h"

#include "fakes/fixture.h"

#include "flash_trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
pid_t __real_fork(void);
pid_t __real_waitpid(pid_t pid, int *status, int options);
int __real_kill(pid_t pid, int signal);
int __real_setpgid(pid_t pid, pid_t group);
int __real_system(const char *command);
int __real_snmp_log(int priority, const char *format, ...);
}

namespace copy_start {

using namespace fakes;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

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

inline void agents_handler(int) {}

inline void look_around(Shared &shared) {
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

    // A worker has no descriptor above 2 but the pipe's, whatever the agent has.
    void expect_only_the_pipe() {
        const int low = open("/dev/null", O_RDONLY);
        ASSERT_GE(low, 3);
        run(request(1));
        ::close(low);
        ASSERT_EQ(shared->reached, 1);
        std::vector<int> left(shared->open, shared->open + shared->open_count);
        std::vector<int> pipe(std::begin(mypipe), std::end(mypipe));
        std::sort(pipe.begin(), pipe.end());
        EXPECT_EQ(left, pipe);
    }

    Shared *shared = nullptr;

  private:
    int32_t saved_pipe_[2] = {};
    sigset_t saved_mask_{};
};

} // namespace copy_start

#endif
