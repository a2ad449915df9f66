// Validation of a copy, rule by rule, and both starts: everything that each path does, in its
// order.
#include "fakes/fixture.h"
#include "fakes/sequence.h"

#include "flash_validate.h"

#include <arpa/inet.h>
#include <cerrno>

namespace {

using namespace fakes;

constexpr int32_t active = flash::rowActive;
constexpr int32_t waiting = flash::rowCreateAndWait;
constexpr int32_t not_ready = flash::rowNotReady;
constexpr int32_t untouched = flash::copyStatusInitial;

// A row that may be copied, once "bootflash:new" and "bootflash:old" resolve.
flashCopyEntry good_row(int32_t command, int32_t protocol, int32_t state) {
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

// What is said and asked about the names

const Lines asked_destination = {
    D("validate_filename: calling uriutil_uri_to_path for destination file=bootflash:new\n"),
    "uriutil_uri_to_path uri=bootflash:new size=255 flags=0",
};
const Lines destination_unresolved =
    joined({asked_destination, {E("uriutil_uri_to_path for destination returned ERROR.\n")}});
const Lines destination_stat =
    joined({asked_destination, {"uriutil_stat_get uri=bootflash:new flags=0"}});
const Lines destination_accepted = {
    D("validate_filename: returning SUCCESS with dest filename=/bootflash/new\n")};
const Lines destination_new =
    joined({destination_stat, {D("Adding a new file.\n")}, destination_accepted});
const Lines destination_existing = joined({destination_stat, destination_accepted});
const Lines destination_directory =
    joined({destination_stat, {E("destination cannot be directory.\n")}});

const Lines asked_source = {
    D("validate_filename: calling uriutil_uri_to_path for source file=bootflash:old\n"),
    "uriutil_uri_to_path uri=bootflash:old size=255 flags=0",
};
const Lines source_resolved =
    joined({asked_source,
            {D("validate_filename: returning SUCCESS with source filename=/bootflash/old\n")}});
const Lines asked_core = joined({asked_source,
                                 {D("uriutil_uri_to_path for source returned ERROR.\n"),
                                  "svcmgrcmi_core_uri_to_path queue=77 uri=bootflash:old"}});
const Lines core_resolved = joined(
    {asked_core, {D("validate_filename: returning SUCCESS with source filename=/core/7\n")}});
const Lines source_unresolved =
    joined({asked_core, {E("svcmgrcmi_core_uri_to_path for source returned ERROR (41000003).\n")}});

const Lines asked_log = {
    D("validate_filename: want to copy a logfile.\n"),
    "get_snmp_username request=0",
    "get_snmp_sessionid request=0",
    "syslog_disp_logfile user=operator session=12 kind=5 log=/var/log/external/messages "
    "output=/var/tmp/intsyslog 0 0 0",
};
const Lines log_dumped = joined(
    {asked_log, {D("Tring to print expandedDestFileName..\n"), D("expandedDestFileName is \n")}});
const Lines log_not_dumped = joined({asked_log, {E("syslog_disp_logfile returned ERROR.\n")}});

// The rules

const Lines entering = {D("Entering validate_flash_entry()...\n")};
const Lines protocol_refused = {
    E("ERROR  validate_flash_entry : lex and rcp protocols not supported. \n"),
    E("flashCopyProtocol:rcp and lex not supported. ...\n")};
const Lines log_refused = {
    E("ERROR  validate_flash_entry : copyFromFlhLog command is not supported\n"),
    E("flashCopyCommand:COPY_FROM_FLHLOG not supported. ...\n")};
const Lines erase_refused = {E("ERROR  validate_flash_entry : Copy without ERASE NOT supported\n"),
                             E("flashCopyCommand:Copy without ERASE NOT supported. ...\n")};
const Lines lex_refused = {
    E("ERROR  validate_flash_entry : Only allowed protocol are TFTP and RCP \n"),
    E("flashCopyProtocol:COPY_PROT_LEX not supported. ...\n")};
const Lines mandatory_missing = {E(
    "ERROR  validate_flash_entry : Protocol,Server addr and source name are MANDATORY objects\n")};
const Lines bad_destination_logged = {"syserr_format code=0x4049001d",
                                      D("Logged the error text of 0x4049001d\n"),
                                      "log_snmp_error code=0x4049001d text=text of 0x4049001d"};
const Lines bad_source_logged = {"syserr_format code=0x4049001c",
                                 "log_snmp_error code=0x4049001c text=text of 0x4049001c"};

// The platform as a case finds it.
using Setting = void (*)();
const Setting all_resolve = [] {
    platform().paths["bootflash:new"] = "/bootflash/new";
    platform().paths["bootflash:old"] = "/bootflash/old";
};
const Setting none_resolves = [] {};
const Setting existing_file = [] {
    all_resolve();
    platform().file_types["bootflash:new"] = 1;
};
const Setting directory = [] {
    all_resolve();
    platform().file_types["bootflash:new"] = 32;
};
// A platform that reports a missing file by a negative code.
const Setting negative_stat = [] {
    all_resolve();
    platform().uriutil_stat_get.always(-1);
};
const Setting core_file = [] { platform().core_paths["bootflash:old"] = "/core/7"; };
const Setting core_elsewhere = [] {
    core_file();
    platform().core_result = 0x401E0059;
};
const Setting no_dump = [] { platform().syslog_disp_logfile.always(-1); };

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

struct RuleCase {
    const char *name;
    Setting setting;
    int32_t command, protocol, state;
    void (*change)(flashCopyEntry &); // or null
    Verdict verdict;
    std::vector<Lines> expected; // behind the first line
};
std::ostream &operator<<(std::ostream &out, const RuleCase &one) { return out << one.name; }

const auto no_address = [](flashCopyEntry &r) { r.serverAddress = 0; };
const auto no_source = [](flashCopyEntry &r) { fakes::put(r.sourceName, ""); };
const auto no_protocol = [](flashCopyEntry &r) { r.protocol = 0; };
const auto system_log = [](flashCopyEntry &r) { fakes::put(r.sourceName, "log:messages"); };

const RuleCase rule_cases[] = {
    // No fault.
    {"ToFlash", all_resolve, 1, 1, active, nullptr, {1, 0, untouched, active}, {destination_new}},
    {"ToFlashOverAFile",
     existing_file,
     1,
     6,
     waiting,
     nullptr,
     {1, 0, untouched, waiting},
     {destination_existing}},
    {"FromFlash", all_resolve, 3, 4, active, nullptr, {1, 0, untouched, active}, {source_resolved}},
    {"FromFlashOfACoreFile",
     core_file,
     3,
     1,
     active,
     nullptr,
     {1, 0, untouched, active},
     {core_resolved}},
    {"FromFlashOfACoreFileResolvedElsewhere",
     core_elsewhere,
     3,
     1,
     active,
     nullptr,
     {1, 0, untouched, active},
     {core_resolved}},
    {"FromFlashOfTheSystemLog",
     none_resolves,
     3,
     1,
     active,
     system_log,
     {1, 0, untouched, active},
     {log_dumped}},
    {"AnotherCommand", all_resolve, 5, 1, active, nullptr, {1, 0, untouched, active}, {}},
    {"ANegativeStatIsANewFile",
     negative_stat,
     1,
     1,
     active,
     nullptr,
     {1, 0, untouched, active},
     {destination_new}},

    // Commands and protocols.
    {"Rcp",
     all_resolve,
     1,
     2,
     active,
     nullptr,
     {0, 10, 4, active},
     {protocol_refused, destination_new}},
    {"Lex",
     all_resolve,
     1,
     3,
     active,
     nullptr,
     {0, 10, 4, active},
     {protocol_refused, lex_refused, destination_new}},
    {"LexFromFlash",
     all_resolve,
     3,
     3,
     active,
     nullptr,
     {0, 10, 4, active},
     {protocol_refused, source_resolved}},
    {"TheFlashLog", all_resolve, 4, 1, active, nullptr, {0, 10, 3, active}, {log_refused}},
    {"TheFlashLogByRcp",
     all_resolve,
     4,
     2,
     waiting,
     nullptr,
     {0, 10, 3, waiting},
     {protocol_refused, log_refused}},
    {"WithoutErase",
     all_resolve,
     2,
     1,
     active,
     nullptr,
     {0, 10, 3, active},
     {erase_refused, destination_new}},
    {"WithoutEraseByRcp",
     all_resolve,
     2,
     2,
     active,
     nullptr,
     {0, 10, 3, active},
     {protocol_refused, erase_refused, destination_new}},
    {"WithoutEraseByLex",
     all_resolve,
     2,
     3,
     active,
     nullptr,
     {0, 10, 4, active},
     {protocol_refused, erase_refused, lex_refused, destination_new}},

    // Mandatory objects.
    {"NoAddressActive", all_resolve, 1, 1, active, no_address, {0, 12, 4, active}, {}},
    {"NoSourceActive", all_resolve, 3, 1, active, no_source, {0, 12, 4, active}, {}},
    {"NoProtocolActive", all_resolve, 1, 1, active, no_protocol, {0, 12, 4, active}, {}},
    {"NoAddressActiveAfterAnotherRefusal",
     all_resolve,
     2,
     3,
     active,
     no_address,
     {0, 12, 4, active},
     {protocol_refused, erase_refused, lex_refused}},
    {"NoAddress",
     all_resolve,
     1,
     1,
     waiting,
     no_address,
     {0, 0, untouched, not_ready},
     {mandatory_missing, destination_new}},
    {"NoSource",
     all_resolve,
     1,
     1,
     waiting,
     no_source,
     {0, 0, untouched, not_ready},
     {mandatory_missing, destination_new}},
    {"NoProtocol",
     all_resolve,
     3,
     1,
     waiting,
     no_protocol,
     {0, 0, untouched, not_ready},
     {mandatory_missing, source_resolved}},
    {"NoAddressAfterAnotherRefusal",
     all_resolve,
     4,
     1,
     waiting,
     no_address,
     {0, 10, 3, not_ready},
     {log_refused, mandatory_missing}},

    // The destination.
    {"BadDestinationActive",
     none_resolves,
     1,
     1,
     active,
     nullptr,
     {0, 5, 6, active},
     {destination_unresolved, bad_destination_logged}},
    {"BadDestination",
     none_resolves,
     1,
     1,
     waiting,
     nullptr,
     {0, 0, untouched, not_ready},
     {destination_unresolved}},
    {"DirectoryActive",
     directory,
     1,
     1,
     active,
     nullptr,
     {0, 5, 6, active},
     {destination_directory, bad_destination_logged}},
    {"Directory",
     directory,
     1,
     1,
     waiting,
     nullptr,
     {0, 0, untouched, not_ready},
     {destination_directory}},
    {"BadDestinationActiveAfterAnotherRefusal",
     none_resolves,
     2,
     3,
     active,
     nullptr,
     {0, 5, 6, active},
     {protocol_refused, erase_refused, lex_refused, destination_unresolved,
      bad_destination_logged}},
    {"BadDestinationAfterAMissingObject",
     none_resolves,
     1,
     1,
     waiting,
     no_address,
     {0, 0, untouched, not_ready},
     {mandatory_missing, destination_unresolved}},

    // The source.
    {"BadSourceActive",
     none_resolves,
     3,
     1,
     active,
     nullptr,
     {0, 5, 5, active},
     {source_unresolved, bad_source_logged}},
    {"BadSource",
     none_resolves,
     3,
     1,
     waiting,
     nullptr,
     {0, 0, untouched, not_ready},
     {source_unresolved}},
    {"BadSystemLogActive",
     no_dump,
     3,
     1,
     active,
     system_log,
     {0, 5, 5, active},
     {log_not_dumped, bad_source_logged}},
    {"BadSystemLog",
     no_dump,
     3,
     1,
     waiting,
     system_log,
     {0, 0, untouched, not_ready},
     {log_not_dumped}},
    {"BadSourceActiveAfterAnotherRefusal",
     none_resolves,
     3,
     3,
     active,
     nullptr,
     {0, 5, 5, active},
     {protocol_refused, source_unresolved, bad_source_logged}},
};

class RuleSequenceTest : public fakes::FlashTest, public testing::WithParamInterface<RuleCase> {};

INSTANTIATE_TEST_SUITE_P(Rules, RuleSequenceTest, testing::ValuesIn(rule_cases),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(RuleSequenceTest, IsThis) {
    const RuleCase &one = GetParam();
    one.setting();
    flashCopyEntry row = good_row(one.command, one.protocol, one.state);
    if (one.change != nullptr)
        one.change(row);
    int32_t error = 4711;
    const int32_t result = validate_flash_entry(&row, &error);
    EXPECT_EQ((Verdict{result, error, row.copyStatus, row.entryStatus}), one.verdict);
    expect_sequence({entering, joined(one.expected)});
}

// The error log may fail: the verdict stays.

TEST_F(RuleSequenceTest, AnErrorLogThatFailsChangesNothing) {
    platform().log_snmp_error.always(-1);
    for (const auto &[command, status, expected] :
         {std::tuple{1, 6, joined({entering, destination_unresolved, bad_destination_logged})},
          {3, 5, joined({entering, source_unresolved, bad_source_logged})}}) {
        fakes::forget();
        flashCopyEntry row = good_row(command, 1, active);
        int32_t error = 0;
        EXPECT_EQ(validate_flash_entry(&row, &error), 0);
        EXPECT_EQ(error, 5);
        EXPECT_EQ(row.copyStatus, status);
        expect_sequence({expected});
    }
}

// validate_n_start_flash_copy, of row 7 of the store

class CopyStartSequenceTest : public fakes::FlashTest {
  protected:
    // Stores the row and starts it: the status answered.
    int32_t start(flashCopyEntry row) {
        fakes::add_copy_row(row.index, [&](flashCopyEntry &r) { r = row; });
        fakes::forget();
        return validate_n_start_flash_copy(&row);
    }
    static void expect_stored(int32_t copy_status, int32_t entry_status) {
        const flashCopyEntry row = *fakes::stored_copy_row(7);
        EXPECT_EQ(row.copyStatus, copy_status);
        EXPECT_EQ(row.entryStatus, entry_status);
    }
};

const Lines starting = {D("Entering validate_n_start_flash_copy()...\n")};
const Lines stored = {"ordset_size", "ordset_find key=7 flags=0"};
const Lines copy_not_stored =
    joined({stored, {E("ERROR  validate_n_start_flash_copy : Set to entry (index= 7) failed \n")}});
const Lines line_card = {
    D("Calling  rumapi_CopyIlcNVRAM with srcfile=remote.bin and dstFile=bootflash:new\n")};
const Lines failed = {D("validate_flash_entry FAILED.\n")};
const Lines ready = {D("DEBUG  validate_n_start_flash_copy : Ready to copy\n"),
                     D("validate_n_start_flash_copy Ready to copy\n")};
const Lines forked = {"stdout calling start_flash_copy().....\n",
                      D("Calling start_flash_copy()\n"),
                      D("Entered start_flash_copy()...\n"),
                      "fork",
                      D("DEBUG : start_flash_copy : Done starting the copy\n"),
                      D("DEBUG : start_flash_copy : Copy returned with status 1\n")};
const Lines read_back =
    joined({stored, {D("validate_n_start_flash_copy: status returned is 1\n")}});

TEST_F(CopyStartSequenceTest, ACopyOfLineCardNvram) {
    EXPECT_EQ(start(good_row(1, 2, waiting)), 0);
    expect_sequence({starting, line_card, stored});
    expect_stored(2, active);
}

TEST_F(CopyStartSequenceTest, ACopyOfLineCardNvramThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(good_row(1, 2, waiting)), 5);
    expect_sequence({starting, line_card, copy_not_stored});
    platform().ordset_find.normal();
    expect_stored(untouched, waiting);
}

TEST_F(CopyStartSequenceTest, ARefusedCopy) {
    all_resolve();
    EXPECT_EQ(start(good_row(4, 1, active)), 10);
    expect_sequence({starting, entering, log_refused, failed, stored});
    expect_stored(3, active);
}

TEST_F(CopyStartSequenceTest, ACopyThatIsNotReady) {
    EXPECT_EQ(start(good_row(1, 1, waiting)), 0);
    expect_sequence({starting, entering, destination_unresolved, failed, stored});
    expect_stored(untouched, not_ready);
}

TEST_F(CopyStartSequenceTest, ARefusedCopyThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(good_row(4, 1, active)), 5);
    expect_sequence({starting, entering, log_refused, failed, copy_not_stored});
}

TEST_F(CopyStartSequenceTest, ACopyThatStarts) {
    all_resolve();
    fakes::set_time(1000, 250000);
    EXPECT_EQ(start(good_row(1, 1, waiting)), 0);
    expect_sequence({starting, entering, destination_new, ready, stored, forked, read_back});
    expect_stored(1, active);
}

TEST_F(CopyStartSequenceTest, ACopyThatCannotBeStored) {
    all_resolve();
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start(good_row(3, 1, active)), 5);
    expect_sequence({starting, entering, source_resolved, ready, copy_not_stored});
}

