// What must be the same whatever the width of the agent's long and arcs, at the values where one
// width differs from another.
#include "fakes/fixture.h"

#include "flash_inventory.h"

#include <cstring>
#include <limits>

namespace {

using namespace fakes;

// The device's agent has pointers and arcs of four bytes; then a row of the object table has 40.
constexpr bool device_width = sizeof(void *) == 4 && sizeof(oid) == 4;
constexpr bool wide_agent = sizeof(void *) == 8 && sizeof(oid) == 8;
static_assert(device_width || wide_agent);
static_assert(!device_width || sizeof(variable7) == 40);
static_assert(!wide_agent || sizeof(variable7) == 80);

constexpr uint32_t edges[] = {0x7ffffffe, 0x7fffffff, 0x80000000,
                              0x80000001, 0xfffffffe, 0xffffffff};
constexpr uint64_t wide_edges[] = {0x7fffffff,          0x80000000,        0xffffffff,
                                   0x100000000,         0x100000001,       0x7fffffffffffffff,
                                   0x8000000000000000u, 0xffffffffffffffff};

class WordSize : public fakes::FlashTest {};

TEST_F(WordSize, FiftyRowsOfTheAgentsOwnSizeAreRegistered) {
    EXPECT_EQ(std::size(orvex_flash_mib_variables), 50U);
    init_orvex_flash_mib();
    const fakes::Lines lines = fakes::calls("register_mib");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0],
                testing::HasSubstr(" row_size=" + std::to_string(sizeof(variable7)) + " rows=50 "));
}

// A 32-bit column of an inventory record.
struct Column {
    int magic;
    size_t offset;
    int keys;
};
constexpr Column columns[] = {
    {5, 4, 1},   {6, 8, 1},   {7, 12, 1},  {8, 16, 1},   {29, 8, 2},  {30, 12, 2},
    {31, 16, 2}, {32, 20, 2}, {33, 24, 2}, {34, 28, 2},  {35, 32, 2}, {36, 36, 2},
    {39, 60, 2}, {43, 12, 3}, {45, 48, 3}, {47, 316, 3},
};
constexpr Column wide_columns[] = {{17, 196, 1}, {40, 64, 2}, {41, 72, 2}};

size_t record_size(int keys) {
    return keys == 1   ? sizeof(flashDeviceEntry)
           : keys == 2 ? sizeof(flashPartitionEntry)
                       : sizeof(flashFileEntry);
}

// The instance whose keys are all `key`.
fakes::Oid keyed(int magic, int keys, uint32_t key) {
    fakes::Oid name = instance_of(magic);
    name.insert(name.end(), static_cast<size_t>(keys), key);
    return name;
}

// A record with these bytes at `offset` and every key `key`.
void answer_with(const Column &column, uint32_t key, const void *value, size_t size) {
    Bytes record(record_size(column.keys));
    for (size_t word = 0; word < static_cast<size_t>(column.keys); ++word)
        std::memcpy(&record[4 * word], &key, sizeof key);
    std::memcpy(&record[column.offset], value, size);
    platform().answers = {{0, record, std::nullopt}};
}

TEST_F(WordSize, EveryNumberOfTheInventoryIsAnsweredInFourBytes) {
    for (const Column &column : columns)
        for (const uint32_t value : edges) {
            answer_with(column, 1, &value, sizeof value);
            const Answer answer = ask(column.magic, keyed(column.magic, column.keys, 1), true);
            EXPECT_EQ(answer.length, 4U) << column.magic;
            EXPECT_EQ(answer.counter(), value) << column.magic;
        }
}

TEST_F(WordSize, EveryCounter64IsAnsweredAsTheAgentsOwnStructure) {
    for (const Column &column : wide_columns)
        for (const uint64_t value : wide_edges) {
            const uint32_t words[] = {static_cast<uint32_t>(value),
                                      static_cast<uint32_t>(value >> 32)}; // low word first
            answer_with(column, 1, words, sizeof words);
            const Answer answer = ask(column.magic, keyed(column.magic, column.keys, 1), true);
            EXPECT_EQ(answer.length, sizeof(counter64)) << column.magic;
            EXPECT_EQ(answer.wide().high, words[1]) << column.magic;
            EXPECT_EQ(answer.wide().low, words[0]) << column.magic;
        }
}

