// Start and stop, path by path and one after the other in one process, as a reload of the agent has
// them: everything that each does, in its order.
#include "fakes/fixture.h"
#include "fakes/sequence.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>

extern "C" {
int __real_snmp_register_callback(int major, int minor, SNMPCallback *callback, void *client);
unsigned int __real_snmp_alarm_register(unsigned int seconds, unsigned int flags,
                                        SNMPAlarmCallback *callback, void *client);
}

namespace {

using namespace fakes;

std::string root() { return fakes::oid_text(orvex_flash_mib_variables_oid, orvexFlashRootLength); }

Lines registered() {
    return {"register_mib name=orvex_flash_mib row_size=" + std::to_string(sizeof(variable7)) +
            " rows=50 root=" + root() + " length=9"};
}
const Lines callback_added = {"snmp_register_callback major=0 minor=11 client=null"};
Lines pipe_made() {
    return {"pipe", D("mypipe[0]=" + std::to_string(mypipe[0]) +
                      " and mypipe[1]=" + std::to_string(mypipe[1]) + "\n")};
}
std::string opening(int end, const char *mode) {
    return "fdopen descriptor=" + std::to_string(mypipe[end]) + " mode=" + mode;
}
Lines started() {
    return joined({registered(),
                   callback_added,
                   pipe_made(),
                   {opening(1, "w"), opening(0, "r"), D("Read and Write Streams are OPEN.\n")}});
}
Lines stopped() {
    return {D("DEBUG : ENTER deinit_orvex_flash_mib \n"),
            "unregister_mib name=" + root() + " length=9",
            D("DEBUG : EXIT deinit_orvex_flash_mib \n")};
}

using RestartTest = fakes::FlashTest;

// One start

TEST_F(RestartTest, AStart) {
    init_orvex_flash_mib();
    expect_sequence({started()});
}

TEST_F(RestartTest, AStartWhoseRegistrationFails) {
    os().register_mib.always(MIB_REGISTRATION_FAILED);
    init_orvex_flash_mib();
    expect_sequence({started()});
}

TEST_F(RestartTest, AStartWhoseRegistrationFailsWhileTheAgentDebugs) {
    os().register_mib.always(MIB_DUPLICATE_REGISTRATION);
    os().snmp_get_do_debugging.always(1);
    init_orvex_flash_mib();
    const std::string header =
        " token=trace text=init_orvex_flash_mib(): platform/apps/flash/orvex_flash_mib, 3027:\n";
    const std::string text = " token=register_mib text=orvex_flash_mib registration failed\n";
    Lines expected = started();
    expected.insert(expected.begin() + 1, {"debugmsgtoken" + header, "debugmsg" + header,
                                           "debugmsgtoken" + text, "debugmsg" + text});
    expect_sequence({expected});
}

TEST_F(RestartTest, AStartWhosePipeFails) {
    os().pipe.always(-1, EMFILE);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 2);
    expect_sequence(
        {registered(),
         callback_added,
         {"pipe", "stderr Could not open the pipe\n", D("Could not open the pipe\n"),
          "fdopen descriptor=-1 mode=w",
          D("Could not open the stream for writing; ERRNO=" + std::to_string(EBADF) + "\n")}});
}

TEST_F(RestartTest, AStartWhoseWriteStreamFails) {
    os().fdopen.at(1, nullptr, ENOMEM);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 1);
    EXPECT_EQ(write_stream, nullptr);
    EXPECT_EQ(read_stream, nullptr);
    expect_sequence({registered(),
                     callback_added,
                     pipe_made(),
                     {opening(1, "w"), D("Could not open the stream for writing; ERRNO=" +
                                         std::to_string(ENOMEM) + "\n")}});
}

TEST_F(RestartTest, AStartWhoseReadStreamFails) {
    os().fdopen.at(2, nullptr, ENOMEM);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 1);
    EXPECT_NE(write_stream, nullptr);
    EXPECT_EQ(read_stream, nullptr);
    expect_sequence(
        {registered(),
         callback_added,
         pipe_made(),
         {opening(1, "w"), opening(0, "r"),
          D("Could not open the stream for reading; ERRNO=" + std::to_string(ENOMEM) + "\n")}});
}

