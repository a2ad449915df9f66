// The records' helpers: byte order and comparison.
#include "inventory.h"

#include "flash_inventory.h"

#include <cstring>
#include <vector>

namespace {

using namespace inventory;

// Byte order

// The record that a helper made of one with distinct bytes, against one with the words at these
// offsets swapped and all else as it was.
template <class Record>
void expect_swapped(void (*convert)(Record *), const std::vector<size_t> &words) {
    Record record;
    Bytes expected(sizeof record);
    for (size_t i = 0; i < expected.size(); ++i)
        expected[i] = static_cast<uint8_t>(i * 7 + i / 256 + 1);
    std::memcpy(&record, expected.data(), sizeof record);
    for (const size_t offset : words) {
        std::swap(expected[offset], expected[offset + 3]);
        std::swap(expected[offset + 1], expected[offset + 2]);
    }
    convert(&record);
    EXPECT_EQ(fakes::bytes_of(record), expected);
}

TEST_F(Inventory, DeviceRecordsAreConvertedInTheirNineWords) {
    const std::vector<size_t> words{0, 4, 8, 12, 16, 20, 184, 188, 192};
    expect_swapped(flashDeviceEntry_hton, words);
    expect_swapped(flashDeviceEntry_t_ntoh, words);
}

TEST_F(Inventory, PartitionRecordsAreConvertedInTheirTwelveWords) {
    const std::vector<size_t> words{0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 56, 60};
    expect_swapped(flashPartitionEntry_hton, words);
    expect_swapped(flashPartitionEntry_ntoh, words);
}

TEST_F(Inventory, CopyRowsAreConvertedInTheirEightWords) {
    const std::vector<size_t> words{
        offsetof(flashCopyEntry, index),      offsetof(flashCopyEntry, command),
        offsetof(flashCopyEntry, protocol),   offsetof(flashCopyEntry, serverAddress),
        offsetof(flashCopyEntry, copyStatus), offsetof(flashCopyEntry, notifyOnCompletion),
        offsetof(flashCopyEntry, copyTime),   offsetof(flashCopyEntry, entryStatus)};
    expect_swapped(flashCopyEntry_hton, words);
    expect_swapped(flashCopyEntry_ntoh, words);
}

TEST_F(Inventory, ConvertingThereAndBackLeavesTheRecordAsItWas) {
    flashDeviceEntry record{};
    record.index = 0x01020304;
    record.capacity = {1, 2};
    const Bytes before = fakes::bytes_of(record);
    flashDeviceEntry_hton(&record);
    EXPECT_NE(fakes::bytes_of(record), before);
    flashDeviceEntry_t_ntoh(&record);
    EXPECT_EQ(fakes::bytes_of(record), before);
}

// Comparison

TEST_F(Inventory, DevicesAreComparedByIndexUnsignedWithTheSignReversed) {
    flashDeviceEntry a{};
    flashDeviceEntry b{};
    a.index = 1;
    b.index = 2;
    EXPECT_EQ(flashDeviceEntry_comp(&a, &b), 1);
    EXPECT_EQ(flashDeviceEntry_comp(&b, &a), -1);
    EXPECT_EQ(flashDeviceEntry_comp(&a, &a), 0);
    b.index = 0xffffffff;
    EXPECT_EQ(flashDeviceEntry_comp(&a, &b), 1);
    EXPECT_EQ(flashDeviceEntry_comp(&b, &a), -1);
}

TEST_F(Inventory, PartitionsAreComparedByTheirOwnIndexAlone) {
    flashPartitionEntry a{};
    flashPartitionEntry b{};
    a.deviceIndex = 9;
    a.index = 1;
    b.deviceIndex = 1;
    b.index = 2;
    EXPECT_EQ(flashPartitionEntry_comp(&a, &b), 1);
    EXPECT_EQ(flashPartitionEntry_comp(&b, &a), -1);
    b.index = 1;
    EXPECT_EQ(flashPartitionEntry_comp(&a, &b), 0);
}

TEST_F(Inventory, CopyRowsAreComparedByIndexSignedWithTheSignReversed) {
    flashCopyEntry a{};
    flashCopyEntry b{};
    a.index = 1;
    b.index = 2;
    EXPECT_EQ(flashCopyEntry_comp(&a, &b), 1);
    EXPECT_EQ(flashCopyEntry_comp(&b, &a), -1);
    EXPECT_EQ(flashCopyEntry_comp(&a, &a), 0);
    b.index = -1;
    EXPECT_EQ(flashCopyEntry_comp(&a, &b), -1);
    EXPECT_EQ(flashCopyEntry_comp(&b, &a), 1);
}

TEST_F(Inventory, ComparingWithNullIsMinusOne) {
    flashDeviceEntry device{};
    flashPartitionEntry partition{};
    flashCopyEntry row{};
    EXPECT_EQ(flashDeviceEntry_comp(nullptr, &device), -1);
    EXPECT_EQ(flashDeviceEntry_comp(&device, nullptr), -1);
    EXPECT_EQ(flashDeviceEntry_comp(nullptr, nullptr), -1);
    EXPECT_EQ(flashPartitionEntry_comp(nullptr, &partition), -1);
    EXPECT_EQ(flashPartitionEntry_comp(&partition, nullptr), -1);
    EXPECT_EQ(flashPartitionEntry_comp(nullptr, nullptr), -1);
    EXPECT_EQ(flashCopyEntry_comp(nullptr, &row), -1);
    EXPECT_EQ(flashCopyEntry_comp(&row, nullptr), -1);
    EXPECT_EQ(flashCopyEntry_comp(nullptr, nullptr), -1);
}

} // namespace
