// What is asked of the daemon, and what its answers come to.
#include "inventory.h"

#include "flash_inventory.h"

namespace {

using namespace inventory;

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

} // namespace