TEST_F(CopyStartSequenceTest, ACopyThatCannotBeReadBack) {
    all_resolve();
    fakes::module().getFlashCopyEntry.returns(flash::noSuchRow);
    EXPECT_EQ(start(good_row(3, 1, active)), 2);
    expect_sequence({starting, entering, source_resolved, ready, stored, forked});
}

TEST_F(CopyStartSequenceTest, ACopyWhoseForkFails) {
    all_resolve();
    os().fork.returns(-1, EAGAIN);
    EXPECT_EQ(start(good_row(1, 1, active)), 0);
    expect_sequence({starting, entering, destination_new, ready, stored, forked, read_back});
    expect_stored(1, active);
}

// validate_n_start_flash_delete, of row 7 of the store

class DeleteStartSequenceTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        platform().paths["bootflash:old"] = "/bootflash/old";
        os().unlink.always(0);
    }
    // Stores a row with this name and starts it: the status answered, which leaves `row`.
    int32_t start(const char *name) {
        row = fakes::misc_row([&](flashMiscOpEntry &r) {
            r.index = 7;
            r.entryStatus = flash::rowActive;
            fakes::put(r.destinationName, name);
        });
        fakes::add_misc_row(7, [&](flashMiscOpEntry &r) { r = row; });
        fakes::forget();
        return validate_n_start_flash_delete(&row);
    }
    static int32_t stored_status() { return fakes::stored_misc_row(7)->operationStatus; }
    static Lines split(const std::string &name, int tokens) {
        Lines lines = {D("In snmp_uri_map_str_split: str is " + name + " and delimiters is :\n")};
        if (tokens > 0)
            lines.push_back(D("was able to tokenize and found a COLON..\n"));
        lines.push_back(D("returning ctr = " + std::to_string(tokens) + "\n"));
        return lines;
    }
    static Lines asked(const std::string &name) {
        return {D("validate_flashMiscOp_entry: calling uriutil_uri_to_path for destination file:" +
                  name + "\n"),
                "uriutil_uri_to_path uri=" + name + " size=255 flags=0"};
    }
    flashMiscOpEntry row{};
};

