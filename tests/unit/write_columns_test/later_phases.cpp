// SET of every column: the phases after RESERVE2, the index, values saved for FREE, texts.
#include "columns.h"

#include <cstring>
#include <string>

namespace {

using namespace write_columns;

// ACTION, COMMIT, UNDO

TEST_P(Columns, ActionConfirmsThatTheRowIsThere) {
    for (int32_t state : {flash::rowNotReady, flash::rowActive, flash::rowDestroy}) {
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(action, 7), no_error);
        expect_traces({column.every_call, column.action_start});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ActionOfAnAbsentRowIsNoSuchName) {
    EXPECT_EQ(column.call(action, 7), no_such_name);
    expect_traces(
        {column.every_call, column.action_start, {column.no_rows}, column.action_row_absent});
}

TEST_P(Columns, CommitAndUndoDoNothing) {
    column.add(7, flash::rowNotReady, column.before);
    const std::string before = column.whole(7);
    for (Phase phase : {commit, undo})
        for (oid index : {oid{7}, oid{8}}) {
            forget();
            EXPECT_EQ(column.call(phase, index), no_error);
            EXPECT_THAT(container_calls(), IsEmpty());
            expect_traces({column.every_call});
        }
    EXPECT_TRUE(column.whole(7) == before);
}

TEST_P(Columns, AnAcceptedSetIsStoredAfterTheLastPhase) {
    column.add(7, flash::rowNotReady, column.before);
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.call(phase, 7), no_error) << phase;
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Columns, UndoDoesNotRestoreTheOldValue) {
    column.add(7, flash::rowNotReady, column.before);
    for (Phase phase : {reserve1, reserve2, action, undo})
        EXPECT_EQ(column.call(phase, 7), no_error) << phase;
    EXPECT_EQ(column.read(7), column.after);
}

// FREE

TEST_P(Columns, FreePutsTheColumnBack) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve1, 7), no_error);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    forget();
    EXPECT_EQ(column.call(release, 7), no_error);
    expect_traces({column.every_call, column.release_start});
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Columns, FreePutsTheColumnBackInEveryStateButActiveAndNotInService) {
    for (int32_t state : {0, 3, 4, 5, 6}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(6, flash::rowNotReady, column.before);
        column.add(7, state, column.after);
        ASSERT_EQ(column.call(reserve2, 6), no_error); // fills the column's saved value
        EXPECT_EQ(column.call(release, 7), no_error);
        EXPECT_EQ(column.read(7), column.put_back);
    }
}

TEST_P(Columns, FreeLeavesAnActiveOrNotInServiceRowAlone) {
    for (int32_t state : {flash::rowActive, flash::rowNotInService}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(6, flash::rowNotReady, column.before);
        ASSERT_EQ(column.call(reserve2, 6), no_error); // fills the column's saved value
        column.add(7, state, column.after);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(release, 7), no_error);
        expect_traces({column.every_call, column.release_start});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ARefusedSetOfAnActiveOrNotInServiceRowLeavesItUnchangedAfterFree) {
    for (int32_t state : {flash::rowActive, flash::rowNotInService}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        EXPECT_EQ(column.call(reserve1, 7), no_error);
        EXPECT_EQ(column.call(reserve2, 7), inconsistent_value);
        EXPECT_EQ(column.call(release, 7), no_error);
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, FreeOfAnAbsentRowAnswersAsTheColumnDoes) {
    EXPECT_EQ(column.call(release, 7), column.release_without_row);
    expect_traces({column.every_call, column.release_start, {column.no_rows}});
    EXPECT_EQ(column.read(7), "no row");
}

TEST_P(Columns, ARowThatCannotBeWrittenInFreeIsAGeneralError) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(release, 7), general_error);
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Integers, FreeAfterARefusedValueReadsZero) {
    column.add(7, flash::rowNotReady, column.before);
    {
        fakes::Capture errors(STDERR_FILENO);
        ASSERT_EQ(column.call(reserve1, 7, std::string(sizeof(long) + 1, 'x')), wrong_length);
    }
    EXPECT_EQ(column.call(release, 7, std::string(sizeof(long) + 1, 'x')), no_error);
    EXPECT_EQ(column.read(7), "0");
}

// The index

TEST_P(Columns, TheRowIsNamedByTheLastArc) {
    column.add(7, flash::rowNotReady, column.before);
    fakes::Oid name = fakes::instance_of(column.magic, {9, 4, 7});
    std::string value = column.written;
    EXPECT_EQ(column.method(reserve2, reinterpret_cast<u_char *>(value.data()), column.type,
                            value.size(), nullptr, name.data(), name.size()),
              no_error);
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Columns, AnIndexAbove31BitsNamesItsRow) {
    column.add(-1, flash::rowNotReady, column.before);
    EXPECT_EQ(column.call(reserve2, 4294967295U), no_error);
    EXPECT_EQ(column.read(-1), column.after);
}

