// Inventory: the daemon requests, the records' helpers, the GET handlers of the three tables.
#include "fakes/fixture.h"

#include "flash_inventory.h"

#include <cstring>
#include <vector>

namespace {

using namespace fakes;

// A column of each table with which the tests of keys and requests are made.
constexpr int deviceColumn = 5;
constexpr int partitionColumn = 29;
constexpr int fileColumn = 43;

// Writes a value of any kind at an offset of a record.
template <class Value>
void at(Bytes &record, size_t offset, const Value &value) {
    std::memcpy(record.data() + offset, &value, sizeof value);
}
void text_at(Bytes &record, size_t offset, const std::string &text) {
    std::memcpy(record.data() + offset, text.data(), text.size());
}

// Records as the daemon sends them, by their offsets.
Bytes device_record(uint32_t index) {
    Bytes record(204);
    at(record, 0, index);
    at(record, 4, uint32_t{4000000000});
    at(record, 8, uint32_t{102});
    at(record, 12, uint32_t{103});
    at(record, 16, uint32_t{104});
    at(record, 20, uint32_t{77});
    text_at(record, 24, "bootflash");
    text_at(record, 40, "Internal flash of the supervisor");
    at(record, 184, uint32_t{0xaaaaaaaa});
    at(record, 188, uint32_t{0xbbbbbbbb});
    at(record, 192, uint32_t{0xcccccccc});
    at(record, 196, uint32_t{0x89abcdef}); // low word first
    at(record, 200, uint32_t{0x01234567});
    return record;
}

Bytes partition_record(uint32_t device, uint32_t index) {
    Bytes record(80);
    at(record, 0, device);
    at(record, 4, index);
    at(record, 8, int32_t{-202});
    at(record, 12, int32_t{203});
    at(record, 16, uint32_t{3000000204});
    at(record, 20, uint32_t{205});
    at(record, 24, uint32_t{206});
    at(record, 28, int32_t{207});
    at(record, 32, int32_t{208});
    at(record, 36, int32_t{209});
    text_at(record, 40, "slot0");
    at(record, 56, int32_t{66});
    at(record, 60, int32_t{212});
    at(record, 64, uint32_t{0x00000001});
    at(record, 68, uint32_t{0x00000002});
    at(record, 72, uint32_t{0xfffffffe});
    at(record, 76, uint32_t{0x00000003});
    return record;
}

Bytes file_record(uint32_t device, uint32_t partition, uint32_t index) {
    Bytes record(320);
    at(record, 0, device);
    at(record, 4, partition);
    at(record, 8, index);
    at(record, 12, uint32_t{3500000302});
    text_at(record, 16, "image.bin");
    at(record, 48, int32_t{2});
    text_at(record, 52, "system/images/image.bin");
    text_at(record, 308, std::string("\x07\xe8\x02\x1d\x00\x3b\x00\x05", 8));
    at(record, 316, int32_t{6});
    return record;
}

DaemonAnswer reply(const Bytes &record) { return {0, record, std::nullopt}; }

// A record of the table that a request asks for, with the keys of the request, or with `next` keys
// for GETNEXT.
DaemonAnswer echo(const fakes::DaemonRequest &request) {
    const uint32_t more = request.message_type == CMI_NEXT ? 1 : 0;
    switch (request.opcode) {
    case 0x1E5B:
        return reply(device_record(request.word(0) + more));
    case 0x1E5C:
        return reply(partition_record(request.word(0), request.word(1) + more));
    case 0x1E5D:
        return reply(file_record(request.word(0), request.word(1), request.word(2) + more));
    default:
        return no_answer();
    }
}

class Inventory : public fakes::FlashTest {
  protected:
    void SetUp() override {
        fakes::FlashTest::SetUp();
        platform().daemon = echo;
    }

