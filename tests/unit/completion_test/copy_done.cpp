// What becomes of a row when its copy is done.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <climits>
#include <cstring>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace fakes;

// handle_flash_copy_done

class CompletionTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        fakes::add_copy_row(3);
        fakes::add_copy_row(7, [](flashCopyEntry &r) {
            r.copyStatus = flash::copyInProgress;
            r.entryStatus = flash::rowActive;
            r.startTimestamp = {1000, 250000};
            fakes::put(r.sourceName, "remote.bin");
        });
        fakes::add_copy_row(9);
        fakes::set_time(1010, 500000);
        fakes::forget();
    }
};

TEST_F(CompletionTest, RecordsTheStatus) {
    for (int32_t status : {2, 5, 8, 12, 14, 16, 18, 1, -1}) {
        SCOPED_TRACE(status);
        handle_flash_copy_done(status, 7, 4242);
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, status);
    }
}

TEST_F(CompletionTest, RecordsAStatusOfZeroAsATransferError) {
    handle_flash_copy_done(0, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 14);
}

TEST_F(CompletionTest, TakesTheEndTimestampFromTheClock) {
    handle_flash_copy_done(2, 7, 4242);
    const auto row = fakes::stored_copy_row(7);
    EXPECT_EQ(row->endTimestamp.seconds, 1010);
    EXPECT_EQ(row->endTimestamp.microseconds, 500000);
    EXPECT_EQ(row->startTimestamp.seconds, 1000);
    EXPECT_EQ(row->startTimestamp.microseconds, 250000);
}

TEST_F(CompletionTest, TakesTheEndTimeFromTheSystemTime) {
    os().time.always(2222);
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->endTime, 2222);
    EXPECT_EQ(fakes::stored_copy_row(7)->endTimestamp.seconds, 1010);
}

TEST_F(CompletionTest, TheCopyTimeIsTheDifferenceOfTheUptimesOfTheTwoTimestamps) {
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyTime, 1025U);
}

TEST_F(CompletionTest, TheCopyTimeIsInTheAgentsUptime) {
    std::vector<std::pair<time_t, suseconds_t>> asked;
    os().timeval_uptime.does([&asked](const timeval *at) -> u_long {
        asked.emplace_back(at->tv_sec, at->tv_usec);
        return at->tv_sec == 1010 ? 5000 : 1500;
    });
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyTime, 3500U);
    EXPECT_THAT(asked, testing::UnorderedElementsAre(std::pair(time_t{1010}, suseconds_t{500000}),
                                                     std::pair(time_t{1000}, suseconds_t{250000})));
}

TEST_F(CompletionTest, ACopyTimeAcrossAWrapOfTheUptimeIsTheDifferenceModulo32Bits) {
    os().timeval_uptime.does(
        [](const timeval *at) -> u_long { return at->tv_sec == 1010 ? 100 : 0xffffff00UL; });
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyTime, 356U);
}

TEST_F(CompletionTest, ChangesNothingElseOfTheRow) {
    flashCopyEntry expected = *fakes::stored_copy_row(7);
    handle_flash_copy_done(2, 7, 4242);
    expected.copyStatus = 2;
    expected.copyTime = 1025;
    expected.endTimestamp = {1010, 500000};
    expected.endTime = 1010;
    const flashCopyEntry row = *fakes::stored_copy_row(7);
    EXPECT_EQ(std::memcmp(&row, &expected, sizeof row), 0);
}

TEST_F(CompletionTest, LeavesTheOtherRowsAlone) {
    const flashCopyEntry third = *fakes::stored_copy_row(3);
    const flashCopyEntry ninth = *fakes::stored_copy_row(9);
    handle_flash_copy_done(2, 7, 4242);
    const flashCopyEntry third_after = *fakes::stored_copy_row(3);
    const flashCopyEntry ninth_after = *fakes::stored_copy_row(9);
    EXPECT_EQ(std::memcmp(&third, &third_after, sizeof third), 0);
    EXPECT_EQ(std::memcmp(&ninth, &ninth_after, sizeof ninth), 0);
}

TEST_F(CompletionTest, RegistersTheAgeOutAlarm) {
    handle_flash_copy_done(2, 7, 4242);
    ASSERT_EQ(os().alarms.size(), 1U);
    EXPECT_EQ(os().alarms[0].seconds, 305U);
    EXPECT_EQ(os().alarms[0].flags, static_cast<unsigned int>(SA_REPEAT));
    EXPECT_EQ(os().alarms[0].callback, flash_ageouttimerhandler);
    EXPECT_EQ(os().alarms[0].client, nullptr);
}