// Saved values

TEST_P(SavedColumns, OneSavedValueServesAllRows) {
    const std::string other = beginning_with('Z', column.before);
    const std::string other_put_back = beginning_with('Z', column.put_back);
    column.add(6, flash::rowNotReady, column.before);
    column.add(7, flash::rowNotReady, other);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 6), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(6), other_put_back);
    EXPECT_EQ(column.read(7), other_put_back);
}

TEST_P(SavedColumns, ASecondSetOfTheSameRowOverwritesTheSavedValue) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    const std::string second(column.type == ASN_IPADDRESS ? 4 : 8, 'y');
    ASSERT_EQ(column.call(reserve2, 7, second), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_NE(column.read(7), column.put_back);
    EXPECT_EQ(column.read(7).front(), column.after.front());
}

TEST_P(SavedColumns, TheSavedValuesOfTheColumnsAreSeparate) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    for (const Column &other : saved_columns()) {
        if (other.magic == column.magic)
            continue;
        const bool misc = other.magic == flash::magicMiscOpDestinationName;
        const int32_t index = misc ? 9 : 10 + other.magic;
        other.add(index, flash::rowNotReady, beginning_with('Q', other.before));
        ASSERT_EQ(other.call(reserve2, static_cast<oid>(index)), no_error);
    }
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Texts, ARefusedSetDoesNotTouchTheSavedText) {
    column.add(6, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    column.add(7, flash::rowActive, "something else");
    ASSERT_EQ(column.call(reserve2, 7), inconsistent_value);
    EXPECT_EQ(column.call(release, 6), no_error);
    EXPECT_EQ(column.read(6), column.put_back);
}

TEST_P(Texts, AnEmptyOldTextLeavesTheSavedTextAsItWas) {
    column.add(6, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    column.add(7, flash::rowNotReady, "");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Texts, AnOldTextOfOneCharacterIsSavedAsNothing) {
    column.add(7, flash::rowNotReady, "q");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    // The source name's copy back is limited to the saved text's length, here to nothing at all.
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? column.after : "");
}

TEST_P(Texts, AFourCharacterTextReadsShortenedAfterFree) {
    column.add(7, flash::rowNotReady, "abcd");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? "ab" : "abc");
}

// Texts

TEST_P(Names, ANameOfEveryLengthUpTo255IsStoredWhole) {
    for (size_t length : {size_t{1}, size_t{2}, size_t{100}, size_t{254}, size_t{255}}) {
        SCOPED_TRACE(length);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "");
        std::string value(length, 'n');
        value.back() = 'z';
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, value), no_error);
        EXPECT_EQ(column.read(7), value);
        EXPECT_EQ(fakes::get(column.magic, {7}).text(), value);
    }
}

TEST_P(Names, ALongNameReplacesALongName) {
    const std::string old(255, 'o');
    const std::string value(255, 'n');
    column.add(7, flash::rowNotReady, old);
    forget();
    EXPECT_EQ(column.call(reserve2, 7, value), no_error);
    EXPECT_EQ(column.read(7), value);
    for (const std::string &text : fakes::trace_texts(101))
        EXPECT_LE(text.size(), 511U);
    EXPECT_EQ(column.call(release, 7, value), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), std::string(source ? 253 : 254, 'o'));
}

TEST_P(Names, ANameWithAnEmbeddedNulReadsBackUpToIt) {
    column.add(7, flash::rowNotReady, std::string(255, 'o'));
    const std::string value("ab\0cd", 5);
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.call(phase, 7, value), no_error);
    EXPECT_EQ(column.read(7), "ab");
    EXPECT_EQ(fakes::get(column.magic, {7}).text(), "ab");
}

TEST_P(Texts, AnEmbeddedNulLeavesNothingOfTheOldText) {
    column.add(7, flash::rowNotReady, std::string(80, 'o'));
    EXPECT_EQ(column.call(reserve2, 7, std::string("ab\0cd", 5)), no_error);
    EXPECT_EQ(column.read(7), "ab");
    EXPECT_EQ(column.whole_field(7).find('o'), std::string::npos);
}

TEST_P(Texts, AShorterTextLeavesNothingOfTheOldOneBehindItsTerminator) {
    column.add(7, flash::rowNotReady, std::string(80, 'o'));
    EXPECT_EQ(column.call(reserve2, 7, "x"), no_error);
    std::string field(column.whole_field(7).size(), '\0');
    field.front() = 'x';
    EXPECT_EQ(column.whole_field(7), field);
}

TEST_P(Texts, PercentSignsAreOrdinaryCharacters) {
    column.add(7, flash::rowNotReady, "%s%n%d");
    EXPECT_EQ(column.call(reserve2, 7, "%n%s%x"), no_error);
    EXPECT_EQ(column.read(7), "%n%s%x");
    EXPECT_EQ(column.call(release, 7, "%n%s%x"), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? "%s%n" : "%s%n%");
}

} // namespace