    // The keys and the type of the one request that was sent.
    static std::string asked() {
        if (platform().requests.size() != 1)
            return std::to_string(platform().requests.size()) + " requests";
        const fakes::DaemonRequest &request = platform().requests[0];
        const size_t keys = request.opcode - 0x1E5B + 1;
        std::string text = std::to_string(request.message_type) + ":";
        for (size_t i = 0; i < keys; ++i)
            text.append(" ").append(std::to_string(request.word(i)));
        platform().requests.clear();
        return text;
    }
};

// The request

TEST_F(Inventory, ADeviceRequestHasItsOpcodeRecordLengthAndFixedArguments) {
    get(deviceColumn, {7});
    ASSERT_EQ(platform().requests.size(), 1U);
    const fakes::DaemonRequest &request = platform().requests[0];
    EXPECT_EQ(request.opcode, 0x1E5BU);
    EXPECT_EQ(request.opcode, 7771U);
    EXPECT_EQ(request.message_type, 1U);
    EXPECT_EQ(request.length, 204U);
    EXPECT_EQ(request.word(0), 7U);
    EXPECT_EQ(request.client, "SNMP");
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.timeout, 102);
    EXPECT_EQ(request.response_queue, pmb_response_q);
    EXPECT_EQ(request.options, 4);
}

TEST_F(Inventory, APartitionRequestHasItsOpcodeRecordLengthAndFixedArguments) {
    getnext(partitionColumn, {7, 8});
    ASSERT_EQ(platform().requests.size(), 1U);
    const fakes::DaemonRequest &request = platform().requests[0];
    EXPECT_EQ(request.opcode, 0x1E5CU);
    EXPECT_EQ(request.opcode, 7772U);
    EXPECT_EQ(request.message_type, 2U);
    EXPECT_EQ(request.length, 80U);
    EXPECT_EQ(request.word(0), 7U);
    EXPECT_EQ(request.word(1), 8U);
    EXPECT_EQ(request.client, "SNMP");
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.timeout, 102);
    EXPECT_EQ(request.response_queue, pmb_response_q);
    EXPECT_EQ(request.options, 4);
}

TEST_F(Inventory, AFileRequestHasItsOpcodeRecordLengthAndFixedArguments) {
    getnext(fileColumn, {7, 8, 9});
    ASSERT_EQ(platform().requests.size(), 1U);
    const fakes::DaemonRequest &request = platform().requests[0];
    EXPECT_EQ(request.opcode, 0x1E5DU);
    EXPECT_EQ(request.opcode, 7773U);
    EXPECT_EQ(request.message_type, 2U);
    EXPECT_EQ(request.length, 872U);
    EXPECT_EQ(request.word(0), 7U);
    EXPECT_EQ(request.word(1), 8U);
    EXPECT_EQ(request.word(2), 9U);
    EXPECT_EQ(request.client, "SNMP");
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.timeout, 102);
    EXPECT_EQ(request.response_queue, pmb_response_q);
    EXPECT_EQ(request.options, 4);
}

TEST_F(Inventory, OneRequestIsSentPerVariable) {
    for (const int magic : {deviceColumn, partitionColumn, fileColumn}) {
        fakes::forget();
        getnext(magic);
        EXPECT_EQ(fakes::calls("cmi_req_resp").size(), 1U) << magic;
    }
}

TEST_F(Inventory, AFileRequestIsZeroBehindTheFileRecord) {
    get(fileColumn, {1, 2, 3});
    ASSERT_EQ(platform().requests.size(), 1U);
    const Bytes &buffer = platform().requests[0].record;
    ASSERT_EQ(buffer.size(), 872U);
    EXPECT_EQ(Bytes(buffer.begin() + 320, buffer.end()), Bytes(552));
}

TEST_F(Inventory, AFileRequestHoldsTheStaticRecordWithTheNewKeys) {
    get(fileColumn, {1, 2, 3});
    get(fileColumn, {4, 5, 6});
    ASSERT_EQ(platform().requests.size(), 2U);
    const Bytes &buffer = platform().requests[1].record;
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 320), file_record(4, 5, 6));
}

