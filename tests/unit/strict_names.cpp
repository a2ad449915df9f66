// The strict build's judgement of names, paths and indexes.
#include "flash_strict.h"

#include <cctype>
#include <gtest/gtest.h>
#include <string>

namespace {

bool refused(const std::string &name) {
    return flash::strict_refuses_name(reinterpret_cast<const u_char *>(name.data()), name.size());
}

TEST(Strict, OrdinaryNamesAreAccepted) {
    for (const char *name :
         {"bootflash:dir/image-1.0_b.bin", "log:messages", "a+b@c,d=e%f^g", "\xC3\xA4"})
        EXPECT_FALSE(refused(name)) << name;
}

TEST(Strict, EachCharacterWithAMeaningToAShellIsRefused) {
    for (const char character : std::string(" `$\"'\\|&;<>()*?[]{}~!#"))
        EXPECT_TRUE(refused(std::string("na") + character + "me")) << character;
}

TEST(Strict, ACharacterIsRefusedWhereverItStands) {
    for (const char *name : {";name", "na;me", "name;", ";"})
        EXPECT_TRUE(refused(name)) << name;
}

TEST(Strict, EachControlCharacterIsRefused) {
    for (char character = 0; character < ' '; character++)
        EXPECT_TRUE(refused(std::string("name") + character)) << static_cast<int>(character);
    EXPECT_TRUE(refused("name\x7F"));
}

TEST(Strict, APathOfLettersDigitsAndHarmlessMarksIsAccepted) {
    for (const char *path : {"/flash/dir/image-1.0_b.bin", "/a+b,c=d@e%f/Z", "image", "/", ""})
        EXPECT_FALSE(flash::strict_refuses_path(path)) << path;
}

TEST(Strict, APathWithAnyOtherCharacterIsRefused) {
    const std::string accepted = "._+,=@%/-";
    for (int code = 1; code < 256; code++) {
        const std::string character(1, static_cast<char>(code));
        const bool harmless =
            (code < 0x80 && std::isalnum(code)) || accepted.find(character) != accepted.npos;
        EXPECT_EQ(flash::strict_refuses_path(("/dir" + character + "x/file").c_str()), !harmless)
            << code;
        EXPECT_EQ(flash::strict_refuses_path(("/dir/file" + character).c_str()), !harmless) << code;
    }
}

TEST(Strict, RowIndexesAbove2147483647AreRefused) {
    EXPECT_FALSE(flash::strict_refuses_index(0));
    EXPECT_FALSE(flash::strict_refuses_index(1));
    EXPECT_FALSE(flash::strict_refuses_index(INT32_MAX));
    EXPECT_TRUE(flash::strict_refuses_index(INT32_MIN));
    EXPECT_TRUE(flash::strict_refuses_index(-1));
}

TEST(Strict, StagingNamesWithASlashAreRefused) {
    EXPECT_FALSE(flash::strict_refuses_staging("name"));
    EXPECT_TRUE(flash::strict_refuses_staging("/tmp/name"));
    EXPECT_TRUE(flash::strict_refuses_staging("directory/name"));
}

} // namespace
