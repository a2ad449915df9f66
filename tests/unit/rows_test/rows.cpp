// Rows of both writable tables: their defaults, their order, adding them.
#include "store.h"

#include <cstring>

namespace {

using namespace rows;

// Creation

TEST_F(RowsTest, ANewCopyRowHasItsDefaultsAndZerosInAllElse) {
    fakes::set_time(1700000000, 123456);
    flashCopyEntry *row = createFlashCopyEntry();
    ASSERT_NE(row, nullptr);

    flashCopyEntry expected;
    std::memset(&expected, 0, sizeof expected);
    expected.command = 1;
    expected.protocol = 1;
    expected.serverAddress = 0xffffffff;
    expected.copyStatus = 17;
    expected.notifyOnCompletion = 2;
    expected.creationTime = 1700000000;
    expected.endTime = 1700000000;
    EXPECT_EQ(row->index, 0);
    EXPECT_EQ(row->command, 1);
    EXPECT_EQ(row->protocol, 1);
    EXPECT_EQ(row->serverAddress, 0xffffffffU);
    EXPECT_EQ(row->copyStatus, 17);
    EXPECT_EQ(row->notifyOnCompletion, 2);
    EXPECT_EQ(row->copyTime, 0U);
    EXPECT_EQ(row->entryStatus, 0);
    EXPECT_EQ(row->startTimestamp.seconds, 0);
    EXPECT_EQ(row->endTimestamp.seconds, 0);
    EXPECT_EQ(row->creationTime, 1700000000);
    EXPECT_EQ(row->endTime, 1700000000);
    EXPECT_EQ(row->pathKind, 0);
    EXPECT_EQ(std::memcmp(row, &expected, sizeof expected), 0);
    flashCopyEntry_free(row);
}

TEST_F(RowsTest, ANewMiscOpRowHasItsDefaultsAndZerosInAllElse) {
    flashMiscOpEntry *row = createFlashMiscOpEntry();
    ASSERT_NE(row, nullptr);

    flashMiscOpEntry expected;
    std::memset(&expected, 0, sizeof expected);
    expected.command = 3;
    expected.operationStatus = 14;
    expected.notifyOnCompletion = 2;
    EXPECT_EQ(row->index, 0);
    EXPECT_EQ(row->command, 3);
    EXPECT_EQ(row->operationStatus, 14);
    EXPECT_EQ(row->notifyOnCompletion, 2);
    EXPECT_EQ(row->operationTime, 0U);
    EXPECT_EQ(row->entryStatus, 0);
    EXPECT_EQ(std::memcmp(row, &expected, sizeof expected), 0);
    flashMiscOpEntry_free(row);
}

TYPED_TEST(Store, CreateTouchesNoStoreAndTracesNothing) {
    typename TypeParam::Row *row = TypeParam::create();
    EXPECT_EQ(fakes::container_calls(), Lines{});
    EXPECT_EQ(fakes::traces(), Traces{});
    TypeParam::release(row);
}

TYPED_TEST(Store, CreateReturnsNullWithoutAMessageWhenThereIsNoMemory) {
    fakes::Capture errors(STDERR_FILENO);
    fakes::fail_allocation(1);
    EXPECT_EQ(TypeParam::create(), nullptr);
    EXPECT_EQ(fakes::calls(), Lines{});
    EXPECT_EQ(fakes::traces(), Traces{});
    EXPECT_EQ(errors.text(), "");
}

TYPED_TEST(Store, FreeReleasesARow) {
    fakes::watch_allocations();
    typename TypeParam::Row *row = TypeParam::create();
    EXPECT_EQ(fakes::outstanding_allocations(), 1U);
    TypeParam::release(row);
    EXPECT_EQ(fakes::outstanding_allocations(), 0U);
}

// Comparison

TYPED_TEST(Store, ComparingWithNullIsMinusOne) {
    auto row = this->filled(1, 0);
    EXPECT_EQ(TypeParam::compare(nullptr, &row), -1);
    EXPECT_EQ(TypeParam::compare(&row, nullptr), -1);
    EXPECT_EQ(TypeParam::compare(nullptr, nullptr), -1);
}

TYPED_TEST(Store, ComparesIndexesAsUnsignedArcs) {
    struct Case {
        int32_t a, b;
        int result;
    };
    for (const Case &c :
         {Case{1, 2, -1}, Case{2, 1, 1}, Case{7, 7, 0}, Case{0, 1, -1}, Case{1, 257, -1},
          Case{257, 1, 1}, Case{256, 0, 1}, Case{0, 256, -1}, Case{INT32_MAX, INT32_MIN, -1},
          Case{-1, 1, 1}, Case{1, -1, -1}, Case{-1, -2, 1}, Case{-1, -1, 0}}) {
        auto a = this->filled(c.a, 0);
        auto b = this->filled(c.b, 0);
        EXPECT_EQ(TypeParam::compare(&a, &b), c.result) << c.a << " and " << c.b;
    }
}

TYPED_TEST(Store, OnlyTheIndexDecidesTheOrder) {
    auto a = this->filled(5, 0x00);
    auto b = this->filled(5, 0x7f);
    EXPECT_EQ(TypeParam::compare(&a, &b), 0);
}

// Add

TYPED_TEST(Store, TheFirstAddCreatesTheContainerAndInsertsTheRowUnderItself) {
    ASSERT_EQ(TypeParam::add(this->created(7)), success);
    EXPECT_EQ(fakes::container_calls("ordset_create"), (Lines{"ordset_create 1 1 compare 1"}));
    EXPECT_EQ(fakes::container_calls("ordset_add"), (Lines{"ordset_add key=7"}));
}

TYPED_TEST(Store, TheContainerIsOrderedByTheTablesComparison) {
    ordset_compare given = nullptr;
    auto original = platform().ordset_create;
    platform().ordset_create.does(
        [&](ordset *set, int kind, int keys, ordset_compare compare, int flags) {
            given = compare;
            return original(set, kind, keys, compare, flags);
        });
    ASSERT_EQ(TypeParam::add(this->created(7)), success);
    EXPECT_EQ(given, static_cast<ordset_compare>(TypeParam::compare));
}

TYPED_TEST(Store, FurtherAddsDoNotCreateTheContainerAgain) {
    this->add({7});
    ASSERT_EQ(TypeParam::add(this->created(3)), success);
    EXPECT_EQ(fakes::container_calls("ordset_create"), Lines{});
    EXPECT_EQ(fakes::container_calls("ordset_add"), (Lines{"ordset_add key=3"}));
}

TYPED_TEST(Store, TheFirstAddFailsWhenTheInsertReturnsNull) {
    platform().ordset_add.returns(nullptr);
    auto *row = this->created(7);
    EXPECT_EQ(TypeParam::add(row), failure);
    EXPECT_FALSE(this->stored(7));
    TypeParam::release(row);
}

TYPED_TEST(Store, AFurtherAddFailsWhenTheInsertReturnsNull) {
    this->add({7});
    platform().ordset_add.returns(nullptr);
    auto *row = this->created(8);
    EXPECT_EQ(TypeParam::add(row), failure);
    TypeParam::release(row);
}

TYPED_TEST(Store, AFurtherAddFailsUnlessTheInsertReturnsTheRowItself) {
    this->add({7});
    auto other = this->filled(8, 0);
    platform().ordset_add.returns(&other);
    auto *row = this->created(8);
    EXPECT_EQ(TypeParam::add(row), failure);
    TypeParam::release(row);
}

TYPED_TEST(Store, AddingAnIndexAgainFailsAndKeepsTheStoredRow) {
    this->add({7});
    auto *row = this->created(7);
    row->*TypeParam::status = 99;
    EXPECT_EQ(TypeParam::add(row), failure);
    auto found = this->filled(7, 0);
    ASSERT_EQ(TypeParam::get(&found), success);
    EXPECT_NE(found.*TypeParam::status, 99);
    TypeParam::release(row);
}

TYPED_TEST(Store, ARowThatWasNotAddedStaysTheCallers) {
    this->add({7});
    fakes::watch_allocations();
    auto *row = this->created(7);
    ASSERT_EQ(TypeParam::add(row), failure);
    EXPECT_EQ(fakes::outstanding_allocations(), 1U);
    TypeParam::release(row);
    EXPECT_EQ(fakes::outstanding_allocations(), 0U);
}

TYPED_TEST(Store, AfterTheLastRowIsDeletedTheNextAddCreatesTheContainerAgainAndSucceeds) {
    this->add({7});
    auto key = this->filled(7, 0);
    ASSERT_EQ(TypeParam::remove(&key), success);
    fakes::forget();
    ASSERT_EQ(TypeParam::add(this->created(7)), success);
    EXPECT_EQ(fakes::container_calls("ordset_create"), (Lines{"ordset_create 1 1 compare 1"}));
    EXPECT_TRUE(this->stored(7));
}

TYPED_TEST(Store, AddTracesNothing) {
    TypeParam::add(this->created(1));
    TypeParam::add(this->created(2));
    auto *row = this->created(2);
    TypeParam::add(row);
    TypeParam::release(row);
    EXPECT_EQ(fakes::traces(), Traces{});
}

} // namespace
