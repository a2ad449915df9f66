// The columns of the three tables, and what their handlers trace.
#include "inventory.h"

#include "flash_inventory.h"

#include <cstring>
#include <vector>

namespace {

using namespace inventory;

// Columns

template <class Value>
std::string bytes_of(Value value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

std::string wide(u_long high, u_long low) {
    counter64 value{};
    value.high = high;
    value.low = low;
    return bytes_of(value);
}

struct Column {
    int magic;
    std::string value; // from the records above
};

const std::vector<Column> &columns() {
    static const std::vector<Column> all{
        {5, bytes_of(uint32_t{4000000000})},
        {6, bytes_of(uint32_t{102})},
        {7, bytes_of(uint32_t{103})},
        {8, bytes_of(uint32_t{104})},
        {9, bytes_of(int32_t{1})},
        {10, "bootflash"},
        {11, "Internal flash of the supervisor"},
        {17, wide(0x01234567, 0x89abcdef)},
        {29, bytes_of(int32_t{-202})},
        {30, bytes_of(int32_t{203})},
        {31, bytes_of(uint32_t{3000000204})},
        {32, bytes_of(uint32_t{205})},
        {33, bytes_of(uint32_t{206})},
        {34, bytes_of(int32_t{207})},
        {35, bytes_of(int32_t{208})},
        {36, bytes_of(int32_t{209})},
        {37, "slot0"},
        {38, bytes_of(int32_t{2})},
        {39, bytes_of(int32_t{212})},
        {40, wide(2, 1)},
        {41, wide(3, 0xfffffffe)},
        {43, bytes_of(uint32_t{3500000302})},
        {44, "image.bin"},
        {45, bytes_of(int32_t{2})},
        {46, "system/images/image.bin"},
        {47, bytes_of(int32_t{6})},
        {48, std::string("\x07\xe8\x02\x1d\x00\x3b\x00\x05", 8)},
    };
    return all;
}

Oid some_instance(int magic) {
    if (magic < partitionColumn)
        return instance_of(magic, {4});
    if (magic < fileColumn)
        return instance_of(magic, {4, 5});
    return instance_of(magic, {4, 5, 6});
}

class InventoryColumn : public Inventory, public testing::WithParamInterface<size_t> {};

TEST_P(InventoryColumn, GetAnswersItFromTheRecord) {
    const Column &column = columns()[GetParam()];
    const Answer answer = ask(column.magic, some_instance(column.magic), true);
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.length, column.value.size());
    EXPECT_EQ(answer.text(), column.value);
    EXPECT_EQ(answer.name, some_instance(column.magic));
}

TEST_P(InventoryColumn, GetnextAnswersItFromTheRecord) {
    const Column &column = columns()[GetParam()];
    const Answer answer = ask(column.magic, some_instance(column.magic), false);
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.length, column.value.size());
    EXPECT_EQ(answer.text(), column.value);
    Oid next = some_instance(column.magic);
    next.back() += 1;
    EXPECT_EQ(answer.name, next);
}

INSTANTIATE_TEST_SUITE_P(Columns, InventoryColumn, testing::Range(size_t{0}, size_t{27}),
                         [](const auto &row) {
                             return "Magic" + std::to_string(columns()[row.param].magic);
                         });

TEST_F(Inventory, ConstantsAreAnsweredWhateverTheDaemonSent) {
    for (const int32_t sent : {0, 1, 2, -1, 66}) {
        Bytes device = device_record(1);
        at(device, 20, sent);
        Bytes partition = partition_record(1, 2);
        at(partition, 56, sent);
        platform().answers = {reply(device), reply(partition)};
        EXPECT_EQ(get(9, {1}).integer(), 1);
        EXPECT_EQ(get(38, {1, 2}).integer(), 2);
    }
}

TEST_F(Inventory, ConstantsAreWrittenIntoTheirSlotOfTheRecord) {
    get(9, {1});
    get(38, {1, 2});
    fakes::forget();
    get(deviceColumn, {1});
    get(partitionColumn, {1, 2});
    ASSERT_EQ(platform().requests.size(), 2U);
    EXPECT_EQ(platform().requests[0].word(5), 1U);
    EXPECT_EQ(platform().requests[1].word(14), 2U);
}

TEST_F(Inventory, OtherColumnsDoNotTouchTheSlots) {
    get(deviceColumn, {1});
    get(partitionColumn, {1, 2});
    fakes::forget();
    get(deviceColumn, {1});
    get(partitionColumn, {1, 2});
    ASSERT_EQ(platform().requests.size(), 2U);
    EXPECT_EQ(platform().requests[0].word(5), 77U);
    EXPECT_EQ(platform().requests[1].word(14), 66U);
}

TEST_F(Inventory, EmptyTextsAreAnsweredEmpty) {
    Bytes device(204);
    Bytes partition(80);
    Bytes file(320);
    platform().daemon = [&](const fakes::DaemonRequest &request) {
        return reply(request.opcode == 0x1E5B   ? device
                     : request.opcode == 0x1E5C ? partition
                                                : file);
    };
    for (const int magic : {10, 11, 37, 44, 46}) {
        const Answer answer = ask(magic, some_instance(magic), true);
        EXPECT_NE(answer.value, nullptr) << magic;
        EXPECT_EQ(answer.length, 0U) << magic;
    }
}

