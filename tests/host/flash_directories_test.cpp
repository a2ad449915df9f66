// The search for directories that others than their owner can write.
#include "agent/flash_directories.h"

#include "temporary_directory.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

class FlashDirectories : public testing::Test {
  protected:
    void SetUp() override { make(top); }

    static void make(const fs::path &path, unsigned mode = 0755) {
        fs::create_directory(path);
        fs::permissions(path, fs::perms(mode)); // whatever the umask
    }

    ruma::DirectorySearch search(std::size_t max_entries = 1000) const {
        return ruma::search_writable(top, max_entries);
    }

    TemporaryDirectory directory;
    fs::path top = directory / "flash";
};

TEST_F(FlashDirectories, OfTheirOwnersAloneAreFine) {
    make(top / "dir");
    make(top / "dir/closed", 0700);
    write_file(top / "dir/file", "x");
    const ruma::DirectorySearch found = search();
    EXPECT_EQ(found.writable, "");
    EXPECT_EQ(found.entries, 3U);
    EXPECT_TRUE(found.whole);
}

TEST_F(FlashDirectories, ThatTheirGroupOrOthersCanWriteAreFound) {
    for (const unsigned mode : {0775U, 0757U, 0777U, 01777U, 0720U, 0702U}) {
        make(top, mode);
        EXPECT_EQ(search().writable, top) << std::oct << mode;
    }
}

TEST_F(FlashDirectories, AreFoundAtAnyDepth) {
    fs::path path = top;
    for (int depth = 0; depth < 20; depth++)
        make(path = path / "d");
    make(path / "open", 0777);
    EXPECT_EQ(search().writable, path / "open");
}

TEST_F(FlashDirectories, BehindALinkAreNotSearched) {
    make(directory / "elsewhere", 0777);
    fs::create_directory_symlink(directory / "elsewhere", top / "link");
    fs::create_directory_symlink("..", top / "up");
    const ruma::DirectorySearch found = search();
    EXPECT_EQ(found.writable, "");
    EXPECT_EQ(found.entries, 2U);
}

TEST_F(FlashDirectories, MayBeConfiguredByALink) {
    make(top / "open", 0777);
    fs::create_directory_symlink("flash", directory / "link");
    EXPECT_EQ(ruma::search_writable(directory / "link", 10).writable, directory / "link/open");
}

TEST_F(FlashDirectories, FilesThatOthersCanWriteAreNoMatter) {
    write_file(top / "file", "x");
    fs::permissions(top / "file", fs::perms(0666));
    ASSERT_EQ(::mkfifo((top / "fifo").c_str(), 0666), 0);
    EXPECT_EQ(search().writable, "");
}

TEST_F(FlashDirectories, ThatDoNotExistAreNotSearched) {
    fs::remove(top);
    EXPECT_TRUE(search().whole);
    EXPECT_EQ(search().writable, "");
}

TEST_F(FlashDirectories, InWhosePlaceIsAFileCannotBeSearched) {
    fs::remove(top);
    write_file(top, "");
    EXPECT_FALSE(search().whole);
}

TEST_F(FlashDirectories, AreSearchedUpToALimitOfEntries) {
    for (int i = 0; i < 10; i++)
        write_file(top / std::to_string(i), "");
    EXPECT_TRUE(search(10).whole);
    const ruma::DirectorySearch cut = search(9);
    EXPECT_FALSE(cut.whole);
    EXPECT_EQ(cut.entries, 9U);
}

TEST_F(FlashDirectories, AreSearchedUpToALimitOfDepth) {
    fs::path path = top;
    for (int depth = 0; depth < 40; depth++)
        make(path = path / "d", 0755);
    make(path / "open", 0777);
    const ruma::DirectorySearch cut = search();
    EXPECT_FALSE(cut.whole);
    EXPECT_EQ(cut.writable, "");
}

} // namespace
