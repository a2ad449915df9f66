// What is told of a file, and core-file URIs.
#include "tree.h"

#include "ruma/svcmgr.h"
#include "ruma/uri.h"

#include "syserr/codes.h"
#include "temporary_directory.h"

#include <cctype>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace uri;

TEST_F(UriTest, StatOfADirectoryHasType32) {
    uriutil_stat stat{};
    for (const char *uri : {"bootflash:", "bootflash:/", "bootflash:dir", "bootflash:/dir/"}) {
        stat.file_type = 0;
        EXPECT_EQ(stat_of(uri, &stat), "ok") << uri;
        EXPECT_EQ(stat.file_type, 32) << uri;
    }
}

TEST_F(UriTest, StatOfARegularFileTellsItsModeSizeAndTime) {
    ASSERT_EQ(::chmod((boot / "image").c_str(), 0640), 0);
    const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (boot / "image").c_str(), times, 0), 0);
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:image", &stat), "ok");
    EXPECT_NE(stat.file_type, 32);
    EXPECT_EQ(stat.mode, 0640u);
    EXPECT_EQ(stat.size, 5u);
    EXPECT_EQ(stat.modified, 1000000000);
}

TEST_F(UriTest, StatKnowsFilesAbove4GiB) {
    fs::resize_file(boot / "image", (uint64_t{5} << 30) + 7);
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:image", &stat), "ok");
    EXPECT_EQ(stat.size, (uint64_t{5} << 30) + 7);
}

TEST_F(UriTest, StatFollowsALinkInside) {
    fs::create_symlink("dir", boot / "link");
    uriutil_stat stat{};
    EXPECT_EQ(stat_of("bootflash:link", &stat), "ok");
    EXPECT_EQ(stat.file_type, 32);
}

TEST_F(UriTest, StatOfAMissingFileIsAnErrorAndLeavesTheRecordAlone) {
    uriutil_stat stat{77, 78, 79, 80};
    EXPECT_EQ(stat_of("bootflash:new", &stat), "[not found]");
    EXPECT_EQ(stat_of("unknown:new", &stat), "[unknown scheme]");
    fs::create_symlink("../secret", boot / "link");
    EXPECT_EQ(stat_of("bootflash:link", &stat), "[outside]");
    EXPECT_EQ(stat.file_type, 77);
    EXPECT_EQ(stat.mode, 78u);
    EXPECT_EQ(stat.size, 79u);
    EXPECT_EQ(stat.modified, 80);
}

TEST_F(UriTest, ACoreFileResolves) {
    write_file(root / "core/snmpd.core", "core");
    EXPECT_EQ(resolve_core("core:snmpd.core"), root / "core/snmpd.core");
    EXPECT_EQ(resolve_core("core:/snmpd.core"), root / "core/snmpd.core");
}

TEST_F(UriTest, ACoreFileThatDoesNotExistIsRefused) {
    EXPECT_EQ(resolve_core("core:snmpd.core"), "[not found]");
}

TEST_F(UriTest, ACoreUriMustNameARegularFile) {
    fs::create_directory(root / "core/dir");
    EXPECT_EQ(resolve_core("core:dir"), "[not a file]");
    EXPECT_EQ(resolve_core("core:"), "[not a file]");
}

TEST_F(UriTest, ACoreUriIsConfinedLikeADeviceUri) {
    fs::create_symlink("../secret", root / "core/link");
    EXPECT_EQ(resolve_core("core:link"), "[outside]");
    EXPECT_EQ(resolve_core("core:../secret"), "[malformed]");
}

TEST_F(UriTest, OnlyTheCoreSchemeNamesCoreFiles) {
    write_file(root / "core/image", "core");
    for (const char *uri : {"bootflash:image", "Core:image", "cores:image"})
        EXPECT_EQ(resolve_core(uri), "[unknown scheme]") << uri;
    EXPECT_EQ(resolve_core("image"), "[malformed]");
}

TEST_F(UriTest, ACoreFileWithNullArgumentsIsRefused) {
    svcmgr_path path;
    EXPECT_EQ(svcmgrcmi_core_uri_to_path(-1, nullptr, &path), ruma::uri_bad_argument);
    EXPECT_EQ(svcmgrcmi_core_uri_to_path(-1, "core:x", nullptr), ruma::uri_bad_argument);
}

TEST_F(UriTest, WithoutACoreDirectoryThereAreNoCoreFiles) {
    // A process that has not read its configuration yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", (root / "absent.toml").c_str(), 1);
            svcmgr_path path;
            std::exit(
                svcmgrcmi_core_uri_to_path(-1, "core:x", &path) == ruma::uri_no_core_files ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