const Lines starting_delete = {D("Entering validate_n_start_flash_delete()...\n")};
const Lines delete_not_stored = joined(
    {stored, {E("ERROR  validate_n_start_flash_delete : Set to entry (index= 7) failed \n")}});
const Lines nvram = {D("Calling  rumapi_CopyIlcNVRAM with srcfile=ilc-nvram:old\n")};
const Lines deleting = {
    D("validate_flashMiscOp_entry: returning SUCCESS with dest filename=/bootflash/old\n"),
    D("Calling start_flash_delete()...\n"),
    D("start_flash_delete(): Trying to delete /bootflash/old...\n"),
    "unlink path=/bootflash/old",
};
const Lines unresolved = {
    "syserr2str code=0x41000001",
    D("uriutil_uri_to_path for destination returned ERROR. name of 0x41000001  \n")};

TEST_F(DeleteStartSequenceTest, ANameWithoutAToken) {
    for (const char *name : {"", ":", "::::"}) {
        fakes::empty_tables();
        EXPECT_EQ(start(name), 5);
        expect_sequence(
            {starting_delete,
             split(name, 0),
             {E("ERROR  validate_n_start_flash_delete : The Filename does NOT contain :\n")}});
        EXPECT_EQ(row.operationStatus, 10);
        EXPECT_EQ(stored_status(), 14);
    }
}

