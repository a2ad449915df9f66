// The values of both row tables.
#include "row_tables.h"

#include "flash_write.h"

#include <cstring>

namespace {

using namespace row_tables;

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

} // namespace
