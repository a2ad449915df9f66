// The stores: get, next, set, delete.
#include "store.h"

namespace {

using namespace rows;

// Get

TYPED_TEST(Store, GetCopiesTheWholeStoredRow) {
    auto *row = this->created(7);
    const auto wanted = this->filled(7, 0x5a);
    *row = wanted;
    ASSERT_EQ(TypeParam::add(row), success);
    auto found = this->filled(7, 0x11);
    EXPECT_EQ(TypeParam::get(&found), success);
    EXPECT_TRUE(this->same(found, wanted));
}

TYPED_TEST(Store, GetLooksTheIndexUpWithZeroFlagsAndTracesNothing) {
    this->add({7});
    auto found = this->filled(7, 0);
    ASSERT_EQ(TypeParam::get(&found), success);
    EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find key=7 flags=0"}));
    EXPECT_EQ(fakes::traces(), Traces{});
}

TYPED_TEST(Store, GetOnAnEmptyTableIsNoSuchRowWithItsTrace) {
    auto row = this->filled(7, 0x33);
    const auto before = row;
    EXPECT_EQ(TypeParam::get(&row), noSuchRow);
    EXPECT_EQ(noSuchRow, 0x40490002);
    EXPECT_TRUE(this->same(row, before));
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::get_on_empty}}));
    EXPECT_EQ(fakes::container_calls("ordset_find"), Lines{});
}

TYPED_TEST(Store, GetOfAMissingIndexIsNoSuchRowWithItsOwnTrace) {
    this->add({7});
    auto row = this->filled(8, 0x33);
    const auto before = row;
    EXPECT_EQ(TypeParam::get(&row), noSuchRow);
    EXPECT_TRUE(this->same(row, before));
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::get_missing}}));
}

TYPED_TEST(Store, GetHandsOutACopyAndNotTheStoredRow) {
    this->add({7});
    auto row = this->filled(7, 0);
    ASSERT_EQ(TypeParam::get(&row), success);
    row.*TypeParam::status = 99;
    auto again = this->filled(7, 0);
    ASSERT_EQ(TypeParam::get(&again), success);
    EXPECT_NE(again.*TypeParam::status, 99);
}

// Getnext

TYPED_TEST(Store, GetnextFromZeroOnATableNeverUsedIsNoSuchRowWithItsTrace) {
    auto row = this->filled(0, 0x33);
    const auto before = row;
    EXPECT_EQ(TypeParam::getnext(&row), noSuchRow);
    EXPECT_TRUE(this->same(row, before));
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::no_first}}));
}

TYPED_TEST(Store, GetnextFromZeroOnAnEmptiedTableIsNoSuchRowWithItsTrace) {
    this->add({7});
    auto row = this->filled(7, 0x33);
    ASSERT_EQ(TypeParam::remove(&row), success);
    fakes::forget();
    row.index = 0;
    EXPECT_EQ(TypeParam::getnext(&row), noSuchRow);
    EXPECT_EQ(row.index, 0);
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::no_first}}));
}

TYPED_TEST(Store, GetnextFromAnIndexOnAnEmptyTableIsTheEndOfTheTable) {
    auto row = this->filled(5, 0);
    EXPECT_EQ(TypeParam::getnext(&row), noSuchRow);
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::no_next}}));
}

TYPED_TEST(Store, GetnextFromZeroTakesTheFirstRow) {
    this->add({9, 3, 7});
    auto row = this->filled(0, 0);
    EXPECT_EQ(TypeParam::getnext(&row), success);
    EXPECT_EQ(row.index, 3);
    EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find_nth_obj n=1"}));
    EXPECT_EQ(fakes::traces(), Traces{});
}

TYPED_TEST(Store, GetnextFromAnIndexTakesTheNextGreaterRow) {
    this->add({3, 7, 9});
    auto row = this->filled(3, 0);
    EXPECT_EQ(TypeParam::getnext(&row), success);
    EXPECT_EQ(row.index, 7);
    EXPECT_EQ(fakes::container_calls("ordset_find"), (Lines{"ordset_find_nextgreater key=3"}));
    EXPECT_EQ(fakes::traces(), Traces{});
}

TYPED_TEST(Store, GetnextFromAnIndexThatIsNotInTheTableReturnsTheNextHigherRow) {
    this->add({3, 7, 9});
    auto row = this->filled(5, 0);
    EXPECT_EQ(TypeParam::getnext(&row), success);
    EXPECT_EQ(row.index, 7);
}

TYPED_TEST(Store, GetnextFromTheHighestIndexIsNoSuchRowWithTheEndsTrace) {
    this->add({3, 7});
    auto row = this->filled(7, 0x33);
    const auto before = row;
    EXPECT_EQ(TypeParam::getnext(&row), noSuchRow);
    EXPECT_TRUE(this->same(row, before));
    EXPECT_EQ(fakes::traces(), (Traces{{101, TypeParam::no_next}}));
}

TYPED_TEST(Store, GetnextCopiesTheWholeStoredRow) {
    auto *row = this->created(7);
    const auto wanted = this->filled(7, 0x5a);
    *row = wanted;
    ASSERT_EQ(TypeParam::add(row), success);
    auto found = this->filled(0, 0x11);
    EXPECT_EQ(TypeParam::getnext(&found), success);
    EXPECT_TRUE(this->same(found, wanted));
}

TYPED_TEST(Store, AWalkVisitsEveryRowOnceInAscendingOrder) {
    this->add({40, 2, 1000000, 17, 3});
    EXPECT_THAT(this->walk(), ElementsAre(2, 3, 17, 40, 1000000));
}