TEST_F(Inventory, TheFileRequestsBufferIsReleasedInEveryCase) {
    Bytes unused(872);
    for (const DaemonAnswer &answer :
         {reply(file_record(1, 2, 3)), no_answer(), DaemonAnswer{-1, unused, std::nullopt},
          DaemonAnswer{0, std::nullopt, std::nullopt}, reply(Bytes(319))}) {
        fakes::watch_allocations();
        platform().answers = {answer};
        get(fileColumn, {1, 2, 3});
        EXPECT_EQ(fakes::outstanding_allocations(), 0U);
    }
}

TEST_F(Inventory, AFileRequestWithoutMemoryForItsBufferIsNoSuchInstance) {
    fakes::fail_allocation(1);
    const Answer answer = get(fileColumn, {1, 2, 3});
    EXPECT_EQ(answer.value, nullptr);
    EXPECT_TRUE(platform().requests.empty());
}

struct Table {
    int magic;
    std::initializer_list<oid> instance;
    size_t record;
};
const Table tables[] = {
    {deviceColumn, {1}, 204}, {partitionColumn, {1, 2}, 80}, {fileColumn, {1, 2, 3}, 320}};

TEST_F(Inventory, AFailedRequestIsNoSuchInstanceAndLeavesTheNameAlone) {
    for (const Table &table : tables)
        for (const bool exact : {true, false}) {
            platform().answers = {no_answer(5)};
            const Oid name = instance_of(table.magic, table.instance);
            const Answer answer = ask(table.magic, name, exact);
            EXPECT_EQ(answer.value, nullptr);
            EXPECT_EQ(answer.name, name);
        }
}

TEST_F(Inventory, AFailedRequestIsNotRetriedAndNotReported) {
    for (const Table &table : tables) {
        fakes::forget();
        platform().answers = {no_answer()};
        get(table.magic, table.instance);
        EXPECT_EQ(platform().requests.size(), 1U);
        EXPECT_EQ(fakes::calls("snmp_"), Lines{});
        EXPECT_TRUE(platform().errors.empty());
        EXPECT_EQ(fakes::trace_texts(100), Lines{});
    }
}

TEST_F(Inventory, ASuccessWithoutAResponseIsAFailure) {
    for (const Table &table : tables) {
        platform().answers = {DaemonAnswer{0, std::nullopt, std::nullopt}};
        EXPECT_EQ(get(table.magic, table.instance).value, nullptr) << table.magic;
    }
}

TEST_F(Inventory, AResponseShorterThanTheRecordIsAFailure) {
    for (const Table &table : tables)
        for (const size_t size : {size_t{0}, size_t{4}, table.record - 1}) {
            platform().answers = {reply(Bytes(size, 0x01))};
            EXPECT_EQ(get(table.magic, table.instance).value, nullptr) << table.magic;
        }
}

TEST_F(Inventory, AResponseLongerThanTheRecordAnswersWithItsBeginning) {
    Bytes record = file_record(1, 2, 3);
    record.resize(872, 0xee);
    platform().answers = {reply(record)};
    const Answer answer = get(fileColumn, {1, 2, 3});
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.counter(), 3500000302U);
}

TEST_F(Inventory, EveryResponseIsReleased) {
    for (const Table &table : tables) {
        platform().answers = {};
        get(table.magic, table.instance);
        EXPECT_EQ(fakes::unreleased_responses(), 0U) << "success of " << table.magic;
        platform().answers = {DaemonAnswer{-1, Bytes(table.record), std::nullopt}};
        get(table.magic, table.instance);
        EXPECT_EQ(fakes::unreleased_responses(), 0U) << "failure of " << table.magic;
        platform().answers = {reply(Bytes(3))};
        get(table.magic, table.instance);
        EXPECT_EQ(fakes::unreleased_responses(), 0U) << "short response of " << table.magic;
    }
}

