// Whom an abort spares: the worker forked last, once that very worker has been reaped.
#include "fakes/fixture.h"

#include <cerrno>

namespace {

using namespace fakes;

// Three copies side by side, started in the order of their rows: worker 4243 for row 3, 4244 for
// row 5, 4245 for row 7.
class AbortGuardTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        os().fork.returns(4243).returns(4244).returns(4245);
        for (int32_t index : {3, 5, 7}) {
            fakes::add_copy_row(index, [](flashCopyEntry &r) { r.copyStatus = 1; });
            start(index);
        }
        ASSERT_EQ(flash_copy_pid, 4245);
    }
    static void start(int32_t index) {
        flashCopyEntry row = *fakes::stored_copy_row(index);
        start_flash_copy(&row);
    }
    // Aborts the copy of row 5, which is in progress: the signals sent.
    static Lines abort() {
        fakes::forget();
        const flashCopyEntry row = *fakes::stored_copy_row(5);
        EXPECT_EQ(handle_flash_abort(&row), 0);
        return fakes::calls();
    }
};

TEST_F(AbortGuardTest, AWorkerThatWasReapedIsSparedAlsoAfterAnotherWasReaped) {
    handle_flash_copy_done(2, 7, 4245);
    handle_flash_copy_done(2, 3, 4243);
    EXPECT_EQ(abort(), Lines{});
}

TEST_F(AbortGuardTest, AWorkerThatSomebodyElseReapedIsSparedAlsoAfterAnotherWasReaped) {
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(2, 7, 4245);
    handle_flash_copy_done(2, 3, 4243);
    EXPECT_EQ(abort(), Lines{});
}

TEST_F(AbortGuardTest, AWorkerThatWasReapedIsSparedAlsoAfterAnotherWasReapedBySomebodyElse) {
    handle_flash_copy_done(2, 7, 4245);
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(2, 3, 4243);
    EXPECT_EQ(abort(), Lines{});
}

TEST_F(AbortGuardTest, TheEndOfOtherWorkersSparesNobody) {
    handle_flash_copy_done(2, 3, 4243);
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(2, 8, 4244);
    EXPECT_EQ(abort(), Lines{"kill pid=4245 signal=15"});
}

TEST_F(AbortGuardTest, AnIdThatIsSetFromOutsideIsSignalled) {
    handle_flash_copy_done(2, 7, 4245);
    handle_flash_copy_done(2, 3, 4243);
    for (int32_t process : {4243, 5000}) {
        flash_copy_pid = process;
        EXPECT_EQ(abort(), Lines{"kill pid=" + std::to_string(process) + " signal=15"});
    }
}

TEST_F(AbortGuardTest, AnIdThatIsSetFromOutsideIsSparedOnceItsProcessWasReaped) {
    flash_copy_pid = 5000;
    handle_flash_copy_done(2, 8, 5000);
    handle_flash_copy_done(2, 7, 4245);
    EXPECT_EQ(abort(), Lines{});
}

TEST_F(AbortGuardTest, AStartMakesAbortWorkAgainWhenItsProcessHasTheNumberOfOneThatWasReaped) {
    handle_flash_copy_done(2, 7, 4245);
    ASSERT_EQ(abort(), Lines{});
    os().fork.returns(4245);
    start(3);
    EXPECT_EQ(abort(), Lines{"kill pid=4245 signal=15"});
}

} // namespace