TEST_F(DeleteStartSequenceTest, ADeleteOnLineCardNvram) {
    EXPECT_EQ(start("ilc-nvram:old"), 0);
    expect_sequence({starting_delete, split("ilc-nvram:old", 2), nvram, stored});
    EXPECT_EQ(stored_status(), 2);
}

TEST_F(DeleteStartSequenceTest, ADeleteOnLineCardNvramThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start("ilc-nvram:old"), 5);
    expect_sequence({starting_delete, split("ilc-nvram:old", 2), nvram, delete_not_stored});
}

TEST_F(DeleteStartSequenceTest, ADelete) {
    EXPECT_EQ(start("bootflash:old"), 0);
    expect_sequence({starting_delete,
                     split("bootflash:old", 2),
                     asked("bootflash:old"),
                     deleting,
                     {D("start_flash_delete(): deleted /bootflash/old...\n")}});
    EXPECT_EQ(row.operationStatus, 2);
    EXPECT_EQ(stored_status(), 14) << "its caller stores the row";
}

TEST_F(DeleteStartSequenceTest, ADeleteThatFails) {
    os().unlink.always(-1, ENOENT);
    EXPECT_EQ(start("bootflash:old"), 0);
    expect_sequence({starting_delete,
                     split("bootflash:old", 2),
                     asked("bootflash:old"),
                     deleting,
                     {"snmp_log priority=3 text=ERROR:delete of the file:/bootflash/old failed\n",
                      D("ERROR:delete of the file:/bootflash/old failed\n")}});
    EXPECT_EQ(row.operationStatus, 10);
}

TEST_F(DeleteStartSequenceTest, ANameThatDoesNotResolve) {
    EXPECT_EQ(start("bootflash:other"), 0);
    expect_sequence({starting_delete, split("bootflash:other", 2), asked("bootflash:other"),
                     unresolved, failed, stored});
    EXPECT_EQ(stored_status(), 14);
}

TEST_F(DeleteStartSequenceTest, ANameThatDoesNotResolveOfARowThatCannotBeStored) {
    platform().ordset_find.always(nullptr);
    EXPECT_EQ(start("bootflash:other"), 5);
    expect_sequence({starting_delete, split("bootflash:other", 2), asked("bootflash:other"),
                     unresolved, failed, delete_not_stored});
}

} // namespace