TEST_F(WordSize, InventoryKeysGoToTheDaemonAndIntoTheNameUnsigned) {
    for (const Column &column : {columns[0], columns[4], columns[13]})
        for (const uint32_t key : edges) {
            fakes::forget();
            answer_with(column, key, &key, sizeof key);
            const Answer answer = ask(column.magic, keyed(column.magic, column.keys, key), true);
            EXPECT_NE(answer.value, nullptr) << column.magic;
            EXPECT_EQ(answer.name, keyed(column.magic, column.keys, key)) << column.magic;
            ASSERT_EQ(platform().requests.size(), 1U);
            for (size_t word = 0; word < static_cast<size_t>(column.keys); ++word)
                EXPECT_EQ(platform().requests[0].word(word), key) << column.magic;
        }
}

TEST_F(WordSize, ARowIsFoundUnderTheUnsignedArcOfItsIndex) {
    for (const uint32_t index : edges) {
        fakes::add_copy_row(static_cast<int32_t>(index));
        fakes::add_misc_row(static_cast<int32_t>(index));
    }
    for (const uint32_t index : edges)
        for (const int magic : {50, 74}) {
            const Answer answer = get(magic, {index});
            EXPECT_NE(answer.value, nullptr) << magic << " " << index;
            EXPECT_EQ(answer.name, instance_of(magic, {index}));
        }
}

TEST_F(WordSize, RowsAreWalkedInTheOrderOfTheirUnsignedArcs) {
    for (const uint32_t index : edges) {
        fakes::add_copy_row(static_cast<int32_t>(index));
        fakes::add_misc_row(static_cast<int32_t>(index));
    }
    for (const int magic : {50, 74}) {
        oid before = 1;
        for (const uint32_t index : edges) {
            EXPECT_EQ(getnext(magic, {before}).name, instance_of(magic, {index}));
            before = index;
        }
        EXPECT_EQ(getnext(magic, {before}).value, nullptr);
    }
}

TEST_F(WordSize, ACopyTimeIsAnsweredInFourBytesUnsigned) {
    for (const uint32_t time : edges) {
        fakes::empty_tables();
        fakes::add_copy_row(7, [time](flashCopyEntry &row) { row.copyTime = time; });
        fakes::add_misc_row(7, [time](flashMiscOpEntry &row) { row.operationTime = time; });
        for (const int magic : {58, 78}) {
            const Answer answer = get(magic, {7});
            EXPECT_EQ(answer.length, 4U);
            EXPECT_EQ(answer.counter(), time);
        }
    }
}

TEST_F(WordSize, AnAddressIsAnsweredInTheFourBytesThatWereSet) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    const u_char bytes[] = {203, 0, 113, 254};
    WriteMethod *method = get(52, {7}).write_method;
    ASSERT_NE(method, nullptr);
    for (int phase = reserve1; phase <= commit; ++phase)
        EXPECT_EQ(fakes::set_phase(method, phase, 52, 7, ASN_IPADDRESS, bytes, sizeof bytes),
                  SNMP_ERR_NOERROR);
    EXPECT_EQ(get(52, {7}).text(), std::string("\xcb\x00\x71\xfe", 4));
}

// In columns of few values, of the copy table and of the misc-operation table.
TEST_F(WordSize, AnIntegerIsJudgedInItsWholeWidth) {
    std::vector<long> values = {std::numeric_limits<int32_t>::max(),
                                std::numeric_limits<int32_t>::min(),
                                std::numeric_limits<long>::max(), std::numeric_limits<long>::min()};
    if constexpr (wide_agent) // each would be an accepted value in its lower half
        for (const int64_t accepted : {1, 2, 3})
            values.push_back(static_cast<long>((int64_t{1} << 32) + accepted));
    fakes::add_copy_row(7);
    fakes::add_misc_row(7);
    for (const int magic : {51, 57, 59, 74, 77, 79}) {
        WriteMethod *method = get(magic, {7}).write_method;
        ASSERT_NE(method, nullptr) << magic;
        for (const long value : values)
            EXPECT_NE(fakes::set_integer(method, reserve1, magic, 7, value), SNMP_ERR_NOERROR)
                << magic << " " << value;
    }
}

} // namespace
