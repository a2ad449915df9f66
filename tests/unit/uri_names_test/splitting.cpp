// The splitter of names at their scheme.
#include "fakes/fixture.h"

#include "flash_trace.h"
#include "flash_validate.h"

#include <algorithm>
#include <array>

namespace {

using namespace fakes;

// snmp_uri_map_str_split

class SplitTest : public fakes::FlashTest {
  protected:
    // Splits a text; its tokens are read from the beginning of their slots.
    int32_t split(const std::string &what, const char *delimiters = ":") {
        text.assign(what.begin(), what.end());
        text.push_back('\0');
        std::memset(slots.data(), '#', sizeof slots);
        return snmp_uri_map_str_split(text.data(), delimiters, slots.data());
    }
    // Beyond the end of its slot when a first token is that long.
    std::string token(size_t slot) const {
        return reinterpret_cast<const char *>(slots.data()) + slot * flashTokenSize;
    }
    bool untouched(size_t slot) const {
        return std::all_of(std::begin(slots[slot]), std::end(slots[slot]),
                           [](char c) { return c == '#'; });
    }
    std::vector<char> text;
    std::array<flashToken, flashNameTokens> slots;
};

TEST_F(SplitTest, ASlotHas255Bytes) { EXPECT_EQ(sizeof(flashToken), 255U); }

TEST_F(SplitTest, ThreePartsGiveThreeTokens) {
    EXPECT_EQ(split("slot0:dir:file"), 3);
    EXPECT_EQ(token(0), "slot0");
    EXPECT_EQ(token(1), "dir");
    EXPECT_EQ(token(2), "file");
    EXPECT_TRUE(untouched(3));
}

TEST_F(SplitTest, ATextWithoutADelimiterIsOneToken) {
    EXPECT_EQ(split("bootflash"), 1);
    EXPECT_EQ(token(0), "bootflash");
    EXPECT_TRUE(untouched(1));
}

TEST_F(SplitTest, NothingButDelimitersGivesNone) {
    for (const char *what : {"", ":", ":::::"}) {
        SCOPED_TRACE(what);
        EXPECT_EQ(split(what), 0);
        EXPECT_TRUE(untouched(0));
    }
}

TEST_F(SplitTest, RunsOfDelimitersCountAsOneAndLeadingOnesAreSkipped) {
    EXPECT_EQ(split("::a:::b::"), 2);
    EXPECT_EQ(token(0), "a");
    EXPECT_EQ(token(1), "b");
}

TEST_F(SplitTest, EveryCharacterOfTheDelimitersIsADelimiter) {
    EXPECT_EQ(split("a:b/c", ":/"), 3);
    EXPECT_EQ(token(2), "c");
}

TEST_F(SplitTest, TwoSlashesSplitAtEverySingleSlash) {
    EXPECT_EQ(split("/a/b//c", "//"), 3);
    EXPECT_EQ(token(0), "a");
    EXPECT_EQ(token(1), "b");
    EXPECT_EQ(token(2), "c");
}

TEST_F(SplitTest, TheDelimiterBehindEachTokenIsOverwritten) {
    split("ab:cd::ef:");
    EXPECT_EQ(std::string(text.begin(), text.end()), std::string("ab\0cd\0:ef\0\0", 11));
}

TEST_F(SplitTest, ATokenOf254CharactersIsStored) {
    const std::string longest(254, 'x');
    EXPECT_EQ(split("a:" + longest + ":b"), 3);
    EXPECT_EQ(token(1), longest);
    EXPECT_EQ(token(2), "b");
}

TEST_F(SplitTest, ALaterTokenOf255CharactersOrMoreIsDroppedAndLeavesNoGap) {
    for (size_t length : {255U, 256U, 300U, 5000U}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(split("a:" + std::string(length, 'x') + ":b:c"), 3);
        EXPECT_EQ(token(0), "a");
        EXPECT_EQ(token(1), "b");
        EXPECT_EQ(token(2), "c");
        EXPECT_TRUE(untouched(3));
    }
}

TEST_F(SplitTest, ALongLastTokenIsDropped) {
    EXPECT_EQ(split("a:" + std::string(300, 'x')), 1);
    EXPECT_TRUE(untouched(1));
}

TEST_F(SplitTest, ALongFirstTokenIsStoredWhole) {
    for (size_t length : {255U, 256U, 600U}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(split(std::string(length, 'x')), 1);
        EXPECT_EQ(token(0), std::string(length, 'x'));
    }
}

TEST_F(SplitTest, TheTokenBehindALongFirstOneTakesTheSecondSlot) {
    EXPECT_EQ(split(std::string(300, 'x') + ":b"), 2);
    EXPECT_EQ(token(1), "b");
    EXPECT_EQ(token(0), std::string(255, 'x') + "b");
}

TEST_F(SplitTest, TheLongestNameOfTheShortestTokensFillsItsSlots) {
    std::string name = "a";
    while (name.size() < 255)
        name += ":a";
    EXPECT_EQ(split(name), 128);
    for (size_t slot = 0; slot < flashNameTokens; ++slot)
        EXPECT_EQ(token(slot), "a") << slot;
}

TEST_F(SplitTest, IsTraced) {
    split("a/b:c", "/:");
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "In snmp_uri_map_str_split: str is a/b:c and delimiters is "
                                    "/:\n"},
                      {debug_level, "was able to tokenize and found a COLON..\n"},
                      {debug_level, "returning ctr = 3\n"}}));
}

TEST_F(SplitTest, ATextWithoutATokenIsTraced) {
    split("::");
    EXPECT_EQ(fakes::traces(),
              (Traces{{debug_level, "In snmp_uri_map_str_split: str is :: and delimiters is :\n"},
                      {debug_level, "returning ctr = 0\n"}}));
}

TEST_F(SplitTest, ADroppedTokenIsNotCountedInTheTrace) {
    split("a:" + std::string(300, 'x') + ":b");
    EXPECT_EQ(fakes::last_trace(), (Trace{debug_level, "returning ctr = 2\n"}));
}

} // namespace
