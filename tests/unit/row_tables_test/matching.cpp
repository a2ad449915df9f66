// Matching of a request's arcs against the rows of both tables, and its traces.
#include "row_tables.h"

#include "flash_write.h"

#include <cstring>

namespace {

using namespace row_tables;

// Matching: GET

TEST_F(RowTables, GetWithOneInstanceArcLooksThatRowUp) {
    add({3, 7});
    for (const int magic : firstColumns) {
        fakes::forget();
        EXPECT_NE(get(magic, {7}).value, nullptr);
        EXPECT_EQ(fakes::container_calls("ordset_find ")[0], "ordset_find key=7 flags=0");
    }
}

TEST_F(RowTables, GetWithoutAnInstanceLooksUpRowZero) {
    add({3});
    for (const int magic : firstColumns) {
        fakes::forget();
        const Answer answer = get(magic);
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic));
        EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find key=0 flags=0"}));
    }
}

TEST_F(RowTables, GetOfANameShorterThanTheColumnLooksUpRowZero) {
    add({3});
    for (const int magic : firstColumns) {
        fakes::forget();
        Oid name = instance_of(magic);
        name.resize(name.size() - 2);
        EXPECT_EQ(ask(magic, name, true).value, nullptr);
        EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find key=0 flags=0"}));
    }
}

TEST_F(RowTables, GetWithTwoInstanceArcsLooksUpRowZero) {
    add({5});
    for (const int magic : firstColumns) {
        fakes::forget();
        const Answer answer = get(magic, {5, 99});
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic, {5, 99}));
        EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find key=0 flags=0"}));
    }
}

TEST_F(RowTables, GetWithAMissingATooLongOrAZeroInstanceAnswersRowZeroWhenThereIsOne) {
    add({0});
    for (const int magic : firstColumns)
        for (const Answer &answer : {get(magic), get(magic, {5, 99}), get(magic, {0})}) {
            EXPECT_NE(answer.value, nullptr);
            EXPECT_EQ(answer.name, instance_of(magic, {0}));
        }
}

TEST_F(RowTables, GetOfAMissingRowLeavesTheNameAlone) {
    add({3});
    for (const int magic : firstColumns) {
        const Answer answer = get(magic, {4});
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic, {4}));
    }
}

TEST_F(RowTables, GetFindsARowAbove2To31UnderItsUnsignedArc) {
    add({-1});
    for (const int magic : firstColumns) {
        const Answer answer = get(magic, {4294967295U});
        EXPECT_NE(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic, {4294967295U}));
    }
}

TEST_F(RowTables, GetOfANameOfTheGreatestLengthIsSafe) {
    add({3});
    for (const int magic : firstColumns) {
        Oid name = instance_of(magic);
        name.resize(MAX_OID_LEN, 3);
        EXPECT_EQ(ask(magic, name, true).value, nullptr);
    }
}

// Matching: GETNEXT

TEST_F(RowTables, GetnextOnTheColumnYieldsTheFirstRow) {
    add({9, 3, 7});
    for (const int magic : firstColumns)
        EXPECT_EQ(getnext(magic).name, instance_of(magic, {3}));
}

TEST_F(RowTables, GetnextOfANameShorterThanTheColumnYieldsTheFirstRow) {
    add({3});
    for (const int magic : firstColumns) {
        Oid name = instance_of(magic);
        name.resize(name.size() - 2);
        EXPECT_EQ(ask(magic, name, false).name, instance_of(magic, {3}));
    }
}

TEST_F(RowTables, GetnextFromAnInstanceYieldsTheRowWithTheNextGreaterIndex) {
    add({3, 7, 9});
    for (const int magic : firstColumns) {
        EXPECT_EQ(getnext(magic, {5}).name, instance_of(magic, {7}));
        EXPECT_EQ(getnext(magic, {7}).name, instance_of(magic, {9}));
    }
}

TEST_F(RowTables, GetnextIgnoresArcsBehindTheInstance) {
    add({3, 7, 9});
    for (const int magic : firstColumns)
        EXPECT_EQ(getnext(magic, {5, 99}).name, instance_of(magic, {7}));
}

TEST_F(RowTables, GetnextFromInstanceZeroYieldsTheFirstRow) {
    add({3, 7});
    for (const int magic : firstColumns)
        EXPECT_EQ(getnext(magic, {0}).name, instance_of(magic, {3}));
}

TEST_F(RowTables, GetnextFromAnotherPrefixYieldsTheFirstRow) {
    add({3, 7, 9});
    for (const int magic : firstColumns) {
        Oid name = instance_of(magic, {8});
        name[name.size() - 2] -= 1;
        EXPECT_EQ(ask(magic, name, false).name, instance_of(magic, {3}));
    }
}

