// End of a copy: the status message, its reception, abort, age-out, notification, the pipe.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <cstring>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace fakes;

// write_to_pipe

using StatusMessageTest = fakes::FlashTest;

const std::string bind_line =
    "pmb_bind kind=1 sap=-1 attributes=1,0,1024,0,0,15 name=flash_copy_task";

std::string send_line(int handle, int status, int row) {
    return "pmb_send handle=" + std::to_string(handle) + " node=0xfe000000 sap=28 opcode=7786 " +
           "payload=" + std::to_string(status) + "," + std::to_string(row) + "," +
           std::to_string(getpid()) + " length=12";
}

TEST_F(StatusMessageTest, IsSentOnAQueueOfItsOwn) {
    write_to_pipe(5, 2, 7);
    EXPECT_EQ(fakes::calls(),
              (Lines{bind_line, send_line(3, 2, 7), "pmb_unbind handle=3 flags=0"}));
    EXPECT_THAT(fakes::traces(), IsEmpty());
}

TEST_F(StatusMessageTest, HoldsStatusRowAndSenderInHostByteOrder) {
    write_to_pipe(5, 14, 0x01020304);
    ASSERT_EQ(platform().sent.size(), 1U);
    const fakes::SentMessage &message = platform().sent[0];
    const int32_t words[] = {14, 0x01020304, getpid()};
    fakes::Bytes expected(sizeof words);
    std::memcpy(expected.data(), words, sizeof words);
    EXPECT_EQ(message.payload, expected);
}

TEST_F(StatusMessageTest, HasOnlyTheFirstSendOptionSet) {
    write_to_pipe(5, 2, 7);
    ASSERT_EQ(platform().sent.size(), 1U);
    EXPECT_EQ(platform().sent[0].options.word[0], 1U);
    for (int i = 1; i < 13; ++i)
        EXPECT_EQ(platform().sent[0].options.word[i], 0U) << i;
}

TEST_F(StatusMessageTest, DoesNotDependOnTheDescriptor) {
    for (int descriptor : {-1, 0, 5, 4000}) {
        SCOPED_TRACE(descriptor);
        fakes::forget();
        write_to_pipe(descriptor, 2, 7);
        EXPECT_EQ(fakes::calls("pmb_send"), (Lines{send_line(3, 2, 7)}));
    }
}

TEST_F(StatusMessageTest, IsNotWrittenIntoThePipe) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    write_to_pipe(ends[1], 2, 7);
    ::close(ends[1]);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);
    ::close(ends[0]);
}

TEST_F(StatusMessageTest, TakesAHandleOfZero) {
    platform().pmb_bind.returns(0);
    write_to_pipe(5, 2, 7);
    EXPECT_EQ(fakes::calls(),
              (Lines{bind_line, send_line(0, 2, 7), "pmb_unbind handle=0 flags=0"}));
}

TEST_F(StatusMessageTest, IsSentAtTheSecondOrThirdAttemptToBind) {
    for (int failed : {1, 2}) {
        SCOPED_TRACE(failed);
        fakes::forget();
        Lines expected;
        for (int i = 0; i < failed; ++i) {
            platform().pmb_bind.returns(-1, EAGAIN);
            expected.push_back(bind_line);
            expected.push_back("sleep seconds=2");
        }
        expected.insert(expected.end(),
                        {bind_line, send_line(3, 2, 7), "pmb_unbind handle=3 flags=0"});
        write_to_pipe(5, 2, 7);
        EXPECT_EQ(fakes::calls(), expected);
        EXPECT_EQ(fakes::traces(),
                  Traces(static_cast<size_t>(failed),
                         {debug_level, "pmb_bind failed. errno " + std::to_string(EAGAIN) + "\n"}));
    }
}

TEST_F(StatusMessageTest, IsNotSentAfterThreeFailedAttemptsToBind) {
    platform().pmb_bind.always(-1, ENOBUFS);
    write_to_pipe(5, 2, 7);
    EXPECT_EQ(fakes::calls(), (Lines{bind_line, "sleep seconds=2", bind_line, "sleep seconds=2",
                                     bind_line, "sleep seconds=2"}));
    EXPECT_EQ(fakes::traces(),
              Traces(4, {debug_level, "pmb_bind failed. errno " + std::to_string(ENOBUFS) + "\n"}));
}

