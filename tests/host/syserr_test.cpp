// Texts of the platform's error codes.
#include "ruma/syserr.h"

#include "syserr/codes.h"

#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

const int32_t host_codes[] = {
    ruma::uri_bad_argument,      ruma::uri_malformed,     ruma::uri_unknown_scheme,
    ruma::uri_outside,           ruma::uri_no_directory,  ruma::uri_not_found,
    ruma::uri_too_long,          ruma::uri_refused,       ruma::uri_no_memory,
    ruma::uri_not_a_file,        ruma::uri_no_core_files, ruma::log_bad_request,
    ruma::uri_foreign_character, ruma::log_not_found,     ruma::log_not_a_file,
    ruma::log_unreadable,        ruma::log_output_failed, ruma::log_no_space,
};

const int32_t module_codes[] = {0x40490001, 0x40490002, 0x4049001C, 0x4049001D,
                                0x4049003C, 0x4049003E, 0x401E0059};

bool is_known(int32_t code) {
    const auto unknown = [](const char *text) {
        return std::string(text).starts_with("unknown error ");
    };
    return !unknown(syserr2str(code)) && !unknown(syserr_format(code));
}

TEST(SyserrTest, ZeroIsSuccess) {
    EXPECT_STREQ(syserr2str(0), "SUCCESS");
    EXPECT_STREQ(syserr_format(0), "The operation succeeded.");
}

TEST(SyserrTest, CodesOfTheCopyChecksHaveTheirTexts) {
    EXPECT_STREQ(syserr2str(0x4049001C), "invalid source file");
    EXPECT_STREQ(syserr2str(0x4049001D), "invalid destination file");
    EXPECT_STREQ(syserr2str(0x4049003C), "protocol not supported");
    EXPECT_STREQ(syserr2str(0x4049003E), "another copy in progress");
}

TEST(SyserrTest, SmallStatusesHaveTheirSnmpNames) {
    EXPECT_STREQ(syserr2str(2), "noSuchName");
    EXPECT_STREQ(syserr2str(5), "genErr");
    EXPECT_STREQ(syserr2str(7), "wrongType");
    EXPECT_STREQ(syserr2str(8), "wrongLength");
    EXPECT_STREQ(syserr2str(10), "wrongValue");
    EXPECT_STREQ(syserr2str(12), "inconsistentValue");
}

TEST(SyserrTest, EveryCodeOfTheModuleAndTheHostPlatformIsKnown) {
    for (const int32_t code : module_codes)
        EXPECT_TRUE(is_known(code)) << std::hex << code;
    for (const int32_t code : host_codes)
        EXPECT_TRUE(is_known(code)) << std::hex << code;
}

std::vector<int32_t> all_codes() {
    std::vector<int32_t> codes(std::begin(host_codes), std::end(host_codes));
    codes.insert(codes.end(), std::begin(module_codes), std::end(module_codes));
    return codes;
}

TEST(SyserrTest, SentencesFitTheErrorRecordAndAreSentences) {
    for (const int32_t code : all_codes()) {
        const std::string sentence = syserr_format(code);
        EXPECT_LE(sentence.size(), 200u) << sentence;
        EXPECT_EQ(sentence.back(), '.') << sentence;
    }
}

TEST(SyserrTest, SentencesAreNotEscapedInTheErrorLog) {
    for (const int32_t code : all_codes()) {
        const std::string sentence = syserr_format(code);
        EXPECT_EQ(sentence.find(','), std::string::npos) << sentence;
    }
}

TEST(SyserrTest, CodesAreTellableApartByTheirShortTexts) {
    std::set<std::string> names;
    for (const int32_t code : host_codes)
        EXPECT_TRUE(names.insert(syserr2str(code)).second) << syserr2str(code);
}

TEST(SyserrTest, UnknownCodesAreShownInHexadecimal) {
    EXPECT_STREQ(syserr2str(0x12), "inconsistentName");
    EXPECT_STREQ(syserr2str(0x13), "unknown error 0x00000013");
    EXPECT_STREQ(syserr_format(0x4049FFFF), "unknown error 0x4049FFFF");
    EXPECT_STREQ(syserr2str(-1), "unknown error 0xFFFFFFFF");
    EXPECT_STREQ(syserr2str(INT32_MIN), "unknown error 0x80000000");
}

} // namespace
