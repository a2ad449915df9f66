// The edges of the tables: stores without a row, never used or emptied; requests that begin beyond
// what a column holds; keys above 2^31-1.
#include "fakes/fixture.h"
#include "fakes/sequence.h"

#include "flash_validate.h"
#include "flash_write.h"

#include <climits>

namespace {

using namespace fakes;

constexpr int32_t no_row = 0x40490002;
constexpr int32_t failed = 0x40490001;

struct CopyStore {
    using Row = flashCopyEntry;
    static constexpr auto create = createFlashCopyEntry;
    static constexpr auto add = addFlashCopyEntry;
    static constexpr auto get = getFlashCopyEntry;
    static constexpr auto getnext = getnextFlashCopyEntry;
    static constexpr auto set = setFlashCopyEntry;
    static constexpr auto remove = deleteFlashCopyEntry;
    static constexpr auto with_status = get_flash_entry_with_status;
    static constexpr auto in_progress = flashcopy_inprogress;
    static constexpr const char *asking = "calling get_flash_entry_with_status()..\n";
    static constexpr const char *no_rows = "getFlashCopyEntry: ordset_size returned 0\n";
    static constexpr const char *no_first =
        "no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n";
    static constexpr const char *no_next = "No entry in the flashCopyTable...\n";
    static constexpr int column = flash::magicCopyCommand;
    static Lines entering() {
        return {D("Entering get_orvexFlashCopyTable....\n"),
                D("header_flashCopyEntry : Entering \n")};
    }
    static Lines unmatched() {
        return {E("from header_flashCopyEntry : returning ERROR=" + std::to_string(no_row) + " \n"),
                D("header_flashCopyEntry returned MATCH_FAILED....\n")};
    }
    static constexpr auto write_method = set_orvexFlashCopyCommand;
    static constexpr auto row_status = set_orvexFlashCopyEntryStatus;
    static constexpr int row_status_magic = flash::magicCopyEntryStatus;
};

struct MiscOpStore {
    using Row = flashMiscOpEntry;
    static constexpr auto create = createFlashMiscOpEntry;
    static constexpr auto add = addFlashMiscOpEntry;
    static constexpr auto get = getFlashMiscOpEntry;
    static constexpr auto getnext = getnextFlashMiscOpEntry;
    static constexpr auto set = setFlashMiscOpEntry;
    static constexpr auto remove = deleteFlashMiscOpEntry;
    static constexpr auto with_status = get_flashMiscOp_entry_with_status;
    static constexpr auto in_progress = flashdelete_inprogress;
    static constexpr const char *asking = "calling get_flashMiscOp_entry_with_status()..\n";
    static constexpr const char *no_rows = "getFlashMiscOpEntry: ordset_size returned 0\n";
    static constexpr const char *no_first =
        "no entry in the flashMiscOpTable, ordset_find_nth_obj returned NULL.\n";
    static constexpr const char *no_next = "No entry in the flashMiscOpTable...\n";
    static constexpr int column = flash::magicMiscOpCommand;
    static Lines entering() { return {D("Entering get_orvexFlashMiscOpTable\n")}; }
    static Lines unmatched() { return {D("header_flashMiscOpEntry returned MATCH_FAILED....\n")}; }
    static constexpr auto write_method = set_orvexFlashMiscOpCommand;
    static constexpr auto row_status = set_orvexFlashMiscOpEntryStatus;
    static constexpr int row_status_magic = flash::magicMiscOpEntryStatus;
};

template <class Table>
class EmptyStore : public fakes::FlashTest {
  protected:
    using Row = typename Table::Row;

