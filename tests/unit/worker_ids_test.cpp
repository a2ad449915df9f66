// The least process id is a worker's as any other: only 0 and what is below name no process.
#include "fakes/fixture.h"

namespace {

using namespace fakes;

class WorkerIds : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        os().fork.returns(1);
        fakes::add_copy_row(7, [](flashCopyEntry &row) { row.copyStatus = flash::copyInProgress; });
        running_ = *fakes::stored_copy_row(7);
        start_flash_copy(&running_);
        fakes::forget();
    }
    flashCopyEntry running_{};
};

TEST_F(WorkerIds, TheLeastIsSignalled) {
    handle_flash_abort(&running_);
    EXPECT_EQ(fakes::calls("kill"), (Lines{"kill pid=1 signal=15"}));
}

TEST_F(WorkerIds, TheLeastIsWaitedFor) {
    handle_flash_copy_done(2, 7, 1);
    EXPECT_EQ(fakes::calls("waitpid").size(), 1U);
    EXPECT_TRUE(fakes::traced(100, "Waitpid status = 1"));
}

TEST_F(WorkerIds, TheLeastIsSparedOnceItWasReaped) {
    handle_flash_copy_done(2, 7, 1);
    handle_flash_abort(&running_);
    EXPECT_THAT(fakes::calls("kill"), IsEmpty());
}

TEST_F(WorkerIds, ZeroIsNobodyAlsoAfterAWorkerWasReaped) {
    handle_flash_copy_done(2, 7, 1);
    flash_copy_pid = 0;
    handle_flash_abort(&running_);
    EXPECT_THAT(fakes::calls("kill"), IsEmpty());
}

} // namespace
