// Abort of a copy, one of two included.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <climits>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace fakes;

// handle_flash_abort

using AbortTest = fakes::FlashTest;

TEST_F(AbortTest, SignalsTheWorkerOfARowInProgressOnly) {
    for (int32_t status : {0, 1, 2, 3, 5, 14, 17, -1})
        for (int32_t process : {INT_MIN, -4242, -1, 0, 1 << 20, INT_MAX}) {
            SCOPED_TRACE(std::to_string(status) + " " + std::to_string(process));
            fakes::forget();
            flashCopyEntry row = fakes::copy_row([&](flashCopyEntry &r) { r.copyStatus = status; });
            flash_copy_pid = process;
            EXPECT_EQ(handle_flash_abort(&row), 0);
            Lines expected;
            if (status == 1 && process > 0)
                expected.push_back("kill pid=" + std::to_string(process) + " signal=15");
            EXPECT_EQ(fakes::calls(), expected);
            EXPECT_EQ(flash_copy_pid, process);
        }
}

TEST_F(AbortTest, TheRowIsNotChanged) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    const flashCopyEntry before = *fakes::stored_copy_row(7);
    flash_copy_pid = 4242;
    flashCopyEntry row = before;
    handle_flash_abort(&row);
    const flashCopyEntry after = *fakes::stored_copy_row(7);
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(std::memcmp(&before, &row, sizeof before), 0);
}

TEST_F(AbortTest, AWorkerThatIsGoneMakesNoDifference) {
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    os().kill.returns(-1, ESRCH);
    EXPECT_EQ(handle_flash_abort(&row), 0);
}

// A copy of row 3 whose worker is 4243, and one of row 7, started later, whose worker is 4244.
class TwoCopiesTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        os().fork.returns(4243).returns(4244);
        for (int32_t index : {3, 7}) {
            fakes::add_copy_row(index, [](flashCopyEntry &r) { r.copyStatus = 1; });
            start(index);
        }
        ASSERT_EQ(flash_copy_pid, 4244);
        fakes::forget();
    }
    static void start(int32_t index) {
        flashCopyEntry row = *fakes::stored_copy_row(index);
        start_flash_copy(&row);
    }
    // Aborts a row: the signals sent.
    static Lines abort(int32_t index) {
        fakes::forget();
        const flashCopyEntry row = *fakes::stored_copy_row(index);
        EXPECT_EQ(handle_flash_abort(&row), 0);
        return fakes::calls();
    }
};

TEST_F(TwoCopiesTest, AnAbortSignalsTheWorkerForkedLastWhicheverRowItServes) {
    EXPECT_EQ(abort(3), (Lines{"kill pid=4244 signal=15"}));
    EXPECT_EQ(abort(7), (Lines{"kill pid=4244 signal=15"}));
}

TEST_F(TwoCopiesTest, AnAbortSignalsNobodyOnceTheWorkerForkedLastHasBeenReaped) {
    handle_flash_copy_done(2, 7, 4244);
    EXPECT_EQ(abort(3), Lines{});
    EXPECT_EQ(flash_copy_pid, 4244);
}

TEST_F(TwoCopiesTest, AnAbortSignalsNobodyOnceThatWorkerHasBeenReapedForAnUnknownRow) {
    handle_flash_copy_done(2, 8, 4244);
    EXPECT_EQ(abort(3), Lines{});
    EXPECT_EQ(abort(7), Lines{});
}

TEST_F(TwoCopiesTest, AnAbortStillSignalsTheWorkerForkedLastWhenAnotherHasBeenReaped) {
    handle_flash_copy_done(2, 3, 4243);
    EXPECT_EQ(abort(7), (Lines{"kill pid=4244 signal=15"}));
}

TEST_F(TwoCopiesTest, AnAbortStillSignalsAWorkerWhoseWaitFailed) {
    os().waitpid.returns(-1, EINVAL);
    handle_flash_copy_done(2, 7, 4244);
    EXPECT_EQ(abort(3), (Lines{"kill pid=4244 signal=15"}));
}

TEST_F(TwoCopiesTest, AnAbortSparesAWorkerThatSomebodyElseHasReaped) {
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(2, 7, 4244);
    EXPECT_EQ(abort(3), Lines{});
}

TEST_F(TwoCopiesTest, ANewStartMakesAbortWorkAgainEvenWithTheSameProcessId) {
    for (int32_t process : {4244, 4245}) {
        SCOPED_TRACE(process);
        handle_flash_copy_done(2, 7, flash_copy_pid);
        ASSERT_EQ(abort(3), Lines{});
        os().fork.returns(process);
        start(3);
        EXPECT_EQ(abort(3), (Lines{"kill pid=" + std::to_string(process) + " signal=15"}));
    }
}

} // namespace
