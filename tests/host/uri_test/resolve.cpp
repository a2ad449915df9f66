// Device URIs: how they resolve, and the links on their way.
#include "tree.h"

#include "temporary_directory.h"

#include <cctype>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using namespace uri;

TEST_F(UriTest, ResolvesAFileWithAndWithoutASlashAfterTheColon) {
    EXPECT_EQ(resolve("bootflash:image"), boot / "image");
    EXPECT_EQ(resolve("bootflash:/image"), boot / "image");
}

TEST_F(UriTest, TheFileNeedNotExist) { EXPECT_EQ(resolve("bootflash:new"), boot / "new"); }

TEST_F(UriTest, ResolvesBelowSubdirectories) {
    EXPECT_EQ(resolve("bootflash:dir/new"), boot / "dir" / "new");
}

TEST_F(UriTest, TheDirectoryItselfResolves) {
    for (const char *uri :
         {"bootflash:", "bootflash:/", "bootflash://", "bootflash:.", "bootflash:/./"})
        EXPECT_EQ(resolve(uri), boot) << uri;
}

TEST_F(UriTest, AnExistingDirectoryResolves) {
    EXPECT_EQ(resolve("bootflash:dir"), boot / "dir");
    EXPECT_EQ(resolve("bootflash:dir/"), boot / "dir");
}

TEST_F(UriTest, RepeatedSlashesAndDotsAreNormalised) {
    EXPECT_EQ(resolve("bootflash://image"), boot / "image");
    EXPECT_EQ(resolve("bootflash:///dir//.///new"), boot / "dir" / "new");
    EXPECT_EQ(resolve("bootflash:./image"), boot / "image");
}

