// What the tests of the module share: the fixture and short ways to rows, requests and SETs. Only
// for programs that link the module's objects.
#ifndef FAKES_FIXTURE_H
#define FAKES_FIXTURE_H

#include "fakes/module.h"
#include "fakes/platform.h"
#include "fakes/system.h"

#include "flash_codes.h"
#include "flash_copy.h"
#include "flash_records.h"
#include "flash_rows.h"
#include "flash_trace.h"
#include "orvex_flash_mib.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace fakes {

using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::StartsWith;

// The phases of a SET, and the statuses that write methods answer, with the agent's numbers.
enum Phase { reserve1, reserve2, action, commit, release, undo };

constexpr int no_error = 0;
constexpr int no_such_name = 2;
constexpr int general_error = 5;
constexpr int wrong_type = 7;
constexpr int wrong_length = 8;
constexpr int wrong_value = 10;
constexpr int inconsistent_value = 12;

constexpr uint32_t error_level = flash::traceError;
constexpr uint32_t debug_level = flash::traceDebug;

// Removes every row of both tables, through the module's own operations.
inline void empty_tables() {
    flashCopyEntry copy{};
    while (getnextFlashCopyEntry(&copy) == flash::success) {
        ASSERT_EQ(deleteFlashCopyEntry(&copy), flash::success);
        copy.index = 0;
    }
    flashMiscOpEntry misc{};
    while (getnextFlashMiscOpEntry(&misc) == flash::success) {
        ASSERT_EQ(deleteFlashMiscOpEntry(&misc), flash::success);
        misc.index = 0;
    }
}

// Closes the module's pipe and streams, as the end of the process would.
inline void close_streams() {
    std::FILE **const streams[] = {&read_stream, &write_stream}; // in the order of mypipe
    for (size_t end = 0; end < 2; ++end) {
        if (*streams[end] != nullptr)
            std::fclose(*streams[end]);
        else if (mypipe[end] >= 0)
            ::close(mypipe[end]);
        *streams[end] = nullptr;
        mypipe[end] = -1;
    }
}

// Has the module know of no worker, neither a running nor a reaped one.
inline void forget_workers() {
    flashCopyEntry row{};
    start_flash_copy(&row); // forgets the one reaped last; the fake's fork makes no process
    flash_copy_pid = 0;
}

// Starts every test with both tables empty, no worker, fresh fakes and nothing recorded. Ends it
// with the module's pipe closed.
class FlashTest : public testing::Test {
  protected:
    void SetUp() override {
        reset();
        empty_tables();
        forget_workers();
        reset();
        record_outputs(true);
    }
    void TearDown() override {
        record_outputs(false);
        reset();
        close_streams();
        empty_tables();
    }
};

// The recorded messages that are among the expected ones, in their order.
inline Traces picked(const Traces &expected) {
    Traces result;
    for (const Trace &trace : traces())
        if (std::find(expected.begin(), expected.end(), trace) != expected.end())
            result.push_back(trace);
    return result;
}

// Puts a text into a field of fixed size, with its terminator when there is room for it.
template <std::size_t Size>
void put(char (&field)[Size], std::string_view text) {
    ASSERT_LE(text.size(), Size);
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), text.size());
}

// A row with the defaults of its table, changed by `change`; not in the store.
inline flashCopyEntry copy_row(const std::function<void(flashCopyEntry &)> &change = nullptr) {
    flashCopyEntry *made = createFlashCopyEntry();
    flashCopyEntry row = *made;
    flashCopyEntry_free(made);
    if (change)
        change(row);
    return row;
}
inline flashMiscOpEntry misc_row(const std::function<void(flashMiscOpEntry &)> &change = nullptr) {
    flashMiscOpEntry *made = createFlashMiscOpEntry();
    flashMiscOpEntry row = *made;
    flashMiscOpEntry_free(made);
    if (change)
        change(row);
    return row;
}

// Adds a row with the defaults of its table, changed by `change`, to the store.
inline void add_copy_row(int32_t index,
                         const std::function<void(flashCopyEntry &)> &change = nullptr) {
    flashCopyEntry *row = createFlashCopyEntry();
    ASSERT_NE(row, nullptr);
    row->index = index;
    if (change)
        change(*row);
    ASSERT_EQ(addFlashCopyEntry(row), flash::success);
}
inline void add_misc_row(int32_t index,
                         const std::function<void(flashMiscOpEntry &)> &change = nullptr) {
    flashMiscOpEntry *row = createFlashMiscOpEntry();
    ASSERT_NE(row, nullptr);
    row->index = index;
    if (change)
        change(*row);
    ASSERT_EQ(addFlashMiscOpEntry(row), flash::success);
}