TEST_F(Inventory, AFailedRequestKeepsTheStaticRecordButForItsKeys) {
    get(deviceColumn, {3});
    get(partitionColumn, {3, 4});
    get(fileColumn, {3, 4, 5});
    platform().daemon = [](const fakes::DaemonRequest &) {
        return DaemonAnswer{-1, Bytes(872, 0xdd), std::nullopt};
    };
    // The second round shows what the failures of the first left.
    for (int round = 0; round < 2; ++round) {
        fakes::forget();
        get(deviceColumn, {6});
        get(partitionColumn, {6, 7});
        get(fileColumn, {6, 7, 8});
        ASSERT_EQ(platform().requests.size(), 3U);
        EXPECT_EQ(platform().requests[0].record, device_record(6));
        EXPECT_EQ(platform().requests[1].record, partition_record(6, 7));
        const Bytes &file = platform().requests[2].record;
        EXPECT_EQ(Bytes(file.begin(), file.begin() + 320), file_record(6, 7, 8));
    }
}

TEST_F(Inventory, AnAnswerStaysValidUntilTheNextRequestReplacesIt) {
    Bytes other = device_record(1);
    at(other, 4, uint32_t{55});
    platform().answers = {reply(device_record(1)), reply(other)};
    const Answer first = get(deviceColumn, {1});
    EXPECT_EQ(first.counter(), 4000000000U);
    const Answer second = get(deviceColumn, {1});
    EXPECT_EQ(second.value, first.value);
    EXPECT_EQ(first.counter(), 55U);
}

// Keys: devices

TEST_F(Inventory, ADeviceGetWithOneArcAsksForThatDevice) {
    get(deviceColumn, {7});
    EXPECT_EQ(asked(), "1: 7");
}

TEST_F(Inventory, ADeviceGetWithoutAnInstanceAsksForDeviceZero) {
    get(deviceColumn);
    EXPECT_EQ(asked(), "1: 0");
}

TEST_F(Inventory, ADeviceGetOfAShorterNameAsksForDeviceZero) {
    Oid name = instance_of(deviceColumn);
    name.resize(name.size() - 1);
    ask(deviceColumn, name, true);
    EXPECT_EQ(asked(), "1: 0");
}

TEST_F(Inventory, ADeviceGetWithTwoArcsAnswersDeviceZeroUnderOneArc) {
    const Answer answer = get(deviceColumn, {7, 8});
    EXPECT_EQ(asked(), "1: 0");
    ASSERT_NE(answer.value, nullptr);
    EXPECT_EQ(answer.name, instance_of(deviceColumn, {0}));
}

TEST_F(Inventory, ADeviceGetWithTwoArcsIsNoSuchInstanceWhenTheDaemonHasNoDeviceZero) {
    platform().daemon = [](const fakes::DaemonRequest &) { return no_answer(); };
    EXPECT_EQ(get(deviceColumn, {7, 8}).value, nullptr);
}

TEST_F(Inventory, ADeviceGetnextOnTheColumnAsksForTheRecordAfterZero) {
    const Answer answer = getnext(deviceColumn);
    EXPECT_EQ(asked(), "2: 0");
    EXPECT_EQ(answer.name, instance_of(deviceColumn, {1}));
}

TEST_F(Inventory, ADeviceGetnextOfAShorterNameAsksForTheRecordAfterZero) {
    Oid name = instance_of(deviceColumn);
    name.resize(name.size() - 3);
    ask(deviceColumn, name, false);
    EXPECT_EQ(asked(), "2: 0");
}

TEST_F(Inventory, ADeviceGetnextFromAnInstanceAsksForTheRecordAfterIt) {
    const Answer answer = getnext(deviceColumn, {7});
    EXPECT_EQ(asked(), "2: 7");
    EXPECT_EQ(answer.name, instance_of(deviceColumn, {8}));
}

TEST_F(Inventory, ADeviceGetnextTakesItsKeyFromTheFirstInstanceArc) {
    getnext(deviceColumn, {7, 8, 9});
    EXPECT_EQ(asked(), "2: 7");
}

