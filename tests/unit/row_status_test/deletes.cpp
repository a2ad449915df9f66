// The row status of the misc-operation table.
#include "tables.h"

#include "flash_write.h"

#include <cstring>
#include <string>

namespace {

using namespace row_status;

class MiscOpRowStatus : public RowStatus<MiscOpTable> {
  protected:
    void SetUp() override {
        RowStatus<MiscOpTable>::SetUp();
        os().unlink.does([](const char *) { return 0; });
        platform().paths["bootflash:old"] = "/bootflash/old";
    }
    void add_named(int32_t index, int32_t state, const char *name) {
        fakes::add_misc_row(index, [&](flashMiscOpEntry &row) {
            row.entryStatus = state;
            fakes::put(row.destinationName, name);
        });
    }
    static Lines activating(int32_t index) {
        return {"DEBUG : set_orvexFlashMiscOpEntryStatus : Activating the entry (index = " +
                    text(index) + ")\n",
                "Entering validate_n_start_flash_delete()...\n"};
    }
};

TEST_F(MiscOpRowStatus, ActiveWhileADeleteRunsIsInconsistentAndNotLogged) {
    for (bool row : {false, true}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::miscOpInProgress);
        if (row)
            add_named(7, flash::rowNotReady, "bootflash:old");
        const std::string before = whole(7);
        u_char *const given = current(7);
        forget();
        EXPECT_EQ(call(reserve1, 7, flash::rowActive, given), inconsistent_value);
        EXPECT_EQ(
            fakes::traces(),
            (fakes::Traces{
                {101, MiscOpTable::entering},
                {101, MiscOpTable::entering_reserve1},
                {101, "calling flashdelete_inprogress..\n"},
                {101, "calling get_flashMiscOp_entry_with_status()..\n"},
                {101, "found entry after calling getnextFlashMiscOpEntry.\n"},
                {101, "Now checking the status\n"},
                {100,
                 "ERROR: set_orvexFlashMiscOpEntryStatus : Another delete is in progress\n"}}));
        EXPECT_THAT(fakes::calls(), IsEmpty());
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(MiscOpRowStatus, OnlyActiveIsHeldBackWhileADeleteRuns) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndGo, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::miscOpInProgress);
        EXPECT_EQ(call(reserve1, 7, value), no_error);
        EXPECT_EQ(state(7), value);
    }
    EXPECT_EQ(call(reserve1, 8, flash::rowDestroy), no_error);
}

TEST_F(MiscOpRowStatus, ARunningCopyDoesNotHoldADeleteBack) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.copyStatus = flash::copyInProgress; });
    EXPECT_EQ(call(reserve1, 7, flash::rowActive), no_error);
}

TEST_F(MiscOpRowStatus, ActiveDeletesTheFileAndStaysActive) {
    add_named(7, flash::rowNotReady, "bootflash:old");
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(fakes::calls("unlink"), Lines{"unlink path=/bootflash/old"});
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ActivationTracesNothingAfterTheDelete) {
    add_named(7, flash::rowActive, "bootflash:old");
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        forget();
        EXPECT_EQ(call(action, 7, value), no_error);
        const Lines traces = fakes::trace_texts(101);
        const Lines head = joined({action_start(), MiscOpTable::present(7), activating(7)});
        ASSERT_GE(traces.size(), head.size());
        EXPECT_EQ(Lines(traces.begin(), traces.begin() + static_cast<std::ptrdiff_t>(head.size())),
                  head);
        EXPECT_EQ(traces.back(), "start_flash_delete(): deleted /bootflash/old...\n");
        EXPECT_EQ(fakes::calls("syserr2str"), Lines{});
    }
}

TEST_F(MiscOpRowStatus, CreateAndGoWithItsNameInOneRequestDeletesTheFile) {
    for (Phase phase : {reserve1, reserve2, action, commit}) {
        EXPECT_EQ(call(phase, 7, flash::rowCreateAndGo), no_error);
        EXPECT_EQ(fakes::set_text(set_orvexFlashMiscOpDestinationName, phase,
                                  flash::magicMiscOpDestinationName, 7, "bootflash:old"),
                  no_error);
    }
    EXPECT_EQ(fakes::calls("unlink"), Lines{"unlink path=/bootflash/old"});
    // The delete leaves the row status as it found it.
    EXPECT_EQ(state(7), flash::rowCreateAndGo);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ADeleteThatFailsShowsInTheRowOnly) {
    os().unlink.always(-1, ENOENT);
    add_named(7, flash::rowNotReady, "bootflash:old");
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpFailed);
}

TEST_F(MiscOpRowStatus, ActivationOfAnAbsentRowPassesTheDeletesResultOn) {
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        fakes::empty_tables();
        const Outcome outcome = set(7, value);
        EXPECT_EQ(outcome.status, general_error);
        EXPECT_EQ(outcome.phases, failed);
        // The row is not written after a refused delete.
        EXPECT_EQ(state(7), value);
        EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpStatusInitial);
    }
}

TEST_F(MiscOpRowStatus, ARowWhoseDeleteWasRefusedIsNotWritten) {
    add_named(7, flash::rowActive, "");
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    EXPECT_EQ(container_calls("ordset_find").size(), 1U);
}

TEST_F(MiscOpRowStatus, ALineCardNameIsDoneWithoutADelete) {
    add_named(7, flash::rowNotReady, "ilc-nvram:old");
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::calls("unlink"), Lines{});
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpSuccess);
}

TEST_F(MiscOpRowStatus, ARowThatTheDeleteCannotWriteIsAGeneralError) {
    add_named(7, flash::rowActive, "ilc-nvram:old");
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
}

TEST_F(MiscOpRowStatus, ARowThatCannotBeWrittenAfterTheDeleteIsAGeneralErrorWithoutATrace) {
    add_named(7, flash::rowActive, "bootflash:old");
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    EXPECT_EQ(fakes::trace_texts(101).back(), "start_flash_delete(): deleted /bootflash/old...\n");
    EXPECT_EQ(fakes::stored_misc_row(7)->operationStatus, flash::miscOpStatusInitial);
}

TEST_F(MiscOpRowStatus, StoppingARowNeverAborts) {
    flash_copy_pid = 4242;
    for (long value : {flash::rowNotInService, flash::rowDestroy}) {
        fakes::empty_tables();
        add(7, flash::rowActive, flash::miscOpInProgress);
        EXPECT_EQ(set(7, value).status, no_error);
    }
    EXPECT_THAT(fakes::calls(), IsEmpty());
}

TEST_F(MiscOpRowStatus, TheTablesKeepTheirRowsApart) {
    fakes::add_copy_row(7);
    EXPECT_EQ(set(7, flash::rowDestroy).status, general_error);
    EXPECT_EQ(set(7, flash::rowCreateAndWait).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(7)->entryStatus, 0);
}

} // namespace