// The row as it is in the store.
inline std::optional<flashCopyEntry> stored_copy_row(int32_t index) {
    flashCopyEntry row{};
    row.index = index;
    return getFlashCopyEntry(&row) == flash::success ? std::optional(row) : std::nullopt;
}
inline std::optional<flashMiscOpEntry> stored_misc_row(int32_t index) {
    flashMiscOpEntry row{};
    row.index = index;
    return getFlashMiscOpEntry(&row) == flash::success ? std::optional(row) : std::nullopt;
}

using Oid = std::vector<oid>;

inline const variable7 &object(int magic) {
    for (const variable7 &row : orvex_flash_mib_variables)
        if (row.magic == magic)
            return row;
    ADD_FAILURE() << "no object with magic " << magic;
    return orvex_flash_mib_variables[0];
}

// The OID of an object below the root, with instance arcs behind it.
inline Oid instance_of(int magic, std::initializer_list<oid> arcs = {}) {
    Oid name(orvex_flash_mib_variables_oid, orvex_flash_mib_variables_oid + orvexFlashRootLength);
    const variable7 &row = object(magic);
    name.insert(name.end(), row.name, row.name + row.namelen);
    name.insert(name.end(), arcs);
    return name;
}

// What a GET handler answered. Empty answers have `value` null.
struct Answer {
    const u_char *value = nullptr;
    size_t length = 0;
    Oid name;
    WriteMethod *write_method = nullptr;

    int32_t integer() const {
        int32_t number = 0;
        if (value != nullptr)
            std::memcpy(&number, value, sizeof number);
        return number;
    }
    uint32_t counter() const { return static_cast<uint32_t>(integer()); }
    counter64 wide() const {
        counter64 number{};
        if (value != nullptr)
            std::memcpy(&number, value, sizeof number);
        return number;
    }
    std::string text() const {
        return value == nullptr ? std::string()
                                : std::string(reinterpret_cast<const char *>(value), length);
    }
};

// A write method that a test gives beforehand, to see what becomes of it.
inline int untouched(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }

constexpr size_t untouched_length = 9999;

// Asks the handler of an object, presented as the agent does, for `name`. `replaced` stands in for
// the magic, to ask for one that the handler does not serve. The write method is null beforehand,
// as the agent leaves it, or `write_method`.
inline Answer ask(int magic, const Oid &name, bool exact, std::optional<u_char> replaced = {},
                  WriteMethod *write_method = nullptr) {
    const variable7 &row = object(magic);
    variable presented{};
    presented.magic = replaced.value_or(row.magic);
    presented.type = static_cast<char>(row.type); // a plain char there, unsigned here
    presented.acl = row.acl;
    presented.findVar = row.findVar;
    const Oid column = instance_of(magic);
    presented.namelen = static_cast<u_char>(column.size());
    std::copy(column.begin(), column.end(), presented.name);

    oid requested[MAX_OID_LEN] = {};
    std::copy(name.begin(), name.end(), requested);
    size_t requested_length = name.size();
    Answer answer;
    answer.length = untouched_length;
    answer.write_method = write_method;
    answer.value = row.findVar(&presented, requested, &requested_length, exact ? 1 : 0,
                               &answer.length, &answer.write_method);
    answer.name.assign(requested, requested + requested_length);
    return answer;
}
inline Answer get(int magic, std::initializer_list<oid> arcs = {}) {
    return ask(magic, instance_of(magic, arcs), true);
}
inline Answer getnext(int magic, std::initializer_list<oid> arcs = {}) {
    return ask(magic, instance_of(magic, arcs), false);
}

// One phase of a SET of a column of the row with this index: the status answered. The value is
// copied into memory of exactly its size. `current` is the value that the GET handler answered.
inline int set_phase(WriteMethod *method, int action, int magic, oid index, u_char type,
                     const void *value, size_t length, u_char *current = nullptr) {
    Oid name = instance_of(magic, {index});
    std::vector<u_char> bytes(static_cast<const u_char *>(value),
                              static_cast<const u_char *>(value) + length);
    return method(action, value == nullptr ? nullptr : bytes.data(), type, length, current,
                  name.data(), name.size());
}
// The low bytes of an integer, in the order in which this host would hold them.
inline std::string low_bytes(int32_t value, size_t length) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    const size_t first = std::endian::native == std::endian::big ? sizeof value - length : 0;
    return std::string(bytes + first, length);
}
inline int set_integer(WriteMethod *method, int action, int magic, oid index, long value,
                       u_char *current = nullptr) {
    return set_phase(method, action, magic, index, ASN_INTEGER, &value, sizeof value, current);
}
inline int set_text(WriteMethod *method, int action, int magic, oid index, std::string_view value) {
    return set_phase(method, action, magic, index, ASN_OCTET_STR, value.data(), value.size());
}

} // namespace fakes

#endif
