// The order of completion where a fault would show it, unusual outcomes of the agent's own calls,
// and the worker's descriptor of the system log.
#include "fakes/fixture.h"

#include <algorithm>
#include <climits>

namespace {

using namespace fakes;

class CompletionFaults : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        fakes::add_copy_row(7, [](flashCopyEntry &r) { r.copyStatus = flash::copyInProgress; });
    }
};

TEST_F(CompletionFaults, TheAlarmIsRegisteredBeforeTheRowIsStored) {
    int32_t stored = 0;
    os().snmp_alarm_register.does([&stored](const fakes::Alarm &) {
        stored = fakes::stored_copy_row(7)->copyStatus;
        return 1U;
    });
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(stored, flash::copyInProgress);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copySuccess);
}

TEST_F(CompletionFaults, TheRowIsStoredBeforeTheWorkerIsWaitedFor) {
    int32_t stored = 0;
    os().waitpid.does([&stored](pid_t worker, int *, int) {
        stored = fakes::stored_copy_row(7)->copyStatus;
        return worker;
    });
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(stored, flash::copySuccess);
}

TEST_F(CompletionFaults, AnAlarmThatCannotBeRegisteredChangesNothing) {
    os().snmp_alarm_register.always(0);
    handle_flash_copy_done(2, 7, 4242);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copySuccess);
    EXPECT_EQ(fakes::calls("waitpid").size(), 1U);
}

TEST_F(CompletionFaults, AnyStatusButZeroIsRecordedAsItCame) {
    for (const int32_t status : {19, 255, INT_MAX, -1, INT_MIN, 1}) {
        handle_flash_copy_done(status, 7, 4242);
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, status);
    }
}

TEST_F(CompletionFaults, ANotificationWhoseBindingFailsIsSentWithoutBindings) {
    platform().build_varbind.always(nullptr);
    const pmb_message message = fakes::message({0});
    oid id[13] = {};
    size_t length = 99;
    int send = 99;
    EXPECT_EQ(handle_notifications(&message, id, &length, &send), nullptr);
    EXPECT_EQ(send, 1);
    EXPECT_EQ(length, 13U);
    EXPECT_EQ(fakes::oid_text(id, length),
              fakes::oid_text(orvex_flash_mib_variables_oid, orvexFlashRootLength) + ".1.3.0.1");
}

// A descriptor of the system log that the library still believes in could become the file that is
// being received.
TEST_F(CompletionFaults, TheWorkerForgetsTheSystemLogsDescriptorBeforeItClosesAny) {
    flashCopyEntry row = *fakes::stored_copy_row(7);
    fakes::forget();
    fakes::run_as_child([&row] { start_flash_copy(&row); });
    const Lines calls = fakes::calls();
    const auto closelog = std::find(calls.begin(), calls.end(), "closelog");
    const auto closing = std::find_if(calls.begin(), calls.end(), [](const std::string &call) {
        return call.starts_with("close_range");
    });
    ASSERT_NE(closelog, calls.end());
    ASSERT_NE(closing, calls.end());
    EXPECT_LT(closelog - calls.begin(), closing - calls.begin());
}

TEST_F(CompletionFaults, TheAgentKeepsItsSystemLog) {
    flashCopyEntry row = *fakes::stored_copy_row(7);
    fakes::forget();
    start_flash_copy(&row);
    EXPECT_EQ(fakes::calls(), Lines{"fork"});
}

} // namespace
