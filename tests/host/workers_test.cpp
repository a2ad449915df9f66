// The watch over the workers of copies, on real processes and a module of a few rows.
#include "agent/workers.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <sys/pidfd.h>
}

namespace {

bool no_pidfds;

} // namespace

// Stands before the C library's own.
extern "C" int pidfd_open(pid_t pid, unsigned int flags) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(pid_t, unsigned int)>(dlsym(RTLD_NEXT, "pidfd_open"));
    if (!no_pidfds)
        return real(pid, flags);
    errno = ENOSYS;
    return -1;
}

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The module: its rows, by index as an unsigned number, and what its last fork returned.
std::map<uint32_t, flashCopyEntry> rows;
int32_t last_worker;

int32_t get_next_row(flashCopyEntry *row) {
    const auto next = rows.upper_bound(static_cast<uint32_t>(row->index));
    if (next == rows.end())
        return 0x40490002;
    *row = next->second;
    return 0;
}

const ruma::CopyModule module{nullptr, nullptr, get_next_row, &last_worker, nullptr};

void set_row(int32_t index, int32_t status, flashTimestamp start = {100, 0}) {
    flashCopyEntry &row = rows[static_cast<uint32_t>(index)];
    row.index = index;
    row.copyStatus = status;
    row.startTimestamp = start;
}

bool readable(int descriptor) {
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

class Workers : public testing::Test {
  protected:
    void SetUp() override {
        rows.clear();
        last_worker = 0;
        no_pidfds = false;
        ASSERT_EQ(workers.open(), 0);
    }
    void TearDown() override {
        for (const pid_t pid : forked) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // Forks as the module does: a row in progress, the fork, the id. The worker runs `body`.
    template <typename Body>
    pid_t start(int32_t row, Body body, flashTimestamp at = {100, 0}) {
        set_row(row, ruma::copy_in_progress, at);
        EXPECT_TRUE(workers.before_fork(module));
        const pid_t pid = fork();
        if (pid == 0) {
            body();
            _exit(0);
        }
        last_worker = pid;
        forked.insert(pid);
        return pid;
    }

    pid_t start_sleeper(int32_t row, flashTimestamp at = {100, 0}) {
        return start(
            row, [] { pause(); }, at);
    }

    // What is lost when everything has been given the time that it takes.
    std::vector<ruma::LostCopy> lost_in_the_end() {
        std::vector<ruma::LostCopy> all;
        workers.settle(module);
        do {
            workers.note_ended();
            for (const ruma::LostCopy &lost : workers.take_lost())
                all.push_back(lost);
            usleep(1000);
        } while (workers.next_look() && *workers.next_look() < milliseconds(1000));
        return all;
    }

    static void end(pid_t pid, int signal = SIGKILL) {
        kill(pid, signal);
        siginfo_t info{};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }

    ruma::CopyWorkers workers;
    std::set<pid_t> forked;
};

MATCHER_P2(IsLost, row, pid, "") { return arg.start.row == row && arg.worker == pid; }

TEST_F(Workers, ForkWithoutANewCopyIsNoWorkers) {
    EXPECT_FALSE(workers.before_fork(module));
    set_row(1, 17);
    set_row(2, 2);
    EXPECT_FALSE(workers.before_fork(module));
    start_sleeper(3);
    EXPECT_FALSE(workers.before_fork(module));
}

TEST_F(Workers, ForkIsNoWorkersWhereTheModuleDoesNotTell) {
    set_row(1, ruma::copy_in_progress);
    EXPECT_FALSE(workers.before_fork({}));
    EXPECT_FALSE(workers.before_fork({nullptr, nullptr, nullptr, &last_worker, nullptr}));
    EXPECT_FALSE(workers.before_fork({nullptr, nullptr, get_next_row, nullptr, nullptr}));
}

TEST_F(Workers, WorkerThatEndsIsLost) {
    const pid_t worker = start(7, [] {});
    end(worker);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    EXPECT_TRUE(ruma::is_child(worker)) << "it is not waited for";
    EXPECT_TRUE(lost_in_the_end().empty()) << "it is lost once";
}

TEST_F(Workers, WorkerThatRunsIsNotLost) {
    start_sleeper(7);
    EXPECT_TRUE(lost_in_the_end().empty());
}

TEST_F(Workers, WorkerThatIsStoppedIsNotLost) {
    const pid_t worker = start_sleeper(7);
    workers.settle(module);
    kill(worker, SIGSTOP);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(worker), &info, WSTOPPED | WNOWAIT), 0);
    EXPECT_FALSE(readable(workers.descriptor()));
    EXPECT_TRUE(lost_in_the_end().empty());
}

TEST_F(Workers, WorkerThatHasReportedIsNotLost) {
    const pid_t worker = start(7, [] {});
    workers.settle(module);
    end(worker);
    workers.note_ended();
    workers.reported(worker);
    EXPECT_TRUE(lost_in_the_end().empty());
    EXPECT_FALSE(readable(workers.descriptor()));
}

