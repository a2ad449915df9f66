// The status message: how the worker sends it, and how the agent takes it.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <cstring>
#include <syslog.h>
#include <unistd.h>

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

} // namespace