    // Runs `check` on the store as it is found and once a row has been added and removed again.
    template <class Check>
    void never_used_and_emptied(Check check) {
        {
            SCOPED_TRACE("never used, or emptied before");
            fakes::forget();
            check();
        }
        Row *row = Table::create();
        row->index = 7;
        ASSERT_EQ(Table::add(row), flash::success);
        Row key{};
        key.index = 7;
        ASSERT_EQ(Table::remove(&key), flash::success);
        SCOPED_TRACE("emptied");
        fakes::forget();
        check();
    }
    static Row key(int32_t index) {
        Row row{};
        row.index = index;
        return row;
    }
};

using Tables = testing::Types<CopyStore, MiscOpStore>;
TYPED_TEST_SUITE(EmptyStore, Tables);

TYPED_TEST(EmptyStore, GetAsksForTheSizeAlone) {
    this->never_used_and_emptied([this] {
        auto row = this->key(7);
        EXPECT_EQ(TypeParam::get(&row), no_row);
        EXPECT_EQ(row.index, 7);
        expect_sequence({{"ordset_size", D(TypeParam::no_rows)}});
    });
}

TYPED_TEST(EmptyStore, GetnextDoesNotAskForTheSize) {
    this->never_used_and_emptied([this] {
        auto row = this->key(0);
        EXPECT_EQ(TypeParam::getnext(&row), no_row);
        row.index = 5;
        EXPECT_EQ(TypeParam::getnext(&row), no_row);
        EXPECT_EQ(row.index, 5);
        expect_sequence({{"ordset_find_nth_obj n=1", D(TypeParam::no_first),
                          "ordset_find_nextgreater key=5", D(TypeParam::no_next)}});
    });
}

TYPED_TEST(EmptyStore, SetAsksForTheSizeAloneAndSaysNothing) {
    this->never_used_and_emptied([this] {
        const auto row = this->key(7);
        EXPECT_EQ(TypeParam::set(&row), no_row);
        expect_sequence({{"ordset_size"}});
    });
}

TYPED_TEST(EmptyStore, DeleteAsksForTheSizeAloneAndSaysNothing) {
    this->never_used_and_emptied([this] {
        const auto row = this->key(7);
        EXPECT_EQ(TypeParam::remove(&row), failed);
        expect_sequence({{"ordset_size"}});
    });
}

TYPED_TEST(EmptyStore, AScanEndsAtOnceWithTheGeneralFailure) {
    this->never_used_and_emptied([this] {
        auto row = this->key(7);
        EXPECT_EQ(TypeParam::with_status(1, &row), failed);
        EXPECT_EQ(row.index, 0);
        expect_sequence({{"ordset_find_nth_obj n=1", D(TypeParam::no_first)}});
    });
}

TYPED_TEST(EmptyStore, NothingIsInProgress) {
    this->never_used_and_emptied([] {
        EXPECT_EQ(TypeParam::in_progress(), 0);
        expect_sequence(
            {{D(TypeParam::asking), "ordset_find_nth_obj n=1", D(TypeParam::no_first)}});
    });
}

TYPED_TEST(EmptyStore, AGetHasNoInstanceButTheWriteMethod) {
    this->never_used_and_emptied([] {
        const fakes::Answer answer = fakes::get(TypeParam::column, {7});
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.write_method, TypeParam::write_method);
        EXPECT_EQ(answer.name, fakes::instance_of(TypeParam::column, {7}));
        expect_sequence({TypeParam::entering(),
                         {"ordset_size", D(TypeParam::no_rows)},
                         TypeParam::unmatched()});
    });
}

TYPED_TEST(EmptyStore, AGetnextHasNoInstanceButTheWriteMethod) {
    this->never_used_and_emptied([] {
        fakes::Answer answer = fakes::getnext(TypeParam::column);
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.write_method, TypeParam::write_method);
        expect_sequence({TypeParam::entering(),
                         {"ordset_find_nth_obj n=1", D(TypeParam::no_first)},
                         TypeParam::unmatched()});
        fakes::forget();
        answer = fakes::getnext(TypeParam::column, {5});
        EXPECT_EQ(answer.value, nullptr);
        expect_sequence({TypeParam::entering(),
                         {"ordset_find_nextgreater key=5", D(TypeParam::no_next)},
                         TypeParam::unmatched()});
    });
}

TYPED_TEST(EmptyStore, AColumnIsNoSuchNameFromReserve2On) {
    this->never_used_and_emptied([] {
        for (const auto &[phase, status] :
             {std::pair{0, 0}, {1, 2}, {2, 2}, {3, 0}, {4, 2}, {5, 0}})
            EXPECT_EQ(fakes::set_integer(TypeParam::write_method, phase, TypeParam::column, 7, 3L),
                      status)
                << "phase " << phase;
    });
}

TYPED_TEST(EmptyStore, DestroyPassesReserve1AndFailsInAction) {
    this->never_used_and_emptied([] {
        for (const auto &[phase, status] : {std::pair{0, 0}, {1, 0}, {2, 5}, {5, 0}})
            EXPECT_EQ(fakes::set_integer(TypeParam::row_status, phase, TypeParam::row_status_magic,
                                         7, flash::rowDestroy),
                      status)
                << "phase " << phase;
    });
}

using EmptyCopyStore = fakes::FlashTest;

TEST_F(EmptyCopyStore, ALookUpByIndexFails) {
    flashCopyEntry row{};
    EXPECT_EQ(get_flash_entry_with_index(7, &row), failed);
    expect_sequence({{D("looking for entry with index=7\n"), "ordset_find_nth_obj n=1",
                      D("no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n")}});
}

TEST_F(EmptyCopyStore, AnAgeOutFindsNoRow) {
    flash_ageouttimerhandler(1, nullptr);
    expect_sequence({{"ordset_find_nth_obj n=1",
                      D("no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n")}});
}

TEST_F(EmptyCopyStore, ACompletionRegistersNoAlarm) {
    handle_flash_copy_done(2, 7, 4242);
    expect_sequence({{D("DEBUG : handle_flash_copy_done : Copy is done with status 2\n"),
                      D("DEBUG : handle_flash_copy_done : Entering with whichRow=  7\n"),
                      D("looking for entry with index=7\n"), "ordset_find_nth_obj n=1",
                      D("no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n"),
                      E("ERROR  handle_flash_copy_done : No copy is running... 0 \n"),
                      "waitpid pid=4242 status=null options=0", E("Waitpid status = 4242")}});
}

