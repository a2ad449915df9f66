// The making of the run directory.
#include "base/run_directory.h"

#include "provoked.h"
#include "temporary_directory.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;

constexpr uid_t nobody = 65534;
constexpr uid_t somebody = 12345;

class RunDirectoryTest : public testing::Test {
  protected:
    void SetUp() override { fs::permissions(directory.path(), fs::perms(0777)); }

    // Why the directory cannot be had, or empty.
    std::string complaint(const std::string &name, std::optional<uid_t> agent_user = {}) {
        try {
            ruma::prepare_run_dir(name, agent_user);
        } catch (const std::runtime_error &error) {
            return error.what();
        }
        return {};
    }

    // Whether `body` is true as another user.
    static bool as_user(uid_t user, const std::function<bool()> &body) {
        const pid_t child = fork();
        if (child == 0)
            _exit(setresuid(user, user, user) == 0 && body() ? 0 : 1);
        int status = -1;
        waitpid(child, &status, 0);
        return status == 0;
    }

    static uid_t owner(const std::string &name) {
        struct stat status {};
        return stat(name.c_str(), &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
    }

    TemporaryDirectory directory;
    std::string path = directory / "run";
};

TEST_F(RunDirectoryTest, IsMadeForThisProcessWithoutAnAgentUser) {
    EXPECT_EQ(complaint(path), "");
    EXPECT_EQ(owner(path), geteuid());
}

TEST_F(RunDirectoryTest, IsMadeForTheAgentUserByRoot) {
    EXPECT_EQ(complaint(path, nobody), "");
    EXPECT_EQ(owner(path), nobody);
}

TEST_F(RunDirectoryTest, IsMadeByAnotherUserForThatUser) {
    EXPECT_TRUE(as_user(nobody, [this] { return complaint(path, somebody).empty(); }));
    EXPECT_EQ(owner(path), nobody);
}

TEST_F(RunDirectoryTest, HasTheSameModeWhateverTheUmask) {
    for (const mode_t mask : {0U, 077U}) {
        const mode_t before = umask(mask);
        EXPECT_EQ(complaint(path), "");
        EXPECT_EQ(umask(before), mask);
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0755));
        fs::remove(path);
    }
}

TEST_F(RunDirectoryTest, ThatIsThereIsLeftAsItIs) {
    fs::create_directory(path);
    fs::permissions(path, fs::perms(0711));
    write_file(path + "/file", "precious");
    EXPECT_EQ(complaint(path, nobody), "");
    EXPECT_EQ(owner(path), 0U);
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0711));
    EXPECT_EQ(read_file(path + "/file"), "precious");
}

TEST_F(RunDirectoryTest, OfRootItsOwnUserOrTheAgentUserIsTaken) {
    ASSERT_EQ(complaint(path), "");
    EXPECT_TRUE(as_user(nobody, [this] { return complaint(path).empty(); }));
    ASSERT_EQ(chown(path.c_str(), nobody, 0), 0);
    EXPECT_EQ(complaint(path, nobody), "");
    EXPECT_TRUE(as_user(nobody, [this] { return complaint(path).empty(); }));
    EXPECT_TRUE(as_user(somebody, [this] { return complaint(path, nobody).empty(); }));
}

TEST_F(RunDirectoryTest, OfAnotherUserIsRefused) {
    ASSERT_EQ(complaint(path), "");
    ASSERT_EQ(chown(path.c_str(), somebody, 0), 0);
    EXPECT_EQ(complaint(path), path + " belongs to another user");
    EXPECT_EQ(complaint(path, nobody), path + " belongs to another user");
    EXPECT_PROVOKED(complaint(path), "… belongs to another user");
}

TEST_F(RunDirectoryTest, ThatItsGroupOrOthersCanWriteIsRefused) {
    ASSERT_EQ(complaint(path), "");
    for (const unsigned mode : {0775U, 0757U, 0777U, 01777U, 0720U, 0702U}) {
        fs::permissions(path, fs::perms(mode));
        EXPECT_EQ(complaint(path, nobody), path + " can be written by others than its owner")
            << std::oct << mode;
        EXPECT_PROVOKED(complaint(path), "… can be written by others than its owner");
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(mode)) << "left as it is";
    }
    for (const unsigned mode : {0755U, 0711U, 0700U}) {
        fs::permissions(path, fs::perms(mode));
        EXPECT_EQ(complaint(path, nobody), "") << std::oct << mode;
    }
}

TEST_F(RunDirectoryTest, ThatIsALinkIsRefusedWithASlashAtItsEndToo) {
    fs::create_directory(directory / "elsewhere");
    fs::create_symlink("elsewhere", path);
    EXPECT_EQ(complaint(path, nobody), path + " is a symbolic link");
    EXPECT_EQ(complaint(path + "//", nobody), path + " is a symbolic link");
    EXPECT_PROVOKED(complaint(path), "… is a symbolic link");
    EXPECT_EQ(owner(directory / "elsewhere"), 0U);
}

TEST_F(RunDirectoryTest, ThatIsAFileIsRefused) {
    write_file(path, "precious");
    EXPECT_EQ(complaint(path, nobody), path + " is not a directory");
    EXPECT_PROVOKED(complaint(path), "… is not a directory");
    EXPECT_EQ(owner(path), 0U);
}

TEST_F(RunDirectoryTest, WithoutAParentIsRefused) {
    EXPECT_THAT(complaint(directory / "none/run"), EndsWith("none/run: No such file or directory"));
}

TEST_F(RunDirectoryTest, ThatMayNotBeMadeIsRefused) {
    fs::permissions(directory.path(), fs::perms(0755));
    EXPECT_TRUE(
        as_user(nobody, [this] { return complaint(path) == path + ": Permission denied"; }));
}

} // namespace
