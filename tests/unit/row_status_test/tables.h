// The row status of both writable tables: what they differ in, and a SET as the agent does it.
#ifndef UNIT_ROW_STATUS_TABLES_H
#define UNIT_ROW_STATUS_TABLES_H

#include "fakes/fixture.h"
#include "fakes/sequence.h"

#include "flash_write.h"

#include <cstring>
#include <string>
#include <vector>

namespace row_status {

using namespace fakes;

struct CopyTable {
    using Row = flashCopyEntry;
    static constexpr WriteMethod *method = set_orvexFlashCopyEntryStatus;
    static constexpr int magic = flash::magicCopyEntryStatus;
    static constexpr WriteMethod *set_notify = set_orvexFlashCopyNotifyOnCompletion;
    static constexpr int notify_magic = flash::magicCopyNotifyOnCompletion;
    static constexpr auto create = createFlashCopyEntry;
    static constexpr auto dispose = flashCopyEntry_free;
    static constexpr auto add = fakes::add_copy_row;
    static constexpr auto stored = fakes::stored_copy_row;
    static constexpr auto status = &flashCopyEntry::copyStatus;
    static auto &look_up() { return fakes::module().getFlashCopyEntry; }

    static std::string handler() { return "set_orvexFlashCopyEntryStatus"; }
    static constexpr const char *entering = "Entering set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *entering_reserve1 =
        "Entering RESERVE1 of set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *type_message =
        "write to orvexFlashCopyEntryStatus not ASN_INTEGER\n";
    static constexpr const char *length_message =
        "write to orvexFlashCopyEntryStatus: bad length\n";
    static constexpr const char *wrong_value_text =
        "returning SNMP_ERR_WRONGVALUE from set_orvexFlashCopyEntryStatus ....\n";
    static constexpr const char *table = "flashCopyTable";
    static constexpr const char *setting = "Setting flashCopyEntryStatus to ";
    static constexpr const char *no_rows = "getFlashCopyEntry: ordset_size returned 0\n";
    static constexpr const char *no_row = "getFlashCopyEntry: tmp_entry is NULL\n";

    // What RESERVE1 traces when it asks for a copy in progress, with this many rows and none.
    static Lines progress_asked(long value, int rows) {
        Lines lines = {"calling flashcopy_inprogress..\n"};
        if (value == flash::rowActive) {
            lines.push_back("calling get_flash_entry_with_status()..\n");
            for (int i = 0; i < rows; ++i)
                lines.push_back("found entry after calling getnextFlashCopyEntry.\n");
            lines.push_back(
                rows == 0 ? "no entry in the flashCopyTable, ordset_find_nth_obj returned NULL.\n"
                          : "No entry in the flashCopyTable...\n");
        }
        return lines;
    }
    // What ACTION traces of a row that is not there.
    static Lines absent() { return {handler() + " : The current flash copy status is 0 \n"}; }
    static Lines present(int32_t index) {
        return {handler() + " : The current flash copy status is 17 \n",
                "DEBUG : " + handler() + " : Entry present  (index = " + std::to_string(index) +
                    ", Server Addr = 4294967295)\n"};
    }
    static std::string address() { return ", Server Add = 4294967295"; }
    static Lines write_failed() {
        return {"DEBUG: " + handler() + " : setFlashCopyEntry Failed\n"};
    }
};

struct MiscOpTable {
    using Row = flashMiscOpEntry;
    static constexpr WriteMethod *method = set_orvexFlashMiscOpEntryStatus;
    static constexpr int magic = flash::magicMiscOpEntryStatus;
    static constexpr WriteMethod *set_notify = set_orvexFlashMiscOpNotifyOnCompletion;
    static constexpr int notify_magic = flash::magicMiscOpNotifyOnCompletion;
    static constexpr auto create = createFlashMiscOpEntry;
    static constexpr auto dispose = flashMiscOpEntry_free;
    static constexpr auto add = fakes::add_misc_row;
    static constexpr auto stored = fakes::stored_misc_row;
    static constexpr auto status = &flashMiscOpEntry::operationStatus;
    static auto &look_up() { return fakes::module().getFlashMiscOpEntry; }

    static std::string handler() { return "set_orvexFlashMiscOpEntryStatus"; }
    static constexpr const char *entering = "Entering set_orvexFlashMiscOpEntryStatus\n";
    static constexpr const char *entering_reserve1 =
        "Entering RESERVE1 of set_orvexFlashMiscOpEntryStatus ....\n";
    static constexpr const char *type_message =
        "write to orvexFlashMiscOpEntryStatus not ASN_INTEGER\n";
    static constexpr const char *length_message =
        "write to orvexFlashMiscOpEntryStatus: bad length\n";
    static constexpr const char *wrong_value_text =
        "returning SNMP_ERR_WRONGVALUE from orvexFlashMiscOpEntryStatus ....\n";
    static constexpr const char *table = "flashMiscOpTable";
    static constexpr const char *setting = "Setting flashMiscOpEntryStatus to ";
    static constexpr const char *no_rows = "getFlashMiscOpEntry: ordset_size returned 0\n";
    static constexpr const char *no_row = "getFlashMiscOpEntry: tmp_entry is NULL\n";