TEST_F(Inventory, ADeviceGetnextFromAnotherColumnAsksForTheRecordAfterZero) {
    Oid name = instance_of(deviceColumn, {7});
    name[name.size() - 2] -= 1;
    ask(deviceColumn, name, false);
    EXPECT_EQ(asked(), "2: 0");
}

// Keys: partitions

TEST_F(Inventory, APartitionGetWithTwoArcsAsksForThatPartition) {
    get(partitionColumn, {7, 8});
    EXPECT_EQ(asked(), "1: 7 8");
}

TEST_F(Inventory, APartitionGetOfAnyOtherLengthIsNullWithoutARequest) {
    Oid shorter = instance_of(partitionColumn);
    shorter.resize(shorter.size() - 1);
    for (const Oid &name :
         {shorter, instance_of(partitionColumn), instance_of(partitionColumn, {7}),
          instance_of(partitionColumn, {7, 8, 9})}) {
        const Answer answer = ask(partitionColumn, name, true);
        EXPECT_EQ(answer.value, nullptr);
        EXPECT_EQ(answer.name, name);
    }
    EXPECT_TRUE(platform().requests.empty());
}

TEST_F(Inventory, APartitionGetnextOnTheColumnAsksForTheRecordAfterZero) {
    const Answer answer = getnext(partitionColumn);
    EXPECT_EQ(asked(), "2: 0 0");
    EXPECT_EQ(answer.name, instance_of(partitionColumn, {0, 1}));
}

TEST_F(Inventory, APartitionGetnextOfAShorterNameAsksForTheRecordAfterZero) {
    Oid name = instance_of(partitionColumn);
    name.resize(name.size() - 3);
    ask(partitionColumn, name, false);
    EXPECT_EQ(asked(), "2: 0 0");
}

TEST_F(Inventory, APartitionGetnextWithOneArcAsksFromPartitionZeroOfThatDevice) {
    getnext(partitionColumn, {7});
    EXPECT_EQ(asked(), "2: 7 0");
}

TEST_F(Inventory, APartitionGetnextWithTwoArcsAsksForTheRecordAfterThem) {
    getnext(partitionColumn, {7, 8});
    EXPECT_EQ(asked(), "2: 7 8");
}

TEST_F(Inventory, APartitionGetnextIgnoresFurtherArcs) {
    getnext(partitionColumn, {7, 8, 9});
    EXPECT_EQ(asked(), "2: 7 8");
}

TEST_F(Inventory, APartitionGetnextFromAnotherColumnAsksForTheRecordAfterZero) {
    Oid name = instance_of(partitionColumn, {7, 8});
    name[name.size() - 3] -= 1;
    ask(partitionColumn, name, false);
    EXPECT_EQ(asked(), "2: 0 0");
}

// Keys: files

TEST_F(Inventory, AFileGetWithThreeArcsAsksForThatFile) {
    get(fileColumn, {7, 8, 9});
    EXPECT_EQ(asked(), "1: 7 8 9");
}

TEST_F(Inventory, AFileGetOfAnyOtherLengthAsksForFileZero) {
    Oid shorter = instance_of(fileColumn);
    shorter.resize(shorter.size() - 1);
    for (const Oid &name :
         {shorter, instance_of(fileColumn), instance_of(fileColumn, {7}),
          instance_of(fileColumn, {7, 8}), instance_of(fileColumn, {7, 8, 9, 10})}) {
        const Answer answer = ask(fileColumn, name, true);
        EXPECT_EQ(asked(), "1: 0 0 0");
        EXPECT_EQ(answer.name, instance_of(fileColumn, {0, 0, 0}));
    }
}

TEST_F(Inventory, AFileGetnextOnTheColumnAsksForTheRecordAfterZero) {
    const Answer answer = getnext(fileColumn);
    EXPECT_EQ(asked(), "2: 0 0 0");
    EXPECT_EQ(answer.name, instance_of(fileColumn, {0, 0, 1}));
}