TEST_F(StatusMessageTest, EachFailedAttemptIsTracedBeforeItsSleep) {
    platform().pmb_bind.returns(-1, EAGAIN);
    write_to_pipe(5, 2, 7);
    Lines order;
    for (const std::string &line : fakes::everything())
        if (line == bind_line || line.starts_with("sleep") || line.starts_with("trace "))
            order.push_back(line);
    EXPECT_EQ(order,
              (Lines{bind_line, "trace 101 pmb_bind failed. errno " + std::to_string(EAGAIN) + "\n",
                     "sleep seconds=2", bind_line}));
}

TEST_F(StatusMessageTest, IsSentAfterAnotherNegativeResultOfTheLastBind) {
    platform().pmb_bind.returns(-1, EAGAIN).returns(-1, EAGAIN).returns(-2, EACCES);
    write_to_pipe(5, 2, 7);
    EXPECT_EQ(fakes::calls(),
              (Lines{bind_line, "sleep seconds=2", bind_line, "sleep seconds=2", bind_line,
                     "sleep seconds=2", send_line(-2, 2, 7), "pmb_unbind handle=-2 flags=0"}));
    EXPECT_EQ(fakes::traces().size(), 3U);
}

TEST_F(StatusMessageTest, IsNotSentWhenOnlyTheLastBindIsMinusOne) {
    platform().pmb_bind.returns(-2, EACCES).returns(-2, EACCES).returns(-1, EAGAIN);
    write_to_pipe(5, 2, 7);
    EXPECT_THAT(platform().sent, IsEmpty());
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "pmb_bind failed. errno " + std::to_string(EACCES) + "\n"},
                      {debug_level, "pmb_bind failed. errno " + std::to_string(EACCES) + "\n"},
                      {debug_level, "pmb_bind failed. errno " + std::to_string(EAGAIN) + "\n"},
                      {debug_level, "pmb_bind failed. errno " + std::to_string(EAGAIN) + "\n"}}));
}

TEST_F(StatusMessageTest, AFailedSendIsTracedAndTheQueueClosed) {
    for (int result : {-1, 1}) {
        SCOPED_TRACE(result);
        fakes::forget();
        platform().pmb_send.returns(result, ECONNREFUSED);
        write_to_pipe(5, 2, 7);
        EXPECT_EQ(fakes::traces(),
                  (Traces{{debug_level,
                           "pmb_send failed. errno " + std::to_string(ECONNREFUSED) + "\n"}}));
        EXPECT_EQ(fakes::calls(),
                  (Lines{bind_line, send_line(3, 2, 7), "pmb_unbind handle=3 flags=0"}));
    }
}

// handle_flash_copy_status

using ReceptionTest = fakes::FlashTest;

int receive(pmb_message *message) {
    return handle_flash_copy_status(flash::statusCallbackMajor, flash::statusCallbackMinor, message,
                                    nullptr);
}

TEST_F(ReceptionTest, AnAbsentMessageIsRefused) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    EXPECT_EQ(receive(nullptr), -1);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
    EXPECT_THAT(fakes::calls("waitpid"), IsEmpty());
}

TEST_F(ReceptionTest, AMessageWithoutAPayloadIsRefused) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    pmb_message message = fakes::message({2, 7, 4242});
    platform().pmb_payload_get.always(nullptr);
    EXPECT_EQ(receive(&message), -1);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
}

TEST_F(ReceptionTest, AMessageThatIsTooShortIsRefused) {
    for (uint32_t length : {0U, 1U, 4U, 8U, 11U}) {
        SCOPED_TRACE(length);
        fakes::empty_tables();
        fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
        pmb_message message = fakes::message({2, 7, 4242});
        message.words.resize((length + 3) / 4);
        message.words.shrink_to_fit();
        message.length = length;
        EXPECT_EQ(receive(&message), -1);
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
        EXPECT_THAT(fakes::calls("waitpid"), IsEmpty());
    }
}

