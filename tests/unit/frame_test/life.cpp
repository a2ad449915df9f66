// Module frame: start, a second start, stop.
#include "frame.h"

#include "flash_inventory.h"
#include "provoked.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

extern "C" int __real_pipe(int *descriptors);

namespace {

using namespace frame;

// Start

TEST_F(FrameTest, InitRegistersTheFiftyRowsUnderTheRoot) {
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::calls("register_mib"), (Lines{registration_line()}));
    ASSERT_EQ(os().registrations.size(), 1U);
    EXPECT_EQ(static_cast<const void *>(os().registrations[0].rows),
              static_cast<const void *>(orvex_flash_mib_variables));
}

TEST_F(FrameTest, InitRegistersTheCopyStatusCallbackWithoutClientData) {
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::calls("snmp_register_callback"),
              (Lines{"snmp_register_callback major=0 minor=11 client=null"}));
    ASSERT_EQ(os().callbacks.size(), 1U);
    EXPECT_EQ(os().callbacks[0].callback, &handle_flash_copy_status);
}

TEST_F(FrameTest, InitRegistersThenAddsTheCallbackThenOpensPipeWriterAndReader) {
    init_orvex_flash_mib();
    EXPECT_THAT(fakes::calls(),
                ElementsAre(registration_line(), StartsWith("snmp_register_callback"),
                            StartsWith("pipe"),
                            "fdopen descriptor=" + std::to_string(mypipe[1]) + " mode=w",
                            "fdopen descriptor=" + std::to_string(mypipe[0]) + " mode=r"));
}

TEST_F(FrameTest, InitTracesThePipeAndTheOpenStreams) {
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::traces(),
              (Traces{{101, "mypipe[0]=" + std::to_string(mypipe[0]) +
                                " and mypipe[1]=" + std::to_string(mypipe[1]) + "\n"},
                      {101, "Read and Write Streams are OPEN.\n"}}));
}

TEST_F(FrameTest, InitTracesThePipeBeforeItOpensTheWriter) {
    init_orvex_flash_mib();
    const Lines all = fakes::everything();
    const auto position = [&all](const std::string &beginning) {
        return std::find_if(all.begin(), all.end(),
                            [&](const std::string &line) {
                                return line.compare(0, beginning.size(), beginning) == 0;
                            }) -
               all.begin();
    };
    EXPECT_LT(position("pipe"), position("trace 101 mypipe[0]="));
    EXPECT_LT(position("trace 101 mypipe[0]="), position("fdopen"));
}

TEST_F(FrameTest, InitSetsThePipeStatusToOne) {
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 1);
}

// What is written into the one stream of the pipe is what the other one reads next.
void expect_joined_streams() {
    ASSERT_NE(write_stream, nullptr);
    ASSERT_NE(read_stream, nullptr);
    EXPECT_EQ(fileno(write_stream), mypipe[1]);
    EXPECT_EQ(fileno(read_stream), mypipe[0]);
    std::fputs("2:5\n", write_stream);
    std::fflush(write_stream);
    char line[20] = "";
    ASSERT_NE(std::fgets(line, sizeof line, read_stream), nullptr);
    EXPECT_STREQ(line, "2:5\n");
}

TEST_F(FrameTest, TheWriteStreamLeadsToTheReadStream) {
    init_orvex_flash_mib();
    expect_joined_streams();
}

TEST_F(FrameTest, InitCreatesNoRowStore) {
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::container_calls(), Lines{});
}

TEST_F(FrameTest, InitRegistersNoAlarm) {
    init_orvex_flash_mib();
    EXPECT_TRUE(os().alarms.empty());
}

TEST_F(FrameTest, AFailingRegistrationStillLeavesCallbackPipeAndStreams) {
    os().register_mib.always(MIB_REGISTRATION_FAILED);
    init_orvex_flash_mib();
    EXPECT_EQ(os().callbacks.size(), 1U);
    EXPECT_EQ(pipe_status, 1);
    EXPECT_NE(write_stream, nullptr);
    EXPECT_NE(read_stream, nullptr);
    EXPECT_TRUE(fakes::traced(101, "Read and Write Streams are OPEN.\n"));
}

TEST_F(FrameTest, AFailingRegistrationEmitsTwoDebugLinesWhenDebuggingIsOn) {
    os().snmp_get_do_debugging.always(1);
    for (const int failure : {MIB_REGISTRATION_FAILED, MIB_DUPLICATE_REGISTRATION}) {
        fakes::forget();
        os().register_mib.always(failure);
        fakes::close_streams();
        init_orvex_flash_mib();
        EXPECT_EQ(
            fakes::calls("debugmsg token"),
            (Lines{"debugmsg token=trace text=init_orvex_flash_mib(): "
                   "platform/apps/flash/orvex_flash_mib, 3027:\n",
                   "debugmsg token=register_mib text=orvex_flash_mib registration failed\n"}));
    }
}

