// Both ways to look names up, by the kernel and component by component.
#include "tree.h"

#include "syserr/codes.h"
#include "temporary_directory.h"
#include "uri/confine.h"

#include <cctype>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using namespace uri;

// What holds of both ways to look names up, by the kernel and component by component.
class ConfineTest : public testing::TestWithParam<ruma::Lookup> {
  protected:
    void SetUp() override {
        fs::create_directories(directory / "in/dir/sub");
        write_file(directory / "in/file", "x");
        write_file(directory / "secret", "x");
    }

    int32_t confine(const std::string &name) {
        return ruma::confine(directory / "in", name, &found, GetParam());
    }

    TemporaryDirectory directory;
    ruma::Confined found;
};

TEST_P(ConfineTest, FindsWhatIsThere) {
    EXPECT_EQ(confine("dir/sub"), 0);
    EXPECT_EQ(found.path, directory / "in/dir/sub");
    ASSERT_TRUE(found.status);
    EXPECT_TRUE(S_ISDIR(found.status->st_mode));
    EXPECT_EQ(confine("file"), 0);
    ASSERT_TRUE(found.status);
    EXPECT_TRUE(S_ISREG(found.status->st_mode));
}

TEST_P(ConfineTest, TellsWhereAMissingFileWouldBe) {
    EXPECT_EQ(confine("dir/new"), 0);
    EXPECT_EQ(found.path, directory / "in/dir/new");
    EXPECT_FALSE(found.status);
}

TEST_P(ConfineTest, RefusesAMissingParent) {
    EXPECT_EQ(confine("nothing/new"), ruma::uri_no_directory);
    EXPECT_EQ(confine("file/new"), ruma::uri_no_directory);
}

TEST_P(ConfineTest, RefusesLinksThatLeadOutside) {
    fs::create_symlink("../secret", directory / "in/link");
    fs::create_directory_symlink("..", directory / "in/up");
    EXPECT_EQ(confine("link"), ruma::uri_outside);
    EXPECT_NE(confine("up/secret"), 0);
    EXPECT_EQ(confine("up"), ruma::uri_outside);
}

TEST_P(ConfineTest, RefusesDotDot) {
    EXPECT_EQ(confine("../secret"), ruma::uri_malformed);
    EXPECT_EQ(confine("dir/../../secret"), ruma::uri_malformed);
}

TEST_P(ConfineTest, RefusesANameTooLongForTheFileSystem) {
    EXPECT_EQ(confine(std::string(NAME_MAX, 'n')), 0);
    EXPECT_EQ(confine(std::string(NAME_MAX + 1, 'n')), ruma::uri_too_long);
}

TEST_P(ConfineTest, WorksBelowTheRootDirectory) {
    EXPECT_EQ(ruma::confine("/", "etc/passwd", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/etc/passwd");
    EXPECT_EQ(ruma::confine("/", "etc", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/etc");
    EXPECT_EQ(ruma::confine("/", "", &found, GetParam()), 0);
    EXPECT_EQ(found.path, "/");
}

TEST_P(ConfineTest, ADirectoryWhoseNameBeginsLikeTheRootIsNotBelowIt) {
    fs::create_directory(directory / "inner");
    fs::create_directory_symlink("../inner", directory / "in/link");
    EXPECT_NE(confine("link/new"), 0);
}

INSTANTIATE_TEST_SUITE_P(Lookups, ConfineTest,
                         testing::Values(ruma::Lookup::kernel, ruma::Lookup::portable),
                         [](const auto &instance) {
                             return instance.param == ruma::Lookup::kernel ? "Kernel" : "Portable";
                         });

TEST(ConfineFallbackTest, ThePortableLookUpFollowsNoLinkAtAll) {
    TemporaryDirectory directory;
    fs::create_directory(directory / "dir");
    fs::create_directory_symlink("dir", directory / "link");
    ruma::Confined found;
    EXPECT_EQ(ruma::confine(directory.path(), "link", &found, ruma::Lookup::portable),
              ruma::uri_outside);
    EXPECT_NE(ruma::confine(directory.path(), "link/new", &found, ruma::Lookup::portable), 0);
}

} // namespace