TEST_F(ReceptionTest, RecordsWhatTheMessageHolds) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    pmb_message message = fakes::message({12, 7, 4243});
    EXPECT_EQ(receive(&message), 0);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 12);
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4243 status=null options=0"));
}

TEST_F(ReceptionTest, IsTraced) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    fakes::forget();
    pmb_message message = fakes::message({2, 7, 4242});
    receive(&message);
    const Traces all = fakes::traces();
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(
        Traces(all.begin(), all.begin() + 3),
        (Traces{{debug_level, "Entered handle_flash_copy_status\n"},
                {debug_level, "handle_flash_copy_status: The values returned are status = "
                              "2,index = 7, pid = 4242\n"},
                {debug_level, "DEBUG : handle_flash_copy_done : Copy is done with status 2\n"}}));
}

TEST_F(ReceptionTest, ALongerMessageIsTakenByItsFirstThreeWords) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    pmb_message message = fakes::message({2, 7, 4242, 99});
    EXPECT_EQ(receive(&message), 0);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 2);
}

TEST_F(ReceptionTest, CallbackNumbersAndClientDoNotMatter) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    pmb_message message = fakes::message({2, 7, 4242});
    int client = 0;
    EXPECT_EQ(handle_flash_copy_status(3, 4, &message, &client), 0);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 2);
}

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

// handle_notifications

class NotificationTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        std::fill(std::begin(id), std::end(id), untouched);
    }
    void TearDown() override {
        snmp_free_varbind(list);
        FlashTest::TearDown();
    }
    static pmb_message with_status(int32_t status) {
        return fakes::message({static_cast<int32_t>(htonl(static_cast<uint32_t>(status)))});
    }
    void build(const pmb_message *message) {
        list = handle_notifications(message, id, &length, &send);
    }
    static fakes::Oid below_root(std::initializer_list<oid> arcs) {
        fakes::Oid name(orvex_flash_mib_variables_oid,
                        orvex_flash_mib_variables_oid + orvexFlashRootLength);
        name.insert(name.end(), arcs);
        return name;
    }

    static constexpr oid untouched = 4711;
    oid id[16];
    size_t length = 99;
    int send = -1;
    netsnmp_variable_list *list = nullptr;
};

TEST_F(NotificationTest, NoMessageIsNotSent) {
    build(nullptr);
    EXPECT_EQ(send, 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_THAT(fakes::calls("build_varbind"), IsEmpty());
}

TEST_F(NotificationTest, AMessageShorterThanItsStatusIsNotSent) {
    for (uint32_t bytes : {0U, 1U, 3U}) {
        SCOPED_TRACE(bytes);
        send = -1;
        pmb_message message = with_status(2);
        message.length = bytes;
        build(&message);
        EXPECT_EQ(send, 0);
        EXPECT_EQ(list, nullptr);
    }
}

TEST_F(NotificationTest, AMessageWithoutAPayloadIsNotSent) {
    pmb_message message = with_status(2);
    platform().pmb_payload_get.always(nullptr);
    build(&message);
    EXPECT_EQ(send, 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(NotificationTest, AMessageIsSentUnderTheNotificationsName) {
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_EQ(send, 1);
    ASSERT_EQ(length, 13U);
    EXPECT_EQ(fakes::Oid(id, id + 13), below_root({1, 3, 0, 1}));
}

TEST_F(NotificationTest, OnlyThirteenArcsAreWritten) {
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_THAT(std::vector<oid>(id + 13, std::end(id)), Each(untouched));
}

TEST_F(NotificationTest, BindsTheStatusToTheColumnWithoutAnInstance) {
    for (int32_t status : {2, 14, 0x01020304, -1}) {
        SCOPED_TRACE(status);
        const pmb_message message = with_status(status);
        build(&message);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(fakes::Oid(list->name, list->name + list->name_length),
                  below_root({1, 2, 1, 1, 8}));
        EXPECT_EQ(list->type, ASN_INTEGER);
        EXPECT_EQ(*list->val.integer, status);
        EXPECT_EQ(list->next_variable, nullptr);
        snmp_free_varbind(list);
        list = nullptr;
    }
}

TEST_F(NotificationTest, BuildsOneBindingOnANewList) {
    const pmb_message message = with_status(2);
    build(&message);
    const Lines built = fakes::calls("build_varbind");
    ASSERT_EQ(built.size(), 1U);
    const fakes::Oid column = below_root({1, 2, 1, 1, 8});
    EXPECT_TRUE(built[0].starts_with("build_varbind list=null ")) << built[0];
    EXPECT_TRUE(built[0].ends_with(" type=0x2 length=4 name=" +
                                   fakes::oid_text(column.data(), column.size())))
        << built[0];
}

TEST_F(NotificationTest, TheNotifyColumnIsNotConsulted) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.notifyOnCompletion = flash::truthFalse; });
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_EQ(send, 1);
}