TEST_F(RestartTest, ThePipeStatusAfterAFailedStreamIsThatOfThePipe) {
    for (const int failing : {1, 2}) {
        os().fdopen.at(failing, nullptr, ENOMEM);
        init_orvex_flash_mib();
        EXPECT_EQ(pipe_status, 1);
        deinit_orvex_flash_mib();
        EXPECT_EQ(pipe_status, 1);
    }
    os().pipe.returns(-1, EMFILE);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 2);
    os().fdopen.at(2, nullptr, ENOMEM);
    init_orvex_flash_mib();
    EXPECT_EQ(pipe_status, 1);
}

TEST_F(RestartTest, AReadStreamThatNeverOpenedReadsAsItsEnd) {
    os().fdopen.at(2, nullptr, ENOMEM);
    init_orvex_flash_mib();
    flashPipeLine line{5, 6};
    EXPECT_EQ(read_from_pipe(mypipe[0], &line), 0);
    EXPECT_EQ(line.status, 5);
    EXPECT_EQ(line.row, 6);
}

// One after the other

TEST_F(RestartTest, SecondAndThirdStartAndStopDoWhatTheFirstDid) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        fakes::forget();
        init_orvex_flash_mib();
        expect_sequence({started()});
        fakes::forget();
        deinit_orvex_flash_mib();
        expect_sequence({stopped()});
    }
}

TEST_F(RestartTest, StartsAndStopsLeaveNoDescriptorBehind) {
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    init_orvex_flash_mib();
    deinit_orvex_flash_mib();
    const auto before = open_descriptors();
    for (int round = 0; round < 3; ++round) {
        init_orvex_flash_mib();
        deinit_orvex_flash_mib();
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RestartTest, AStopLeavesPipeAndStreamsUsableUntilTheNextStart) {
    init_orvex_flash_mib();
    deinit_orvex_flash_mib();
    ASSERT_NE(write_stream, nullptr);
    std::fputs("14:7\n", write_stream);
    std::fflush(write_stream);
    flashPipeLine line{};
    EXPECT_EQ(read_from_pipe(mypipe[0], &line), 14);
    EXPECT_EQ(line.row, 7);
}

TEST_F(RestartTest, RowsOutliveStopAndStart) {
    fakes::add_copy_row(7);
    fakes::add_misc_row(8);
    init_orvex_flash_mib();
    deinit_orvex_flash_mib();
    init_orvex_flash_mib();
    EXPECT_TRUE(fakes::stored_copy_row(7));
    EXPECT_TRUE(fakes::stored_misc_row(8));
}

// The agent library's own alarms and callbacks.
class StopTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
        os().snmp_register_callback.does(__real_snmp_register_callback);
        os().snmp_alarm_register.does([this](const fakes::Alarm &alarm) {
            alarm_ = __real_snmp_alarm_register(alarm.seconds, alarm.flags, alarm.callback,
                                                alarm.client);
            return alarm_;
        });
        fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = flash::copyInProgress; });
        fakes::add_copy_row(8, [](flashCopyEntry &r) { r.copyStatus = flash::copyInProgress; });
        init_orvex_flash_mib();
        deliver(2, 7);
        ASSERT_NE(alarm_, 0U);
    }
    void TearDown() override {
        snmp_alarm_unregister_all();
        while (snmp_unregister_callback(0, 11, handle_flash_copy_status, nullptr, 1) > 0) {
        }
        FlashTest::TearDown();
    }
    // Has the library call its callbacks with a status message.
    static void deliver(int32_t status, int32_t row) {
        pmb_message message = fakes::message({status, row, 4242});
        snmp_call_callbacks(0, 11, &message);
    }
    unsigned int alarm_ = 0;
};

TEST_F(StopTest, LeavesTheAlarmOfAFinishedRow) {
    deinit_orvex_flash_mib();
    const struct snmp_alarm *left = sa_find_next();
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(left->clientreg, alarm_);
    EXPECT_EQ(left->thecallback, flash_ageouttimerhandler);
    EXPECT_EQ(left->t.tv_sec, 305);
    EXPECT_NE(left->flags & SA_REPEAT, 0U);
}

TEST_F(StopTest, LeavesTheCallbackOfARunningCopy) {
    deinit_orvex_flash_mib();
    deliver(12, 8);
    EXPECT_EQ(fakes::stored_copy_row(8)->copyStatus, flash::copyDeviceFull);
}

} // namespace