TEST_F(Workers, ReportOfAnotherProcessChangesNothing) {
    const pid_t worker = start(7, [] {});
    workers.settle(module);
    end(worker);
    workers.reported(getpid());
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
}

TEST_F(Workers, WorkerThatEndsAfterTheLookIsNotLostYet) {
    const pid_t worker = start_sleeper(7);
    workers.settle(module);
    workers.note_ended();
    end(worker);
    EXPECT_TRUE(workers.take_lost().empty());
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
}

TEST_F(Workers, DescriptorTellsOfAnEndOnce) {
    const pid_t first = start_sleeper(7);
    const pid_t second = start_sleeper(8);
    workers.settle(module);
    EXPECT_FALSE(readable(workers.descriptor()));
    end(first);
    EXPECT_TRUE(readable(workers.descriptor()));
    EXPECT_FALSE(workers.next_look());
    workers.note_ended();
    EXPECT_FALSE(readable(workers.descriptor()));
    end(second);
    EXPECT_TRUE(readable(workers.descriptor()));
}

// The second worker is given the first one's descriptor, which it keeps as long as it likes.
TEST_F(Workers, DescriptorDoesNotTellOfAnEndThatAnotherWorkerHoldsOn) {
    const pid_t first = start_sleeper(7);
    workers.settle(module);
    start_sleeper(8);
    end(first);
    lost_in_the_end();
    EXPECT_FALSE(readable(workers.descriptor()));
}

TEST_F(Workers, SeveralStartsOfOneRequestAreToldApart) {
    // The higher row starts first.
    const pid_t first = start_sleeper(-1);
    const pid_t second = start_sleeper(3);
    const pid_t third = start_sleeper(2147483647);
    for (const pid_t pid : {third, first, second})
        end(pid);
    EXPECT_THAT(lost_in_the_end(),
                testing::UnorderedElementsAre(IsLost(-1, first), IsLost(3, second),
                                              IsLost(2147483647, third)));
}

TEST_F(Workers, StartOfTheSameRowAnewIsAnother) {
    const pid_t first = start_sleeper(7, {100, 5});
    const pid_t second = start_sleeper(7, {100, 6});
    const pid_t third = start_sleeper(7, {99, 6}); // the clock was set back
    for (const pid_t pid : {first, second, third})
        end(pid);
    const auto lost = lost_in_the_end();
    ASSERT_EQ(lost.size(), 3U);
    for (const ruma::LostCopy &copy : lost) {
        const flashTimestamp at = copy.worker == first    ? flashTimestamp{100, 5}
                                  : copy.worker == second ? flashTimestamp{100, 6}
                                                          : flashTimestamp{99, 6};
        EXPECT_TRUE((copy.start == ruma::CopyStart{7, at}));
    }
}

TEST_F(Workers, RowThatStaysInProgressWithoutAWorkerIsNoStartAgain) {
    const pid_t first = start(7, [] {});
    end(first);
    ASSERT_EQ(lost_in_the_end().size(), 1U);
    const pid_t second = start_sleeper(3);
    end(second);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(3, second)));
}

TEST_F(Workers, FailedForkIsALostCopyWithoutAWorker) {
    set_row(7, ruma::copy_in_progress);
    ASSERT_TRUE(workers.before_fork(module));
    last_worker = -1;
    const pid_t worker = start_sleeper(8);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, -1)));
    end(worker);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(8, worker)));
}

TEST_F(Workers, GroupOfTheWorkerAloneIsGoneAtOnce) {
    const pid_t worker = start(7, [] {
        setpgid(0, 0);
        _exit(0);
    });
    end(worker);
    workers.settle(module);
    workers.note_ended();
    EXPECT_EQ(workers.take_lost().size(), 1U);
}

// A worker in a group of its own and a member that does `body`; the worker waits for its end.
template <typename Body>
void lead_group(int told, Body body) {
    setpgid(0, 0);
    if (fork() == 0) {
        body();
        static_cast<void>(!write(told, "x", 1));
        for (;;)
            pause();
    }
    for (;;)
        pause();
}

class WorkersGroup : public Workers {
  protected:
    void SetUp() override {
        Workers::SetUp();
        ASSERT_EQ(pipe(told), 0);
    }
    void TearDown() override {
        close(told[0]);
        close(told[1]);
        Workers::TearDown();
    }

    template <typename Body>
    pid_t start_group(Body body) {
        const pid_t worker = start(7, [this, body] { lead_group(told[1], body); });
        char byte;
        EXPECT_EQ(read(told[0], &byte, 1), 1);
        workers.settle(module);
        return worker;
    }

    int told[2];
};

TEST_F(WorkersGroup, IsEndedBySigtermBeforeItsWorkerIsLost) {
    const pid_t worker = start_group([] {});
    end(worker);
    workers.note_ended();
    const auto begun = Clock::now();
    EXPECT_TRUE(workers.take_lost().empty());
    EXPECT_LE(*workers.next_look(), milliseconds(100));
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    EXPECT_LT(Clock::now() - begun, milliseconds(900));
}

