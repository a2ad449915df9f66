// GET handlers of the copy table and the misc-operation table.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <cstring>
#include <vector>

namespace {

using namespace fakes;

// A column of each table with which the tests of matching are made.
constexpr int copyCommand = 50;
constexpr int miscOpCommand = 74;
constexpr int firstColumns[] = {copyCommand, miscOpCommand};

std::string bytes_of(int32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

struct Column {
    int magic;
    std::string value; // of the row that fill() makes
    WriteMethod *method;
};

void fill(flashCopyEntry &row) {
    row.command = 3;
    row.protocol = 4;
    std::memcpy(&row.serverAddress, "\xc0\x01\x02\x09", 4);
    put(row.sourceName, "bootflash:source.bin");
    put(row.destinationName, "slot0:destination.bin");
    put(row.remoteUserName, "remote-user");
    put(row.password, "secret");
    row.copyStatus = 12;
    row.notifyOnCompletion = 1;
    row.copyTime = 1234567890;
    row.entryStatus = 5;
}

void fill(flashMiscOpEntry &row) {
    row.command = 7;
    put(row.destinationName, "bootflash:old.bin");
    row.operationStatus = 10;
    row.notifyOnCompletion = 1;
    row.operationTime = 987654321;
    row.entryStatus = 6;
}

const std::vector<Column> &columns() {
    static const std::vector<Column> all{
        {50, bytes_of(3), set_orvexFlashCopyCommand},
        {51, bytes_of(4), set_orvexFlashCopyProtocol},
        {52, "\xc0\x01\x02\x09", set_orvexFlashCopyServerAddress},
        {53, "bootflash:source.bin", set_orvexFlashCopySourceName},
        {54, "slot0:destination.bin", set_orvexFlashCopyDestinationName},
        {55, "remote-user", set_orvexFlashCopyRemoteUserName},
        {56, bytes_of(12), untouched},
        {57, bytes_of(1), set_orvexFlashCopyNotifyOnCompletion},
        {58, bytes_of(1234567890), untouched},
        {59, bytes_of(5), set_orvexFlashCopyEntryStatus},
        {60, "", set_orvexFlashCopyPassword},
        {74, bytes_of(7), set_orvexFlashMiscOpCommand},
        {75, "bootflash:old.bin", set_orvexFlashMiscOpDestinationName},
        {76, bytes_of(10), untouched},
        {77, bytes_of(1), set_orvexFlashMiscOpNotifyOnCompletion},
        {78, bytes_of(987654321), untouched},
        {79, bytes_of(6), set_orvexFlashMiscOpEntryStatus},
    };
    return all;
}

class RowTables : public fakes::FlashTest {
  protected:
    // Rows of both tables under these indexes; nothing recorded of it.
    static void add(std::initializer_list<int32_t> indexes) {
        for (const int32_t index : indexes) {
            fakes::add_copy_row(index);
            fakes::add_misc_row(index);
        }
        fakes::forget();
    }
};

// Values

class RowTableColumn : public RowTables, public testing::WithParamInterface<size_t> {
  protected:
    void SetUp() override {
        RowTables::SetUp();
        fakes::add_copy_row(7, [](flashCopyEntry &row) { fill(row); });
        fakes::add_misc_row(7, [](flashMiscOpEntry &row) { fill(row); });
        fakes::forget();
    }
    static const Column &column() { return columns()[GetParam()]; }
};

TEST_P(RowTableColumn, GetAnswersTheValueOfTheRow) {
    const Answer answer = get(column().magic, {7});
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.length, column().value.size());
    EXPECT_EQ(answer.text(), column().value);
    EXPECT_EQ(answer.name, instance_of(column().magic, {7}));
}

TEST_P(RowTableColumn, GetnextAnswersTheValueOfTheNextRow) {
    const Answer answer = getnext(column().magic, {6});
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.text(), column().value);
    EXPECT_EQ(answer.name, instance_of(column().magic, {7}));
}

TEST_P(RowTableColumn, OffersTheSetHandlerOfAWritableColumnOnly) {
    EXPECT_EQ(
        ask(column().magic, instance_of(column().magic, {7}), true, {}, untouched).write_method,
        column().method);
}

TEST_P(RowTableColumn, OffersTheSetHandlerForARowThatDoesNotExistToo) {
    const Answer answer =
        ask(column().magic, instance_of(column().magic, {8}), true, {}, untouched);
    EXPECT_EQ(answer.value, nullptr);
    EXPECT_EQ(answer.write_method, column().method);
}

INSTANTIATE_TEST_SUITE_P(Columns, RowTableColumn, testing::Range(size_t{0}, size_t{17}),
                         [](const auto &row) {
                             return "Magic" + std::to_string(columns()[row.param].magic);
                         });

TEST_F(RowTables, ReadOnlyColumnsKeepTheAgentsEmptyWriteMethod) {
    add({7});
    for (const int magic : {56, 58, 76, 78})
        EXPECT_EQ(get(magic, {7}).write_method, nullptr) << magic;
}

