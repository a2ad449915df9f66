// The ordered index container.
#include "ruma/ordset.h"

#include "failing_allocations.h"
#include "temporary_directory.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <unistd.h>
#include <vector>

namespace {

struct Item {
    int32_t index;
    int32_t content = 0;
};

int compare_items(const void *a, const void *b) {
    const int32_t left = static_cast<const Item *>(a)->index;
    const int32_t right = static_cast<const Item *>(b)->index;
    return left < right ? -1 : left > right ? 1 : 0;
}

class OrdsetTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(ordset_create(&set, 1, 1, compare_items, 1), 0); }
    // An ended set is one that was made anew; its tree belongs to the test then.
    void TearDown() override { ordset_create(&set, 1, 1, nullptr, 1); }

    void *add(Item *item) { return ordset_add(&set, item, item); }

    ordset set{};
};

TEST_F(OrdsetTest, AllZeroBytesAreAnEmptySet) {
    const ordset zero{};
    EXPECT_EQ(ordset_size(&zero), 0u);
}

TEST_F(OrdsetTest, AllZeroBytesRefuseInsertionAndFindNothing) {
    ordset zero{};
    Item item{1};
    EXPECT_EQ(ordset_add(&zero, &item, &item), nullptr);
    EXPECT_EQ(ordset_find(&zero, &item, 0), nullptr);
    EXPECT_EQ(ordset_find_nextgreater(&zero, &item), nullptr);
    EXPECT_EQ(ordset_find_nth_obj(&zero, 1), nullptr);
    EXPECT_EQ(ordset_remove(&zero, &item), nullptr);
}

TEST_F(OrdsetTest, CreatedSetIsEmpty) {
    EXPECT_EQ(ordset_size(&set), 0u);
    EXPECT_EQ(ordset_find_nth_obj(&set, 1), nullptr);
}

TEST_F(OrdsetTest, CreateGivesUpWhatTheSetHeldAndLeavesTheObjectsAlone) {
    Item item{7, 42};
    add(&item);
    ASSERT_EQ(ordset_create(&set, 1, 1, compare_items, 1), 0);
    EXPECT_EQ(ordset_size(&set), 0u);
    EXPECT_EQ(ordset_find(&set, &item, 0), nullptr);
    EXPECT_EQ(item.content, 42);
}

TEST_F(OrdsetTest, CreateWithoutMemoryFailsAndEveryInsertionFails) {
    Item item{7};
    add(&item);
    EXPECT_EQ(with_allocations(0, [&] { return ordset_create(&set, 1, 1, compare_items, 1); }), -1);
    EXPECT_EQ(ordset_size(&set), 0u);
    EXPECT_EQ(add(&item), nullptr);
}

TEST_F(OrdsetTest, CreateWithoutComparisonFails) {
    EXPECT_EQ(ordset_create(&set, 1, 1, nullptr, 1), -1);
}

TEST_F(OrdsetTest, AddReturnsTheObject) {
    Item item{7};
    EXPECT_EQ(add(&item), &item);
    EXPECT_EQ(ordset_size(&set), 1u);
}

TEST_F(OrdsetTest, AddOfAnEqualKeyReturnsTheObjectAlreadyThereAndInsertsNothing) {
    Item first{7};
    Item second{7};
    add(&first);
    EXPECT_EQ(add(&second), &first);
    EXPECT_EQ(ordset_size(&set), 1u);
    EXPECT_EQ(ordset_find(&set, &second, 0), &first);
}

TEST_F(OrdsetTest, AddWithoutMemoryReturnsNullAndLeavesTheSetAsItWas) {
    Item first{7};
    Item second{8};
    add(&first);
    EXPECT_EQ(with_allocations(0, [&] { return add(&second); }), nullptr);
    EXPECT_EQ(ordset_size(&set), 1u);
    EXPECT_EQ(add(&second), &second);
}

// Whether a set of a process whose limit is 2 keeps to it.
bool keeps_to_two(ordset &set, const std::string &log) {
    snmp_enable_filelog(log.c_str(), 0);
    Item items[] = {{1}, {2}, {3}};
    Item again{2};
    const auto add = [&set](Item *item) { return ordset_add(&set, item, item); };
    bool right = add(&items[0]) == &items[0] && add(&items[1]) == &items[1];
    right = right && add(&items[2]) == nullptr && add(&items[2]) == nullptr;
    right = right && add(&again) == &items[1] && ordset_size(&set) == 2;
    right = right && ordset_find_nextgreater(&set, &items[1]) == nullptr;
    ordset_remove(&set, &items[0]);
    right = right && add(&items[2]) == &items[2] && add(&items[0]) == nullptr;

    ordset other{};
    ordset_create(&other, 1, 1, compare_items, 1);
    return right && ordset_add(&other, &items[0], &items[0]) == &items[0];
}

// The configuration is read once, so that this is a process of its own. Tests of this name run
// before the others, which read it here.
using OrdsetDeathTest = OrdsetTest;

