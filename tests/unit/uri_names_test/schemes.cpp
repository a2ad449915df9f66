// The schemes of copies and deletes.
#include "sides.h"

#include "flash_trace.h"
#include "flash_validate.h"

namespace {

using namespace uri_names;

// Schemes

struct SchemeName {
    const char *name;
    const char *scheme; // null when no scheme is found
    bool of_a_delete;   // a delete accepts it too
};
const SchemeName scheme_names[] = {
    {"bootflash:image.bin", "bootflash", true},
    {"slot0:image.bin", "slot0", true},
    {"logflash:image.bin", "logflash", true},
    {"log:messages", "log", false},
    {"log:anything", "log", false},
    {"bootflash", "bootflash", true},
    {"slot0:", "slot0", true},
    {"log", "log", false},
    {":bootflash:image.bin", "bootflash", true},
    {"bootflash:a:b", "bootflash", true},
    {"BOOTFLASH:image.bin", nullptr, false},
    {"Slot0:image.bin", nullptr, false},
    {"bootflashes:image.bin", nullptr, false},
    {"bootflas:image.bin", nullptr, false},
    {"slot01:x", nullptr, false},
    {"slot:x", nullptr, false},
    {"logs:x", nullptr, false},
    {"lo:x", nullptr, false},
    {"logflash1:x", nullptr, false},
    {" bootflash:x", nullptr, false},
    {"bootflash :x", nullptr, false},
    {"bootflash/x", nullptr, false},
    {"usb1:image.bin", nullptr, false},
    {"ilc-nvram:x", nullptr, false},
    {"standby-sup:x", nullptr, false},
    {"image.bin", nullptr, false},
};

using CopySchemeTest = fakes::FlashTest;

std::string name_of(const flashCopyEntry &row, int32_t side) {
    return side == destination ? row.destinationName : row.sourceName;
}

TEST_F(CopySchemeTest, TheFirstTokenMustBeExactlyAScheme) {
    for (const SchemeName &sample : scheme_names)
        for (int32_t side : {destination, source}) {
            SCOPED_TRACE(sample.name);
            flashCopyEntry row = with_name(side, sample.name);
            EXPECT_EQ(parse_file_n_get_scheme(&row, side), sample.scheme != nullptr ? 1 : 0);
            EXPECT_STREQ(row.schemeName, sample.scheme != nullptr ? sample.scheme : "before");
        }
}

TEST_F(CopySchemeTest, EverySideButOneIsTheSource) {
    for (int32_t side : source_sides) {
        SCOPED_TRACE(side);
        flashCopyEntry row = with_name(source, "slot0:x");
        EXPECT_EQ(parse_file_n_get_scheme(&row, side), 1);
        EXPECT_STREQ(row.schemeName, "slot0");
    }
}

TEST_F(CopySchemeTest, TheNameIsNotCutUp) {
    for (int32_t side : {destination, source}) {
        flashCopyEntry row = with_name(side, "bootflash:a:b");
        parse_file_n_get_scheme(&row, side);
        EXPECT_EQ(name_of(row, side), "bootflash:a:b");
    }
}

TEST_F(CopySchemeTest, ANameWithoutATokenIsRefused) {
    for (const char *name : {"", ":", ":::"}) {
        SCOPED_TRACE(name);
        fakes::forget();
        flashCopyEntry row = with_name(source, name);
        EXPECT_EQ(parse_file_n_get_scheme(&row, source), 0);
        EXPECT_EQ(fakes::last_trace(),
                  (Trace{error_level,
                         "ERROR  parse_file_n_get_scheme : The Filename does NOT contain :\n"}));
        EXPECT_STREQ(row.schemeName, "before");
    }
}

TEST_F(CopySchemeTest, ATokenThatIsNoSchemeIsTraced) {
    flashCopyEntry row = with_name(source, "usb1:image.bin");
    parse_file_n_get_scheme(&row, source);
    EXPECT_EQ(
        fakes::traces(),
        (Traces{{debug_level, "In snmp_uri_map_str_split: str is usb1:image.bin and "
                              "delimiters is :\n"},
                {debug_level, "was able to tokenize and found a COLON..\n"},
                {debug_level, "returning ctr = 2\n"},
                {error_level, "ERROR  parse_file_n_get_scheme : NOT a valid scheme- usb1 :\n"}}));
}

TEST_F(CopySchemeTest, AWordThatIsNoSchemeIsTracedAsOne) {
    flashCopyEntry row = with_name(source, "image.bin");
    parse_file_n_get_scheme(&row, source);
    EXPECT_EQ(fakes::trace_texts(error_level),
              (Lines{"ERROR  parse_file_n_get_scheme : NOT a valid scheme- image.bin :\n"}));
}

TEST_F(CopySchemeTest, ASchemeIsTraced) {
    flashCopyEntry row = with_name(destination, "logflash:x");
    parse_file_n_get_scheme(&row, destination);
    EXPECT_EQ(
        fakes::traces(),
        (Traces{{debug_level, "In snmp_uri_map_str_split: str is logflash:x and delimiters is :\n"},
                {debug_level, "was able to tokenize and found a COLON..\n"},
                {debug_level, "returning ctr = 2\n"},
                {debug_level, "Found a valid scheme name.\n"},
                {debug_level, "Trying to print scheme name.\n"},
                {debug_level, "scheme name is logflash\n"}}));
}

TEST_F(CopySchemeTest, NamesOfTheLongestLengthAreHandled) {
    std::string many = "bootflash";
    while (many.size() + 2 <= 255)
        many += ":a";
    for (const std::string &name : {std::string(255, 'x'), std::string(255, ':'), many,
                                    std::string("bootflash:").append(245, 'x')}) {
        flashCopyEntry row = with_name(source, name);
        EXPECT_EQ(parse_file_n_get_scheme(&row, source), name.starts_with("bootflash:") ? 1 : 0);
        EXPECT_EQ(name_of(row, source), name);
    }
}

using DeleteSchemeTest = fakes::FlashTest;

flashMiscOpEntry with_delete_name(std::string_view name) {
    return fakes::misc_row([&](flashMiscOpEntry &r) {
        fakes::put(r.destinationName, name);
        fakes::put(r.schemeName, "before");
        fakes::put(r.intermediateName, "between");
    });
}

TEST_F(DeleteSchemeTest, TheFirstTokenMustBeExactlyASchemeOtherThanTheLog) {
    for (const SchemeName &sample : scheme_names) {
        SCOPED_TRACE(sample.name);
        flashMiscOpEntry row = with_delete_name(sample.name);
        EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), sample.of_a_delete ? 1 : 0);
        EXPECT_STREQ(row.schemeName, sample.of_a_delete ? sample.scheme : "before");
        if (!sample.of_a_delete) {
            EXPECT_STREQ(row.intermediateName, "between");
        }
    }
}

