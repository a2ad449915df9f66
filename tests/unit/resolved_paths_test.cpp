// Resolvers that fill their buffer to the last byte: the terminator is the module's.
#include "fakes/fixture.h"

#include "flash_validate.h"

#include <algorithm>

namespace {

using namespace fakes;

const std::string longest(254, 'x');

class ResolvedPaths : public fakes::FlashTest {
  protected:
    // A resolver that leaves no room for a terminator.
    static void fill_to_the_brim() {
        platform().uriutil_uri_to_path.does([](const char *, char *path, size_t size, int) {
            std::fill_n(path, size, 'x');
            return 0;
        });
    }
};

TEST_F(ResolvedPaths, ADestinationIsCutTo254Characters) {
    fill_to_the_brim();
    flashCopyEntry row = fakes::copy_row();
    EXPECT_EQ(validate_filename(&row, flash::sideDestination), 1);
    EXPECT_EQ(row.destinationPath, longest);
    EXPECT_TRUE(fakes::traced(
        101, "validate_filename: returning SUCCESS with dest filename=" + longest + "\n"));
}

TEST_F(ResolvedPaths, ASourceIsCutTo254Characters) {
    fill_to_the_brim();
    flashCopyEntry row = fakes::copy_row();
    EXPECT_EQ(validate_filename(&row, flash::sideSource), 1);
    EXPECT_EQ(row.sourcePath, longest);
    EXPECT_TRUE(fakes::traced(
        101, "validate_filename: returning SUCCESS with source filename=" + longest + "\n"));
}

TEST_F(ResolvedPaths, AFileToDeleteIsCutTo254Characters) {
    fill_to_the_brim();
    flashMiscOpEntry row = fakes::misc_row();
    EXPECT_EQ(validate_flashMiscOp_entry(&row), 1);
    EXPECT_EQ(row.destinationFile, longest);
    EXPECT_TRUE(fakes::traced(
        101, "validate_flashMiscOp_entry: returning SUCCESS with dest filename=" + longest + "\n"));
}

TEST_F(ResolvedPaths, ACoreFileIsCutTo254Characters) {
    platform().svcmgrcmi_core_uri_to_path.does([](int, const char *, svcmgr_path *path) {
        std::fill(std::begin(path->text), std::end(path->text), 'x');
        return 0;
    });
    flashCopyEntry row = fakes::copy_row();
    EXPECT_EQ(validate_filename(&row, flash::sideSource), 1);
    EXPECT_EQ(row.sourcePath, longest);
    EXPECT_TRUE(fakes::traced(
        101, "validate_filename: returning SUCCESS with source filename=" + longest + "\n"));
}

TEST_F(ResolvedPaths, NothingOfAnEarlierPathIsKeptBehindAShorterOne) {
    platform().paths["bootflash:b"] = "/b";
    flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
        fakes::put(r.destinationName, "bootflash:b");
        fakes::put(r.destinationPath, longest);
    });
    EXPECT_EQ(validate_filename(&row, flash::sideDestination), 1);
    EXPECT_STREQ(row.destinationPath, "/b");
}

} // namespace
