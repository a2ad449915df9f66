// The log dump.
#include "ruma/syslog.h"

#include "syserr/codes.h"
#include "temporary_directory.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class SyslogTest : public testing::Test {
  protected:
    void SetUp() override {
        request.kind = SYSLOG_DUMP_PLAIN;
        fs::create_directory(directory / "out");
    }

    int32_t dump() { return syslog_disp_logfile(&request, log.c_str(), output.c_str(), 0, 0, 0); }

    // The names beside the output.
    size_t entries() const {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(directory / "out"), fs::directory_iterator()));
    }

    // A refused dump leaves the output and its directory as they were.
    void expect_refused(int32_t code) {
        write_file(output, "before");
        EXPECT_EQ(dump(), code);
        EXPECT_EQ(read_file(output), "before");
        EXPECT_EQ(entries(), 1u);
    }

    TemporaryDirectory directory;
    std::string log = directory / "messages";
    std::string output = directory / "out/intsyslog";
    syslog_dump_request request{};
};

TEST_F(SyslogTest, WritesTheLogOut) {
    write_file(log, "line 1\nline 2\n");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(read_file(output), "line 1\nline 2\n");
    EXPECT_EQ(entries(), 1u);
}

TEST_F(SyslogTest, KeepsEveryByteOfALargeBinaryLog) {
    std::string content;
    for (int i = 0; i < 1000003; i++)
        content += static_cast<char>(i % 251);
    write_file(log, content);
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(read_file(output), content);
}

TEST_F(SyslogTest, AnEmptyLogGivesAnEmptyOutput) {
    write_file(log, "");
    write_file(output, "before");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(read_file(output), "");
}

TEST_F(SyslogTest, ReplacesTheOutputAsAWhole) {
    write_file(log, "short");
    write_file(output, "a much longer earlier dump");
    fs::create_hard_link(output, directory / "earlier");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(read_file(output), "short");
    EXPECT_EQ(read_file(directory / "earlier"), "a much longer earlier dump");
}

