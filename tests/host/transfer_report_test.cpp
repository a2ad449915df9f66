#include "report/transfer_report.h"

#include "config/config.h"
#include "temporary_directory.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using ruma::CauseKind;
using ruma::TransferCause;

class RunDirectory : public testing::Environment {
  public:
    void SetUp() override { setenv("RUMA_RUN_DIR", directory_.path().c_str(), 1); }

  private:
    TemporaryDirectory directory_;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

class TransferReport : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(ruma::run_dir() + "/transfer");
        ruma::begin_transfer_report();
    }

    const std::string page = ruma::run_dir() + "/transfer/" + std::to_string(getpid());

    ruma::TransferPage read() const {
        ruma::TransferPage content{};
        std::ifstream(page, std::ios::binary)
            .read(reinterpret_cast<char *>(&content), sizeof content);
        return content;
    }
    void write(const ruma::TransferPage &content, std::size_t size = sizeof(ruma::TransferPage)) {
        std::ofstream(page, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(&content), static_cast<std::streamsize>(size));
    }
    void enter() { ruma::report_cause({CauseKind::server, 1, "verdict", "words"}); }
    static TransferCause take() { return ruma::take_transfer_report(getpid()); }
    static void expect_nothing() { EXPECT_EQ(take().kind, CauseKind::none); }
};

TEST_F(TransferReport, HandsACauseOver) {
    enter();
    const TransferCause cause = take();
    EXPECT_EQ(cause.kind, CauseKind::server);
    EXPECT_EQ(cause.number, 1);
    EXPECT_EQ(cause.verdict, "verdict");
    EXPECT_EQ(cause.words, "words");
}

TEST_F(TransferReport, IsGoneOnceItIsTaken) {
    enter();
    take();
    EXPECT_FALSE(fs::exists(page));
    expect_nothing();
}

TEST_F(TransferReport, HasNoCauseUntilOneIsEntered) {
    EXPECT_TRUE(fs::exists(page));
    expect_nothing();
}

TEST_F(TransferReport, KeepsTheLastCause) {
    enter();
    ruma::report_cause({CauseKind::verdict, 0, "v", ""});
    const TransferCause cause = take();
    EXPECT_EQ(cause.verdict, "v");
    EXPECT_EQ(cause.words, "");
}

TEST_F(TransferReport, CutsLongTexts) {
    ruma::report_cause({CauseKind::client, 0, std::string(1000, 'v'), std::string(1000, 'w')});
    const TransferCause cause = take();
    EXPECT_EQ(cause.verdict, std::string(120, 'v'));
    EXPECT_EQ(cause.words, std::string(256, 'w'));
}

TEST_F(TransferReport, IsNamedInTheEnvironment) { EXPECT_EQ(getenv("RUMA_TRANSFER_REPORT"), page); }

TEST_F(TransferReport, IsNotWrittenByAChild) {
    const pid_t child = fork();
    if (child == 0) {
        enter();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    expect_nothing();
}

TEST_F(TransferReport, ReplacesThePageOfAFormerProcessOfThatId) {
    enter();
    ruma::begin_transfer_report();
    expect_nothing();
}

TEST_F(TransferReport, HasNoPageInADirectoryThatOthersCanUse) {
    for (const auto mode : {0755, 0710, 0702}) {
        fs::remove(page);
        chmod((ruma::run_dir() + "/transfer").c_str(), static_cast<mode_t>(mode));
        ruma::begin_transfer_report();
        EXPECT_FALSE(fs::exists(page));
        EXPECT_EQ(getenv("RUMA_TRANSFER_REPORT"), nullptr);
    }
}

TEST_F(TransferReport, HasNoPageInADirectoryThatIsALink) {
    const TemporaryDirectory elsewhere;
    chmod(elsewhere.path().c_str(), 0700);
    fs::remove_all(ruma::run_dir() + "/transfer");
    fs::create_directory_symlink(elsewhere.path(), ruma::run_dir() + "/transfer");
    ruma::begin_transfer_report();
    EXPECT_TRUE(fs::is_empty(elsewhere.path()));
    fs::remove(ruma::run_dir() + "/transfer");
}

TEST_F(TransferReport, DoesNotTrustAPageOfAnotherForm) {
    enter();
    const ruma::TransferPage good = read();
    const std::function<void(ruma::TransferPage &)> faults[] = {
        [](auto &each) { each.magic[7]++; },
        [](auto &each) { each.size--; },
        [](auto &each) { each.kind = 5; },
        [](auto &each) { each.kind = 0xFFFFFFFF; },
    };
    for (const auto &fault : faults) {
        ruma::TransferPage bad = good;
        fault(bad);
        write(bad);
        expect_nothing();
    }
    write(good, sizeof good - 1);
    expect_nothing();
    write(good);
    EXPECT_EQ(take().kind, CauseKind::server);
}

TEST_F(TransferReport, TakesALongerPageOfALaterMaker) {
    enter();
    ruma::TransferPage page_of_later = read();
    page_of_later.size += 100;
    write(page_of_later);
    std::ofstream(page, std::ios::app) << std::string(100, 'x');
    EXPECT_EQ(take().kind, CauseKind::server);
}

TEST_F(TransferReport, DoesNotFollowALinkOrWaitForAFifo) {
    enter();
    fs::rename(page, page + "0");
    fs::create_symlink(page + "0", page);
    expect_nothing();
    ASSERT_EQ(mkfifo(page.c_str(), 0600), 0);
    expect_nothing();
}

TEST_F(TransferReport, DoesNotTrustAPageOfAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    enter();
    ASSERT_EQ(chown(page.c_str(), 65534, 65534), 0);
    expect_nothing();
}

TEST_F(TransferReport, OfNoProcessIsNothing) {
    EXPECT_EQ(ruma::take_transfer_report(-1).kind, CauseKind::none);
    EXPECT_EQ(ruma::take_transfer_report(0).kind, CauseKind::none);
}

TEST_F(TransferReport, LeftoverIsRemovedWhenItsProcessIsNoMore) {
    const std::string directory = ruma::run_dir() + "/transfer/";
    for (const char *name : {"4194304", "4194305x", "other"})
        std::ofstream(directory + name) << "x";
    ruma::remove_leftover_reports();
    EXPECT_FALSE(fs::exists(directory + "4194304"));
    EXPECT_TRUE(fs::exists(directory + "4194305x"));
    EXPECT_TRUE(fs::exists(directory + "other"));
    EXPECT_TRUE(fs::exists(page));
}

TEST_F(TransferReport, LeftoversAreNotLookedForBehindALink) {
    const TemporaryDirectory elsewhere;
    chmod(elsewhere.path().c_str(), 0700);
    write_file(elsewhere / "4194304", "x");
    fs::remove_all(ruma::run_dir() + "/transfer");
    fs::create_symlink(elsewhere.path(), ruma::run_dir() + "/transfer");
    ruma::remove_leftover_reports();
    EXPECT_TRUE(fs::exists(elsewhere / "4194304"));
}

TEST_F(TransferReport, LeftoversAreNotLookedForInADirectoryOfAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give directories away";
    const std::string directory = ruma::run_dir() + "/transfer";
    write_file(directory + "/4194304", "x");
    ASSERT_EQ(chown(directory.c_str(), 65534, 65534), 0);
    ruma::remove_leftover_reports();
    EXPECT_TRUE(fs::exists(directory + "/4194304"));
}

TEST_F(TransferReport, LeftoversNeedNoDirectory) {
    fs::remove_all(ruma::run_dir() + "/transfer");
    ruma::remove_leftover_reports();
    expect_nothing();
}

} // namespace
