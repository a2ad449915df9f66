// Finished rows age out.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <cstring>
#include <syslog.h>

namespace {

using namespace fakes;

// flash_ageouttimerhandler

constexpr time_t now = 1000000;

class AgeOutTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        fakes::set_time(now);
    }
    static void add_ended(int32_t index, int64_t ago, int32_t status = flash::copySuccess) {
        fakes::add_copy_row(index, [&](flashCopyEntry &r) {
            r.copyStatus = status;
            r.endTime = static_cast<int32_t>(now - ago);
        });
    }
    static void tick() { flash_ageouttimerhandler(1, nullptr); }
    // The indexes of the rows left.
    static std::vector<int32_t> left() {
        std::vector<int32_t> result;
        flashCopyEntry row{};
        while (getnextFlashCopyEntry(&row) == flash::success)
            result.push_back(row.index);
        return result;
    }
};

TEST_F(AgeOutTest, ARowThatEnded305SecondsAgoSurvives) {
    add_ended(7, 305);
    tick();
    EXPECT_THAT(left(), ElementsAre(7));
}

TEST_F(AgeOutTest, ARowThatEnded306SecondsAgoIsDeleted) {
    add_ended(7, 306);
    tick();
    EXPECT_THAT(left(), IsEmpty());
}

TEST_F(AgeOutTest, ARowInProgressIsNeverDeleted) {
    int32_t index = 0;
    for (int64_t ago : {0, 305, 306, 86400, 1000000})
        add_ended(++index, ago, flash::copyInProgress);
    tick();
    EXPECT_THAT(left(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(AgeOutTest, ARowOfAnyOtherStatusIsDeleted) {
    int32_t index = 0;
    for (int32_t status : {0, 2, 3, 4, 5, 6, 8, 12, 14, 16, 17, 18, -1})
        add_ended(++index, 306, status);
    tick();
    EXPECT_THAT(left(), IsEmpty());
}

TEST_F(AgeOutTest, TheWalkGoesOnBehindADeletedRow) {
    add_ended(1, 400);
    add_ended(2, 400);
    add_ended(4, 10);
    add_ended(5, 400);
    add_ended(6, 400, flash::copyInProgress);
    add_ended(9, 400);
    fakes::forget();
    tick();
    EXPECT_THAT(left(), ElementsAre(4, 6));
    EXPECT_THAT(fakes::container_calls("ordset_remove"),
                ElementsAre("ordset_remove key=1", "ordset_remove key=2", "ordset_remove key=5",
                            "ordset_remove key=9"));
}

TEST_F(AgeOutTest, EachDeletionIsTraced) {
    add_ended(2, 400);
    add_ended(4, 10);
    add_ended(5, 400);
    fakes::forget();
    tick();
    Lines said;
    for (const Trace &trace : fakes::traces())
        if (trace.text.find("aged out") != std::string::npos) {
            EXPECT_EQ(trace.subtype, debug_level);
            said.push_back(trace.text);
        }
    EXPECT_EQ(said, (Lines{"flash_ageouttimerhandler: Deleting the aged out entry 2\n",
                           "flash_ageouttimerhandler: Deleting the aged out entry 5\n"}));
}

TEST_F(AgeOutTest, AnEmptyTableIsNoMatter) {
    tick();
    EXPECT_THAT(left(), IsEmpty());
}

TEST_F(AgeOutTest, ARowThatCannotBeDeletedDoesNotStopTheWalk) {
    add_ended(2, 400);
    add_ended(5, 400);
    platform().ordset_remove.returns(nullptr);
    tick();
    EXPECT_THAT(left(), ElementsAre(2));
}

TEST_F(AgeOutTest, NeitherRegistrationNorClientMatters) {
    add_ended(7, 306);
    int client = 0;
    flash_ageouttimerhandler(99, &client);
    EXPECT_THAT(left(), IsEmpty());
}

TEST_F(AgeOutTest, NothingIsDeletedWhenTheClockStepsBackADay) {
    add_ended(7, 10);
    add_ended(8, 10, flash::copyInProgress);
    fakes::set_time(now - 86400);
    tick();
    EXPECT_THAT(left(), ElementsAre(7, 8));
}

TEST_F(AgeOutTest, RowsInProgressStayWhenTheClockStepsForwardADay) {
    add_ended(7, 10);
    add_ended(8, 10, flash::copyInProgress);
    fakes::set_time(now + 86400);
    tick();
    EXPECT_THAT(left(), ElementsAre(8));
}

TEST_F(AgeOutTest, ARowThatWasNeverStartedIsMeasuredFromItsCreation) {
    fakes::add_copy_row(7);
    fakes::set_time(now + 305);
    tick();
    EXPECT_THAT(left(), ElementsAre(7));
    fakes::set_time(now + 306);
    tick();
    EXPECT_THAT(left(), IsEmpty());
}

TEST_F(AgeOutTest, ACompletedCopyIsMeasuredFromItsEnd) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    fakes::set_time(now + 5000);
    handle_flash_copy_done(2, 7, 4242);
    fakes::set_time(now + 5305);
    os().alarms.at(0).callback(1, nullptr);
    EXPECT_THAT(left(), ElementsAre(7));
    fakes::set_time(now + 5306);
    os().alarms.at(0).callback(1, nullptr);
    EXPECT_THAT(left(), IsEmpty());
}

// The times of rows have 32 bits: in January 2038 they wrap. The agent's clock does too where its
// own times are of 32 bits.
class AgeOutAcross2038Test : public AgeOutTest, public testing::WithParamInterface<bool> {
  protected:
    static constexpr int64_t wrap = int64_t{1} << 31;

    // The agent's clock at this many seconds since 1970.
    static void set_clock(int64_t seconds) {
        fakes::set_time(GetParam() ? static_cast<time_t>(static_cast<int32_t>(seconds))
                                   : static_cast<time_t>(seconds));
    }
    static void add_ended_at(int32_t index, int64_t seconds) {
        fakes::add_copy_row(index, [&](flashCopyEntry &r) {
            r.copyStatus = flash::copySuccess;
            r.endTime = static_cast<int32_t>(seconds);
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Clocks, AgeOutAcross2038Test, testing::Bool(), [](const auto &clock) {
    return std::string(clock.param ? "Wrapped" : "Whole");
});

TEST_P(AgeOutAcross2038Test, ARowIsDeletedAfter306SecondsAndNotBefore) {
    // Ended before, at and after the wrap.
    for (int64_t end : {wrap - 400, wrap - 306, wrap - 305, wrap - 100, wrap - 1, wrap, wrap + 1,
                        wrap + 86400, 2 * wrap - 1, 2 * wrap, 2 * wrap + 1}) {
        SCOPED_TRACE(end);
        fakes::empty_tables();
        add_ended_at(7, end);
        set_clock(end + 305);
        tick();
        EXPECT_THAT(left(), ElementsAre(7));
        set_clock(end + 306);
        tick();
        EXPECT_THAT(left(), IsEmpty());
    }
}

TEST_P(AgeOutAcross2038Test, NothingIsDeletedWhenTheClockStepsBackAcrossTheWrap) {
    add_ended_at(7, wrap + 10);
    set_clock(wrap - 86400);
    tick();
    EXPECT_THAT(left(), ElementsAre(7));
}

TEST_P(AgeOutAcross2038Test, ACopyAndANewRowAreMeasuredFromTheirOwnTimes) {
    set_clock(wrap - 5);
    fakes::add_copy_row(6);
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    set_clock(wrap + 5);
    handle_flash_copy_done(2, 7, 4242);
    set_clock(wrap - 5 + 305);
    tick();
    EXPECT_THAT(left(), ElementsAre(6, 7));
    set_clock(wrap - 5 + 306);
    tick();
    EXPECT_THAT(left(), ElementsAre(7));
    set_clock(wrap + 5 + 305);
    tick();
    EXPECT_THAT(left(), ElementsAre(7));
    set_clock(wrap + 5 + 306);
    tick();
    EXPECT_THAT(left(), IsEmpty());
}

} // namespace
