// The row status of the copy table: one copy at a time, its start and its stop.
#include "tables.h"

#include "flash_write.h"

#include <csignal>
#include <cstring>
#include <string>

namespace {

using namespace row_status;

// The copy table: one copy at a time, for active only

class CopyRowStatus : public RowStatus<CopyTable> {
  protected:
    // A row that validation accepts: fetch from 10.0.0.1 by TFTP.
    void fill(flashCopyEntry &row) {
        const uint8_t address[4] = {10, 0, 0, 1};
        std::memcpy(&row.serverAddress, address, sizeof row.serverAddress);
        row.protocol = flash::protocolTftp;
        row.command = flash::commandToFlash;
        fakes::put(row.sourceName, "image.bin");
        fakes::put(row.destinationName, "bootflash:image.bin");
        platform().paths["bootflash:image.bin"] = "/bootflash/image.bin";
    }
    void add_ready(int32_t index, int32_t state = flash::rowNotReady) {
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            fill(row);
            row.entryStatus = state;
        });
    }
    // A row that validation takes for a finished copy, without a worker.
    void add_line_card(int32_t index, int32_t state) {
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            row.entryStatus = state;
            row.protocol = flash::protocolRcp;
            fakes::put(row.sourceName, "from");
            fakes::put(row.destinationName, "to");
        });
    }
    static Lines activating(int32_t index) {
        return {"DEBUG : set_orvexFlashCopyEntryStatus : Activating the entry (index = " +
                    text(index) + ", Server Add = 4294967295)\n",
                "Entering validate_n_start_flash_copy()...\n"};
    }
    static Lines validated(const char *result, int32_t state) {
        return {std::string("DEBUG: set_orvexFlashCopyEntryStatus : validate_n_start_flash_copy "
                            "returned ") +
                    result + "\n",
                "set_orvexFlashCopyEntryStatus : flashcopyentrystatus is " + text(state) + "\n"};
    }
    // The traces end with these.
    void expect_end(const Lines &end) {
        const Lines traces = fakes::trace_texts(101);
        ASSERT_GE(traces.size(), end.size());
        EXPECT_EQ(Lines(traces.end() - static_cast<std::ptrdiff_t>(end.size()), traces.end()), end);
    }
};

TEST_F(CopyRowStatus, ActiveWhileACopyRunsIsAGeneralErrorAndLogged) {
    for (bool row : {false, true}) {
        SCOPED_TRACE(row);
        fakes::empty_tables();
        add(5, flash::rowActive, flash::copyInProgress);
        if (row)
            add_ready(7);
        const std::string before = whole(7);
        u_char *const given = current(7);
        forget();
        EXPECT_EQ(call(reserve1, 7, flash::rowActive, given), general_error);
        EXPECT_EQ(fakes::traces(),
                  (fakes::Traces{
                      {101, CopyTable::entering},
                      {101, CopyTable::entering_reserve1},
                      {101, "calling flashcopy_inprogress..\n"},
                      {101, "calling get_flash_entry_with_status()..\n"},
                      {101, "found entry after calling getnextFlashCopyEntry.\n"},
                      {101, "Now checking the status\n"},
                      {100, "ERROR: set_orvexFlashCopyEntryStatus : Another Copy is in progress\n"},
                      {101, "Logged error text of 0x4049003e\n"}}));
        EXPECT_THAT(fakes::calls("log_snmp_error"),
                    ElementsAre("log_snmp_error code=0x4049003e text=text of 0x4049003e"));
        EXPECT_THAT(fakes::everything().back(), testing::StartsWith("log_snmp_error"));
        EXPECT_EQ(whole(7), before);
        EXPECT_EQ(call(release, 7, flash::rowActive, given), no_error);
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(CopyRowStatus, TheErrorRecordIsClearedBeforeItIsFilled) {
    platform().error_formats[flash::copyAlreadyRunning] = "short";
    // A refused source name of an active row puts its text into the same record.
    fakes::add_copy_row(4, [](flashCopyEntry &row) {
        row.command = flash::commandFromFlash;
        row.entryStatus = flash::rowActive;
        fakes::put(row.sourceName, "nowhere");
    });
    platform().error_formats[flash::invalidSourceFile] = std::string(190, 'y');
    ASSERT_EQ(call(action, 4, flash::rowActive), general_error);
    ASSERT_EQ(platform().errors.size(), 1U);
    ASSERT_EQ(platform().errors[0].code, flash::invalidSourceFile);

    add(5, flash::rowActive, flash::copyInProgress);
    EXPECT_EQ(call(reserve1, 7, flash::rowActive), general_error);
    ASSERT_EQ(platform().errors.size(), 2U);
    snmp_error_record expected{};
    expected.code = flash::copyAlreadyRunning;
    std::strcpy(expected.text, "short");
    EXPECT_EQ(bytes(platform().errors[1]), bytes(expected));
    EXPECT_TRUE(fakes::traced(101, "Logged error short\n"));
}

TEST_F(CopyRowStatus, ActiveOfTheVeryRowInProgressIsRefused) {
    add(7, flash::rowActive, flash::copyInProgress);
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, general_error);
    EXPECT_EQ(outcome.phases, refused);
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, OnlyActiveIsHeldBackWhileACopyRuns) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndGo, flash::rowCreateAndWait}) {
        fakes::empty_tables();
        add(5, flash::rowActive, flash::copyInProgress);
        EXPECT_EQ(call(reserve1, 7, value), no_error);
        EXPECT_EQ(state(7), value);
    }
    EXPECT_EQ(call(reserve1, 8, flash::rowDestroy), no_error);
    EXPECT_THAT(platform().errors, IsEmpty());
}

