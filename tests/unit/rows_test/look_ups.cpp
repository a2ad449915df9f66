// The columns' write methods, and the look-ups over a whole table.
#include "store.h"

#include "flash_write.h"

#include <vector>

namespace {

using namespace rows;

// Write methods

struct Method {
    int magic;
    WriteMethod *method;
};

WriteMethod *installed(void (*install)(int32_t, WriteMethod **), int magic, WriteMethod *before) {
    WriteMethod *method = before;
    install(magic, &method);
    return method;
}

void expect_methods(void (*install)(int32_t, WriteMethod **), const std::vector<Method> &writable) {
    for (int magic = 0; magic < 256; ++magic) {
        WriteMethod *expected = untouched;
        for (const Method &method : writable)
            if (method.magic == magic)
                expected = method.method;
        EXPECT_EQ(installed(install, magic, untouched), expected) << magic;
    }
}

TEST_F(RowsTest, EveryWritableCopyColumnGetsItsSetHandlerAndNoOtherMagicIsTouched) {
    expect_methods(set_flashCopyTable_setmethods, {{50, set_orvexFlashCopyCommand},
                                                   {51, set_orvexFlashCopyProtocol},
                                                   {52, set_orvexFlashCopyServerAddress},
                                                   {53, set_orvexFlashCopySourceName},
                                                   {54, set_orvexFlashCopyDestinationName},
                                                   {55, set_orvexFlashCopyRemoteUserName},
                                                   {57, set_orvexFlashCopyNotifyOnCompletion},
                                                   {59, set_orvexFlashCopyEntryStatus},
                                                   {60, set_orvexFlashCopyPassword}});
}

TEST_F(RowsTest, EveryWritableMiscOpColumnGetsItsSetHandlerAndNoOtherMagicIsTouched) {
    expect_methods(set_flashMiscOpTable_setmethods, {{74, set_orvexFlashMiscOpCommand},
                                                     {75, set_orvexFlashMiscOpDestinationName},
                                                     {77, set_orvexFlashMiscOpNotifyOnCompletion},
                                                     {79, set_orvexFlashMiscOpEntryStatus}});
}

// Look-ups by status

TYPED_TEST(Store, ALookupByStatusFindsTheFirstRowWithIt) {
    auto *two = this->created(2);
    two->*TypeParam::status = 2;
    auto *five = this->created(5);
    five->*TypeParam::status = 1;
    ASSERT_EQ(TypeParam::add(two), success);
    ASSERT_EQ(TypeParam::add(five), success);

    auto found = this->filled(77, 0x11);
    EXPECT_EQ(TypeParam::with_status(1, &found), success);
    EXPECT_EQ(found.index, 5);
    EXPECT_TRUE(this->same(found, *five));
    EXPECT_EQ(TypeParam::in_progress(), 1);
}

TYPED_TEST(Store, OfTwoRowsWithTheStatusTheOneWithTheLowerIndexIsReturned) {
    for (const int32_t index : {9, 4}) {
        auto *row = this->created(index);
        row->*TypeParam::status = 10;
        ASSERT_EQ(TypeParam::add(row), success);
    }
    auto found = this->filled(0, 0);
    EXPECT_EQ(TypeParam::with_status(10, &found), success);
    EXPECT_EQ(found.index, 4);
}

TYPED_TEST(Store, ALookupByStatusTracesEveryVisitedRow) {
    this->add({2, 3});
    auto *five = this->created(5);
    five->*TypeParam::status = 1;
    ASSERT_EQ(TypeParam::add(five), success);
    auto found = this->filled(0, 0);
    ASSERT_EQ(TypeParam::with_status(1, &found), success);
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::visited},
                                       {101, TypeParam::visited},
                                       {101, TypeParam::visited},
                                       {101, "Now checking the status\n"}}));
}

TYPED_TEST(Store, ALookupByStatusWalksTheStoreFromItsBeginning) {
    this->add({2, 3});
    auto found = this->filled(3, 0);
    EXPECT_EQ(TypeParam::with_status(1, &found), failure);
    EXPECT_EQ(fakes::container_calls("ordset_find"),
              (Lines{"ordset_find_nth_obj n=1", "ordset_find_nextgreater key=2",
                     "ordset_find_nextgreater key=3"}));
}

