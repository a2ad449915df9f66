// Validation of a copy request: the refusal rules and their verdicts.
#include "validation.h"

#include "flash_trace.h"

#include <climits>

namespace {

using namespace copy_validation;

using RulesTest = fakes::FlashTest;

TEST_F(RulesTest, ARowWithoutFaultPasses) {
    for (int32_t command : {1, 3})
        for (int32_t protocol : {1, 4, 5, 6})
            for (int32_t state : {0, 1, 2, 3, 4, 5}) {
                SCOPED_TRACE(command * 100 + protocol * 10 + state);
                fakes::forget();
                flashCopyEntry row = good_row(command, protocol, state);
                EXPECT_EQ(judge(row), (Verdict{1, 0, initial, state}));
                EXPECT_EQ(rule_traces(), joined({}));
            }
}

// Commands and protocols: refusals that overwrite one another

struct Refusal {
    int32_t command;
    int32_t protocol;
    int32_t copy_status;
    Traces messages;
};

TEST_F(RulesTest, CommandsAndProtocolsAreRefusedAndTheLastRefusalWins) {
    const Refusal refusals[] = {
        {1, 2, 4, joined({protocol_refusal})},
        {3, 2, 4, joined({protocol_refusal})},
        {3, 3, 4, joined({protocol_refusal})},
        {5, 2, 4, joined({protocol_refusal})},
        {1, 3, 4, joined({protocol_refusal, lex_refusal})},
        {4, 1, 3, joined({log_refusal})},
        {4, 4, 3, joined({log_refusal})},
        {4, 2, 3, joined({protocol_refusal, log_refusal})},
        {4, 3, 3, joined({protocol_refusal, log_refusal})},
        {2, 1, 3, joined({erase_refusal})},
        {2, 6, 3, joined({erase_refusal})},
        {2, 2, 3, joined({protocol_refusal, erase_refusal})},
        {2, 3, 4, joined({protocol_refusal, erase_refusal, lex_refusal})},
    };
    for (const Refusal &refusal : refusals)
        for (int32_t state : {active, waiting, not_ready}) {
            SCOPED_TRACE(std::to_string(refusal.command) + " " + std::to_string(refusal.protocol));
            fakes::forget();
            flashCopyEntry row = good_row(refusal.command, refusal.protocol, state);
            if (refusal.command == 2)
                fakes::put(row.destinationName, "bootflash:new");
            EXPECT_EQ(judge(row), (Verdict{0, 10, refusal.copy_status, state}));
            EXPECT_EQ(rule_traces(), refusal.messages);
        }
}

TEST_F(RulesTest, AnUnknownCommandWithoutFaultPasses) {
    for (int32_t command : {0, 5, -1, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = good_row(command);
        EXPECT_EQ(judge(row), (Verdict{1, 0, initial, waiting}));
        EXPECT_THAT(fakes::calls(), IsEmpty());
    }
}

// Mandatory objects

struct Missing {
    const char *what;
    void (*remove)(flashCopyEntry &);
};
const Missing missing_objects[] = {
    {"server address", [](flashCopyEntry &r) { r.serverAddress = 0; }},
    {"source name", [](flashCopyEntry &r) { r.sourceName[0] = '\0'; }},
    {"protocol", [](flashCopyEntry &r) { r.protocol = 0; }},
    {"all", [](flashCopyEntry &r) {
         r.serverAddress = 0;
         r.sourceName[0] = '\0';
         r.protocol = 0;
     }}};

TEST_F(RulesTest, AnActiveRowThatLacksAMandatoryObjectIsInconsistentAtOnce) {
    for (const Missing &missing : missing_objects)
        for (int32_t command : {1, 3, 5}) {
            SCOPED_TRACE(missing.what);
            fakes::forget();
            flashCopyEntry row = good_row(command, 1, active);
            missing.remove(row);
            EXPECT_EQ(judge(row), (Verdict{0, 12, 4, active}));
            EXPECT_EQ(fakes::traces(), joined({}));
            EXPECT_THAT(fakes::calls(), IsEmpty());
        }
}

TEST_F(RulesTest, AnInactiveRowThatLacksAMandatoryObjectIsNotReady) {
    for (const Missing &missing : missing_objects)
        for (int32_t state : inactive_states) {
            SCOPED_TRACE(missing.what);
            fakes::forget();
            flashCopyEntry row = good_row(1, 1, state);
            missing.remove(row);
            EXPECT_EQ(judge(row), (Verdict{0, 0, initial, not_ready}));
            EXPECT_EQ(rule_traces(), joined({mandatory_refusal}));
        }
}

TEST_F(RulesTest, AnInactiveRowThatLacksAMandatoryObjectHasItsDestinationChecked) {
    flashCopyEntry row = good_row(1, 1, waiting);
    row.serverAddress = 0;
    judge(row);
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:new size=255 flags=0",
                                     "uriutil_stat_get uri=bootflash:new flags=0"}));
    EXPECT_STREQ(row.destinationPath, "/bootflash/new");
}