TEST_F(RowTables, GetnextFromTheLastRowReturnsNullAndLeavesTheNameAlone) {
    add({3, 7});
    for (const int magic : firstColumns) {
        const Answer answer = getnext(magic, {7});
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic, {7}));
    }
}

TEST_F(RowTables, GetnextWithoutRowsReturnsNull) {
    for (const int magic : firstColumns) {
        const Answer answer = getnext(magic);
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, instance_of(magic));
    }
}

TEST_F(RowTables, GetnextReachesIndexesAbove2To31LastAndEndsThere) {
    add({5, -1});
    for (const int magic : firstColumns) {
        EXPECT_EQ(getnext(magic, {5}).name, instance_of(magic, {4294967295U}));
        EXPECT_EQ(getnext(magic, {4294967295U}).value, nullptr);
    }
}

TEST_F(RowTables, GetnextReachesRowZeroOnlyFromBeforeTheTable) {
    add({0, 4});
    for (const int magic : firstColumns) {
        EXPECT_EQ(getnext(magic).name, instance_of(magic, {0}));
        EXPECT_EQ(getnext(magic, {4}).value, nullptr);
        EXPECT_EQ(getnext(magic, {3}).name, instance_of(magic, {4}));
    }
}

TEST_F(RowTables, GetnextFromANameOfTheGreatestLengthYieldsTheNextRow) {
    add({3, 7});
    for (const int magic : firstColumns) {
        Oid name = instance_of(magic);
        name.resize(MAX_OID_LEN, 5);
        EXPECT_EQ(ask(magic, name, false).name, instance_of(magic, {7}));
    }
}

// The matching step by itself

TEST_F(RowTables, TheMatchingStepTellsWhetherARowMatched) {
    add({7});
    struct Matcher {
        int magic;
        int (*match)(struct variable *, oid *, size_t *, int);
    };
    for (const Matcher &matcher :
         {Matcher{50, header_flashCopyEntry}, Matcher{74, header_flashMiscOpEntry}}) {
        variable presented{};
        const Oid column = instance_of(matcher.magic);
        presented.magic = static_cast<u_char>(matcher.magic);
        presented.namelen = static_cast<u_char>(column.size());
        std::copy(column.begin(), column.end(), presented.name);
        oid name[MAX_OID_LEN] = {};
        std::copy(column.begin(), column.end(), name);
        size_t length = column.size();
        EXPECT_EQ(matcher.match(&presented, name, &length, 1), MATCH_FAILED);
        EXPECT_EQ(length, column.size());
        EXPECT_EQ(matcher.match(&presented, name, &length, 0), MATCH_SUCCEEDED);
        EXPECT_EQ(length, column.size() + 1);
        EXPECT_EQ(name[column.size()], 7U);
    }
}

// Traces

const std::string notFound = std::to_string(0x40490002);

TEST_F(RowTables, ACopyGetOfARowTracesEntryAndMatching) {
    add({7});
    get(50, {7});
    EXPECT_EQ(fakes::traces(), (Traces{{101, "Entering get_orvexFlashCopyTable....\n"},
                                       {101, "header_flashCopyEntry : Entering \n"}}));
}

TEST_F(RowTables, ACopyGetOfAMissingRowTracesTheErrorAndTheFailedMatch) {
    add({7});
    get(50, {8});
    EXPECT_EQ(fakes::traces(),
              (Traces{{101, "Entering get_orvexFlashCopyTable....\n"},
                      {101, "header_flashCopyEntry : Entering \n"},
                      {101, "getFlashCopyEntry: tmp_entry is NULL\n"},
                      {100, "from header_flashCopyEntry : returning ERROR=" + notFound + " \n"},
                      {101, "header_flashCopyEntry returned MATCH_FAILED....\n"}}));
}

TEST_F(RowTables, ACopyGetnextPastTheEndTracesTheErrorAndTheFailedMatch) {
    add({7});
    getnext(50, {7});
    EXPECT_EQ(fakes::traces(),
              (Traces{{101, "Entering get_orvexFlashCopyTable....\n"},
                      {101, "header_flashCopyEntry : Entering \n"},
                      {101, "No entry in the flashCopyTable...\n"},
                      {100, "from header_flashCopyEntry : returning ERROR=" + notFound + " \n"},
                      {101, "header_flashCopyEntry returned MATCH_FAILED....\n"}}));
}

TEST_F(RowTables, AMiscOpGetOfARowTracesItsEntryOnly) {
    add({7});
    get(74, {7});
    EXPECT_EQ(fakes::traces(), (Traces{{101, "Entering get_orvexFlashMiscOpTable\n"}}));
}