TEST_F(SyslogTest, TheOutputIsReadableByItsOwnerOnly) {
    write_file(log, "x");
    const mode_t umask_before = ::umask(0);
    EXPECT_EQ(dump(), 0);
    ::umask(umask_before);
    struct stat status {};
    ASSERT_EQ(::stat(output.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(SyslogTest, ALinkInTheOutputsPlaceIsReplacedAndNotFollowed) {
    write_file(log, "x");
    write_file(directory / "victim", "victim");
    fs::create_symlink(directory / "victim", output);
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(read_file(directory / "victim"), "victim");
    EXPECT_FALSE(fs::is_symlink(output));
    EXPECT_EQ(read_file(output), "x");
}

TEST_F(SyslogTest, AMissingLogIsAnError) { expect_refused(ruma::log_not_found); }

TEST_F(SyslogTest, ALinkAsLogIsRefused) {
    write_file(directory / "secret", "secret");
    fs::create_symlink("secret", log);
    expect_refused(ruma::log_not_a_file);
}

TEST_F(SyslogTest, ADirectoryAsLogIsRefused) {
    fs::create_directory(log);
    expect_refused(ruma::log_not_a_file);
}

TEST_F(SyslogTest, AFifoAsLogIsRefusedWithoutWaitingForAWriter) {
    ASSERT_EQ(::mkfifo(log.c_str(), 0600), 0);
    expect_refused(ruma::log_not_a_file);
}

TEST_F(SyslogTest, ADeviceAsLogIsRefused) {
    log = "/dev/null";
    expect_refused(ruma::log_not_a_file);
}

TEST_F(SyslogTest, AnOutputDirectoryThatDoesNotExistIsAnError) {
    write_file(log, "x");
    output = directory / "nothing/intsyslog";
    EXPECT_EQ(dump(), ruma::log_output_failed);
    EXPECT_FALSE(fs::exists(directory / "nothing"));
}

TEST_F(SyslogTest, ADirectoryInTheOutputsPlaceIsAnErrorAndStays) {
    write_file(log, "x");
    fs::create_directory(output);
    EXPECT_EQ(dump(), ruma::log_output_failed);
    EXPECT_TRUE(fs::is_directory(output));
    EXPECT_EQ(entries(), 1u);
}

TEST_F(SyslogTest, WithoutSpaceTheOutputStaysAndTheTemporaryFileGoes) {
    write_file(log, std::string(1 << 20, 'x'));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{100000, before.rlim_max};
    write_file(output, "before");
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const int32_t code = dump();
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(code, ruma::log_no_space);
    EXPECT_EQ(read_file(output), "before");
    EXPECT_EQ(entries(), 1u);
}

TEST_F(SyslogTest, ALogOf64MiBIsWrittenOut) {
    write_file(log, "x");
    fs::resize_file(log, 64 << 20);
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(fs::file_size(output), 64U << 20);
}

// A log of `size` bytes that is all zeros but for these texts at their places.
void write_log(const std::string &path, uint64_t size,
               const std::map<uint64_t, std::string> &texts) {
    write_file(path, "");
    fs::resize_file(path, size);
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    for (const auto &[place, text] : texts) {
        file.seekp(static_cast<std::streamoff>(place));
        file << text;
    }
}

constexpr uint64_t limit = 64 << 20;

TEST_F(SyslogTest, OfALargerLogTheWholeLinesAtItsEndAreWrittenOut) {
    constexpr uint64_t extra = 1000;
    // The line that the limit cuts begins before it and ends well behind the first block read.
    write_log(log, limit + extra,
              {{extra - 10, "\nold"}, {extra + 100000, "\nnew"}, {limit + extra - 6, "\nlast\n"}});
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(fs::file_size(output), limit - 100001);
    const std::string dumped = read_file(output);
    EXPECT_TRUE(dumped.starts_with("new")) << dumped.substr(0, 10);
    EXPECT_TRUE(dumped.ends_with("\nlast\n"));
}

TEST_F(SyslogTest, ALineThatBeginsExactlyAtTheLimitIsKept) {
    write_log(log, limit + 1000, {{999, "\nfirst\nsecond"}});
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(fs::file_size(output), limit);
    EXPECT_TRUE(read_file(output).starts_with("first\nsecond"));
}

TEST_F(SyslogTest, ALineThatBeginsOneByteBeforeTheLimitIsLeftOut) {
    write_log(log, limit + 1000, {{998, "\nfirst\nsecond"}});
    EXPECT_EQ(dump(), 0);
    EXPECT_TRUE(read_file(output).starts_with("second"));
}

TEST_F(SyslogTest, ALogOneByteAboveTheLimitLosesItsFirstLine) {
    write_log(log, limit + 1, {{0, "1\n2\n"}});
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(fs::file_size(output), limit - 1);
    EXPECT_TRUE(read_file(output).starts_with("2\n"));
}

TEST_F(SyslogTest, ALineAboveTheLimitIsCut) {
    for (const char *end : {"end", "end\n"}) {
        write_log(log, limit + 1000, {{limit + 1000 - std::strlen(end), end}});
        EXPECT_EQ(dump(), 0);
        EXPECT_EQ(fs::file_size(output), limit);
        EXPECT_TRUE(read_file(output).ends_with(end));
    }
}

TEST_F(SyslogTest, ARequestOfAnotherKindIsRefused) {
    write_file(log, "x");
    request.kind = 4;
    expect_refused(ruma::log_bad_request);
}

TEST_F(SyslogTest, NullArgumentsAreRefused) {
    write_file(log, "x");
    EXPECT_EQ(syslog_disp_logfile(nullptr, log.c_str(), output.c_str(), 0, 0, 0),
              ruma::log_bad_request);
    EXPECT_EQ(syslog_disp_logfile(&request, nullptr, output.c_str(), 0, 0, 0),
              ruma::log_bad_request);
    EXPECT_EQ(syslog_disp_logfile(&request, log.c_str(), nullptr, 0, 0, 0), ruma::log_bad_request);
    EXPECT_EQ(entries(), 0u);
}

TEST_F(SyslogTest, APartOfTheLogIsNotOffered) {
    write_file(log, "x");
    EXPECT_EQ(syslog_disp_logfile(&request, log.c_str(), output.c_str(), 1, 2, 0),
              ruma::log_bad_request);
}

TEST_F(SyslogTest, LeavesNoDescriptorOpen) {
    const auto count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = count();
    EXPECT_EQ(dump(), ruma::log_not_found);
    write_file(log, "x");
    EXPECT_EQ(dump(), 0);
    fs::remove(output);
    fs::create_directory(output);
    EXPECT_EQ(dump(), ruma::log_output_failed);
    EXPECT_EQ(count(), before);
}

} // namespace