TEST_F(UriTest, ATrailingSlashOfAFileIsRefused) {
    EXPECT_EQ(resolve("bootflash:image/"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:new/"), "[no directory]");
}

TEST_F(UriTest, TheDirectoryOfTheSchemeIsCanonical) {
    EXPECT_EQ(resolve("slot0:new"), root / "real-slot/new");
}

TEST_F(UriTest, SchemesMatchExactlyAndCaseSensitively) {
    for (const char *uri :
         {"Bootflash:image", "BOOTFLASH:image", "bootflash2:image", "bootflas:image",
          " bootflash:image", "bootflash :image", "/bootflash:image", "log:messages", "core:image"})
        EXPECT_EQ(resolve(uri), "[unknown scheme]") << uri;
}

TEST_F(UriTest, AMissingSchemeIsRefused) {
    for (const char *uri : {"", ":", ":image", "image", "/etc/passwd", "bootflash"})
        EXPECT_EQ(resolve(uri), "[malformed]") << uri;
}

TEST_F(UriTest, OnlyTheFirstColonEndsTheScheme) {
    EXPECT_EQ(resolve("bootflash:a:b"), boot / "a:b");
    EXPECT_EQ(resolve("bootflash:slot0:image"), boot / "slot0:image");
}

TEST_F(UriTest, DotDotIsRefusedInEveryPosition) {
    for (const char *uri :
         {"bootflash:..", "bootflash:/..", "bootflash:../", "bootflash:../secret",
          "bootflash:/../secret", "bootflash://..//secret", "bootflash:dir/..",
          "bootflash:dir/../image", "bootflash:dir/../../secret", "bootflash:./../secret",
          "bootflash:nothing/../image", "bootflash:image/..", "bootflash:dir/.."})
        EXPECT_EQ(resolve(uri), "[malformed]") << uri;
}

TEST_F(UriTest, NamesThatOnlyLookLikeDotDotAreTaken) {
    for (const char *name : {"...", "..a", "a..", "a..b", ".hidden", ".. "})
        EXPECT_EQ(resolve(std::string("bootflash:") + name), boot / name);
}

TEST_F(UriTest, ControlCharactersAreRefusedAnywhere) {
    for (int c = 1; c < 0x20; c++) {
        EXPECT_EQ(resolve("bootflash:a" + std::string(1, static_cast<char>(c))), "[malformed]");
        EXPECT_EQ(resolve(std::string(1, static_cast<char>(c)) + "bootflash:a"), "[malformed]");
    }
    EXPECT_EQ(resolve("bootflash:\x7f"), "[malformed]");
    EXPECT_EQ(resolve("bootflash:\xc3\xa4 $(x);'\""), boot / "\xc3\xa4 $(x);'\"");
}

TEST_F(UriTest, AParentThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve("bootflash:nothing/new"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:image/new"), "[no directory]");
}

TEST_F(UriTest, AFileSystemThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve("gone:image"), "[no directory]");
    EXPECT_EQ(resolve("gone:"), "[no directory]");
}

TEST_F(UriTest, AFileInTheFileSystemsPlaceIsRefused) {
    fs::remove_all(boot);
    write_file(boot, "");
    EXPECT_EQ(resolve("bootflash:"), "[no directory]");
    EXPECT_EQ(resolve("bootflash:image"), "[no directory]");
    fs::remove(boot);
}

TEST_F(UriTest, NamesUpToTheFileSystemsLimitAreTaken) {
    const std::string longest(NAME_MAX, 'n');
    EXPECT_EQ(resolve("bootflash:" + longest, PATH_MAX), boot / longest);
    EXPECT_EQ(resolve("bootflash:" + longest + "n", PATH_MAX), "[too long]");
}

TEST_F(UriTest, APathThatJustFitsTheBufferIsTakenAndALongerOneRefusedNotCut) {
    const size_t room = 255 - 1 - (boot.string().size() + 1);
    EXPECT_EQ(resolve("bootflash:" + std::string(room, 'n'), 255).size(), 254u);
    EXPECT_EQ(resolve("bootflash:" + std::string(room + 1, 'n'), 255), "[too long]");
    EXPECT_EQ(resolve("bootflash:", 0), "[too long]");
    EXPECT_EQ(resolve("bootflash:", boot.string().size()), "[too long]");
    EXPECT_EQ(resolve("bootflash:", boot.string().size() + 1), boot);
}

TEST_F(UriTest, AUriOfExcessiveLengthIsRefused) {
    EXPECT_EQ(resolve("bootflash:" + std::string(100000, 'n')), "[too long]");
    EXPECT_EQ(resolve(std::string(100000, 'n')), "[too long]");
    EXPECT_EQ(resolve("bootflash:" + std::string(PATH_MAX, '/') + "image"), "[too long]");
}

TEST_F(UriTest, ALinkToADirectoryInsideIsFollowedAndResolved) {
    fs::create_directory_symlink("dir", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/new"), boot / "dir" / "new");
}

TEST_F(UriTest, ALinkUpButStillInsideIsFollowed) {
    fs::create_directory(boot / "other");
    fs::create_directory_symlink("../other", boot / "dir" / "link");
    EXPECT_EQ(resolve("bootflash:dir/link/new"), boot / "other" / "new");
}

TEST_F(UriTest, ALinkToADirectoryOutsideIsRefused) {
    for (const char *target : {"/", "/tmp", "..", "../core", "dir/../../core", "."}) {
        fs::remove(boot / "link");
        fs::create_directory_symlink(target, boot / "link");
        const bool inside = std::string(target) == ".";
        EXPECT_EQ(resolve("bootflash:link/new"), inside ? (boot / "new").string() : "[outside]")
            << target;
    }
}

TEST_F(UriTest, AnAbsoluteLinkIsRefusedEvenWhenItsTargetLiesInside) {
    fs::create_directory_symlink(boot / "dir", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/new"), "[outside]");
}

TEST_F(UriTest, ALinkAsLastComponentThatLeadsOutsideIsRefused) {
    for (const char *target : {"/etc/passwd", "../secret", "dir/../../secret", "..", "/"}) {
        fs::remove(boot / "link");
        fs::create_symlink(target, boot / "link");
        EXPECT_EQ(resolve("bootflash:link"), "[outside]") << target;
        EXPECT_EQ(resolve("bootflash:dir/../link"), "[malformed]");
    }
}

TEST_F(UriTest, ALinkAsLastComponentToNothingIsRefused) {
    for (const char *target : {"/nothing", "../nothing", "nothing", "nothing/../../secret"}) {
        fs::remove(boot / "link");
        fs::create_symlink(target, boot / "link");
        EXPECT_EQ(resolve("bootflash:link"), "[outside]") << target;
    }
}

TEST_F(UriTest, AChainOfLinksThatEndsOutsideIsRefused) {
    fs::create_symlink("second", boot / "first");
    fs::create_symlink("dir/third", boot / "second");
    fs::create_symlink("../../secret", boot / "dir" / "third");
    EXPECT_EQ(resolve("bootflash:first"), "[outside]");
}

TEST_F(UriTest, ALoopOfLinksIsRefused) {
    fs::create_symlink("b", boot / "a");
    fs::create_symlink("a", boot / "b");
    EXPECT_EQ(resolve("bootflash:a"), "[outside]");
    EXPECT_EQ(resolve("bootflash:a/new"), "[outside]");
}

TEST_F(UriTest, ALinkAsLastComponentThatStaysInsideKeepsItsName) {
    fs::create_symlink("image", boot / "link");
    fs::create_symlink("../image", boot / "dir" / "link");
    EXPECT_EQ(resolve("bootflash:link"), boot / "link");
    EXPECT_EQ(resolve("bootflash:dir/link"), boot / "dir" / "link");
}

TEST_F(UriTest, AMagicLinkIsRefused) {
    fs::create_symlink("/proc/self/root", boot / "link");
    EXPECT_EQ(resolve("bootflash:link/etc/passwd"), "[outside]");
}

} // namespace
