// The row status of rows in the states that a failed request or a manager can leave them in, and of
// starts and removals that come to something unusual.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <climits>

namespace {

using namespace fakes;

constexpr int32_t absent = -100;

struct CopyTable {
    using Row = flashCopyEntry;
    static constexpr auto method = set_orvexFlashCopyEntryStatus;
    static constexpr int magic = flash::magicCopyEntryStatus;
    static constexpr auto stored = fakes::stored_copy_row;
    static constexpr auto status = &flashCopyEntry::copyStatus;
    static constexpr int32_t started = flash::copyInProgress;
    static constexpr int32_t untouched = flash::copyStatusInitial;
    static auto &start() { return fakes::module().validate_n_start_flash_copy; }
    // A row that starts when it is activated.
    static void add(int32_t index, int32_t state, int32_t command = 1) {
        platform().paths["bootflash:image.bin"] = "/bootflash/image.bin";
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            row.command = command;
            row.entryStatus = state;
            fakes::put(row.sourceName, "image.bin");
            fakes::put(row.destinationName, "bootflash:image.bin");
        });
    }
};

struct MiscOpTable {
    using Row = flashMiscOpEntry;
    static constexpr auto method = set_orvexFlashMiscOpEntryStatus;
    static constexpr int magic = flash::magicMiscOpEntryStatus;
    static constexpr auto stored = fakes::stored_misc_row;
    static constexpr auto status = &flashMiscOpEntry::operationStatus;
    static constexpr int32_t started = flash::miscOpSuccess;
    static constexpr int32_t untouched = flash::miscOpStatusInitial;
    static auto &start() { return fakes::module().validate_n_start_flash_delete; }
    static void add(int32_t index, int32_t state) {
        platform().paths["bootflash:old"] = "/bootflash/old";
        os().unlink.always(0);
        fakes::add_misc_row(index, [&](flashMiscOpEntry &row) {
            row.entryStatus = state;
            fakes::put(row.destinationName, "bootflash:old");
        });
    }
};

template <class Table>
class RowStates : public fakes::FlashTest {
  protected:
    static int call(Phase phase, int32_t index, long value, u_char *current = nullptr) {
        return fakes::set_integer(Table::method, phase, Table::magic, static_cast<oid>(index),
                                  value, current);
    }
    // A whole SET as the agent carries it out: the status answered.
    static int set(int32_t index, long value) {
        auto *current =
            const_cast<u_char *>(fakes::get(Table::magic, {static_cast<oid>(index)}).value);
        fakes::forget();
        for (const Phase phase : {reserve1, reserve2, action})
            if (const int status = call(phase, index, value, current); status != 0) {
                EXPECT_EQ(call(phase == action ? undo : release, index, value, current), 0);
                return status;
            }
        EXPECT_EQ(call(commit, index, value, current), 0);
        return 0;
    }
    static int32_t state(int32_t index) {
        const auto row = Table::stored(index);
        return row ? row->entryStatus : absent;
    }
    static int32_t status(int32_t index) {
        const auto row = Table::stored(index);
        return row ? (*row).*Table::status : absent;
    }
};

using Tables = testing::Types<CopyTable, MiscOpTable>;
TYPED_TEST_SUITE(RowStates, Tables);

constexpr int32_t left_behind[] = {flash::rowNotInService, flash::rowCreateAndGo,
                                   flash::rowDestroy};

TYPED_TEST(RowStates, EveryRowStatusOfARowThatIsNotInServiceOrWasLeftAtCreateAndGoOrDestroy) {
    constexpr int32_t same = -200;
    const struct {
        long value;
        int answer;
        int32_t state; // afterwards
        bool started;
    } outcomes[] = {
        {flash::rowActive, 0, flash::rowActive, true},
        {flash::rowNotInService, 0, flash::rowNotInService, false},
        {flash::rowNotReady, 10, same, false},
        {flash::rowCreateAndGo, 12, same, false},
        {flash::rowCreateAndWait, 12, same, false},
        {flash::rowDestroy, 0, absent, false},
        {0, 10, same, false},
        {7, 10, same, false},
    };
    for (const int32_t before : left_behind)
        for (const auto &outcome : outcomes) {
            SCOPED_TRACE(testing::Message() << outcome.value << " over " << before);
            fakes::empty_tables();
            TypeParam::add(7, before);
            EXPECT_EQ(this->set(7, outcome.value), outcome.answer);
            EXPECT_EQ(this->state(7), outcome.state == same ? before : outcome.state);
            if (outcome.state != absent) {
                EXPECT_EQ(this->status(7),
                          outcome.started ? TypeParam::started : TypeParam::untouched);
            }
        }
}

TYPED_TEST(RowStates, CreateAndWaitInActionOverwritesEveryStateButItsOwn) {
    for (const int32_t before : left_behind) {
        fakes::empty_tables();
        TypeParam::add(7, before);
        EXPECT_EQ(this->call(action, 7, flash::rowCreateAndWait), 0);
        EXPECT_EQ(this->state(7), flash::rowCreateAndWait);
    }
}

