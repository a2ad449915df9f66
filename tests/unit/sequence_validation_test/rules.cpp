// Validation of a copy, rule by rule: everything that each path does, in its order.
#include "names.h"

#include "fakes/sequence.h"

#include "flash_validate.h"

namespace {

using namespace sequence_validation;

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
    {"ToFlash", all_resolve, 1, 1, active, nullptr, {1, 0, initial, active}, {destination_new}},
    {"ToFlashOverAFile",
     existing_file,
     1,
     6,
     waiting,
     nullptr,
     {1, 0, initial, waiting},
     {destination_existing}},
    {"FromFlash", all_resolve, 3, 4, active, nullptr, {1, 0, initial, active}, {source_resolved}},
    {"FromFlashOfACoreFile",
     core_file,
     3,
     1,
     active,
     nullptr,
     {1, 0, initial, active},
     {core_resolved}},
    {"FromFlashOfACoreFileResolvedElsewhere",
     core_elsewhere,
     3,
     1,
     active,
     nullptr,
     {1, 0, initial, active},
     {core_resolved}},
    {"FromFlashOfTheSystemLog",
     none_resolves,
     3,
     1,
     active,
     system_log,
     {1, 0, initial, active},
     {log_dumped}},
    {"AnotherCommand", all_resolve, 5, 1, active, nullptr, {1, 0, initial, active}, {}},
    {"ANegativeStatIsANewFile",
     negative_stat,
     1,
     1,
     active,
     nullptr,
     {1, 0, initial, active},
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
     {0, 0, initial, not_ready},
     {mandatory_missing, destination_new}},
    {"NoSource",
     all_resolve,
     1,
     1,
     waiting,
     no_source,
     {0, 0, initial, not_ready},
     {mandatory_missing, destination_new}},
    {"NoProtocol",
     all_resolve,
     3,
     1,
     waiting,
     no_protocol,
     {0, 0, initial, not_ready},
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
     {0, 0, initial, not_ready},
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
     {0, 0, initial, not_ready},
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
     {0, 0, initial, not_ready},
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
     {0, 0, initial, not_ready},
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
     {0, 0, initial, not_ready},
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
    flashCopyEntry row = copyable_row(one.command, one.protocol, one.state);
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
        flashCopyEntry row = copyable_row(command, 1, active);
        int32_t error = 0;
        EXPECT_EQ(validate_flash_entry(&row, &error), 0);
        EXPECT_EQ(error, 5);
        EXPECT_EQ(row.copyStatus, status);
        expect_sequence({expected});
    }
}

} // namespace