TEST_F(WorkersGroup, ThatIgnoresSigtermIsKilledAfterASecond) {
    const pid_t worker = start_group([] { std::signal(SIGTERM, SIG_IGN); });
    end(worker);
    const auto begun = Clock::now();
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    EXPECT_GE(Clock::now() - begun, milliseconds(1000));
    EXPECT_LT(Clock::now() - begun, milliseconds(5000));
    // The pipe ends when the last member has: this process holds the other end no more.
    close(told[1]);
    char byte;
    EXPECT_EQ(read(told[0], &byte, 1), 0);
}

// A worker passes it on to its group before it dies of it; this one does not.
TEST_F(WorkersGroup, OfAWorkerThatSigtermEndedGetsNoSecondOneAndIsKilledAfterASecond) {
    static int out;
    out = told[1];
    const pid_t worker = start_group(
        [] { std::signal(SIGTERM, [](int) { static_cast<void>(!write(out, "t", 1)); }); });
    end(worker, SIGTERM);
    const auto begun = Clock::now();
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    EXPECT_GE(Clock::now() - begun, milliseconds(1000));
    close(told[1]);
    char byte;
    EXPECT_EQ(read(told[0], &byte, 1), 0);
}

TEST_F(WorkersGroup, OfAWorkerThatRunsIsLeftAlone) {
    start_group([] {});
    EXPECT_TRUE(lost_in_the_end().empty());
    close(told[1]);
    EXPECT_FALSE(readable(told[0]));
}

TEST_F(WorkersGroup, IsEndedBySigtermWhenItsWorkerReports) {
    const pid_t worker = start_group([] {});
    workers.end_group(worker);
    end(worker);
    workers.reported(worker);
    // The pipe ends with the last member.
    close(told[1]);
    char byte;
    EXPECT_EQ(read(told[0], &byte, 1), 0);
}

TEST_F(WorkersGroup, OfNobodyElseGetsNoSignalWhenItsWorkerReports) {
    const pid_t worker = start(7, [this] {
        setpgid(0, 0);
        static_cast<void>(!write(told[1], "x", 1));
        for (;;)
            pause();
    });
    char byte;
    ASSERT_EQ(read(told[0], &byte, 1), 1);
    workers.settle(module);
    workers.end_group(worker);
    EXPECT_TRUE(lost_in_the_end().empty());
    end(worker);
}

TEST_F(WorkersGroup, OfAProcessThatIsNoWorkerGetsNoSignal) {
    const pid_t worker = start_group([] {});
    workers.reported(worker);
    workers.end_group(worker);
    close(told[1]);
    EXPECT_FALSE(readable(told[0]));
    end(worker);
}

TEST_F(WorkersGroup, IsNotKilledOnceItsWorkerHasReported) {
    const pid_t worker = start_group([] {});
    end(worker);
    workers.reported(worker);
    EXPECT_TRUE(lost_in_the_end().empty());
    close(told[1]);
    EXPECT_FALSE(readable(told[0]));
}

// Whose id is another's then, as far as this process knows.
TEST_F(WorkersGroup, OfAWorkerThatSomebodyElseHasReapedIsLeftAlone) {
    const pid_t worker = start_group([] {});
    end(worker);
    ASSERT_EQ(waitpid(worker, nullptr, 0), worker);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    close(told[1]);
    EXPECT_FALSE(readable(told[0]));
}

TEST_F(Workers, AreLookedAfterOnceASecondWithoutPidfds) {
    no_pidfds = true;
    const pid_t worker = start_sleeper(7);
    workers.settle(module);
    EXPECT_EQ(workers.next_look(), milliseconds(1000));
    end(worker);
    EXPECT_FALSE(readable(workers.descriptor()));
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
    EXPECT_FALSE(workers.next_look());
}

TEST_F(Workers, AreLookedAfterOnceASecondWithoutTheDescriptor) {
    workers.close();
    const pid_t worker = start_sleeper(7);
    workers.settle(module);
    EXPECT_EQ(workers.next_look(), milliseconds(1000));
    end(worker);
    EXPECT_THAT(lost_in_the_end(), testing::ElementsAre(IsLost(7, worker)));
}

TEST_F(Workers, TakeNoMoreThan64Descriptors) {
    const auto count = [] {
        int open = 0;
        for (int descriptor = 0; descriptor < 1000; ++descriptor)
            open += fcntl(descriptor, F_GETFD) >= 0;
        return open;
    };
    const int before = count();
    for (int32_t row = 1; row <= 70; ++row) {
        start_sleeper(row);
        workers.settle(module);
    }
    EXPECT_EQ(count(), before + 64);
    EXPECT_EQ(workers.next_look(), milliseconds(1000));
    for (const pid_t pid : forked)
        end(pid);
    EXPECT_EQ(lost_in_the_end().size(), 70U);
    EXPECT_EQ(count(), before);
}

} // namespace
