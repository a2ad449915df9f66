// Validation of a copy request: the refusal rules, their verdicts, and the start of the copy.
#include "fakes/fixture.h"

#include "flash_trace.h"
#include "flash_validate.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <unistd.h>

namespace {

using namespace fakes;

constexpr int32_t initial = flash::copyStatusInitial;
constexpr int32_t active = flash::rowActive;
constexpr int32_t not_ready = flash::rowNotReady;
constexpr int32_t waiting = flash::rowCreateAndWait;

// Row states other than active: as far as the rules go they are all one.
constexpr int32_t inactive_states[] = {0, 2, 3, 4, 5};

// A row that may be copied: its destination resolves, and its source for command 3.
flashCopyEntry good_row(int32_t command = 1, int32_t protocol = 1, int32_t state = waiting) {
    platform().paths["bootflash:new"] = "/bootflash/new";
    platform().paths["bootflash:old"] = "/bootflash/old";
    return fakes::copy_row([&](flashCopyEntry &r) {
        r.index = 7;
        r.command = command;
        r.protocol = protocol;
        r.serverAddress = inet_addr("10.1.2.3");
        r.entryStatus = state;
        fakes::put(r.sourceName, command == 3 ? "bootflash:old" : "remote.bin");
        fakes::put(r.destinationName, command == 3 ? "kept.bin" : "bootflash:new");
    });
}

struct Verdict {
    int32_t result;
    int32_t error;
    int32_t copy_status;
    int32_t entry_status;
    bool operator==(const Verdict &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Verdict &v) {
    return out << "{result " << v.result << ", error " << v.error << ", copy status "
               << v.copy_status << ", entry status " << v.entry_status << "}";
}

Verdict judge(flashCopyEntry &row) {
    int32_t error = 4711;
    const int32_t result = validate_flash_entry(&row, &error);
    return {result, error, row.copyStatus, row.entryStatus};
}

// The messages of the rules alone, without those of the name resolution.
Traces rule_traces() {
    Traces all = fakes::traces();
    std::erase_if(all, [](const Trace &trace) {
        return trace.text.find("uriutil_uri_to_path") != std::string::npos ||
               trace.text.starts_with("validate_filename: ") ||
               trace.text.find("svcmgrcmi_core_uri_to_path") != std::string::npos ||
               trace.text == "Adding a new file.\n" ||
               trace.text == "destination cannot be directory.\n";
    });
    return all;
}

const Trace entering{debug_level, "Entering validate_flash_entry()...\n"};
const Traces protocol_refusal = {
    {error_level, "ERROR  validate_flash_entry : lex and rcp protocols not supported. \n"},
    {error_level, "flashCopyProtocol:rcp and lex not supported. ...\n"}};
const Traces log_refusal = {
    {error_level, "ERROR  validate_flash_entry : copyFromFlhLog command is not supported\n"},
    {error_level, "flashCopyCommand:COPY_FROM_FLHLOG not supported. ...\n"}};
const Traces erase_refusal = {
    {error_level, "ERROR  validate_flash_entry : Copy without ERASE NOT supported\n"},
    {error_level, "flashCopyCommand:Copy without ERASE NOT supported. ...\n"}};
const Traces lex_refusal = {
    {error_level, "ERROR  validate_flash_entry : Only allowed protocol are TFTP and RCP \n"},
    {error_level, "flashCopyProtocol:COPY_PROT_LEX not supported. ...\n"}};
const Traces mandatory_refusal = {
    {error_level, "ERROR  validate_flash_entry : Protocol,Server addr and source name are "
                  "MANDATORY objects\n"}};

Traces joined(std::initializer_list<Traces> parts) {
    Traces all = {entering};
    for (const Traces &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

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

// Validation and start

class StartTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        platform().error_formats[0x4049001D] = "invalid destination";
        fakes::set_time(5000, 123456);
    }
    // Puts a row into the store and asks for its copy: the status for the SET.
    int32_t start(flashCopyEntry wanted, bool stored = true) {
        row = wanted;
        if (stored)
            fakes::add_copy_row(wanted.index, [&](flashCopyEntry &r) { r = wanted; });
        fakes::forget();
        fakes::Capture output(STDOUT_FILENO);
        const int32_t result = validate_n_start_flash_copy(&row);
        printed = output.text();
        return result;
    }
    static void expect_stored_as(const flashCopyEntry &expected) {
        const auto stored = fakes::stored_copy_row(expected.index);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(std::memcmp(&*stored, &expected, sizeof expected), 0);
    }
    // The messages without those of the name resolution, the store and the worker's start.
    static Traces own_traces() {
        Traces all = rule_traces();
        std::erase_if(all, [](const Trace &trace) {
            return trace.text.find("start_flash_copy") != std::string::npos &&
                   trace.text != "Calling start_flash_copy()\n" &&
                   trace.text != "Entering validate_n_start_flash_copy()...\n" &&
                   !trace.text.starts_with("validate_n_start_flash_copy") &&
                   trace.text.find(" validate_n_start_flash_copy : ") == std::string::npos;
        });
        return all;
    }
    const Trace begun{debug_level, "Entering validate_n_start_flash_copy()...\n"};
    const Trace not_stored{
        error_level, "ERROR  validate_n_start_flash_copy : Set to entry (index= 7) failed \n"};

    flashCopyEntry row{};
    std::string printed;
};

TEST_F(StartTest, AnAcceptedRowIsInProgressAndStored) {
    for (int32_t command : {1, 3}) {
        SCOPED_TRACE(command);
        fakes::empty_tables();
        const flashCopyEntry wanted = good_row(command);
        EXPECT_EQ(start(wanted), 0);
        const auto stored = fakes::stored_copy_row(7);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->copyStatus, 1);
        EXPECT_EQ(stored->entryStatus, 1);
        EXPECT_EQ(stored->startTimestamp.seconds, 5000);
        EXPECT_EQ(stored->startTimestamp.microseconds, 123456);
        EXPECT_STREQ(stored->destinationPath, command == 1 ? "/bootflash/new" : "");
        EXPECT_STREQ(stored->sourcePath, command == 3 ? "/bootflash/old" : "");
    }
}

TEST_F(StartTest, AnAcceptedRowForksAWorker) {
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(fakes::calls("fork").size(), 1U);
    EXPECT_EQ(flash_copy_pid, 4242);
}

TEST_F(StartTest, TheRowIsStoredBeforeTheWorkerIsForked) {
    std::optional<flashCopyEntry> at_fork;
    os().fork.does([&at_fork] {
        at_fork = fakes::stored_copy_row(7);
        return pid_t{4242};
    });
    start(good_row());
    ASSERT_TRUE(at_fork.has_value());
    EXPECT_EQ(at_fork->copyStatus, 1);
    EXPECT_EQ(at_fork->entryStatus, 1);
    EXPECT_EQ(at_fork->startTimestamp.seconds, 5000);
}

TEST_F(StartTest, AnAcceptedRowIsTraced) {
    start(good_row());
    EXPECT_EQ(own_traces(),
              (Traces{begun,
                      entering,
                      {debug_level, "DEBUG  validate_n_start_flash_copy : Ready to copy\n"},
                      {debug_level, "validate_n_start_flash_copy Ready to copy\n"},
                      {debug_level, "Calling start_flash_copy()\n"},
                      {debug_level, "validate_n_start_flash_copy: status returned is 1\n"}}));
}

TEST_F(StartTest, TheStartIsPrinted) {
    start(good_row());
    EXPECT_EQ(printed, "calling start_flash_copy().....\n");
}

TEST_F(StartTest, AnotherCopyInProgressIsNotLookedFor) {
    fakes::add_copy_row(3, [](flashCopyEntry &r) { r.copyStatus = 1; });
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(fakes::calls("fork").size(), 1U);
}

TEST_F(StartTest, AFailedForkIsNotNoticed) {
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(flash_copy_pid, -1);
    EXPECT_EQ(fakes::stored_copy_row(7)->copyStatus, 1);
}

TEST_F(StartTest, TheRowIsReadBackFromTheStore) {
    os().fork.does([] {
        flashCopyEntry stored = *fakes::stored_copy_row(7);
        stored.copyStatus = 12;
        setFlashCopyEntry(&stored);
        return pid_t{4242};
    });
    EXPECT_EQ(start(good_row()), 0);
    EXPECT_EQ(row.copyStatus, 12);
    EXPECT_TRUE(fakes::traced(debug_level, "validate_n_start_flash_copy: status returned is 12\n"));
}

TEST_F(StartTest, ARowThatIsGoneAfterTheStartIsNoSuchName) {
    os().fork.does([] {
        flashCopyEntry key{};
        key.index = 7;
        deleteFlashCopyEntry(&key);
        return pid_t{4242};
    });
    EXPECT_EQ(start(good_row()), 2);
    for (const Trace &trace : fakes::traces())
        EXPECT_EQ(trace.text.find("status returned is"), std::string::npos) << trace.text;
}

TEST_F(StartTest, AnAcceptedRowThatCannotBeStoredIsAGeneralErrorAndNotStarted) {
    EXPECT_EQ(start(good_row(), false), 5);
    EXPECT_EQ(fakes::last_trace(), not_stored);
    EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    EXPECT_EQ(printed, "");
    EXPECT_EQ(flash_copy_pid, 0);
}

TEST_F(StartTest, ARefusedRowIsStoredWithItsVerdict) {
    EXPECT_EQ(start(good_row(4)), 10);
    EXPECT_EQ(row.copyStatus, 3);
    expect_stored_as(row);
    EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    EXPECT_EQ(printed, "");
}

TEST_F(StartTest, ARefusedRowKeepsItsStartTime) {
    flashCopyEntry wanted = good_row(4);
    wanted.startTimestamp = {1, 2};
    start(wanted);
    EXPECT_EQ(row.startTimestamp.seconds, 1);
    EXPECT_EQ(row.startTimestamp.microseconds, 2);
}

TEST_F(StartTest, TheStatusForTheSetIsThatOfTheRules) {
    struct {
        const char *what;
        flashCopyEntry wanted;
        int32_t result;
        int32_t copy_status;
        int32_t entry_status;
    } samples[] = {
        {"command", good_row(2), 10, 3, waiting},
        {"command and protocol", good_row(2, 3), 10, 4, waiting},
        {"protocol", good_row(1, 3), 10, 4, waiting},
        {"missing, active", good_row(1, 1, active), 12, 4, active},
        {"missing, inactive", good_row(), 0, initial, not_ready},
        {"destination, active", good_row(1, 1, active), 5, 6, active},
        {"destination, inactive", good_row(), 0, initial, not_ready},
        {"source, active", good_row(3, 1, active), 5, 5, active},
        {"source, inactive", good_row(3), 0, initial, not_ready},
    };
    samples[3].wanted.serverAddress = 0;
    samples[4].wanted.serverAddress = 0;
    for (int at : {5, 6})
        fakes::put(samples[at].wanted.destinationName, "nowhere:x");
    for (int at : {7, 8})
        fakes::put(samples[at].wanted.sourceName, "nowhere:x");
    for (const auto &sample : samples) {
        SCOPED_TRACE(sample.what);
        fakes::empty_tables();
        EXPECT_EQ(start(sample.wanted), sample.result);
        const auto stored = fakes::stored_copy_row(7);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->copyStatus, sample.copy_status);
        EXPECT_EQ(stored->entryStatus, sample.entry_status);
        EXPECT_THAT(fakes::calls("fork"), IsEmpty());
    }
}

