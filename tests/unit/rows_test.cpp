// Rows of both writable tables: their defaults, their stores, the look-ups.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <cstddef>
#include <cstring>
#include <vector>

namespace {

using namespace fakes;
using flash::failure;
using flash::noSuchRow;
using flash::success;

// What the two tables have in common, by table.
struct CopyTable {
    using Row = flashCopyEntry;
    static constexpr auto create = createFlashCopyEntry;
    static constexpr auto release = flashCopyEntry_free;
    static constexpr auto add = addFlashCopyEntry;
    static constexpr auto get = getFlashCopyEntry;
    static constexpr auto getnext = getnextFlashCopyEntry;
    static constexpr auto set = setFlashCopyEntry;
    static constexpr auto remove = deleteFlashCopyEntry;
    static constexpr auto compare = flashCopyEntry_comp_func;
    static constexpr auto with_status = get_flash_entry_with_status;
    static constexpr auto in_progress = flashcopy_inprogress;
    static constexpr auto status = &flashCopyEntry::copyStatus;
    static constexpr const char *get_on_empty = "getFlashCopyEntry: ordset_size returned 0\n";
    static constexpr const char *get_missing = "getFlashCopyEntry: tmp_entry is NULL\n";
    static constexpr const char *no_first =
        "no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n";
    static constexpr const char *no_next = "No entry in the flashCopyTable...\n";
    static constexpr const char *visited = "found entry after calling getnextFlashCopyEntry.\n";
    static constexpr const char *checking = "calling get_flash_entry_with_status()..\n";
};

struct MiscOpTable {
    using Row = flashMiscOpEntry;
    static constexpr auto create = createFlashMiscOpEntry;
    static constexpr auto release = flashMiscOpEntry_free;
    static constexpr auto add = addFlashMiscOpEntry;
    static constexpr auto get = getFlashMiscOpEntry;
    static constexpr auto getnext = getnextFlashMiscOpEntry;
    static constexpr auto set = setFlashMiscOpEntry;
    static constexpr auto remove = deleteFlashMiscOpEntry;
    static constexpr auto compare = flashMiscOpEntry_comp_func;
    static constexpr auto with_status = get_flashMiscOp_entry_with_status;
    static constexpr auto in_progress = flashdelete_inprogress;
    static constexpr auto status = &flashMiscOpEntry::operationStatus;
    static constexpr const char *get_on_empty = "getFlashMiscOpEntry: ordset_size returned 0\n";
    static constexpr const char *get_missing = "getFlashMiscOpEntry: tmp_entry is NULL\n";
    static constexpr const char *no_first =
        "no entry in the flashMiscOpTable, ordset_find_nth_obj returned NULL.\n";
    static constexpr const char *no_next = "No entry in the flashMiscOpTable...\n";
    static constexpr const char *visited = "found entry after calling getnextFlashMiscOpEntry.\n";
    static constexpr const char *checking = "calling get_flashMiscOp_entry_with_status()..\n";
};

template <class Table>
class Store : public fakes::FlashTest {
  protected:
    using Row = typename Table::Row;

    // A row whose every byte but the index is `fill`.
    static Row filled(int32_t index, int fill) {
        Row row;
        std::memset(&row, fill, sizeof row);
        row.index = index;
        return row;
    }
    static Row *created(int32_t index) {
        Row *row = Table::create();
        row->index = index;
        return row;
    }
    static void add(std::initializer_list<int32_t> indexes) {
        for (const int32_t index : indexes)
            ASSERT_EQ(Table::add(created(index)), success);
        fakes::forget();
    }
    static bool same(const Row &a, const Row &b) { return std::memcmp(&a, &b, sizeof a) == 0; }
    static bool stored(int32_t index) {
        Row row = filled(index, 0);
        return Table::get(&row) == success;
    }
    static std::vector<int32_t> walk() {
        std::vector<int32_t> indexes;
        Row row = filled(0, 0);
        while (indexes.size() < 100 && Table::getnext(&row) == success)
            indexes.push_back(row.index);
        return indexes;
    }
};

using Tables = testing::Types<CopyTable, MiscOpTable>;
TYPED_TEST_SUITE(Store, Tables);

using RowsTest = fakes::FlashTest;

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