TYPED_TEST(Store, IndexesAbove2To31SortLast) {
    this->add({-1, 5, INT32_MIN, INT32_MAX});
    EXPECT_THAT(this->walk(), ElementsAre(5, INT32_MAX, INT32_MIN, -1));
}

TYPED_TEST(Store, GetnextFromTheLastPossibleIndexIsTheEndOfTheTable) {
    this->add({1, -1});
    auto row = this->filled(-1, 0);
    EXPECT_EQ(TypeParam::getnext(&row), noSuchRow);
}

TYPED_TEST(Store, ARowZeroWouldBeReturnedFromItsOwnIndexAgain) {
    this->add({0, 4});
    auto row = this->filled(0, 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(TypeParam::getnext(&row), success);
        EXPECT_EQ(row.index, 0);
    }
}

// Set

TYPED_TEST(Store, SetOverwritesTheWholeStoredRow) {
    this->add({7});
    const auto wanted = this->filled(7, 0x5a);
    EXPECT_EQ(TypeParam::set(&wanted), success);
    auto found = this->filled(7, 0);
    ASSERT_EQ(TypeParam::get(&found), success);
    EXPECT_TRUE(this->same(found, wanted));
}

TYPED_TEST(Store, SetOnAnEmptyTableIsNoSuchRow) {
    const auto row = this->filled(7, 0);
    EXPECT_EQ(TypeParam::set(&row), noSuchRow);
}

TYPED_TEST(Store, SetOfAMissingIndexIsNoSuchRowAndAddsNone) {
    this->add({7});
    const auto row = this->filled(8, 0);
    EXPECT_EQ(TypeParam::set(&row), noSuchRow);
    EXPECT_THAT(this->walk(), ElementsAre(7));
}

TYPED_TEST(Store, SetLeavesTheOtherRowsAlone) {
    this->add({6, 7, 8});
    auto six = this->filled(6, 0);
    ASSERT_EQ(TypeParam::get(&six), success);
    const auto row = this->filled(7, 0x5a);
    ASSERT_EQ(TypeParam::set(&row), success);
    auto again = this->filled(6, 0);
    ASSERT_EQ(TypeParam::get(&again), success);
    EXPECT_TRUE(this->same(six, again));
    EXPECT_THAT(this->walk(), ElementsAre(6, 7, 8));
}

TYPED_TEST(Store, SetTracesNothing) {
    auto row = this->filled(7, 0);
    TypeParam::set(&row);
    this->add({8});
    TypeParam::set(&row);
    row.index = 8;
    TypeParam::set(&row);
    EXPECT_EQ(fakes::traces(), Traces{});
}

// Delete

TYPED_TEST(Store, DeleteRemovesTheRow) {
    this->add({3, 7, 9});
    const auto key = this->filled(7, 0);
    EXPECT_EQ(TypeParam::remove(&key), success);
    EXPECT_THAT(this->walk(), ElementsAre(3, 9));
}

TYPED_TEST(Store, DeleteReleasesTheStoredRow) {
    fakes::watch_allocations();
    ASSERT_EQ(TypeParam::add(this->created(7)), success);
    ASSERT_EQ(fakes::outstanding_allocations(), 1U);
    const auto key = this->filled(7, 0);
    EXPECT_EQ(TypeParam::remove(&key), success);
    EXPECT_EQ(fakes::outstanding_allocations(), 0U);
}

TYPED_TEST(Store, DeleteDoesNotTouchTheCallersRecord) {
    this->add({7});
    const auto key = this->filled(7, 0x44);
    const auto before = key;
    ASSERT_EQ(TypeParam::remove(&key), success);
    EXPECT_TRUE(this->same(key, before));
}

TYPED_TEST(Store, DeleteOnAnEmptyTableFails) {
    const auto key = this->filled(7, 0);
    EXPECT_EQ(TypeParam::remove(&key), failure);
    EXPECT_EQ(failure, 0x40490001);
}

TYPED_TEST(Store, DeleteOfAMissingIndexFailsAndRemovesNothing) {
    this->add({7});
    const auto key = this->filled(8, 0);
    EXPECT_EQ(TypeParam::remove(&key), failure);
    EXPECT_THAT(this->walk(), ElementsAre(7));
}

TYPED_TEST(Store, DeleteFailsWhenTheContainerDoesNotGiveTheRowUp) {
    this->add({7});
    platform().ordset_remove.returns(nullptr);
    const auto key = this->filled(7, 0);
    EXPECT_EQ(TypeParam::remove(&key), failure);
    EXPECT_TRUE(this->stored(7));
}

TYPED_TEST(Store, DeleteTracesNothing) {
    auto key = this->filled(7, 0);
    TypeParam::remove(&key);
    this->add({7, 8});
    key.index = 9;
    TypeParam::remove(&key);
    key.index = 7;
    TypeParam::remove(&key);
    EXPECT_EQ(fakes::traces(), Traces{});
}

TEST_F(RowsTest, TheTwoTablesAreApart) {
    fakes::add_copy_row(7);
    fakes::add_misc_row(8);
    EXPECT_TRUE(fakes::stored_copy_row(7));
    EXPECT_FALSE(fakes::stored_copy_row(8));
    EXPECT_TRUE(fakes::stored_misc_row(8));
    EXPECT_FALSE(fakes::stored_misc_row(7));
}

} // namespace