TEST_F(EmptyCopyStore, AStartCannotStoreItsRow) {
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        r.index = 7;
        r.protocol = flash::protocolRcp;
    });
    EXPECT_EQ(validate_n_start_flash_copy(&row), 5);
    EXPECT_EQ(fakes::trace_texts(100),
              Lines{"ERROR  validate_n_start_flash_copy : Set to entry (index= 7) failed \n"});
}

// Keys above 2^31-1, and names that begin beyond the column

struct Inventory {
    const char *name;
    int column;
    uint32_t opcode;
    size_t keys;
};
std::ostream &operator<<(std::ostream &out, const Inventory &table) { return out << table.name; }

constexpr Inventory inventories[] = {
    {"Devices", flash::magicDeviceSize, 0x1E5B, 1},
    {"Partitions", flash::magicPartitionSize, 0x1E5C, 2},
    {"Files", flash::magicFileSize, 0x1E5D, 3},
};

class InventoryKeys : public fakes::FlashTest, public testing::WithParamInterface<Inventory> {
  protected:
    const Inventory &table = GetParam();

    // Asks from this name on: the keys that reached the daemon.
    std::vector<uint32_t> keys_of_next(const fakes::Oid &name) {
        fakes::forget();
        fakes::ask(table.column, name, false);
        EXPECT_EQ(platform().requests.size(), 1U);
        if (platform().requests.empty())
            return {};
        const fakes::DaemonRequest &request = platform().requests[0];
        EXPECT_EQ(request.opcode, table.opcode);
        EXPECT_EQ(request.message_type, 2U);
        std::vector<uint32_t> keys;
        for (size_t at = 0; at < table.keys; ++at)
            keys.push_back(request.word(at));
        return keys;
    }
    fakes::Oid with_keys(const std::vector<uint32_t> &keys) const {
        fakes::Oid name = fakes::instance_of(table.column);
        name.insert(name.end(), keys.begin(), keys.end());
        return name;
    }
};

INSTANTIATE_TEST_SUITE_P(Tables, InventoryKeys, testing::ValuesIn(inventories),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(InventoryKeys, GetnextKeysAbove31BitsGoToTheDaemonUnsigned) {
    for (uint32_t key : {0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        const std::vector<uint32_t> keys(table.keys, key);
        EXPECT_EQ(keys_of_next(with_keys(keys)), keys);
    }
}

TEST_P(InventoryKeys, AGetnextFromAPrefixGreaterOrLessThanTheColumnStartsAtTheBeginning) {
    const std::vector<uint32_t> none(table.keys, 0);
    const size_t column_length = fakes::instance_of(table.column).size();
    for (const int by : {1, -1})
        for (size_t arc = 0; arc < column_length; ++arc) {
            fakes::Oid name = with_keys(std::vector<uint32_t>(table.keys, 5));
            name[arc] = by > 0 ? name[arc] + 1 : name[arc] - 1;
            EXPECT_EQ(keys_of_next(name), none) << "arc " << arc << " by " << by;
        }
}

template <class Table>
class RowKeys : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        for (const uint32_t index : {3U, 0x7fffffffU, 0x80000000U, 0xfffffffeU}) {
            auto *row = Table::create();
            row->index = static_cast<int32_t>(index);
            ASSERT_EQ(Table::add(row), flash::success);
        }
    }
    // The instance that follows a name, or nothing.
    static std::optional<oid> next(const fakes::Oid &name) {
        const fakes::Answer answer = fakes::ask(Table::column, name, false);
        return answer.value == nullptr ? std::nullopt : std::optional(answer.name.back());
    }
};
TYPED_TEST_SUITE(RowKeys, Tables);

TYPED_TEST(RowKeys, GetnextKeysAbove31BitsAreComparedUnsigned) {
    const std::pair<oid, std::optional<oid>> steps[] = {
        {0x7ffffffeU, 0x7fffffffU}, {0x7fffffffU, 0x80000000U},  {0x80000000U, 0xfffffffeU},
        {0xfffffffdU, 0xfffffffeU}, {0xfffffffeU, std::nullopt}, {0xffffffffU, std::nullopt}};
    for (const auto &[from, to] : steps)
        EXPECT_EQ(this->next(fakes::instance_of(TypeParam::column, {from})), to) << from;
}

TYPED_TEST(RowKeys, AGetnextFromAPrefixGreaterOrLessThanTheColumnStartsAtTheBeginning) {
    const size_t column_length = fakes::instance_of(TypeParam::column).size();
    for (const int by : {1, -1})
        for (size_t arc = 0; arc < column_length; ++arc) {
            fakes::Oid name = fakes::instance_of(TypeParam::column, {5});
            name[arc] = by > 0 ? name[arc] + 1 : name[arc] - 1;
            EXPECT_EQ(this->next(name), std::optional<oid>(3)) << "arc " << arc << " by " << by;
        }
}

} // namespace