TEST_F(RowTables, AGetOnAWritableColumnOfAnEmptyTableReturnsNullWithItsWriteMethod) {
    EXPECT_EQ(get(50, {7}).value, nullptr);
    EXPECT_EQ(get(50, {7}).write_method, &set_orvexFlashCopyCommand);
    EXPECT_EQ(get(79, {7}).value, nullptr);
    EXPECT_EQ(get(79, {7}).write_method, &set_orvexFlashMiscOpEntryStatus);
}

TEST_F(RowTables, ANewCopyRowReadsItsDefaults) {
    add({7});
    EXPECT_EQ(get(50, {7}).integer(), 1);
    EXPECT_EQ(get(51, {7}).integer(), 1);
    EXPECT_EQ(get(52, {7}).text(), "\xff\xff\xff\xff");
    EXPECT_EQ(get(53, {7}).length, 0U);
    EXPECT_EQ(get(54, {7}).length, 0U);
    EXPECT_EQ(get(55, {7}).length, 0U);
    EXPECT_EQ(get(56, {7}).integer(), 17);
    EXPECT_EQ(get(57, {7}).integer(), 2);
    EXPECT_EQ(get(58, {7}).integer(), 0);
    EXPECT_EQ(get(59, {7}).integer(), 0);
}

TEST_F(RowTables, ANewMiscOpRowReadsItsDefaults) {
    add({7});
    EXPECT_EQ(get(74, {7}).integer(), 3);
    EXPECT_EQ(get(75, {7}).length, 0U);
    EXPECT_EQ(get(76, {7}).integer(), 14);
    EXPECT_EQ(get(77, {7}).integer(), 2);
    EXPECT_EQ(get(78, {7}).integer(), 0);
    EXPECT_EQ(get(79, {7}).integer(), 0);
}

TEST_F(RowTables, ThePasswordReadsAsAnEmptyStringThatIsThere) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { put(row.password, "secret"); });
    for (const Answer &answer : {get(60, {7}), getnext(60)}) {
        ASSERT_NE(answer.value, nullptr);
        EXPECT_EQ(answer.length, 0U);
        EXPECT_EQ(answer.value[0], '\0');
    }
}

TEST_F(RowTables, NamesOf255CharactersAreAnsweredWhole) {
    const std::string name(255, 'n');
    fakes::add_copy_row(7, [&](flashCopyEntry &row) {
        put(row.sourceName, name);
        put(row.destinationName, name);
        put(row.remoteUserName, name);
    });
    fakes::add_misc_row(7, [&](flashMiscOpEntry &row) { put(row.destinationName, name); });
    for (const int magic : {53, 54, 55, 75})
        EXPECT_EQ(get(magic, {7}).text(), name) << magic;
}

TEST_F(RowTables, AValueStaysValidAfterTheHandlerReturnedAndIsReplacedByTheNextRequest) {
    fakes::add_copy_row(3, [](flashCopyEntry &row) { row.command = 30; });
    fakes::add_copy_row(4, [](flashCopyEntry &row) { row.command = 40; });
    const Answer first = get(50, {3});
    EXPECT_EQ(first.integer(), 30);
    const Answer second = get(50, {4});
    EXPECT_EQ(second.value, first.value);
    EXPECT_EQ(first.integer(), 40);
}

TEST_F(RowTables, AValueIsACopyOfTheStoredRow) {
    fakes::add_copy_row(3, [](flashCopyEntry &row) { row.command = 30; });
    const Answer answer = get(50, {3});
    flashCopyEntry row = *fakes::stored_copy_row(3);
    ASSERT_EQ(deleteFlashCopyEntry(&row), flash::success);
    EXPECT_EQ(answer.integer(), 30);
}

TEST_F(RowTables, AnUnservedMagicIsAnsweredWithAnEmptyDetailAndNull) {
    add({7});
    for (const int magic : firstColumns)
        for (const u_char unserved : {u_char{0}, u_char{49}, u_char{61}, u_char{73}, u_char{80}}) {
            fakes::forget();
            const Answer answer = ask(magic, instance_of(magic, {7}), true, unserved, untouched);
            EXPECT_EQ(answer.value, nullptr);
            EXPECT_EQ(answer.write_method, untouched);
            EXPECT_EQ(fakes::calls(), (Lines{"snmp_set_detail text="}));
        }
}

TEST_F(RowTables, AnUnservedMagicWithoutAMatchingRowSetsNoDetail) {
    add({7});
    for (const int magic : firstColumns) {
        fakes::forget();
        const Answer answer = ask(magic, instance_of(magic, {8}), true, u_char{49}, untouched);
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.write_method, untouched);
        EXPECT_EQ(fakes::calls(), Lines{});
        EXPECT_EQ(fakes::last_trace(),
                  (fakes::Trace{101, magic == copyCommand
                                         ? "header_flashCopyEntry returned MATCH_FAILED....\n"
                                         : "header_flashMiscOpEntry returned MATCH_FAILED....\n"}));
    }
}

TEST_F(RowTables, AnAnswerSetsNoDetail) {
    add({7});
    get(50, {7});
    get(50, {8});
    get(74, {7});
    get(74, {8});
    EXPECT_EQ(fakes::calls("snmp_set_detail"), Lines{});
}

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