TEST_F(Inventory, AFileGetnextOfAShorterNameAsksForTheRecordAfterZero) {
    Oid name = instance_of(fileColumn);
    name.resize(name.size() - 3);
    ask(fileColumn, name, false);
    EXPECT_EQ(asked(), "2: 0 0 0");
}

TEST_F(Inventory, AFileGetnextTakesAsManyKeysAsTheNameHas) {
    getnext(fileColumn, {7});
    EXPECT_EQ(asked(), "2: 7 0 0");
    getnext(fileColumn, {7, 8});
    EXPECT_EQ(asked(), "2: 7 8 0");
    getnext(fileColumn, {7, 8, 9});
    EXPECT_EQ(asked(), "2: 7 8 9");
    getnext(fileColumn, {7, 8, 9, 10});
    EXPECT_EQ(asked(), "2: 7 8 9");
}

TEST_F(Inventory, KeysOfARequestBeforeDoNotLingerInTheNext) {
    get(fileColumn, {7, 8, 9});
    getnext(partitionColumn, {7, 8});
    platform().requests.clear();
    getnext(fileColumn, {4});
    EXPECT_EQ(asked(), "2: 4 0 0");
    getnext(partitionColumn, {4});
    EXPECT_EQ(asked(), "2: 4 0");
}

TEST_F(Inventory, AFileGetnextFromAnotherColumnAsksForTheRecordAfterZero) {
    Oid name = instance_of(fileColumn, {7, 8, 9});
    name[name.size() - 4] -= 1;
    ask(fileColumn, name, false);
    EXPECT_EQ(asked(), "2: 0 0 0");
}

TEST_F(Inventory, NamesOfTheGreatestLengthAreSafe) {
    for (const Table &table : tables)
        for (const bool exact : {true, false}) {
            Oid name = instance_of(table.magic);
            name.resize(MAX_OID_LEN, 5);
            ask(table.magic, name, exact);
        }
    EXPECT_EQ(platform().requests.size(), 5U);
}

// The name of the answer

TEST_F(Inventory, TheNameOfTheAnswerHasTheKeysOfTheRecordAndNotOfTheRequest) {
    platform().answers = {reply(device_record(31)), reply(partition_record(32, 33)),
                          reply(file_record(34, 35, 36))};
    EXPECT_EQ(get(deviceColumn, {1}).name, instance_of(deviceColumn, {31}));
    EXPECT_EQ(get(partitionColumn, {1, 2}).name, instance_of(partitionColumn, {32, 33}));
    EXPECT_EQ(get(fileColumn, {1, 2, 3}).name, instance_of(fileColumn, {34, 35, 36}));
}

TEST_F(Inventory, KeysAbove2To31AreUnsignedArcs) {
    constexpr uint32_t last = 4294967295U;
    platform().answers = {reply(device_record(last)), reply(partition_record(last, last)),
                          reply(file_record(last, last, last))};
    EXPECT_EQ(getnext(deviceColumn).name, instance_of(deviceColumn, {last}));
    EXPECT_EQ(getnext(partitionColumn).name, instance_of(partitionColumn, {last, last}));
    EXPECT_EQ(getnext(fileColumn).name, instance_of(fileColumn, {last, last, last}));
}

TEST_F(Inventory, AGetnextFromAnotherColumnIsAnsweredUnderTheHandlersOwn) {
    Oid name = instance_of(fileColumn, {7, 8, 9});
    name[name.size() - 4] -= 1;
    EXPECT_EQ(ask(fileColumn, name, false).name, instance_of(fileColumn, {0, 0, 1}));
}

TEST_F(Inventory, TheWriteMethodIsLeftUntouched) {
    for (const Table &table : tables) {
        EXPECT_EQ(ask(table.magic, instance_of(table.magic, table.instance), true, {}, untouched)
                      .write_method,
                  untouched);
        platform().answers = {no_answer()};
        EXPECT_EQ(ask(table.magic, instance_of(table.magic, table.instance), true, {}, untouched)
                      .write_method,
                  untouched);
    }
}

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
