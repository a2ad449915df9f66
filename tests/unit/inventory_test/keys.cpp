// The keys of the three tables: from a request's arcs, and back into the answer's name.
#include "inventory.h"

#include "flash_inventory.h"

namespace {

using namespace inventory;

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

} // namespace