TEST_F(RulesTest, AnInactiveRowThatLacksAMandatoryObjectHasItsSourceChecked) {
    flashCopyEntry row = good_row(3, 1, waiting);
    row.serverAddress = 0;
    EXPECT_EQ(judge(row), (Verdict{0, 0, initial, not_ready}));
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:old size=255 flags=0"}));
}

TEST_F(RulesTest, AServerAddressOfAllOnesIsSet) {
    flashCopyEntry row = good_row();
    row.serverAddress = 0xffffffff;
    EXPECT_EQ(judge(row), (Verdict{1, 0, initial, waiting}));
}

TEST_F(RulesTest, ARefusalOfCommandOrProtocolStaysBehindAMissingObject) {
    flashCopyEntry row = good_row(4, 1, waiting);
    row.serverAddress = 0;
    EXPECT_EQ(judge(row), (Verdict{0, 10, 3, not_ready}));
    EXPECT_EQ(rule_traces(), joined({log_refusal, mandatory_refusal}));
}

TEST_F(RulesTest, AMissingObjectOfAnActiveRowOverwritesARefusalOfTheCommand) {
    flashCopyEntry row = good_row(4, 1, active);
    row.serverAddress = 0;
    EXPECT_EQ(judge(row), (Verdict{0, 12, 4, active}));
    EXPECT_EQ(rule_traces(), joined({log_refusal}));
}

// The destination of commands 1 and 2

const char *text_of(int32_t code) {
    static std::string text;
    text = platform().error_formats.at(code);
    return text.c_str();
}

class BadNameTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        platform().error_formats[0x4049001D] = "invalid destination";
        platform().error_formats[0x4049001C] = "invalid source";
    }
    static flashCopyEntry row_with_bad_name(int32_t command, int32_t state) {
        flashCopyEntry row = good_row(command, 1, state);
        platform().paths.clear();
        return row;
    }
};

TEST_F(BadNameTest, AnInactiveRowWithABadDestinationIsNotReady) {
    for (int32_t state : inactive_states) {
        SCOPED_TRACE(state);
        fakes::forget();
        flashCopyEntry row = row_with_bad_name(1, state);
        EXPECT_EQ(judge(row), (Verdict{0, 0, initial, not_ready}));
        EXPECT_EQ(rule_traces(), joined({}));
        EXPECT_THAT(platform().errors, IsEmpty());
    }
}

TEST_F(BadNameTest, AnActiveRowWithABadDestinationIsAnErrorInTheLog) {
    flashCopyEntry row = row_with_bad_name(1, active);
    EXPECT_EQ(judge(row), (Verdict{0, 5, 6, active}));
    EXPECT_EQ(rule_traces(), joined({{{debug_level, "Logged the error invalid destination\n"}}}));
    ASSERT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(platform().errors[0].code, 0x4049001D);
    EXPECT_STREQ(platform().errors[0].text, text_of(0x4049001D));
}

TEST_F(BadNameTest, ADirectoryIsABadDestination) {
    flashCopyEntry row = good_row(1, 1, active);
    platform().file_types["bootflash:new"] = 32;
    EXPECT_EQ(judge(row), (Verdict{0, 5, 6, active}));
    ASSERT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(platform().errors[0].code, 0x4049001D);
}

TEST_F(BadNameTest, Command2HasItsDestinationCheckedToo) {
    flashCopyEntry row = row_with_bad_name(2, waiting);
    EXPECT_EQ(judge(row), (Verdict{0, 10, 3, not_ready}));
    row = row_with_bad_name(2, active);
    EXPECT_EQ(judge(row), (Verdict{0, 5, 6, active}));
}

TEST_F(BadNameTest, OnlyTheDestinationOfCommands1And2IsResolved) {
    for (int32_t command : {1, 2}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = good_row(command);
        fakes::put(row.destinationName, "bootflash:new");
        judge(row);
        EXPECT_EQ(fakes::calls("uriutil_uri_to_path"),
                  (Lines{"uriutil_uri_to_path uri=bootflash:new size=255 flags=0"}));
        EXPECT_STREQ(row.destinationPath, "/bootflash/new");
        EXPECT_STREQ(row.sourcePath, "");
    }
}

TEST_F(BadNameTest, TheWholeErrorRecordIsClearedForABadDestination) {
    platform().error_formats[0x4049001D] = std::string(150, 'A');
    flashCopyEntry row = row_with_bad_name(1, active);
    judge(row);
    platform().error_formats[0x4049001D] = "short";
    judge(row);
    ASSERT_EQ(platform().errors.size(), 2U);
    snmp_error_record expected{};
    expected.code = 0x4049001D;
    std::snprintf(expected.text, sizeof expected.text, "short");
    EXPECT_EQ(std::memcmp(&platform().errors[1], &expected, sizeof expected), 0);
}