TEST_F(CopyRowStatus, ACreateAndGoStartsASecondCopyWhileOneRuns) {
    os().fork.returns(4242).returns(4243);
    add_ready(5);
    ASSERT_EQ(set(5, flash::rowActive).status, no_error);
    ASSERT_EQ(flash_copy_pid, 4242);
    // The request sets the row's columns after it has been created.
    EXPECT_EQ(call(reserve1, 7, flash::rowCreateAndGo), no_error);
    flashCopyEntry row = *fakes::stored_copy_row(7);
    fill(row);
    ASSERT_EQ(setFlashCopyEntry(&row), flash::success);
    EXPECT_EQ(call(reserve2, 7, flash::rowCreateAndGo), no_error);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowCreateAndGo), no_error);
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(flash_copy_pid, 4243);
    EXPECT_EQ(fakes::stored_copy_row(5)->copyStatus, flash::copyInProgress);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, ACopyMayStartAfterTheOneBeforeHasEnded) {
    add(5, flash::rowActive, flash::copySuccess);
    add_ready(7);
    EXPECT_EQ(set(7, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

// The copy table: activation

TEST_F(CopyRowStatus, ActiveOfARowThatIsReadyStartsItsCopy) {
    add_ready(7);
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(flash_copy_pid, 4242);
    const flashCopyEntry row = *fakes::stored_copy_row(7);
    EXPECT_EQ(row.entryStatus, flash::rowActive);
    EXPECT_EQ(row.copyStatus, flash::copyInProgress);
    EXPECT_STREQ(row.destinationPath, "/bootflash/image.bin");
}

TEST_F(CopyRowStatus, ActivationTracesTheResultOfTheStartAndTheStatusThatItLeft) {
    for (long value : {flash::rowActive, flash::rowCreateAndGo}) {
        fakes::empty_tables();
        add_line_card(7, static_cast<int32_t>(value));
        platform().error_names[0] = "SUCCESS";
        forget();
        EXPECT_EQ(call(action, 7, value), no_error);
        expect_traces({action_start(),
                       CopyTable::present(7),
                       activating(7),
                       {"Calling  rumapi_CopyIlcNVRAM with srcfile=from and dstFile=to\n"},
                       validated("SUCCESS", flash::rowActive)});
        EXPECT_EQ(fakes::calls("syserr2str"), Lines{"syserr2str code=0"});
        EXPECT_EQ(state(7), flash::rowActive);
        EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copySuccess);
    }
}

TEST_F(CopyRowStatus, TheEntryIsTracedWithItsAddressAndCopyStatus) {
    add_ready(7, flash::rowActive);
    const uint32_t address = fakes::stored_copy_row(7)->serverAddress;
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), no_error);
    const Lines traces = fakes::trace_texts(101);
    const std::string number = std::to_string(address);
    const Lines head = joined(
        {action_start(),
         {"set_orvexFlashCopyEntryStatus : The current flash copy status is 17 \n",
          "DEBUG : set_orvexFlashCopyEntryStatus : Entry present  (index = 7, Server Addr = " +
              number + ")\n",
          "DEBUG : set_orvexFlashCopyEntryStatus : Activating the entry (index = 7, Server Add = " +
              number + ")\n",
          "Entering validate_n_start_flash_copy()...\n"}});
    ASSERT_GE(traces.size(), head.size());
    EXPECT_EQ(Lines(traces.begin(), traces.begin() + static_cast<std::ptrdiff_t>(head.size())),
              head);
}