TEST_F(CompletionTest, ThreeCompletionsRegisterThreeAlarms) {
    handle_flash_copy_done(2, 3, 4242);
    handle_flash_copy_done(14, 7, 4243);
    handle_flash_copy_done(2, 9, 4244);
    ASSERT_EQ(os().alarms.size(), 3U);
    for (const fakes::Alarm &alarm : os().alarms) {
        EXPECT_EQ(alarm.seconds, 305U);
        EXPECT_EQ(alarm.flags, static_cast<unsigned int>(SA_REPEAT));
        EXPECT_EQ(alarm.callback, flash_ageouttimerhandler);
    }
}

TEST_F(CompletionTest, ReapsTheWorkerOfTheMessageAfterTheAlarm) {
    flash_copy_pid = 9999;
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::calls(), (Lines{"snmp_alarm_register seconds=305 flags=" +
                                         std::to_string(SA_REPEAT) + " client=null",
                                     "waitpid pid=4242 status=null options=0"}));
}

TEST_F(CompletionTest, IsTraced) {
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(
        fakes::traces(),
        (Traces{{debug_level, "DEBUG : handle_flash_copy_done : Copy is done with status 2\n"},
                {debug_level, "DEBUG : handle_flash_copy_done : Entering with whichRow=  7\n"},
                {debug_level, "looking for entry with index=7\n"},
                {debug_level, "found entry after calling getnextFlashCopyEntry.\n"},
                {debug_level, "found entry after calling getnextFlashCopyEntry.\n"},
                {debug_level, "Now checking the row\n"},
                {error_level, "Waitpid status = 4242"}}));
}

TEST_F(CompletionTest, TheReceivedStatusIsTracedAndNotTheRecordedOne) {
    handle_flash_copy_done(0, 7, 4242);
    EXPECT_TRUE(fakes::traced(debug_level,
                              "DEBUG : handle_flash_copy_done : Copy is done with status 0\n"));
}

TEST_F(CompletionTest, AnUnknownRowIsTracedWithZeroAndTheWorkerReaped) {
    handle_flash_copy_done(2, 8, 4242);
    EXPECT_EQ(fakes::trace_texts(error_level),
              (Lines{"ERROR  handle_flash_copy_done : No copy is running... 0 \n",
                     "Waitpid status = 4242"}));
    EXPECT_EQ(fakes::calls(), (Lines{"waitpid pid=4242 status=null options=0"}));
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
}

TEST_F(CompletionTest, AnUnknownRowOfAnEmptyTableIsTracedWithZeroAndTheWorkerReaped) {
    fakes::empty_tables();
    fakes::forget();
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::trace_texts(error_level),
              (Lines{"ERROR  handle_flash_copy_done : No copy is running... 0 \n",
                     "Waitpid status = 4242"}));
    EXPECT_EQ(fakes::calls(), (Lines{"waitpid pid=4242 status=null options=0"}));
}

TEST_F(CompletionTest, ARowThatCannotBeStoredIsTracedAndTheWorkerReaped) {
    platform().ordset_find.always(nullptr);
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_TRUE(fakes::traced(debug_level,
                              "ERROR  handle_flash_copy_done : Set to entry (index= 7) failed \n"));
    EXPECT_EQ(os().alarms.size(), 1U);
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4242 status=null options=0"));
}

TEST_F(CompletionTest, TheResultOfTheWaitIsTraced) {
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::last_trace(), (Trace{error_level, "Waitpid status = -1"}));
}

TEST_F(CompletionTest, AnInterruptedWaitIsTakenUpAgain) {
    os().waitpid.returns(-1, EINTR).returns(-1, EINTR);
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::calls("waitpid"), Lines(3, "waitpid pid=4242 status=null options=0"));
    EXPECT_EQ(fakes::last_trace(), (Trace{error_level, "Waitpid status = 4242"}));
}

TEST_F(CompletionTest, NoProcessIsWaitedForUnlessItsIdIsAboveZero) {
    for (int32_t process : {0, -1, -4242, INT_MIN}) {
        SCOPED_TRACE(process);
        fakes::forget();
        handle_flash_copy_done(2, 7, process);
        EXPECT_THAT(fakes::calls("waitpid"), IsEmpty());
        EXPECT_EQ(fakes::last_trace(), (Trace{error_level, "Waitpid status = -1"}));
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 2);
    }
}

TEST_F(CompletionTest, ARowIndexAbove31BitsIsFound) {
    fakes::add_copy_row(-5, [](flashCopyEntry &r) { r.copyStatus = 1; });
    handle_flash_copy_done(2, -5, 4242);
    EXPECT_EQ(fakes::stored_copy_row(-5)->copyStatus, 2);
}

TEST_F(CompletionTest, AMessageThatComesTwiceLeavesTheSameStatus) {
    handle_flash_copy_done(5, 7, 4242);
    os().waitpid.returns(-1, ECHILD);
    handle_flash_copy_done(5, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 5);
}

} // namespace
