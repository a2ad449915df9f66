// Names that are split: which slots are filled, and how often a name is split.
#include "fakes/fixture.h"

#include "flash_validate.h"

#include <algorithm>

namespace {

using SplitNames = fakes::FlashTest;

TEST_F(SplitNames, TheSlotBehindTheLastTokenIsLeftAlone) {
    static flashToken slots[3];
    std::fill_n(&slots[0][0], sizeof slots, 'z');
    std::string text = "a:" + std::string(254, 'b');
    EXPECT_EQ(snmp_uri_map_str_split(text.data(), ":", slots), 2);
    EXPECT_EQ(slots[1], std::string(254, 'b'));
    EXPECT_TRUE(std::all_of(slots[2], std::end(slots[2]), [](char byte) { return byte == 'z'; }));
}

TEST_F(SplitNames, ANameOfSlashesAloneIsSplitAtColonsToo) {
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) { fakes::put(r.sourceName, "//"); });
    EXPECT_EQ(parse_file_n_get_pathname(&row, flash::sideSource), flash::pathOrdinary);
    EXPECT_STREQ(row.sourcePathName, "");
    EXPECT_TRUE(fakes::traced(101, "In snmp_uri_map_str_split: str is // and delimiters is //\n"));
    EXPECT_TRUE(fakes::traced(101, "In snmp_uri_map_str_split: str is // and delimiters is :\n"));
}

} // namespace