TEST_F(CopyRowStatus, CreateAndGoWithItsColumnsInOneRequestStartsTheCopy) {
    platform().paths["bootflash:image.bin"] = "/bootflash/image.bin";
    for (Phase phase : {reserve1, reserve2, action, commit}) {
        EXPECT_EQ(call(phase, 7, flash::rowCreateAndGo), no_error);
        if (phase == action)
            continue; // after ACTION of the row status the row is active
        EXPECT_EQ(fakes::set_text(set_orvexFlashCopySourceName, phase, flash::magicCopySourceName,
                                  7, "image.bin"),
                  no_error);
        EXPECT_EQ(fakes::set_text(set_orvexFlashCopyDestinationName, phase,
                                  flash::magicCopyDestinationName, 7, "bootflash:image.bin"),
                  no_error);
    }
    EXPECT_EQ(fakes::calls("fork"), Lines{"fork"});
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, CreateAndGoOfAnAbsentRowAloneLeavesItNotReady) {
    const Outcome outcome = set(7, flash::rowCreateAndGo);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(outcome.phases, succeeded);
    EXPECT_EQ(state(7), flash::rowNotReady);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyStatusInitial);
    expect_end(joined({validated("name of 0", flash::rowNotReady), {CopyTable::entering}}));
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, ActiveOfAnAbsentRowCreatesItAndValidatesItsDefaults) {
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, inconsistent_value);
    EXPECT_EQ(outcome.phases, failed);
    EXPECT_EQ(state(7), flash::rowActive);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidProtocol);
    EXPECT_EQ(fakes::calls("fork"), Lines{});
}

TEST_F(CopyRowStatus, TheResultOfTheStartReachesTheManagerUnchanged) {
    const struct {
        int status;
        const char *name;
        void (*change)(flashCopyEntry &);
        int failing_find; // 0: none
    } cases[] = {
        {wrong_value, "name of 0xa",
         [](flashCopyEntry &row) { row.command = flash::commandFromFlashLog; }, 0},
        {inconsistent_value, "name of 0xc",
         [](flashCopyEntry &row) { fakes::put(row.sourceName, ""); }, 0},
        {general_error, "name of 0x5",
         [](flashCopyEntry &row) { fakes::put(row.destinationName, "nowhere:x"); }, 0},
        {general_error, "name of 0x5", [](flashCopyEntry &) {}, 2},
        {no_such_name, "name of 0x2", [](flashCopyEntry &) {}, 3},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.status);
        fakes::empty_tables();
        fakes::add_copy_row(7, [&](flashCopyEntry &row) {
            fill(row);
            row.entryStatus = flash::rowActive;
            one.change(row);
        });
        forget();
        if (one.failing_find != 0)
            platform().ordset_find.at(one.failing_find, nullptr);
        EXPECT_EQ(call(action, 7, flash::rowActive), one.status);
        expect_end(validated(one.name, flash::rowActive));
        platform().ordset_find.normal();
        EXPECT_TRUE(present(7));
    }
}

TEST_F(CopyRowStatus, ARowWhoseStartWasRefusedIsNotWrittenAgain) {
    add_ready(7, flash::rowActive);
    flashCopyEntry row = *fakes::stored_copy_row(7);
    row.command = flash::commandFromFlashLog;
    ASSERT_EQ(setFlashCopyEntry(&row), flash::success);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), wrong_value);
    // One look-up by the handler, one by the validation's write.
    EXPECT_EQ(container_calls("ordset_find").size(), 2U);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidCommand);
}

TEST_F(CopyRowStatus, AStartedRowThatCannotBeWrittenIsAGeneralError) {
    add_line_card(7, flash::rowActive);
    forget();
    platform().ordset_find.at(3, nullptr);
    EXPECT_EQ(call(action, 7, flash::rowActive), general_error);
    expect_end(joined({validated("name of 0", flash::rowActive), CopyTable::write_failed()}));
}

TEST_F(CopyRowStatus, TheRowIsWrittenBackAfterTheStart) {
    add_line_card(7, flash::rowActive);
    forget();
    EXPECT_EQ(call(action, 7, flash::rowActive), no_error);
    EXPECT_EQ(container_calls("ordset_find").size(), 3U);
}

TEST_F(CopyRowStatus, ActiveOfARowThatIsNotReadyAnswersTheManagerAndLeavesTheVerdict) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    const Outcome outcome = set(7, flash::rowActive);
    EXPECT_EQ(outcome.status, inconsistent_value);
    EXPECT_EQ(outcome.phases, failed);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInvalidProtocol);
}

// The copy table: stopping

