// Every writable column but the row status, and what each phase answers and traces.
#ifndef UNIT_WRITE_COLUMNS_COLUMNS_H
#define UNIT_WRITE_COLUMNS_COLUMNS_H

#include "fakes/fixture.h"

#include "flash_write.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace write_columns {

using namespace fakes;

constexpr int32_t states_of_creation[] = {flash::rowNotReady, flash::rowCreateAndGo,
                                          flash::rowCreateAndWait};
constexpr int32_t other_states[] = {
    flash::rowActive, flash::rowNotInService, flash::rowDestroy, 0, 7, -1, INT32_MIN};

inline std::string bytes_of_long(long value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}
inline std::string bytes_of_word(int32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// The text with the first `mark` in it replaced.
inline std::string with(const std::string &text, const char *mark, const std::string &value) {
    const size_t at = text.find(mark);
    return at == std::string::npos ? text
                                   : text.substr(0, at).append(value).append(text.substr(at + 2));
}

inline std::string beginning_with(char first, std::string text) {
    text.front() = first;
    return text;
}

// One writable column: how to reach it, an accepted value, and what each phase answers and traces.
// In the traces %s stands for the handler's name and %d for the row's index.
struct Column {
    const char *name = nullptr;
    WriteMethod *method = nullptr;
    int magic = 0;
    u_char type = 0;
    const char *type_message = nullptr;
    const char *length_message = nullptr;
    bool traces_refusals = false;

    // Contents: decimal for integers, four bytes for the address, the text for texts.
    std::string before;   // what the sample row holds
    std::string written;  // the sample value as the request carries it
    std::string after;    // what it becomes in the row
    std::string put_back; // what FREE makes of it

    std::vector<std::string> good_lengths; // accepted values of the lengths at the limits
    std::vector<size_t> bad_lengths;

    int release_without_row = no_such_name;
    Lines every_call;
    Lines reserve1_start;
    Lines reserve1_accepted;
    Lines reserve2_start;
    Lines row_absent;
    Lines changing;
    Lines refused;
    Lines before_store;
    Lines stored;
    Lines action_start;
    Lines action_row_absent;
    Lines release_start;
    const char *no_rows = nullptr; // the store's own trace when it is empty

    std::function<void(int32_t index, int32_t state, const std::string &content)> add;
    std::function<std::string(int32_t index)> read;        // "no row" when there is none
    std::function<std::string(int32_t index)> whole;       // the stored row, all bytes
    std::function<std::string(int32_t index)> whole_field; // texts: all bytes of the field

    int call(Phase phase, oid index, const std::string &value) const {
        return fakes::set_phase(method, phase, magic, index, type, value.data(), value.size());
    }
    int call(Phase phase, oid index) const { return call(phase, index, written); }

    Lines filled(const std::vector<Lines> &parts, int32_t index) const {
        Lines result;
        for (const Lines &part : parts)
            for (const std::string &line : part)
                result.push_back(with(with(line, "%s", name), "%d", std::to_string(index)));
        return result;
    }
};

inline void PrintTo(const Column &column, std::ostream *out) { *out << column.name; }

Column copy_command();
Column copy_protocol();
Column copy_server_address();
Column copy_source_name();
Column copy_destination_name();
Column copy_remote_user_name();
Column copy_password();
Column copy_notify();
Column misc_command();
Column misc_destination_name();
Column misc_notify();

std::vector<Column> saved_columns();
std::vector<Column> all_columns();

class Columns : public fakes::FlashTest, public testing::WithParamInterface<Column> {
  protected:
    const Column &column = GetParam();

    // Nothing but these is traced, all at debug level.
    void expect_traces(const std::vector<Lines> &parts, int32_t index = 7) {
        EXPECT_EQ(fakes::trace_texts(101), column.filled(parts, index));
        EXPECT_THAT(fakes::trace_texts(100), IsEmpty());
    }
    Lines refusal(int32_t state) const {
        Lines lines = column.refused;
        for (std::string &line : lines)
            line += std::to_string(state) + ")";
        return lines;
    }
};
class SavedColumns : public Columns {};
class Texts : public Columns {};
class Names : public Columns {};
class Integers : public Columns {};

} // namespace write_columns

#endif