TEST_F(NotificationTest, ALongerMessageIsTakenByItsFirstWord) {
    const pmb_message message = fakes::message({static_cast<int32_t>(htonl(12)), 7, 4242});
    build(&message);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(*list->val.integer, 12);
}

// The pipe

class PipeTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        ASSERT_EQ(::pipe(ends_), 0);
        read_stream = ::fdopen(ends_[0], "r");
        ASSERT_NE(read_stream, nullptr);
        fakes::forget();
    }
    void TearDown() override {
        end();
        FlashTest::TearDown(); // closes the stream
    }
    void write(std::string_view text) {
        ASSERT_EQ(::write(ends_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void end() {
        if (ends_[1] >= 0)
            ::close(ends_[1]);
        ends_[1] = -1;
    }
    // Reads a line; the stream ends behind it, so that a wrong read does not wait for ever.
    int32_t read_only(std::string_view text) {
        write(text);
        end();
        return read_from_pipe(0, &line);
    }

    // Completes a copy from the pipe: what went to standard output.
    static std::string complete() {
        fakes::Capture output(STDOUT_FILENO);
        handle_flash_copy_over();
        return output.text();
    }

    flashPipeLine line{-111, -222};

  private:
    int ends_[2] = {-1, -1};
};

TEST_F(PipeTest, ALineOfStatusAndRowIsRead) {
    EXPECT_EQ(read_only("14:3\n"), 14);
    EXPECT_EQ(line.status, 14);
    EXPECT_EQ(line.row, 3);
}

TEST_F(PipeTest, ALineOfStatusAndRowIsTraced) {
    read_only("14:3\n");
    const Traces expected = {{debug_level, "calling fgets.\n"},
                             {debug_level, "returning ctr = 2\n"},
                             {debug_level, "calling atoi...\n"},
                             {debug_level, "read_from_pipe returning status =14 for row=3\n"}};
    EXPECT_EQ(picked(expected), expected);
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(PipeTest, LinesAreReadAsBaseTenIntegers) {
    const struct {
        const char *text;
        int32_t status;
        int32_t row;
    } lines[] = {{"2:5\n", 2, 5},     {"2:5", 2, 5},     {"010:0x3\n", 10, 0},
                 {"-1:-5\n", -1, -5}, {" 2: 5\n", 2, 5}, {"2:2147483647\n", 2, 2147483647},
                 {"2::5\n", 2, 5},    {":2:5\n", 2, 5},  {"2:5:9\n", 2, 5},
                 {"x:y\n", 0, 0},     {"2:5x\n", 2, 5},  {"1:2:3:4:5:6:7:8:9:0\n", 1, 2}};
    for (const auto &[text, status, row] : lines) {
        SCOPED_TRACE(text);
        TearDown();
        SetUp();
        EXPECT_EQ(read_only(text), status);
        EXPECT_EQ(line.status, status);
        EXPECT_EQ(line.row, row);
    }
}

TEST_F(PipeTest, ALineWithoutAColonIsRefused) {
    EXPECT_EQ(read_only("143\n"), 17);
    EXPECT_EQ(line.status, -111);
    EXPECT_EQ(line.row, -222);
    EXPECT_TRUE(fakes::traced(error_level, "ERROR  read_from_pipe : pipe does not contain a :\n"));
    EXPECT_THAT(os().agent_log,
                ElementsAre(AgentLogLine{LOG_ERR, "ERROR:pipe does not contain a : \n"}));
    EXPECT_FALSE(fakes::traced(debug_level, "calling atoi...\n"));
}

TEST_F(PipeTest, ALineWithFewerThanTwoFieldsIsRefused) {
    for (const char *text : {"\n", ":\n", "14:", ":14", "::::"}) {
        SCOPED_TRACE(text);
        TearDown();
        SetUp();
        EXPECT_EQ(read_only(text), 17);
        EXPECT_EQ(line.status, -111);
        EXPECT_EQ(line.row, -222);
    }
}

TEST_F(PipeTest, TheEndOfTheStreamReadsAsZeroAndNothingElse) {
    EXPECT_EQ(read_only(""), 0);
    EXPECT_EQ(line.status, -111);
    EXPECT_EQ(line.row, -222);
    EXPECT_EQ(fakes::traces(), (Traces{{debug_level, "calling fgets.\n"}}));
    EXPECT_THAT(os().agent_log, IsEmpty());
}

TEST_F(PipeTest, LinesAreReadOneAtATime) {
    write("2:5\n14:6\n");
    end();
    EXPECT_EQ(read_from_pipe(0, &line), 2);
    EXPECT_EQ(line.row, 5);
    EXPECT_EQ(read_from_pipe(0, &line), 14);
    EXPECT_EQ(line.row, 6);
    EXPECT_EQ(read_from_pipe(0, &line), 0);
}

TEST_F(PipeTest, ALineIsReadUpToNineteenCharacters) {
    write("2:00000000000000005678:9\n"); // the 19th character is the 5
    end();
    EXPECT_EQ(read_from_pipe(0, &line), 2);
    EXPECT_EQ(line.row, 5);
    EXPECT_EQ(read_from_pipe(0, &line), 678);
    EXPECT_EQ(line.row, 9);
}

TEST_F(PipeTest, TheDescriptorDoesNotMatter) {
    write("2:5\n");
    EXPECT_EQ(read_from_pipe(-1, &line), 2);
}

TEST_F(PipeTest, TheModulesOwnPipeIsRead) {
    init_orvex_flash_mib();
    ASSERT_EQ(pipe_status, flash::pipeCreated);
    ASSERT_EQ(::write(mypipe[1], "14:3\n", 5), 5);
    EXPECT_EQ(read_from_pipe(mypipe[0], &line), 14);
    EXPECT_EQ(line.status, 14);
    EXPECT_EQ(line.row, 3);
}

TEST_F(PipeTest, ALineCompletesItsRowAndReapsTheLastWorker) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    write("5:7\n");
    end();
    complete();
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 5);
    EXPECT_EQ(os().alarms.size(), 1U);
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4242 status=null options=0"));
}

TEST_F(PipeTest, CompletionFromThePipeIsTraced) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    fakes::forget();
    write("2:7\n");
    end();
    complete();
    const Traces all = fakes::traces();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front(), (Trace{debug_level, "Entering handle_flash_copy_over..\n"}));
    EXPECT_EQ(all.back(), (Trace{debug_level, "Entering handle_flash_copy_success()..\n"}));
    const Traces expected = {
        {debug_level, "Entering handle_flash_copy_over..\n"},
        {debug_level, "calling fgets.\n"},
        {debug_level, "read_from_pipe returning status =2 for row=7\n"},
        {debug_level, "DEBUG : handle_flash_copy_done : Copy is done with status 2\n"},
        {debug_level, "DEBUG : handle_flash_copy_done : Entering with whichRow=  7\n"},
        {error_level, "Waitpid status = 4242"},
        {debug_level, "Entering handle_flash_copy_success()..\n"}};
    EXPECT_EQ(picked(expected), expected);
}

TEST_F(PipeTest, CompletionFromThePipeIsPrinted) {
    write("2:7\n");
    end();
    EXPECT_EQ(complete(), "Entering handle_flash_copy_success()..");
}

TEST_F(PipeTest, CompletionAtTheEndOfTheStreamTouchesNoRow) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = 1; });
    flash_copy_pid = 4242;
    end();
    complete();
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
    EXPECT_THAT(os().alarms, IsEmpty());
    EXPECT_THAT(fakes::calls("waitpid"), ElementsAre("waitpid pid=4242 status=null options=0"));
}

} // namespace