TEST_F(CopyRowStatus, DestroyOfARunningCopyEndsTheWorkerAndRemovesTheRow) {
    add(7, flash::rowActive, flash::copyInProgress);
    flash_copy_pid = 4242;
    const Outcome outcome = set(7, flash::rowDestroy);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{"kill pid=4242 signal=" + text(SIGTERM)});
    EXPECT_FALSE(present(7));
}

TEST_F(CopyRowStatus, NotInServiceOfARunningCopyEndsTheWorkerAndKeepsTheRow) {
    add(7, flash::rowActive, flash::copyInProgress);
    flash_copy_pid = 4242;
    const Outcome outcome = set(7, flash::rowNotInService);
    EXPECT_EQ(outcome.status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{"kill pid=4242 signal=" + text(SIGTERM)});
    EXPECT_EQ(state(7), flash::rowNotInService);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, flash::copyInProgress);
}

TEST_F(CopyRowStatus, StoppingARowThatDoesNotRunSignalsNobody) {
    flash_copy_pid = 4242;
    for (long value : {flash::rowNotInService, flash::rowDestroy}) {
        fakes::empty_tables();
        add(7, flash::rowActive, flash::copySuccess);
        EXPECT_EQ(set(7, value).status, no_error);
    }
    EXPECT_EQ(set(8, flash::rowNotInService).status, no_error);
    EXPECT_EQ(fakes::calls("kill"), Lines{});
}

TEST_F(CopyRowStatus, StoppingARowWhoseWorkerNeverStartedSignalsNobody) {
    for (int32_t pid : {0, -1}) {
        flash_copy_pid = pid;
        fakes::empty_tables();
        add(7, flash::rowActive, flash::copyInProgress);
        EXPECT_EQ(set(7, flash::rowDestroy).status, no_error);
        EXPECT_FALSE(present(7));
    }
    EXPECT_EQ(fakes::calls("kill"), Lines{});
}

TEST_F(CopyRowStatus, DestroyOfARowThatCannotBeStoppedIsAGeneralErrorAndKeepsTheRow) {
    for (int32_t result : {1, -1, int32_t{flash::failure}}) {
        fakes::empty_tables();
        add(7, flash::rowDestroy);
        const std::string before = whole(7);
        forget();
        fakes::module().handle_flash_abort.returns(result);
        EXPECT_EQ(call(action, 7, flash::rowDestroy), general_error);
        expect_traces({action_start(), CopyTable::present(7)});
        EXPECT_THAT(container_calls("ordset_remove"), IsEmpty());
        EXPECT_EQ(whole(7), before);
    }
}

TEST_F(CopyRowStatus, NotInServiceOfARowThatCannotBeStoppedIsAGeneralErrorAndNotWritten) {
    for (long value : {flash::rowNotInService, flash::rowCreateAndWait})
        for (int32_t result : {1, -1, int32_t{flash::failure}}) {
            fakes::empty_tables();
            add(7, flash::rowActive);
            const std::string before = whole(7);
            forget();
            int32_t seen = 0;
            fakes::module().handle_flash_abort.does([&](const flashCopyEntry *row) {
                seen = row->entryStatus;
                return result;
            });
            EXPECT_EQ(call(action, 7, value), general_error);
            EXPECT_EQ(seen, value) << "the status is set before the abort";
            expect_traces(
                {action_start(),
                 CopyTable::present(7),
                 {"DEBUG: set_orvexFlashCopyEntryStatus : handle_flash_abort was unsuccessful\n"}});
            EXPECT_EQ(container_calls("ordset_find").size(), 1U);
            EXPECT_EQ(whole(7), before);
        }
}

TEST_F(CopyRowStatus, ARowCreatedByCreateAndWaitIsNotStopped) {
    fakes::module().handle_flash_abort.always(1);
    add(7, flash::rowCreateAndWait);
    EXPECT_EQ(call(action, 7, flash::rowCreateAndWait), no_error);
    EXPECT_EQ(fakes::module().handle_flash_abort.count(), 0);
}

TEST_F(CopyRowStatus, ANewCopyMayStartAfterTheRunningOneWasDestroyed) {
    add(7, flash::rowActive, flash::copyInProgress);
    add_ready(8);
    ASSERT_EQ(set(8, flash::rowActive).status, general_error);
    ASSERT_EQ(set(7, flash::rowDestroy).status, no_error);
    EXPECT_EQ(set(8, flash::rowActive).status, no_error);
    EXPECT_EQ(fakes::stored_copy_row(8)->copyStatus, flash::copyInProgress);
}

} // namespace
