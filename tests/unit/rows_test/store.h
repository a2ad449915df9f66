// The stores of both writable tables.
#ifndef UNIT_ROWS_STORE_H
#define UNIT_ROWS_STORE_H

#include "fakes/fixture.h"

#include <cstring>
#include <vector>

namespace rows {

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

} // namespace rows

#endif