TEST_F(RowTables, AMiscOpGetOfAMissingRowTracesTheFailedMatchWithoutAnError) {
    add({7});
    get(74, {8});
    EXPECT_EQ(fakes::traces(), (Traces{{101, "Entering get_orvexFlashMiscOpTable\n"},
                                       {101, "getFlashMiscOpEntry: tmp_entry is NULL\n"},
                                       {101, "header_flashMiscOpEntry returned "
                                             "MATCH_FAILED....\n"}}));
}

TEST_F(RowTables, AMiscOpGetnextPastTheEndTracesTheFailedMatchWithoutAnError) {
    add({7});
    getnext(74, {7});
    EXPECT_EQ(fakes::traces(), (Traces{{101, "Entering get_orvexFlashMiscOpTable\n"},
                                       {101, "No entry in the flashMiscOpTable...\n"},
                                       {101, "header_flashMiscOpEntry returned "
                                             "MATCH_FAILED....\n"}}));
}

TEST_F(RowTables, TheCopyStatusIsTraced) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.copyStatus = 12; });
    fakes::forget();
    get(56, {7});
    EXPECT_EQ(fakes::last_trace(),
              (fakes::Trace{101, "get_orvexFlashCopyTable: Flash copy status is 12\n"}));
}

TEST_F(RowTables, TheEntryStatusIsTraced) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = 5; });
    fakes::forget();
    get(59, {7});
    EXPECT_EQ(fakes::last_trace(),
              (fakes::Trace{101, "get_orvexFlashCopyTable: Flash copy entry status is 5\n"}));
}

TEST_F(RowTables, NoOtherColumnTracesItsValue) {
    add({7});
    for (const Column &column : columns())
        if (column.magic != 56 && column.magic != 59) {
            fakes::forget();
            get(column.magic, {7});
            for (const fakes::Trace &trace : fakes::traces())
                EXPECT_EQ(trace.text.find("status is"), std::string::npos) << column.magic;
        }
}

TEST_F(RowTables, TheTracedCopyStatusIsThatOfTheStoredRow) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.copyStatus = 1; });
    flashCopyEntry stored = *fakes::stored_copy_row(7);
    stored.copyStatus = 2;
    fakes::forget();
    // The first look-up matches the row, the second finds the row as the store holds it.
    auto original = platform().ordset_find;
    int lookups = 0;
    platform().ordset_find.does([&](const ordset *set, const void *key, int flags) -> void * {
        return ++lookups == 1 ? original(set, key, flags) : &stored;
    });
    EXPECT_EQ(get(56, {7}).integer(), 1);
    EXPECT_TRUE(fakes::traced(101, "get_orvexFlashCopyTable: Flash copy status is 2\n"));
}

TEST_F(RowTables, ACopyTableThatIsEmptyAfterAMatchIsTracedAndAnsweredWithNull) {
    add({7});
    platform().ordset_size.always(0);
    const Answer answer = getnext(50);
    EXPECT_EQ(answer.value, nullptr);
    EXPECT_EQ(fakes::last_trace(), (fakes::Trace{101, "flashCopyTable does not exist....\n"}));
    EXPECT_EQ(answer.write_method, &set_orvexFlashCopyCommand);
}

TEST_F(RowTables, ARowThatIsGoneFromACopyTableWithOthersIsAnsweredAsItMatched) {
    fakes::add_copy_row(3);
    for (const Column &column : columns()) {
        if (column.magic > 60)
            continue;
        SCOPED_TRACE(column.magic);
        fakes::add_copy_row(7, [](flashCopyEntry &row) { fill(row); });
        fakes::forget();
        // The row leaves the store between the match and the second look-up.
        auto original = platform().ordset_find;
        int lookups = 0;
        platform().ordset_find.does([&](const ordset *set, const void *key, int flags) -> void * {
            return ++lookups == 1 ? original(set, key, flags) : nullptr;
        });
        const Answer answer = get(column.magic, {7});
        EXPECT_EQ(lookups, 2);
        EXPECT_EQ(answer.text(), column.value);
        for (const fakes::Trace &trace : fakes::traces()) {
            EXPECT_EQ(trace.text.find("does not exist"), std::string::npos) << trace.text;
            EXPECT_EQ(trace.text.find("Flash copy status"), std::string::npos) << trace.text;
        }
        platform().ordset_find.normal();
        const flashCopyEntry row = *fakes::stored_copy_row(7);
        ASSERT_EQ(deleteFlashCopyEntry(&row), flash::success);
    }
}

} // namespace