TEST_F(FrameTest, TheDebugLinesStandUnderTheirTokens) {
    os().snmp_get_do_debugging.always(1);
    os().register_mib.always(MIB_REGISTRATION_FAILED);
    init_orvex_flash_mib();
    EXPECT_THAT(fakes::calls("debugmsg"),
                ElementsAre(StartsWith("debugmsgtoken token=trace "),
                            StartsWith("debugmsg token=trace "),
                            StartsWith("debugmsgtoken token=register_mib "),
                            StartsWith("debugmsg token=register_mib ")));
}

TEST_F(FrameTest, AFailingRegistrationIsSilentWhenDebuggingIsOff) {
    os().register_mib.always(MIB_REGISTRATION_FAILED);
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::calls("debugmsg"), Lines{});
}

TEST_F(FrameTest, ASuccessfulRegistrationEmitsNoDebugLines) {
    os().snmp_get_do_debugging.always(1);
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::calls("debugmsg"), Lines{});
}

TEST_F(FrameTest, TheResultOfTheCallbackRegistrationIsNotExamined) {
    os().snmp_register_callback.always(SNMPERR_GENERR);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 1);
    EXPECT_TRUE(fakes::traced(101, "Read and Write Streams are OPEN.\n"));
}

TEST_F(FrameTest, AFailingPipeIsReportedOnStandardErrorAndInTheTrace) {
    fail_pipe();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    const std::string said = errors.text();
    EXPECT_EQ(said, "Could not open the pipe\n");
    EXPECT_PROVOKED(said, "Could not open the pipe");
    EXPECT_TRUE(fakes::traced(101, "Could not open the pipe\n"));
}

TEST_F(FrameTest, AFailingPipeSetsThePipeStatusToTwo) {
    fail_pipe();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 2);
}

TEST_F(FrameTest, TheWriteStreamIsTriedEvenAfterAFailingPipeAndTheReadStreamIsNot) {
    fail_pipe();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    EXPECT_EQ(fakes::calls("fdopen"), (Lines{"fdopen descriptor=-1 mode=w"}));
    EXPECT_EQ(fakes::traces(), (Traces{{101, "Could not open the pipe\n"},
                                       {101, "Could not open the stream for writing; ERRNO=" +
                                                 std::to_string(EBADF) + "\n"}}));
}

TEST_F(FrameTest, AWriteStreamThatDoesNotOpenEndsTheStart) {
    os().fdopen.returns(nullptr, ENOMEM);
    init_orvex_flash_mib();
    EXPECT_EQ(os().fdopen.count(), 1);
    EXPECT_EQ(write_stream, nullptr);
    EXPECT_EQ(read_stream, nullptr);
    EXPECT_EQ(fakes::last_trace(),
              (fakes::Trace{101, "Could not open the stream for writing; ERRNO=" +
                                     std::to_string(ENOMEM) + "\n"}));
}

TEST_F(FrameTest, AReadStreamThatDoesNotOpenLeavesTheWriteStreamOpen) {
    os().fdopen.at(2, nullptr, EMFILE);
    init_orvex_flash_mib();
    ASSERT_NE(write_stream, nullptr);
    EXPECT_TRUE(is_open(fileno(write_stream)));
    EXPECT_EQ(read_stream, nullptr);
    EXPECT_EQ(fakes::last_trace(),
              (fakes::Trace{101, "Could not open the stream for reading; ERRNO=" +
                                     std::to_string(EMFILE) + "\n"}));
    EXPECT_FALSE(fakes::traced(101, "Read and Write Streams are OPEN.\n"));
}