TEST_F(StartTest, ARefusalIsTraced) {
    start(good_row(4));
    Traces expected = {begun, entering};
    expected.insert(expected.end(), log_refusal.begin(), log_refusal.end());
    expected.push_back({debug_level, "validate_flash_entry FAILED.\n"});
    EXPECT_EQ(own_traces(), expected);
}

TEST_F(StartTest, ARefusedRowThatCannotBeStoredIsAGeneralErrorWhateverTheRefusal) {
    flashCopyEntry incomplete = good_row();
    incomplete.serverAddress = 0;
    for (const flashCopyEntry &wanted : {good_row(4), incomplete}) {
        EXPECT_EQ(start(wanted, false), 5);
        EXPECT_TRUE(fakes::traced(debug_level, "validate_flash_entry FAILED.\n"));
        EXPECT_EQ(fakes::last_trace(), not_stored);
    }
}

// Line-card NVRAM: protocol 2

TEST_F(StartTest, Protocol2IsAFinishedLineCardCopyWithoutValidation) {
    for (int32_t command : {1, 2, 3, 4})
        for (int32_t state : {active, waiting}) {
            SCOPED_TRACE(command);
            fakes::empty_tables();
            flashCopyEntry wanted = good_row(command, 2, state);
            wanted.serverAddress = 0;
            fakes::put(wanted.sourceName, "ilc-nvram:a");
            fakes::put(wanted.destinationName, "nowhere:b");
            EXPECT_EQ(start(wanted), 0);
            wanted.entryStatus = active;
            wanted.copyStatus = 2;
            expect_stored_as(wanted);
            EXPECT_EQ(row.copyStatus, 2);
            EXPECT_THAT(fakes::calls(), IsEmpty());
            EXPECT_EQ(fakes::traces(),
                      (Traces{begun,
                              {debug_level, "Calling  rumapi_CopyIlcNVRAM with "
                                            "srcfile=ilc-nvram:a and dstFile=nowhere:b\n"}}));
            EXPECT_EQ(printed, "");
        }
}

TEST_F(StartTest, ALineCardCopyThatCannotBeStoredIsAGeneralError) {
    fakes::add_copy_row(3);
    EXPECT_EQ(start(good_row(1, 2), false), 5);
    EXPECT_EQ(fakes::last_trace(), not_stored);
    EXPECT_EQ(row.copyStatus, 2);
    EXPECT_EQ(row.entryStatus, 1);
}

TEST_F(StartTest, TheRowsIndexIsNamedWhenItCannotBeStored) {
    flashCopyEntry wanted = good_row(1, 2);
    wanted.index = 2147483647;
    start(wanted, false);
    EXPECT_THAT(fakes::last_trace().text, HasSubstr(": Set to entry (index= 2147483647) failed "));
}

} // namespace