TYPED_TEST(Store, ALookupByStatusWithoutSuchARowFailsWithTheLastRowSeen) {
    this->add({2, 3});
    auto found = this->filled(0, 0x11);
    EXPECT_EQ(TypeParam::with_status(1, &found), failure);
    EXPECT_EQ(found.index, 3);
    EXPECT_EQ(
        fakes::traces(),
        (Traces{{101, TypeParam::visited}, {101, TypeParam::visited}, {101, TypeParam::no_next}}));
}

TYPED_TEST(Store, ALookupByStatusInAnEmptyTableFailsWithTheRecordAsItWasButForTheIndex) {
    auto found = this->filled(9, 0x11);
    EXPECT_EQ(TypeParam::with_status(1, &found), failure);
    EXPECT_TRUE(this->same(found, this->filled(0, 0x11)));
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::no_first}}));
}

TYPED_TEST(Store, NothingIsInProgressWithoutRows) { EXPECT_EQ(TypeParam::in_progress(), 0); }

TYPED_TEST(Store, NothingIsInProgressWithoutARowOfStatusOne) {
    this->add({2, 3});
    EXPECT_EQ(TypeParam::in_progress(), 0);
}

TYPED_TEST(Store, TheInProgressCheckTracesBeforeItLooks) {
    auto *row = this->created(5);
    row->*TypeParam::status = 1;
    ASSERT_EQ(TypeParam::add(row), success);
    EXPECT_EQ(TypeParam::in_progress(), 1);
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::checking},
                                       {101, TypeParam::visited},
                                       {101, "Now checking the status\n"}}));
}

// Look-up by index

TEST_F(RowsTest, ALookupByIndexFindsTheCopyRow) {
    fakes::add_copy_row(2);
    fakes::add_copy_row(5, [](flashCopyEntry &row) { fakes::put(row.sourceName, "five"); });
    flashCopyEntry found{};
    EXPECT_EQ(get_flash_entry_with_index(5, &found), success);
    EXPECT_EQ(found.index, 5);
    EXPECT_STREQ(found.sourceName, "five");
}

TEST_F(RowsTest, ALookupByIndexScansAndTracesEveryVisitedRow) {
    for (const int32_t index : {2, 3, 5, 8})
        fakes::add_copy_row(index);
    fakes::forget();
    flashCopyEntry found{};
    ASSERT_EQ(get_flash_entry_with_index(5, &found), success);
    EXPECT_EQ(fakes::traces(), (Traces{{101, "looking for entry with index=5\n"},
                                       {101, CopyTable::visited},
                                       {101, CopyTable::visited},
                                       {101, CopyTable::visited},
                                       {101, "Now checking the row\n"}}));
    EXPECT_EQ(fakes::container_calls("ordset_find"),
              (Lines{"ordset_find_nth_obj n=1", "ordset_find_nextgreater key=2",
                     "ordset_find_nextgreater key=3"}));
}

TEST_F(RowsTest, ALookupOfAMissingIndexFails) {
    fakes::add_copy_row(2);
    fakes::forget();
    flashCopyEntry found{};
    EXPECT_EQ(get_flash_entry_with_index(5, &found), failure);
    EXPECT_EQ(fakes::traces(), (Traces{{101, "looking for entry with index=5\n"},
                                       {101, CopyTable::visited},
                                       {101, CopyTable::no_next}}));
}

TEST_F(RowsTest, ALookupByIndexInAnEmptyTableFailsWithTheRecordAsItWasButForTheIndex) {
    flashCopyEntry found{};
    found.index = 9;
    found.command = 42;
    EXPECT_EQ(get_flash_entry_with_index(5, &found), failure);
    EXPECT_EQ(found.index, 0);
    EXPECT_EQ(found.command, 42);
}

TEST_F(RowsTest, ALookupByAnIndexAbove2To31FindsItsRow) {
    fakes::add_copy_row(1);
    fakes::add_copy_row(-1);
    flashCopyEntry found{};
    EXPECT_EQ(get_flash_entry_with_index(4294967295U, &found), success);
    EXPECT_EQ(found.index, -1);
    EXPECT_TRUE(fakes::traced(101, "looking for entry with index=-1\n"));
}

} // namespace