TEST_F(DeleteSchemeTest, TheSecondTokenIsStored) {
    const std::pair<const char *, const char *> names[] = {{"bootflash:image.bin", "image.bin"},
                                                           {"slot0:dir/file", "dir/file"},
                                                           {"logflash:a:b", "a"},
                                                           {"slot0::a", "a"},
                                                           {"slot0:///a", "///a"}};
    for (const auto &[name, rest] : names) {
        SCOPED_TRACE(name);
        flashMiscOpEntry row = with_delete_name(name);
        EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 1);
        EXPECT_STREQ(row.intermediateName, rest);
    }
}

TEST_F(DeleteSchemeTest, ASchemeAloneHasAnEmptyRest) {
    for (const char *name : {"bootflash", "bootflash:"}) {
        flashMiscOpEntry row = with_delete_name(name);
        EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 1);
        EXPECT_STREQ(row.intermediateName, "");
    }
}

TEST_F(DeleteSchemeTest, TheNameIsCutUp) {
    flashMiscOpEntry row = with_delete_name("bootflash:a:b");
    parse_MiscOpfile_n_get_scheme(&row);
    EXPECT_EQ(std::string(row.destinationName, 13), std::string("bootflash\0a\0b", 13));
}

TEST_F(DeleteSchemeTest, ANameWithoutATokenIsRefused) {
    for (const char *name : {"", ":", "::::"}) {
        SCOPED_TRACE(name);
        fakes::forget();
        flashMiscOpEntry row = with_delete_name(name);
        EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 0);
        EXPECT_EQ(
            fakes::last_trace(),
            (Trace{error_level,
                   "ERROR  parse_MiscOpfile_n_get_scheme : The Filename does NOT contain :\n"}));
    }
}

TEST_F(DeleteSchemeTest, ATokenThatIsNoSchemeIsRefusedSilently) {
    for (const char *name : {"log:messages", "usb1:image.bin"}) {
        SCOPED_TRACE(name);
        fakes::forget();
        flashMiscOpEntry row = with_delete_name(name);
        EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 0);
        EXPECT_EQ(fakes::last_trace(), (Trace{debug_level, "returning ctr = 2\n"}));
        EXPECT_EQ(fakes::traces().size(), 3U);
    }
}

TEST_F(DeleteSchemeTest, ASchemeIsTracedWithTheRest) {
    flashMiscOpEntry row = with_delete_name("slot0:dir/file");
    parse_MiscOpfile_n_get_scheme(&row);
    const Traces all = fakes::traces();
    ASSERT_EQ(all.size(), 7U);
    EXPECT_EQ(Traces(all.begin() + 3, all.end()),
              (Traces{{debug_level, "Found a valid scheme name.\n"},
                      {debug_level, "Trying to print scheme name.\n"},
                      {debug_level, "scheme name is slot0\n"},
                      {debug_level, "intermediate dest name is dir/file\n"}}));
}

TEST_F(DeleteSchemeTest, NamesOfTheLongestLengthAreHandled) {
    const std::string rest(245, 'x');
    flashMiscOpEntry row = with_delete_name("bootflash:" + rest);
    EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 1);
    EXPECT_EQ(row.intermediateName, rest);
    row = with_delete_name(std::string(255, 'x'));
    EXPECT_EQ(parse_MiscOpfile_n_get_scheme(&row), 0);
}

} // namespace