    static Lines progress_asked(long value, int rows) {
        if (value != flash::rowActive)
            return {};
        Lines lines = {"calling flashdelete_inprogress..\n",
                       "calling get_flashMiscOp_entry_with_status()..\n"};
        for (int i = 0; i < rows; ++i)
            lines.push_back("found entry after calling getnextFlashMiscOpEntry.\n");
        lines.push_back(
            rows == 0 ? "no entry in the flashMiscOpTable, ordset_find_nth_obj returned NULL.\n"
                      : "No entry in the flashMiscOpTable...\n");
        return lines;
    }
    static Lines absent() { return {}; }
    static Lines present(int32_t index) {
        return {"DEBUG : " + handler() + " : Entry present  (index = " + std::to_string(index) +
                ")\n"};
    }
    static std::string address() { return ""; }
    static Lines write_failed() { return {}; }
};

inline std::string text(int32_t number) { return std::to_string(number); }

template <class Row>
std::string bytes(const Row &row) {
    return std::string(reinterpret_cast<const char *>(&row), sizeof row);
}

// What a whole SET of one row status came to: its status, and the phases called.
struct Outcome {
    int status;
    std::vector<Phase> phases;
};

template <class Table>
class RowStatus : public fakes::FlashTest {
  protected:
    using Row = typename Table::Row;

    int call(Phase phase, oid index, long value, u_char *current = nullptr) {
        return fakes::set_integer(Table::method, phase, Table::magic, index, value, current);
    }

    // The current value as the agent passes it: what the GET handler answers, null for no row.
    u_char *current(oid index) {
        const fakes::Answer answer = fakes::get(Table::magic, {index});
        return const_cast<u_char *>(answer.value);
    }

    // A SET as the agent carries it out.
    Outcome set(oid index, long value) {
        Outcome outcome{no_error, {}};
        u_char *const given = current(index);
        auto next = [&](Phase phase) {
            outcome.phases.push_back(phase);
            return call(phase, index, value, given);
        };
        forget();
        for (Phase phase : {reserve1, reserve2, action}) {
            outcome.status = next(phase);
            if (outcome.status != no_error) {
                EXPECT_EQ(next(phase == action ? undo : release), no_error);
                return outcome;
            }
        }
        EXPECT_EQ(next(commit), no_error);
        return outcome;
    }

    void add(int32_t index, int32_t state, int32_t status = 17) {
        Table::add(index, [&](Row &row) {
            row.entryStatus = state;
            row.*Table::status = status;
        });
    }
    // The entry status in the store, -100 when there is no such row.
    int32_t state(int32_t index) {
        const auto row = Table::stored(index);
        return row ? row->entryStatus : -100;
    }
    bool present(int32_t index) { return Table::stored(index).has_value(); }
    std::string whole(int32_t index) {
        const auto row = Table::stored(index);
        return row ? bytes(*row) : std::string();
    }

    // Nothing but these is traced, all at debug level.
    void expect_traces(const std::vector<Lines> &parts) {
        EXPECT_EQ(fakes::trace_texts(101), joined(parts));
        EXPECT_THAT(fakes::trace_texts(100), IsEmpty());
    }

    static Lines start() { return {Table::entering, Table::entering_reserve1}; }
    static Lines action_start() {
        return {Table::entering, "DEBUG " + Table::handler() + " : Entering ACTION \n"};
    }
    static Lines adding() { return {"Adding a new row with all values 0\n"}; }
    static Lines added(int32_t index) {
        return {"DEBUG  " + Table::handler() + " : Added new entry to " + Table::table +
                " ( index = " + text(index) + ")\n"};
    }
    static Lines setting(int32_t before) {
        return {"DEBUG  " + Table::handler() + " : " + Table::setting + text(before) + " \n"};
    }
    static Lines setting_failed(int32_t index) {
        return {"ERROR  " + Table::handler() + " : Setting a new entry (index = " + text(index) +
                ") failed\n"};
    }
    static Lines existing(int32_t index) {
        return {"ERROR  " + Table::handler() +
                " : CREATE on a existing row (index = " + text(index) + ")\n"};
    }
};

using Tables = testing::Types<CopyTable, MiscOpTable>;
TYPED_TEST_SUITE(RowStatus, Tables);

const std::vector<Phase> succeeded = {reserve1, reserve2, action, commit};
const std::vector<Phase> refused = {reserve1, release};
const std::vector<Phase> failed = {reserve1, reserve2, action, undo};

} // namespace row_status

#endif