TEST_F(Inventory, AFileNameOf40CharactersIsAnsweredAsItsFirst32) {
    const std::string name = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    Bytes file = file_record(4, 5, 6);
    text_at(file, 16, name);
    platform().answers = {reply(file)};
    EXPECT_EQ(get(44, {4, 5, 6}).text(), name.substr(0, 32));
}

TEST_F(Inventory, AFileNameThatFillsItsFieldIsAnsweredWhole) {
    const std::string name(32, 'f');
    Bytes file = file_record(4, 5, 6);
    text_at(file, 16, name);
    platform().answers = {reply(file)};
    EXPECT_EQ(get(44, {4, 5, 6}).text(), name);
}

TEST_F(Inventory, AFilePathIsAnsweredWithAtMost256Bytes) {
    for (const size_t length : {size_t{255}, size_t{256}}) {
        const std::string path(length, 'p');
        Bytes file = file_record(4, 5, 6);
        text_at(file, 52, path);
        platform().answers = {reply(file)};
        EXPECT_EQ(get(46, {4, 5, 6}).text(), path);
    }
}

TEST_F(Inventory, TextsWithoutATerminatorEndWithTheirField) {
    Bytes device(204, 'd');
    Bytes partition(80, 'p');
    platform().daemon = [&](const fakes::DaemonRequest &request) {
        return reply(request.opcode == 0x1E5B ? device : partition);
    };
    EXPECT_EQ(ask(10, some_instance(10), true).text(), std::string(16, 'd'));
    EXPECT_EQ(ask(11, some_instance(11), true).text(), std::string(144, 'd'));
    EXPECT_EQ(ask(37, some_instance(37), true).text(), std::string(16, 'p'));
}

TEST_F(Inventory, TheModificationTimeIsEightBytesWhateverTheyAre) {
    Bytes file = file_record(4, 5, 6);
    text_at(file, 308, std::string(8, '\0'));
    platform().answers = {reply(file)};
    EXPECT_EQ(get(48, {4, 5, 6}).text(), std::string(8, '\0'));
}

TEST_F(Inventory, ACounter64IsAnsweredInTheAgentsOwnForm) {
    for (const int magic : {17, 40, 41})
        EXPECT_EQ(ask(magic, some_instance(magic), true).length, sizeof(counter64)) << magic;
}

TEST_F(Inventory, DeviceColumns9To13AreRegisteredAndNeverAnswered) {
    for (const int magic : {12, 13, 14, 15, 16})
        for (const bool exact : {true, false}) {
            fakes::forget();
            EXPECT_EQ(ask(magic, instance_of(magic, {1}), exact).value, nullptr);
            EXPECT_EQ(fakes::calls("snmp_set_detail"), (Lines{"snmp_set_detail text="}));
        }
}

TEST_F(Inventory, AnUnservedMagicIsAnsweredWithAnEmptyDetailAndNull) {
    for (const Table &table : tables)
        for (const u_char unserved : {u_char{1}, u_char{18}, u_char{42}, u_char{49}}) {
            fakes::forget();
            EXPECT_EQ(
                ask(table.magic, instance_of(table.magic, table.instance), true, unserved).value,
                nullptr);
            EXPECT_EQ(fakes::calls("snmp_set_detail"), (Lines{"snmp_set_detail text="}));
        }
}

TEST_F(Inventory, AFailedRequestForAnUnservedMagicSetsNoDetail) {
    platform().daemon = [](const fakes::DaemonRequest &) { return no_answer(); };
    EXPECT_EQ(get(12, {1}).value, nullptr);
    EXPECT_EQ(fakes::calls("snmp_set_detail"), Lines{});
}

// Traces

TEST_F(Inventory, AFileRequestIsTraced) {
    get(fileColumn, {7, 8, 9});
    EXPECT_EQ(fakes::traces(),
              (Traces{{101, "Entering get_orvexFlashFileTable\n"},
                      {101, "Calling PMB_OPC_FLASH_FILE_LIST with deviceIndex=7, PartitionIndex=8 "
                            "and FlashFileIndex=9 and msg_type=1\n"}}));
}

TEST_F(Inventory, AFileGetnextIsTracedWithItsKeysAndType) {
    getnext(fileColumn, {7});
    EXPECT_TRUE(fakes::traced(101, "Calling PMB_OPC_FLASH_FILE_LIST with deviceIndex=7, "
                                   "PartitionIndex=0 and FlashFileIndex=0 and msg_type=2\n"));
}

TEST_F(Inventory, AFileRequestIsTracedBeforeItIsSent) {
    get(fileColumn, {7, 8, 9});
    const Lines all = fakes::everything();
    size_t traced = 0, sent = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].find("trace 101 Calling PMB_OPC_FLASH_FILE_LIST") == 0)
            traced = i;
        if (all[i].find("cmi_req_resp") == 0)
            sent = i;
    }
    EXPECT_GT(traced, 0U);
    EXPECT_LT(traced, sent);
}

TEST_F(Inventory, TheFileTypeIsTraced) {
    get(47, {7, 8, 9});
    EXPECT_EQ(fakes::last_trace(),
              (fakes::Trace{101, "get_orvexFlashFileTable : orvexFlashFileType: 6\n"}));
}

} // namespace