// Start results

TYPED_TEST(RowStates, AStartResultAbove18OrBelow0IsTheAnswerUnchanged) {
    for (const int32_t result : {19, 255, 0x40490001, INT_MAX, -1, -24, INT_MIN})
        for (const long value : {flash::rowActive, flash::rowCreateAndGo}) {
            SCOPED_TRACE(result);
            fakes::empty_tables();
            TypeParam::add(7, flash::rowNotReady);
            TypeParam::start().does([result](typename TypeParam::Row *row) {
                row->entryStatus = flash::rowActive;
                return result;
            });
            fakes::forget();
            EXPECT_EQ(this->call(action, 7, value), result);
            // Looked up, and not written back.
            EXPECT_EQ(fakes::container_calls("ordset_find").size(), 1U);
            EXPECT_EQ(this->state(7), flash::rowNotReady);
        }
}

TYPED_TEST(RowStates, WhatTheStartLeavesInTheRowIsWrittenBack) {
    TypeParam::add(7, flash::rowNotReady);
    TypeParam::start().does([](typename TypeParam::Row *row) {
        row->entryStatus = flash::rowNotInService;
        row->*TypeParam::status = 16;
        return 0;
    });
    EXPECT_EQ(this->call(action, 7, flash::rowActive), 0);
    EXPECT_EQ(this->state(7), flash::rowNotInService);
    EXPECT_EQ(this->status(7), 16);
}

// Removal

TYPED_TEST(RowStates, ARemovalThatFailsAtDestroyIsNotReported) {
    TypeParam::add(7, flash::rowNotReady);
    platform().ordset_remove.returns(nullptr);
    EXPECT_EQ(this->set(7, flash::rowDestroy), 0);
    EXPECT_EQ(fakes::container_calls("ordset_remove").size(), 1U);
    EXPECT_EQ(this->state(7), flash::rowDestroy);
    EXPECT_EQ(this->set(7, flash::rowDestroy), 0);
    EXPECT_EQ(this->state(7), absent);
}

// Refused commands, copy table

class RefusedCommand : public RowStates<CopyTable> {};

TEST_F(RefusedCommand, ActiveOfARowInAnyOfTheseStatesIsAWrongValueAndLeavesItActive) {
    for (const int32_t before : left_behind)
        for (const int32_t command : {2, 4}) {
            SCOPED_TRACE(testing::Message() << command << " in " << before);
            fakes::empty_tables();
            CopyTable::add(7, before, command);
            EXPECT_EQ(set(7, flash::rowActive), 10);
            EXPECT_EQ(state(7), flash::rowActive);
            EXPECT_EQ(status(7), flash::copyInvalidCommand);
            EXPECT_THAT(fakes::calls("fork"), IsEmpty());
        }
}

TEST_F(RefusedCommand, EveryOtherRowStatusIsCarriedOutAllTheSame) {
    for (const int32_t before : left_behind)
        for (const int32_t command : {2, 4}) {
            const std::tuple<long, int, int32_t> outcomes[] = {
                {flash::rowNotInService, 0, flash::rowNotInService},
                {flash::rowCreateAndGo, 12, before},
                {flash::rowCreateAndWait, 12, before},
                {flash::rowDestroy, 0, absent}};
            for (const auto &[value, answer, after] : outcomes) {
                SCOPED_TRACE(testing::Message() << value << " over " << before);
                fakes::empty_tables();
                CopyTable::add(7, before, command);
                EXPECT_EQ(set(7, value), answer);
                EXPECT_EQ(state(7), after);
            }
        }
}

TEST_F(RefusedCommand, CreateAndGoWithItsCommandInTheSameRequestStaysAtCreateAndGo) {
    for (const int32_t command : {2, 4}) {
        fakes::empty_tables();
        ASSERT_EQ(call(reserve1, 7, flash::rowCreateAndGo), 0);
        CopyTable::add(8, 0); // for its paths
        flashCopyEntry row = *fakes::stored_copy_row(8);
        row.index = 7;
        row.command = command;
        row.entryStatus = flash::rowCreateAndGo;
        ASSERT_EQ(setFlashCopyEntry(&row), flash::success);
        EXPECT_EQ(call(action, 7, flash::rowCreateAndGo), 10);
        EXPECT_EQ(state(7), flash::rowCreateAndGo);
        EXPECT_EQ(status(7), flash::copyInvalidCommand);
    }
}

// An error log that fails

TEST_F(RefusedCommand, ActiveWhileACopyRunsIsAGeneralErrorAlsoWhenItCannotBeLogged) {
    platform().log_snmp_error.always(-1);
    fakes::add_copy_row(5, [](flashCopyEntry &row) { row.copyStatus = flash::copyInProgress; });
    EXPECT_EQ(set(7, flash::rowActive), 5);
    EXPECT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(state(7), absent);
}

} // namespace