TEST_F(OrdsetDeathTest, AddRefusesMoreObjectsThanTheConfigurationAllowsAndSaysItOnceAMinute) {
    const TemporaryDirectory directory;
    const std::string log = directory / "log";
    write_file(directory / "platform.toml", "[agent]\nmax_rows = 2\n");
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", (directory / "platform.toml").c_str(), 1);
            ::_exit(keeps_to_two(set, log) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_file(log), "ruma: a table is full: max_rows is 2\n");
}

TEST_F(OrdsetTest, AddRefusesNullKeyAndObject) {
    Item item{7};
    EXPECT_EQ(ordset_add(&set, nullptr, &item), nullptr);
    EXPECT_EQ(ordset_add(&set, &item, nullptr), nullptr);
    EXPECT_EQ(ordset_size(&set), 0u);
}

TEST_F(OrdsetTest, FindTakesAKeyThatIsNotTheObject) {
    Item item{7};
    Item key{7};
    add(&item);
    EXPECT_EQ(ordset_find(&set, &key, 0), &item);
}

TEST_F(OrdsetTest, FindOfAMissingKeyReturnsNull) {
    Item item{7};
    Item key{8};
    add(&item);
    EXPECT_EQ(ordset_find(&set, &key, 0), nullptr);
    EXPECT_EQ(ordset_find(&set, nullptr, 0), nullptr);
}

TEST_F(OrdsetTest, FindNextgreaterReturnsTheFirstObjectGreaterThanTheKey) {
    Item two{2};
    Item four{4};
    add(&four);
    add(&two);
    Item key{0};
    EXPECT_EQ(ordset_find_nextgreater(&set, &key), &two);
    key.index = 2;
    EXPECT_EQ(ordset_find_nextgreater(&set, &key), &four);
    key.index = 3;
    EXPECT_EQ(ordset_find_nextgreater(&set, &key), &four);
    key.index = 4;
    EXPECT_EQ(ordset_find_nextgreater(&set, &key), nullptr);
}

TEST_F(OrdsetTest, OrderIsTheComparisonsNegativeKeysIncluded) {
    Item minus{-1};
    Item zero{0};
    Item lowest{INT32_MIN};
    Item highest{INT32_MAX};
    for (Item *item : {&zero, &highest, &minus, &lowest})
        add(item);
    EXPECT_EQ(ordset_find_nth_obj(&set, 1), &lowest);
    EXPECT_EQ(ordset_find_nth_obj(&set, 2), &minus);
    EXPECT_EQ(ordset_find_nth_obj(&set, 3), &zero);
    EXPECT_EQ(ordset_find_nth_obj(&set, 4), &highest);
}

TEST_F(OrdsetTest, FindNthCountsFromOneAndEndsWithTheLast) {
    Item item{7};
    add(&item);
    EXPECT_EQ(ordset_find_nth_obj(&set, 0), nullptr);
    EXPECT_EQ(ordset_find_nth_obj(&set, 1), &item);
    EXPECT_EQ(ordset_find_nth_obj(&set, 2), nullptr);
    EXPECT_EQ(ordset_find_nth_obj(&set, UINT32_MAX), nullptr);
}

TEST_F(OrdsetTest, RemoveUnlinksAndReturnsTheStoredObject) {
    Item item{7};
    Item key{7};
    add(&item);
    EXPECT_EQ(ordset_remove(&set, &key), &item);
    EXPECT_EQ(ordset_size(&set), 0u);
    EXPECT_EQ(ordset_find(&set, &key, 0), nullptr);
}

TEST_F(OrdsetTest, RemoveOfAMissingKeyReturnsNullAndRemovesNothing) {
    Item item{7};
    Item key{8};
    add(&item);
    EXPECT_EQ(ordset_remove(&set, &key), nullptr);
    EXPECT_EQ(ordset_size(&set), 1u);
}

TEST_F(OrdsetTest, ASetThatBecameEmptyTakesObjectsAgain) {
    Item item{7};
    add(&item);
    ordset_remove(&set, &item);
    EXPECT_EQ(add(&item), &item);
}

TEST_F(OrdsetTest, AgreesWithASortedMapOverManyOperations) {
    std::mt19937 random(1);
    std::uniform_int_distribution<int32_t> any_index(-50, 50);
    std::vector<Item> items;
    for (int32_t i = -50; i <= 50; i++)
        items.push_back({i});
    std::map<int32_t, Item *> model;
    for (int step = 0; step < 20000; step++) {
        Item key{any_index(random)};
        Item *item = &items[static_cast<size_t>(key.index + 50)];
        const auto known = model.find(key.index);
        const auto next = model.upper_bound(key.index);
        ASSERT_EQ(ordset_find(&set, &key, 0), known == model.end() ? nullptr : known->second);
        ASSERT_EQ(ordset_find_nextgreater(&set, &key),
                  next == model.end() ? nullptr : next->second);
        if (random() % 2 == 0) {
            ASSERT_EQ(add(item), item);
            model[key.index] = item;
        } else {
            ASSERT_EQ(ordset_remove(&set, &key), model.count(key.index) ? item : nullptr);
            model.erase(key.index);
        }
        ASSERT_EQ(ordset_size(&set), model.size());
    }
}

} // namespace