// The source of command 3

TEST_F(BadNameTest, AnInactiveRowWithABadSourceIsNotReady) {
    for (int32_t state : inactive_states) {
        SCOPED_TRACE(state);
        fakes::forget();
        flashCopyEntry row = row_with_bad_name(3, state);
        EXPECT_EQ(judge(row), (Verdict{0, 0, initial, not_ready}));
        EXPECT_EQ(rule_traces(), joined({}));
        EXPECT_THAT(platform().errors, IsEmpty());
    }
}

TEST_F(BadNameTest, AnActiveRowWithABadSourceIsAnErrorInTheLog) {
    flashCopyEntry row = row_with_bad_name(3, active);
    EXPECT_EQ(judge(row), (Verdict{0, 5, 5, active}));
    EXPECT_EQ(rule_traces(), joined({}));
    ASSERT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(platform().errors[0].code, 0x4049001C);
    EXPECT_STREQ(platform().errors[0].text, text_of(0x4049001C));
}

TEST_F(BadNameTest, TheErrorRecordIsNotClearedForABadSource) {
    platform().error_formats[0x4049001D] = std::string(150, 'A');
    flashCopyEntry destination = row_with_bad_name(1, active);
    judge(destination);
    flashCopyEntry source = row_with_bad_name(3, active);
    judge(source);
    ASSERT_EQ(platform().errors.size(), 2U);
    snmp_error_record expected = platform().errors[0];
    expected.code = 0x4049001C;
    std::memcpy(expected.text, "invalid source", sizeof "invalid source");
    EXPECT_EQ(std::memcmp(&platform().errors[1], &expected, sizeof expected), 0);
    EXPECT_EQ(platform().errors[1].text[100], 'A');
}

TEST_F(BadNameTest, AnErrorTextOfAnyLengthStaysInTheRecord) {
    for (int32_t command : {1, 3}) {
        SCOPED_TRACE(command);
        fakes::forget();
        platform().error_formats[0x4049001D] = std::string(1000, 'D');
        platform().error_formats[0x4049001C] = std::string(1000, 'S');
        flashCopyEntry row = row_with_bad_name(command, active);
        judge(row);
        ASSERT_EQ(platform().errors.size(), 1U);
        const snmp_error_record &logged = platform().errors[0];
        EXPECT_LT(strnlen(logged.text, sizeof logged.text), sizeof logged.text);
        for (int32_t word : logged.reserved)
            EXPECT_EQ(word, 0);
    }
}

TEST_F(BadNameTest, ALogThatCannotTakeTheErrorChangesNothing) {
    platform().log_snmp_error.always(-1);
    flashCopyEntry row = row_with_bad_name(1, active);
    EXPECT_EQ(judge(row), (Verdict{0, 5, 6, active}));
    row = row_with_bad_name(3, active);
    EXPECT_EQ(judge(row), (Verdict{0, 5, 5, active}));
}

TEST_F(BadNameTest, OnlyTheSourceOfCommand3IsResolved) {
    flashCopyEntry row = good_row(3);
    judge(row);
    EXPECT_EQ(fakes::calls(), (Lines{"uriutil_uri_to_path uri=bootflash:old size=255 flags=0"}));
    EXPECT_STREQ(row.sourcePath, "/bootflash/old");
    EXPECT_STREQ(row.destinationPath, "");
}

TEST_F(BadNameTest, CommandsOtherThan1To3HaveNoNameChecked) {
    for (int32_t command : {4, 5, 0}) {
        SCOPED_TRACE(command);
        fakes::forget();
        flashCopyEntry row = row_with_bad_name(command, active);
        judge(row);
        EXPECT_THAT(fakes::calls("uriutil"), IsEmpty());
    }
}

TEST_F(BadNameTest, ABadSourceBehindARefusedProtocolOverwritesIt) {
    flashCopyEntry row = row_with_bad_name(3, active);
    row.protocol = 3;
    EXPECT_EQ(judge(row), (Verdict{0, 5, 5, active}));
    row = row_with_bad_name(3, waiting);
    row.protocol = 3;
    EXPECT_EQ(judge(row), (Verdict{0, 10, 4, not_ready}));
}

TEST_F(BadNameTest, ARefusedProtocolStaysRefusedWithAGoodSource) {
    flashCopyEntry row = good_row(3, 3, active);
    EXPECT_EQ(judge(row), (Verdict{0, 10, 4, active}));
    EXPECT_STREQ(row.sourcePath, "/bootflash/old");
}

TEST_F(BadNameTest, TheSystemLogPassesAsASource) {
    for (int32_t state : {active, waiting}) {
        flashCopyEntry row = good_row(3, 1, state);
        fakes::put(row.sourceName, "log:messages");
        EXPECT_EQ(judge(row), (Verdict{1, 0, initial, state}));
        EXPECT_STREQ(row.sourcePath, "/var/tmp/intsyslog");
    }
}

} // namespace
