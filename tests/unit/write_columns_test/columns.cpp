// Every writable column but the row status.
#include "columns.h"

#include "flash_write.h"

#include <cstring>
#include <string>
#include <vector>

namespace write_columns {

namespace {

struct CopyTable {
    using Row = flashCopyEntry;
    static constexpr auto create = createFlashCopyEntry;
    static constexpr auto add = addFlashCopyEntry;
    static constexpr auto stored = fakes::stored_copy_row;
    static constexpr const char *no_rows = "getFlashCopyEntry: ordset_size returned 0\n";
};
struct MiscOpTable {
    using Row = flashMiscOpEntry;
    static constexpr auto create = createFlashMiscOpEntry;
    static constexpr auto add = addFlashMiscOpEntry;
    static constexpr auto stored = fakes::stored_misc_row;
    static constexpr const char *no_rows = "getFlashMiscOpEntry: ordset_size returned 0\n";
};

void put_content(int32_t &field, const std::string &content) { field = std::stoi(content); }
void put_content(uint32_t &field, const std::string &content) {
    std::memcpy(&field, content.data(), sizeof field);
}
template <size_t Size>
void put_content(char (&field)[Size], const std::string &content) {
    fakes::put(field, content);
}
std::string content_of(const int32_t &field) { return std::to_string(field); }
std::string content_of(const uint32_t &field) {
    return std::string(reinterpret_cast<const char *>(&field), sizeof field);
}
template <size_t Size>
std::string content_of(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

// Every byte of a sample row that is not its index, its state or the column is 0x5a.
template <class Table, class Member>
Column in_table(Member member) {
    Column column;
    column.no_rows = Table::no_rows;
    column.add = [member](int32_t index, int32_t state, const std::string &content) {
        auto *row = Table::create();
        ASSERT_NE(row, nullptr);
        std::memset(static_cast<void *>(row), 0x5a, sizeof *row);
        row->index = index;
        row->entryStatus = state;
        put_content(row->*member, content);
        ASSERT_EQ(Table::add(row), flash::success);
    };
    column.read = [member](int32_t index) {
        const auto row = Table::stored(index);
        return row ? content_of((*row).*member) : std::string("no row");
    };
    column.whole = [](int32_t index) {
        const auto row = Table::stored(index);
        return row ? std::string(reinterpret_cast<const char *>(&*row), sizeof *row)
                   : std::string("no row");
    };
    column.whole_field = [member](int32_t index) {
        const auto row = Table::stored(index);
        return row ? std::string(reinterpret_cast<const char *>(&((*row).*member)),
                                 sizeof((*row).*member))
                   : std::string("no row");
    };
    return column;
}

template <class Table>
Column integer_column(int32_t Table::Row::*member, long before, long written) {
    Column column = in_table<Table>(member);
    column.type = ASN_INTEGER;
    column.before = std::to_string(before);
    column.written = bytes_of_long(written);
    column.after = std::to_string(written);
    column.put_back = "0";
    column.good_lengths = {bytes_of_long(written), bytes_of_word(static_cast<int32_t>(written))};
    column.bad_lengths = {sizeof(long) + 1, 16, 300};
    return column;
}

template <class Table, size_t Size>
Column text_column(char (Table::Row::*member)[Size], const char *before, const char *written) {
    Column column = in_table<Table>(member);
    column.type = ASN_OCTET_STR;
    column.before = before;
    column.written = written;
    column.after = written;
    column.put_back = column.before.substr(0, column.before.size() - 1);
    column.good_lengths = {"x", std::string(254, 'x'), std::string(255, 'x')};
    column.bad_lengths = {0, 256, 300, 60000};
    column.release_without_row = no_error;
    column.row_absent = {"ERROR %s: Entry (index = %d) not found  "};
    return column;
}

} // namespace

Column copy_command() {
    Column column = integer_column<CopyTable>(&flashCopyEntry::command, 4, 3);
    column.name = "set_orvexFlashCopyCommand";
    column.method = set_orvexFlashCopyCommand;
    column.magic = flash::magicCopyCommand;
    column.type_message = "write to orvexFlashCopyCommand not ASN_INTEGER\n";
    column.length_message = "write to orvexFlashCopyCommand: bad length\n";
    column.good_lengths.push_back("");
    column.release_start = {"DEBUG : %s : Entering FREE of entry (index = %d) \n"};
    return column;
}

Column copy_protocol() {
    Column column = integer_column<CopyTable>(&flashCopyEntry::protocol, 5, 1);
    column.name = "set_orvexFlashCopyProtocol";
    column.method = set_orvexFlashCopyProtocol;
    column.magic = flash::magicCopyProtocol;
    column.type_message = "write to orvexFlashCopyProtocol not ASN_INTEGER\n";
    column.length_message = "write to orvexFlashCopyProtocol: bad length\n";
    column.every_call = {"%s : Entering \n", "In set_orvexFlashCopyProtocol...\n"};
    column.reserve1_start = {"%s : Entering RESERVE1\n"};
    column.reserve2_start = {"%s : Entering RESERVE2\n"};
    column.release_start = {"DEBUG : %s :Entering FREE: entry (index = %d) \n"};
    return column;
}

// Addresses that read the same in either byte order, so that their traces do too.
Column copy_server_address() {
    Column column = in_table<CopyTable>(&flashCopyEntry::serverAddress);
    column.name = "set_orvexFlashCopyServerAddress";
    column.method = set_orvexFlashCopyServerAddress;
    column.magic = flash::magicCopyServerAddress;
    column.type = ASN_IPADDRESS;
    column.type_message = "write to orvexFlashCopyServerAddress not ASN_IPADDRESS\n";
    column.length_message = "write to orvexFlashCopyServerAddress: bad length\n";
    column.before = "\x09\x08\x08\x09";
    column.written = "\x01\x02\x02\x01";
    column.after = column.written;
    column.put_back = column.before;
    column.good_lengths = {"", "\x01", "\x01\x02", "\x01\x02\x03", "\x01\x02\x03\x04"};
    column.bad_lengths = {5, 8, 16, 300};
    column.reserve1_accepted = {"DEBUG : %s : Server Address : 16908801 Length 4\n"};
    column.stored = {"DEBUG : %s : Server Address after copy : 16908801\n"};
    column.release_start = {"DEBUG : %s : Entering FREE of entry (index = %d) \n"};
    return column;
}

Column copy_source_name() {
    Column column = text_column<CopyTable>(&flashCopyEntry::sourceName, "slot0:abcd", "slot0:new");
    column.name = "set_orvexFlashCopySourceName";
    column.method = set_orvexFlashCopySourceName;
    column.magic = flash::magicCopySourceName;
    column.type_message = "write to orvexFlashCopySourceName not ASN_OCTET_STR\n";
    column.length_message = "write to orvexFlashCopySourceName: bad length\n";
    column.traces_refusals = true;
    column.put_back = "slot0:ab";
    column.every_call = {"Entering set_orvexFlashCopySourceName \n"};
    column.changing = {"DEBUG : %s : Changing source name (old = slot0:abcd) of the entry (index = "
                       "%d) to slot0:new \n"};
    column.refused = {"ERROR %s: Can't change the source name if the row status is active (only if "
                      "the row is create)  (status = "};
    column.before_store = {"calling setFlashCopyEntry for sourcename...\n"};
    column.stored = {"DEBUG : %s : Source Name after copy : slot0:new\n"};
    column.action_start = {"DEBUG : %s : Entering ACTION of entry (index = %d) \n"};
    column.action_row_absent = {"getFlashCopyEntry FAILED in ACTION for sourceName.\n"};
    column.release_start = {"DEBUG : %s : Entering FREE of entry (index = %d) \n"};
    return column;
}

// The destination name of either table: the same but for the names.
static void describe_destination_name(Column &column) {
    column.changing = {"DEBUG : %s : Changing destination name (old = slot0:abcd) of the entry "
                       "(index = %d) to slot0:new \n"};
    column.refused = {"ERROR %s: Can't change the source name if the row status is active (only if "
                      "the row is create) (status = "};
    column.stored = {"DEBUG : %s : Source Name after copy : slot0:new\n"};
    column.action_start = {"DEBUG : %s : Entering ACTION of entry (index = %d) \n"};
    column.release_start = {"DEBUG : %s : Entering FREE of entry (index = %d) \n"};
}

Column copy_destination_name() {
    Column column =
        text_column<CopyTable>(&flashCopyEntry::destinationName, "slot0:abcd", "slot0:new");
    describe_destination_name(column);
    column.name = "set_orvexFlashCopyDestinationName";
    column.method = set_orvexFlashCopyDestinationName;
    column.magic = flash::magicCopyDestinationName;
    column.type_message = "write to orvexFlashCopyDestinationName not ASN_OCTET_STR\n";
    column.length_message = "write to orvexFlashCopyDestinationName: bad length\n";
    return column;
}

// What the user name and the password have in common.
static void describe_credential(Column &column) {
    column.reserve1_start = {"%s : Entering RESERVE1\n"};
    column.reserve2_start = {"%s : Entering RESERVE2\n"};
    column.action_start = {"%s : Entering ACTION\n"};
    column.release_start = {"%s : Entering FREE\n",
                            "DEBUG : %s : Entering FREE of entry (index = %d) \n"};
}

Column copy_remote_user_name() {
    Column column = text_column<CopyTable>(&flashCopyEntry::remoteUserName, "operator", "root");
    describe_credential(column);
    column.name = "set_orvexFlashCopyRemoteUserName";
    column.method = set_orvexFlashCopyRemoteUserName;
    column.magic = flash::magicCopyRemoteUserName;
    column.type_message = "write to orvexFlashCopyRemoteUserName not ASN_OCTET_STR\n";
    column.length_message = "write to orvexFlashCopyRemoteUserName: bad length\n";
    column.changing = {"DEBUG : %s : Changing user name (old = operator) of the entry (index = %d) "
                       "to root \n"};
    column.refused = {"ERROR %s: Can't change the user name if the row status is active (only if "
                      "the row is create) (status = "};
    column.stored = {"DEBUG : %s : User Name after copy : root\n"};
    return column;
}

Column copy_password() {
    Column column = text_column<CopyTable>(&flashCopyEntry::password, "secret", "a$b");
    describe_credential(column);
    column.name = "set_orvexFlashCopyPassword";
    column.method = set_orvexFlashCopyPassword;
    column.magic = flash::magicCopyPassword;
    column.type_message = "write to orvexFlashCopyPassword not ASN_OCTET_STR\n";
    column.length_message = "write to orvexFlashCopyPassword: bad length\n";
    column.after = "a\\$b";
    column.good_lengths = {"x", std::string(39, 'x'), std::string(40, 'x')};
    column.bad_lengths = {0, 41, 255, 60000};
    column.changing = {"DEBUG : %s : Changing user password (old = secret) of the entry (index = "
                       "%d) to a$b \n"};
    column.refused = {"ERROR %s: Can't change the user password if the row status is active (only "
                      "if the row is create) (status = "};
    column.before_store = {"The final password string is a\\$b\n"};
    column.stored = {"DEBUG : %s : User Password after copy : a\\$b\n"};
    return column;
}

Column copy_notify() {
    Column column = integer_column<CopyTable>(&flashCopyEntry::notifyOnCompletion, 2, 1);
    column.name = "set_orvexFlashCopyNotifyOnCompletion";
    column.method = set_orvexFlashCopyNotifyOnCompletion;
    column.magic = flash::magicCopyNotifyOnCompletion;
    column.type_message = "write to orvexFlashCopyNotifyOnCompletion not ASN_INTEGER\n";
    column.length_message = "write to orvexFlashCopyNotifyOnCompletion: bad length\n";
    column.release_start = {"DEBUG : %s :Entering FREE: entry (index = %d) \n"};
    return column;
}

Column misc_command() {
    Column column = integer_column<MiscOpTable>(&flashMiscOpEntry::command, 4, 3);
    column.name = "set_orvexFlashMiscOpCommand";
    column.method = set_orvexFlashMiscOpCommand;
    column.magic = flash::magicMiscOpCommand;
    column.type_message = "write to orvexFlashMiscOpCommand not ASN_INTEGER\n";
    column.length_message = "write to orvexFlashMiscOpCommand: bad length\n";
    column.every_call = {"Entering set_orvexFlashMiscOpCommand\n"};
    column.release_start = {"DEBUG : %s : Entering FREE of entry (index = %d) \n"};
    return column;
}

// The only messages that carry the handler's whole name.
Column misc_destination_name() {
    Column column =
        text_column<MiscOpTable>(&flashMiscOpEntry::destinationName, "slot0:abcd", "slot0:new");
    describe_destination_name(column);
    column.name = "set_orvexFlashMiscOpDestinationName";
    column.method = set_orvexFlashMiscOpDestinationName;
    column.magic = flash::magicMiscOpDestinationName;
    column.type_message = "write to set_orvexFlashMiscOpDestinationName not ASN_OCTET_STR\n";
    column.length_message = "write to set_orvexFlashMiscOpDestinationName: bad length\n";
    column.every_call = {"Entering set_orvexFlashMiscOpDestinationName\n"};
    return column;
}

Column misc_notify() {
    Column column = integer_column<MiscOpTable>(&flashMiscOpEntry::notifyOnCompletion, 2, 1);
    column.name = "set_orvexFlashMiscOpNotifyOnCompletion";
    column.method = set_orvexFlashMiscOpNotifyOnCompletion;
    column.magic = flash::magicMiscOpNotifyOnCompletion;
    column.type_message = "write to orvexFlashMiscOpNotifyOnCompletion not ASN_INTEGER\n";
    column.length_message = "write to orvexFlashMiscOpNotifyOnCompletion: bad length\n";
    column.every_call = {"Entering set_orvexFlashMiscOpNotifyOnCompletion\n"};
    column.release_start = {"DEBUG : %s :Entering FREE: entry (index = %d) \n"};
    return column;
}

static std::vector<Column> names() {
    return {copy_source_name(), copy_destination_name(), copy_remote_user_name(),
            misc_destination_name()};
}
static std::vector<Column> texts() {
    std::vector<Column> all = names();
    all.push_back(copy_password());
    return all;
}
static std::vector<Column> integers() {
    return {copy_command(), copy_protocol(), copy_notify(), misc_command(), misc_notify()};
}
std::vector<Column> saved_columns() {
    std::vector<Column> all = texts();
    all.push_back(copy_server_address());
    return all;
}
std::vector<Column> all_columns() {
    std::vector<Column> all = saved_columns();
    for (Column &column : integers())
        all.push_back(column);
    return all;
}

static std::string test_name(const testing::TestParamInfo<Column> &info) {
    return std::string(info.param.name).substr(std::strlen("set_orvexFlash"));
}

INSTANTIATE_TEST_SUITE_P(, Columns, testing::ValuesIn(all_columns()), test_name);
INSTANTIATE_TEST_SUITE_P(, SavedColumns, testing::ValuesIn(saved_columns()), test_name);
INSTANTIATE_TEST_SUITE_P(, Texts, testing::ValuesIn(texts()), test_name);
INSTANTIATE_TEST_SUITE_P(, Names, testing::ValuesIn(names()), test_name);
INSTANTIATE_TEST_SUITE_P(, Integers, testing::ValuesIn(integers()), test_name);

} // namespace write_columns
