// A requested name ends where the agent says, and an answered one where the handler says: arcs
// behind them are neither read nor written.
#include "fakes/fixture.h"

#include "flash_inventory.h"

#include <algorithm>

namespace {

using namespace fakes;

// What stands behind the requested name: arcs that would be taken for an instance.
constexpr oid behind = 5;

class RequestBounds : public fakes::FlashTest {
  protected:
    // A GETNEXT for `name` in a buffer that goes on behind it. Expects that an answer leaves what
    // is behind it alone.
    static Answer getnext(int magic, const Oid &name) {
        const variable7 &row = fakes::object(magic);
        variable presented{};
        presented.magic = row.magic;
        const Oid column = instance_of(magic);
        presented.namelen = static_cast<u_char>(column.size());
        std::copy(column.begin(), column.end(), presented.name);

        oid requested[MAX_OID_LEN];
        std::fill(std::begin(requested), std::end(requested), behind);
        std::copy(name.begin(), name.end(), requested);
        size_t length = name.size();
        Answer answer;
        answer.value =
            row.findVar(&presented, requested, &length, 0, &answer.length, &answer.write_method);
        answer.name.assign(requested, requested + length);
        EXPECT_TRUE(std::all_of(requested + std::max(length, name.size()), std::end(requested),
                                [](oid arc) { return arc == behind; }));
        return answer;
    }

    // The keys of the request that a GETNEXT for `name` sends to the daemon, which has nothing.
    static std::vector<uint32_t> keys_sent(int magic, const Oid &name, size_t keys) {
        platform().requests.clear();
        getnext(magic, name);
        std::vector<uint32_t> sent;
        for (size_t key = 0; key < keys; ++key)
            sent.push_back(platform().requests.at(0).word(key));
        return sent;
    }
};

TEST_F(RequestBounds, AGetnextForAColumnStartsBeforeTheFirstRowWhateverLiesBehindTheName) {
    for (const int32_t index : {3, 7}) {
        fakes::add_copy_row(index);
        fakes::add_misc_row(index);
    }
    EXPECT_EQ(getnext(50, instance_of(50)).name, instance_of(50, {3}));
    EXPECT_EQ(getnext(74, instance_of(74)).name, instance_of(74, {3}));
}

TEST_F(RequestBounds, AGetnextFromARowWritesNothingBehindTheAnsweredName) {
    for (const int32_t index : {3, 7}) {
        fakes::add_copy_row(index);
        fakes::add_misc_row(index);
    }
    EXPECT_EQ(getnext(50, instance_of(50, {3})).name, instance_of(50, {7}));
    EXPECT_EQ(getnext(74, instance_of(74, {3})).name, instance_of(74, {7}));
}

TEST_F(RequestBounds, ADeviceKeyIsTakenFromTheNameAlone) {
    EXPECT_THAT(keys_sent(5, instance_of(5), 1), testing::ElementsAre(0));
    EXPECT_THAT(keys_sent(5, instance_of(5, {2}), 1), testing::ElementsAre(2));
}

TEST_F(RequestBounds, PartitionKeysAreTakenFromTheNameAlone) {
    EXPECT_THAT(keys_sent(29, instance_of(29), 2), testing::ElementsAre(0, 0));
    EXPECT_THAT(keys_sent(29, instance_of(29, {2}), 2), testing::ElementsAre(2, 0));
}

TEST_F(RequestBounds, FileKeysAreTakenFromTheNameAlone) {
    EXPECT_THAT(keys_sent(43, instance_of(43), 3), testing::ElementsAre(0, 0, 0));
    EXPECT_THAT(keys_sent(43, instance_of(43, {2}), 3), testing::ElementsAre(2, 0, 0));
    EXPECT_THAT(keys_sent(43, instance_of(43, {2, 1}), 3), testing::ElementsAre(2, 1, 0));
}

TEST_F(RequestBounds, AnAnsweredRecordWritesAsManyArcsAsItHasKeys) {
    flashDeviceEntry device{};
    device.index = 2;
    platform().answers.push_back(fakes::answer(device));
    EXPECT_EQ(getnext(5, instance_of(5)).name, instance_of(5, {2}));

    flashPartitionEntry partition{};
    partition.deviceIndex = 2;
    partition.index = 1;
    platform().answers.push_back(fakes::answer(partition));
    EXPECT_EQ(getnext(29, instance_of(29)).name, instance_of(29, {2, 1}));

    flashFileEntry file{};
    file.deviceIndex = 2;
    file.partitionIndex = 1;
    file.index = 9;
    platform().answers.push_back(fakes::answer(file));
    EXPECT_EQ(getnext(43, instance_of(43)).name, instance_of(43, {2, 1, 9}));
}

} // namespace
