// Validation and start of a copy.
#include "validation.h"

#include "flash_trace.h"
#include "flash_validate.h"

#include <unistd.h>

namespace {

using namespace copy_validation;

class StartTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        platform().error_formats[0x4049001D] = "invalid destination";
        fakes::set_time(5000, 123456);
    }
    // Puts a row into the store and asks for its copy: the status for the SET.
    int32_t start(flashCopyEntry wanted, bool stored = true) {
        row = wanted;
        if (stored)
            fakes::add_copy_row(wanted.index, [&](flashCopyEntry &r) { r = wanted; });
        fakes::forget();
        fakes::Capture output(STDOUT_FILENO);
        const int32_t result = validate_n_start_flash_copy(&row);
        printed = output.text();
        return result;
    }
    static void expect_stored_as(const flashCopyEntry &expected) {
        const auto stored = fakes::stored_copy_row(expected.index);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(std::memcmp(&*stored, &expected, sizeof expected), 0);
    }
    // The messages without those of the name resolution, the store and the worker's start.
    static Traces own_traces() {
        Traces all = rule_traces();
        std::erase_if(all, [](const Trace &trace) {
            return trace.text.find("start_flash_copy") != std::string::npos &&
                   trace.text != "Calling start_flash_copy()\n" &&
                   trace.text != "Entering validate_n_start_flash_copy()...\n" &&
                   !trace.text.starts_with("validate_n_start_flash_copy") &&
                   trace.text.find(" validate_n_start_flash_copy : ") == std::string::npos;
        });
        return all;
    }
    const Trace begun{debug_level, "Entering validate_n_start_flash_copy()...\n"};
    const Trace not_stored{
        error_level, "ERROR  validate_n_start_flash_copy : Set to entry (index= 7) failed \n"};

    flashCopyEntry row{};
    std::string printed;
};

TEST_F(StartTest, AnAcceptedRowIsInProgressAndStored) {
    for (int32_t command : {1, 3}) {
        SCOPED_TRACE(command);
        fakes::empty_tables();
        const flashCopyEntry wanted = good_row(command);
        EXPECT_EQ(start(wanted), 0);
        const auto stored = fakes::stored_copy_row(7);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->copyStatus, 1);
        EXPECT_EQ(stored->entryStatus, 1);
        EXPECT_EQ(stored->startTimestamp.seconds, 5000);
        EXPECT_EQ(stored->startTimestamp.microseconds, 123456);
        EXPECT_STREQ(stored->destinationPath, command == 1 ? "/bootflash/new" : "");
        EXPECT_STREQ(stored->sourcePath, command == 3 ? "/bootflash/old" : "");
    }
}

TEST_F(StartTest, AnAcceptedRowForksAWorker) {
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(fakes::calls("fork").size(), 1U);
    EXPECT_EQ(flash_copy_pid, 4242);
}

TEST_F(StartTest, TheRowIsStoredBeforeTheWorkerIsForked) {
    std::optional<flashCopyEntry> at_fork;
    os().fork.does([&at_fork] {
        at_fork = fakes::stored_copy_row(7);
        return pid_t{4242};
    });
    start(good_row());
    ASSERT_TRUE(at_fork.has_value());
    EXPECT_EQ(at_fork->copyStatus, 1);
    EXPECT_EQ(at_fork->entryStatus, 1);
    EXPECT_EQ(at_fork->startTimestamp.seconds, 5000);
}

TEST_F(StartTest, AnAcceptedRowIsTraced) {
    start(good_row());
    EXPECT_EQ(own_traces(),
              (Traces{begun,
                      entering,
                      {debug_level, "DEBUG  validate_n_start_flash_copy : Ready to copy\n"},
                      {debug_level, "validate_n_start_flash_copy Ready to copy\n"},
                      {debug_level, "Calling start_flash_copy()\n"},
                      {debug_level, "validate_n_start_flash_copy: status returned is 1\n"}}));
}

TEST_F(StartTest, TheStartIsPrinted) {
    start(good_row());
    EXPECT_EQ(printed, "calling start_flash_copy().....\n");
}

TEST_F(StartTest, AnotherCopyInProgressIsNotLookedFor) {
    fakes::add_copy_row(3, [](flashCopyEntry &r) { r.copyStatus = 1; });
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(fakes::calls("fork").size(), 1U);
}

TEST_F(StartTest, AFailedForkIsNotNoticed) {
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(flash_copy_pid, -1);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
}

TEST_F(StartTest, TheRowIsReadBackFromTheStore) {
    os().fork.does([] {
        flashCopyEntry stored = *fakes::stored_copy_row(7);
        stored.copyStatus = 12;
        setFlashCopyEntry(&stored);
        return pid_t{4242};
    });
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(row.copyStatus, 12);
    EXPECT_TRUE(fakes::traced(debug_level, "validate_n_start_flash_copy: status returned is 12\n"));
}

TEST_F(StartTest, ARowThatIsGoneAfterTheStartIsNoSuchName) {
    os().fork.does([] {
        flashCopyEntry key{};
        key.index = 7;
        deleteFlashCopyEntry(&key);
        return pid_t{4242};
    });
    EXPECT_EQ(start(good_row()), 2);
    for (const Trace &trace : fakes::traces())
        EXPECT_EQ(trace.text.find("status returned is"), std::string::npos) << trace.text;
}

