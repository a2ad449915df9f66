// The agent's error log.
#include "run_directory.h"

#include "agent/request.h"
#include "config/config.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

namespace {

using namespace agent;

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class ErrorLog : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove(path);
        fs::remove(path + ".1");
        ruma::leave_request();
    }
    void TearDown() override { ruma::leave_request(); }

    static netsnmp_pdu request_of(long version, std::string &user) {
        netsnmp_pdu pdu{};
        pdu.version = version;
        pdu.securityName = user.data();
        pdu.securityNameLen = user.size();
        return pdu;
    }

    // How a line names the session of the request that is being served.
    static std::string session() { return ", session " + std::to_string(get_snmp_sessionid(0)); }

    static int log(int32_t code, const std::string &text) {
        snmp_error_record record{};
        record.code = code;
        std::memcpy(record.text, text.data(), std::min(text.size(), sizeof record.text));
        return log_snmp_error(&record);
    }

    const std::string path = ruma::run_dir() + "/snmp-errors.log";
};

TEST_F(ErrorLog, HoldsOneLineWithTimeCodeAndText) {
    ASSERT_EQ(log(0x4049001C, "Invalid source file"), 0);
    EXPECT_THAT(read_file(path),
                testing::MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+Z, 0x4049001c, "
                                      "Invalid source file\n"));
}

TEST_F(ErrorLog, GrowsByALinePerRecord) {
    ASSERT_EQ(log(1, "one"), 0);
    ASSERT_EQ(log(2, "two"), 0);
    EXPECT_THAT(read_file(path),
                testing::MatchesRegex(".*Z, 0x00000001, one\n.*Z, 0x00000002, two\n"));
}

TEST_F(ErrorLog, GoesToTheAgentsLogToo) {
    ASSERT_EQ(log(0x4049001C, "for the agent"), 0);
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"),
                testing::HasSubstr("error 0x4049001c: for the agent\n"));
}

TEST_F(ErrorLog, NamesTheUserAndTheSessionOfTheRequest) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(0x4049001C, "Invalid source file"), 0);
    const std::string expected = "Invalid source file, user flashadmin" + session() + "\n";
    EXPECT_THAT(read_file(path), testing::EndsWith("Z, 0x4049001c, " + expected));
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"), testing::HasSubstr(": " + expected));
}

TEST_F(ErrorLog, NamesTheSessionAloneOfARequestWithoutUser) {
    std::string community = "secret";
    ruma::enter_request(request_of(SNMP_VERSION_2c, community));
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", x" + session() + "\n"));
}

TEST_F(ErrorLog, NamesNobodyWhenTheRequestIsOver) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ruma::leave_request();
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", x\n"));
}

TEST_F(ErrorLog, EscapesAUserNameThatWouldReadAsMoreThanOneField) {
    std::string user = "a\nb, session 7\x1b";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(1, "x"), 0);
    EXPECT_THAT(read_file(path),
                testing::EndsWith(", x, user a\\nb\\x2c session 7\\x1b" + session() + "\n"));
}

TEST_F(ErrorLog, EscapesATextThatWouldReadAsMoreThanOneField) {
    std::string user = "flashadmin";
    ruma::enter_request(request_of(SNMP_VERSION_3, user));
    ASSERT_EQ(log(1, "no file, user root, session 7"), 0);
    const std::string expected =
        "no file\\x2c user root\\x2c session 7, user flashadmin" + session() + "\n";
    EXPECT_THAT(read_file(path), testing::EndsWith("Z, 0x00000001, " + expected));
    EXPECT_THAT(read_file(ruma::run_dir() + "/agent.log"), testing::HasSubstr(": " + expected));
}

TEST_F(ErrorLog, ShowsNegativeCodes) {
    ASSERT_EQ(log(-1, "x"), 0);
    EXPECT_THAT(read_file(path), testing::HasSubstr(", 0xffffffff, x\n"));
}

TEST_F(ErrorLog, IsReadableByItsGroupOnly) {
    const mode_t before = umask(077);
    const int result = log(1, "x");
    umask(before);
    ASSERT_EQ(result, 0);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(ErrorLog, EscapesControlCharactersAndTheEscapeItself) {
    ASSERT_EQ(log(1, "a\nb\tc\\d\x1b[0m\x7f\x9b"), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", a\\nb\\x09c\\\\d\\x1b[0m\\x7f\\x9b\n"));
}

TEST_F(ErrorLog, TakesATextWithoutTerminator) {
    ASSERT_EQ(log(1, std::string(256, 't')), 0);
    EXPECT_THAT(read_file(path), testing::EndsWith(", " + std::string(256, 't') + "\n"));
}

TEST_F(ErrorLog, StaysBelowItsLimitAndKeepsOnePredecessor) {
    constexpr std::uintmax_t limit = 262144;
    for (int i = 0; i < 4000; ++i) {
        ASSERT_EQ(log(i, std::string(200, 't')), 0);
        ASSERT_LE(fs::file_size(path), limit);
    }
    EXPECT_GT(fs::file_size(path + ".1"), limit - 300);
    EXPECT_LE(fs::file_size(path + ".1"), limit);
    EXPECT_THAT(read_file(path), testing::HasSubstr(", 0x00000f9f, "));
    EXPECT_FALSE(fs::exists(path + ".2"));
}

TEST_F(ErrorLog, DoesNotFollowALink) {
    std::ofstream(path + ".target") << "precious";
    fs::create_symlink(path + ".target", path);
    EXPECT_EQ(log(1, "x"), -1);
    EXPECT_EQ(read_file(path + ".target"), "precious");
}

TEST_F(ErrorLog, RefusesToWriteIntoWhatIsNoFile) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(log(1, "x"), -1);
}

TEST_F(ErrorLog, RefusesNoRecord) { EXPECT_EQ(log_snmp_error(nullptr), -1); }

} // namespace
