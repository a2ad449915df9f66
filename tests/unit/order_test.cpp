// What comes before what, and the arguments of calls that have no effect of their own.
#include "fakes/fixture.h"

#include "flash_trace.h"
#include "flash_write.h"

#include <fcntl.h>

namespace {

using namespace fakes;

class Order : public fakes::FlashTest {};

TEST_F(Order, AMessageIsStoredBeforeDebugPrintingIsAskedFor) {
    platform().debug_on = true;
    flash::flash_trace(flash::traceDebug, "text");
    EXPECT_THAT(fakes::trace_calls(),
                ElementsAre("evwrap_hist_event_subtype_check id=0x730000 subtype=101",
                            "evwrap_hist_event id=0x730000 length=9",
                            "evwrap_chk_int subtype=101 0 0 1", testing::StartsWith("dbgout")));
}

TEST_F(Order, AFailingPipeIsSaidOnStandardErrorBeforeItIsTraced) {
    os().pipe.returns(-1, EMFILE);
    fakes::Capture errors(STDERR_FILENO);
    std::vector<std::string> said;
    platform().evwrap_hist_event_subtype_check.does([&](uint32_t, uint32_t) {
        said.push_back(errors.text());
        return 1;
    });
    init_orvex_flash_mib();
    ASSERT_FALSE(said.empty());
    EXPECT_EQ(said[0], "Could not open the pipe\n");
}

TEST_F(Order, ARefusalIsSaidOnStandardErrorBeforeItIsTraced) {
    fakes::Capture errors(STDERR_FILENO);
    std::string said;
    platform().evwrap_hist_event_subtype_check.does([&](uint32_t, uint32_t) {
        said = errors.text();
        return 1;
    });
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyProtocol, 0, 51, 7, 3), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(said, "write to orvexFlashCopyProtocol: invalid value\n");
}

// The lines of everything() that are among these, in their order.
Lines order_of(const Lines &wanted) {
    Lines found;
    for (const std::string &line : fakes::everything())
        for (const std::string &beginning : wanted)
            if (line.rfind(beginning, 0) == 0) {
                found.push_back(beginning);
                break;
            }
    return found;
}

TEST_F(Order, ASecondCopyIsRefusedInTheTraceBeforeItsErrorRecordIsFilled) {
    fakes::add_copy_row(3, [](flashCopyEntry &row) { row.copyStatus = flash::copyInProgress; });
    fakes::forget();
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyEntryStatus, 0, 59, 7, flash::rowActive),
              SNMP_ERR_GENERR);
    const Lines expected{"trace 100 ERROR: set_orvexFlashCopyEntryStatus : Another Copy",
                         "syserr_format code=0x4049003e", "trace 101 Logged error",
                         "log_snmp_error code=0x4049003e"};
    EXPECT_EQ(order_of(expected), expected);
}

TEST_F(Order, ASourceNameIsAnnouncedBeforeItIsStored) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    fakes::forget();
    EXPECT_EQ(fakes::set_text(set_orvexFlashCopySourceName, 1, 53, 7, "image"), SNMP_ERR_NOERROR);
    const Lines expected{"ordset_find key=7", "trace 101 DEBUG : set_orvexFlashCopySourceName : Ch",
                         "trace 101 calling setFlashCopyEntry for sourcename", "ordset_find key=7",
                         "trace 101 DEBUG : set_orvexFlashCopySourceName : Source Name after copy"};
    EXPECT_EQ(order_of(expected), expected);
}

TEST_F(Order, ACreatedRowThatCannotBeWrittenIsTracedBeforeItIsRemoved) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyEntryStatus, 0, 59, 7, flash::rowCreateAndWait),
              SNMP_ERR_GENERR);
    const Lines expected{"trace 101 ERROR  set_orvexFlashCopyEntryStatus : Setting a new entry",
                         "ordset_remove key=7"};
    EXPECT_EQ(order_of(expected), expected);
    platform().ordset_find.normal();
    EXPECT_FALSE(fakes::stored_copy_row(7));
}

TEST_F(Order, AnAgedOutRowIsTracedBeforeItIsDeleted) {
    fakes::set_time(1000);
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.endTime = 1000 - 306; });
    fakes::forget();
    flash_ageouttimerhandler(1, nullptr);
    const Lines expected{"trace 101 flash_ageouttimerhandler: Deleting the aged out entry 7",
                         "ordset_remove key=7"};
    EXPECT_EQ(order_of(expected), expected);
}

TEST_F(Order, AFailingRegistrationGivesTokenAndTextTheSameArguments) {
    os().register_mib.returns(-1);
    os().snmp_get_do_debugging.always(1);
    init_orvex_flash_mib();
    const std::string header =
        "init_orvex_flash_mib(): platform/apps/flash/orvex_flash_mib, 3027:\n";
    EXPECT_EQ(
        fakes::calls("debugmsg"),
        (Lines{"debugmsgtoken token=trace text=" + header, "debugmsg token=trace text=" + header,
               "debugmsgtoken token=register_mib text=orvex_flash_mib registration failed\n",
               "debugmsg token=register_mib text=orvex_flash_mib registration failed\n"}));
}

TEST_F(Order, ASecondStartClosesAFormerPipeOnDescriptorZero) {
    const int saved = fcntl(STDIN_FILENO, F_DUPFD, 100);
    ASSERT_GE(saved, 0);
    ::close(STDIN_FILENO);
    os().fdopen.returns(nullptr, ENOMEM);
    init_orvex_flash_mib();
    EXPECT_EQ(mypipe[0], STDIN_FILENO);
    os().pipe.returns(-1, EMFILE);
    {
        fakes::Capture errors(STDERR_FILENO);
        init_orvex_flash_mib();
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(saved, STDIN_FILENO);
    ::close(saved);
}

TEST_F(Order, EveryLookUpInTheContainerHasZeroFlags) {
    fakes::add_copy_row(7);
    fakes::add_misc_row(7);
    const flashCopyEntry copy = *fakes::stored_copy_row(7);
    const flashMiscOpEntry misc = *fakes::stored_misc_row(7);
    fakes::forget();
    EXPECT_EQ(setFlashCopyEntry(&copy), flash::success);
    EXPECT_EQ(setFlashMiscOpEntry(&misc), flash::success);
    EXPECT_NE(fakes::get(56, {7}).value, nullptr);
    EXPECT_NE(fakes::get(76, {7}).value, nullptr);
    EXPECT_EQ(fakes::container_calls("ordset_find ").size(), 5U);
    EXPECT_THAT(fakes::container_calls("ordset_find "), Each(EndsWith(" key=7 flags=0")));
}

TEST_F(Order, ATableFoundEmptyAfterAMatchIsNotSearched) {
    fakes::add_copy_row(7);
    platform().ordset_size.always(0);
    fakes::forget();
    EXPECT_EQ(fakes::getnext(56).value, nullptr);
    EXPECT_THAT(fakes::container_calls("ordset_find "), IsEmpty());
}

} // namespace