TEST_F(StartTest, AnAcceptedRowThatCannotBeStoredIsAGeneralErrorAndNotStarted) {
    EXPECT_EQ(start(good_row(), false), 5);
    EXPECT_EQ(fakes::last_trace(), not_stored);
    EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    EXPECT_EQ(printed, "");
    EXPECT_EQ(flash_copy_pid, 0);
}

TEST_F(StartTest, ARefusedRowIsStoredWithItsVerdict) {
    EXPECT_EQ(start(good_row(4)), 10);
    EXPECT_EQ(row.copyStatus, 3);
    expect_stored_as(row);
    EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    EXPECT_EQ(printed, "");
}

TEST_F(StartTest, ARefusedRowKeepsItsStartTime) {
    flashCopyEntry wanted = good_row(4);
    wanted.startTimestamp = {1, 2};
    start(wanted);
    EXPECT_EQ(row.startTimestamp.seconds, 1);
    EXPECT_EQ(row.startTimestamp.microseconds, 2);
}

TEST_F(StartTest, TheStatusForTheSetIsThatOfTheRules) {
    struct {
        const char *what;
        flashCopyEntry wanted;
        int32_t result;
        int32_t copy_status;
        int32_t entry_status;
    } samples[] = {
        {"command", good_row(2), 10, 3, waiting},
        {"command and protocol", good_row(2, 3), 10, 4, waiting},
        {"protocol", good_row(1, 3), 10, 4, waiting},
        {"missing, active", good_row(1, 1, active), 12, 4, active},
        {"missing, inactive", good_row(), 0, initial, not_ready},
        {"destination, active", good_row(1, 1, active), 5, 6, active},
        {"destination, inactive", good_row(), 0, initial, not_ready},
        {"source, active", good_row(3, 1, active), 5, 5, active},
        {"source, inactive", good_row(3), 0, initial, not_ready},
    };
    samples[3].wanted.serverAddress = 0;
    samples[4].wanted.serverAddress = 0;
    for (int at : {5, 6})
        fakes::put(samples[at].wanted.destinationName, "nowhere:x");
    for (int at : {7, 8})
        fakes::put(samples[at].wanted.sourceName, "nowhere:x");
    for (const auto &sample : samples) {
        SCOPED_TRACE(sample.what);
        fakes::empty_tables();
        EXPECT_EQ(start(sample.wanted), sample.result);
        const auto stored = fakes::stored_copy_row(7);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->copyStatus, sample.copy_status);
        EXPECT_EQ(stored->entryStatus, sample.entry_status);
        EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    }
}

TEST_F(StartTest, ARefusalIsTraced) {
    start(good_row(4));
    Traces expected = {begun, entering};
    expected.insert(expected.end(), log_refusal.begin(), log_refusal.end());
    expected.push_back({debug_level, "validate_flash_entry FAILED.\n"});
    EXPECT_EQ(own_traces(), expected);
}

TEST_F(StartTest, ARefusedRowThatCannotBeStoredIsAGeneralErrorWhateverTheRefusal) {
    flashCopyEntry incomplete = good_row();
    incomplete.serverAddress = 0;
    for (const flashCopyEntry &wanted : {good_row(4), incomplete}) {
        EXPECT_EQ(start(wanted, false), 5);
        EXPECT_TRUE(fakes::traced(debug_level, "validate_flash_entry FAILED.\n"));
        EXPECT_EQ(fakes::last_trace(), not_stored);
    }
}

// Line-card NVRAM: protocol 2

TEST_F(StartTest, Protocol2IsAFinishedLineCardCopyWithoutValidation) {
    for (int32_t command : {1, 2, 3, 4})
        for (int32_t state : {active, waiting}) {
            SCOPED_TRACE(command);
            fakes::empty_tables();
            flashCopyEntry wanted = good_row(command, 2, state);
            wanted.serverAddress = 0;
            fakes::put(wanted.sourceName, "ilc-nvram:a");
            fakes::put(wanted.destinationName, "nowhere:b");
            EXPECT_EQ(start(wanted), 0);
            wanted.entryStatus = active;
            wanted.copyStatus = 2;
            expect_stored_as(wanted);
            EXPECT_EQ(row.copyStatus, 2);
            EXPECT_THAT(fakes::calls(), IsEmpty());
            EXPECT_EQ(fakes::traces(),
                      (Traces{begun,
                              {debug_level, "Calling  rumapi_CopyIlcNVRAM with "
                                            "srcfile=ilc-nvram:a and dstFile=nowhere:b\n"}}));
            EXPECT_EQ(printed, "");
        }
}

TEST_F(StartTest, ALineCardCopyThatCannotBeStoredIsAGeneralError) {
    fakes::add_copy_row(3);
    EXPECT_EQ(start(good_row(1, 2), false), 5);
    EXPECT_EQ(fakes::last_trace(), not_stored);
    EXPECT_EQ(row.copyStatus, 2);
    EXPECT_EQ(row.entryStatus, 1);
}

TEST_F(StartTest, TheRowsIndexIsNamedWhenItCannotBeStored) {
    flashCopyEntry wanted = good_row(1, 2);
    wanted.index = 2147483647;
    start(wanted, false);
    EXPECT_THAT(fakes::last_trace().text, HasSubstr(": Set to entry (index= 2147483647) failed "));
}

} // namespace
