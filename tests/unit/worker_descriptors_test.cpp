// What the worker closes, descriptor by descriptor: everything above 2 but the pipe.
#include "fakes/fixture.h"

#include <sys/resource.h>

namespace {

using namespace fakes;

class WorkerDescriptors : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        getrlimit(RLIMIT_NOFILE, &former_);
        const rlimit few{12, former_.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    void TearDown() override {
        setrlimit(RLIMIT_NOFILE, &former_);
        FlashTest::TearDown();
    }

    // Starts a worker whose pipe is 5 and 7; nothing is really closed.
    static Lines closed_by_worker(const char *calls) {
        mypipe[0] = 5;
        mypipe[1] = 7;
        os().fork.returns(0);
        flashCopyEntry row = fakes::copy_row();
        row.command = 99; // nothing to transfer
        fakes::forget();
        EXPECT_EQ(fakes::run_as_child([&] { start_flash_copy(&row); }), 0);
        mypipe[0] = mypipe[1] = -1;
        return fakes::calls(calls);
    }

  private:
    rlimit former_;
};

TEST_F(WorkerDescriptors, EverySpanBeforeBetweenAndBehindThePipeIsClosed) {
    EXPECT_EQ(closed_by_worker("close_range"),
              (Lines{"close_range first=3 last=4 flags=0", "close_range first=6 last=6 flags=0",
                     "close_range first=8 last=2147483647 flags=0"}));
}

TEST_F(WorkerDescriptors, WhereSpansCannotBeClosedEachDescriptorIsUpToTheLimit) {
    os().child_close_range.always(-1, ENOSYS);
    EXPECT_EQ(closed_by_worker("close "),
              (Lines{"close descriptor=3", "close descriptor=4", "close descriptor=6",
                     "close descriptor=8", "close descriptor=9", "close descriptor=10",
                     "close descriptor=11"}));
}

} // namespace