TEST_F(FrameTest, ThePipeIsClosedAtExec) {
    init_orvex_flash_mib();
    for (const int descriptor : mypipe)
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(FrameTest, TheTablesAreServedAfterAFailingPipe) {
    fail_pipe_untouched();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    fakes::add_copy_row(7);
    fakes::add_misc_row(9);
    flashDeviceEntry device{};
    device.index = 3;
    device.size = 4096;
    platform().answers = {fakes::answer(device)};
    EXPECT_EQ(fakes::get(flash::magicScalar, {0}).integer(), 1);
    EXPECT_EQ(fakes::getnext(flash::magicCopyCommand).name,
              fakes::instance_of(flash::magicCopyCommand, {7}));
    EXPECT_EQ(fakes::get(flash::magicMiscOpCommand, {9}).integer(), flash::miscOpDelete);
    EXPECT_EQ(fakes::get(flash::magicDeviceSize, {3}).counter(), 4096U);
}

// A second start

TEST_F(FrameTest, ASecondStartClosesTheFormerPipe) {
    init_orvex_flash_mib();
    const int former[] = {mypipe[0], mypipe[1]};
    os().pipe.does([](int *descriptors) { // out of the way of the former ones
        int low[2];
        if (__real_pipe(low) != 0)
            return -1;
        for (int end = 0; end < 2; ++end) {
            descriptors[end] = fcntl(low[end], F_DUPFD, 500);
            ::close(low[end]);
        }
        return 0;
    });
    init_orvex_flash_mib();
    EXPECT_FALSE(is_open(former[0]));
    EXPECT_FALSE(is_open(former[1]));
    EXPECT_TRUE(is_open(mypipe[0]));
    EXPECT_TRUE(is_open(mypipe[1]));
}

TEST_F(FrameTest, ASecondStartClosesAFormerPipeWithoutStreams) {
    os().fdopen.returns(nullptr, ENOMEM);
    init_orvex_flash_mib();
    const int former[] = {mypipe[0], mypipe[1]};
    ASSERT_TRUE(is_open(former[0]));
    fail_pipe_untouched();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    EXPECT_FALSE(is_open(former[0]));
    EXPECT_FALSE(is_open(former[1]));
}

TEST_F(FrameTest, AfterASecondStartTheWriteStreamLeadsToTheReadStream) {
    init_orvex_flash_mib();
    std::fputs("1:1\n", write_stream);
    std::fflush(write_stream);
    init_orvex_flash_mib();
    expect_joined_streams();
}

TEST_F(FrameTest, APipeThatFailsAtASecondStartLeavesNeitherDescriptorsNorStreams) {
    init_orvex_flash_mib();
    const int former[] = {mypipe[0], mypipe[1]};
    fail_pipe_untouched();
    fakes::Capture errors(STDERR_FILENO);
    init_orvex_flash_mib();
    EXPECT_EQ(errors.text(), "Could not open the pipe\n");
    EXPECT_THAT(mypipe, ElementsAre(-1, -1));
    EXPECT_EQ(write_stream, nullptr);
    EXPECT_EQ(read_stream, nullptr);
    EXPECT_EQ(pipe_status, 2);
    EXPECT_FALSE(is_open(former[0]));
    EXPECT_FALSE(is_open(former[1]));
}

// Stop

TEST_F(FrameTest, DeinitTracesAroundTheUnregistration) {
    deinit_orvex_flash_mib();
    Lines steps;
    for (const std::string &line : fakes::everything())
        if (line.compare(0, 6, "evwrap") != 0)
            steps.push_back(line);
    EXPECT_EQ(steps, (Lines{"trace 101 DEBUG : ENTER deinit_orvex_flash_mib \n",
                            "unregister_mib name=" + root + " length=9",
                            "trace 101 DEBUG : EXIT deinit_orvex_flash_mib \n"}));
}

TEST_F(FrameTest, DeinitUnregistersTheColumnsOneByOneWhenTheAgentDoesNotKnowTheRoot) {
    os().unregister_mib.returns(MIB_NO_SUCH_REGISTRATION);
    deinit_orvex_flash_mib();
    Lines expected{"unregister_mib name=" + root + " length=9"};
    for (const variable7 &row : orvex_flash_mib_variables) {
        const fakes::Oid name = fakes::instance_of(row.magic);
        expected.push_back("unregister_mib name=" + fakes::oid_text(name.data(), name.size()) +
                           " length=" + std::to_string(name.size()));
    }
    EXPECT_EQ(expected.size(), 51U);
    EXPECT_EQ(fakes::calls(), expected);
    EXPECT_EQ(fakes::last_trace(), (fakes::Trace{101, "DEBUG : EXIT deinit_orvex_flash_mib \n"}));
}

TEST_F(FrameTest, AfterDeinitThePipeStaysOpenAndItsStatusKeepsItsValue) {
    init_orvex_flash_mib();
    deinit_orvex_flash_mib();
    EXPECT_TRUE(is_open(mypipe[0]));
    EXPECT_TRUE(is_open(mypipe[1]));
    EXPECT_EQ(pipe_status, 1);
    EXPECT_NE(write_stream, nullptr);
    EXPECT_NE(read_stream, nullptr);
}

TEST_F(FrameTest, DeinitKeepsAFailedPipeStatus) {
    pipe_status = 2;
    deinit_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 2);
}

TEST_F(FrameTest, AfterDeinitTheRowsAreStillThere) {
    fakes::add_copy_row(7);
    fakes::add_misc_row(9);
    deinit_orvex_flash_mib();
    EXPECT_TRUE(fakes::stored_copy_row(7));
    EXPECT_TRUE(fakes::stored_misc_row(9));
}

TEST_F(FrameTest, TheModuleCanBeStartedAgainAfterItWasStopped) {
    init_orvex_flash_mib();
    deinit_orvex_flash_mib();
    fakes::forget();
    init_orvex_flash_mib();
    EXPECT_EQ(os().registrations.size(), 1U);
    EXPECT_EQ(os().callbacks.size(), 1U);
    EXPECT_EQ(pipe_status, 1);
}

} // namespace
