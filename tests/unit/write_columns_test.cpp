// SET of every writable column but the row status, of both tables, phase by phase.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace fakes;

constexpr int32_t states_of_creation[] = {flash::rowNotReady, flash::rowCreateAndGo,
                                          flash::rowCreateAndWait};
constexpr int32_t other_states[] = {
    flash::rowActive, flash::rowNotInService, flash::rowDestroy, 0, 7, -1, INT32_MIN};

std::string bytes_of_long(long value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}
std::string bytes_of_word(int32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// The text with the first `mark` in it replaced.
std::string with(const std::string &text, const char *mark, const std::string &value) {
    const size_t at = text.find(mark);
    return at == std::string::npos ? text
                                   : text.substr(0, at).append(value).append(text.substr(at + 2));
}

std::string beginning_with(char first, std::string text) {
    text.front() = first;
    return text;
}

// One writable column: how to reach it, an accepted value, and what each phase answers and traces.
// In the traces %s stands for the handler's name and %d for the row's index.
struct Column {
    const char *name = nullptr;
    WriteMethod *method = nullptr;
    int magic = 0;
    u_char type = 0;
    const char *type_message = nullptr;
    const char *length_message = nullptr;
    bool traces_refusals = false;

    // Contents: decimal for integers, four bytes for the address, the text for texts.
    std::string before;   // what the sample row holds
    std::string written;  // the sample value as the request carries it
    std::string after;    // what it becomes in the row
    std::string put_back; // what FREE makes of it

    std::vector<std::string> good_lengths; // accepted values of the lengths at the limits
    std::vector<size_t> bad_lengths;

    int release_without_row = no_such_name;
    Lines every_call;
    Lines reserve1_start;
    Lines reserve1_accepted;
    Lines reserve2_start;
    Lines row_absent;
    Lines changing;
    Lines refused;
    Lines before_store;
    Lines stored;
    Lines action_start;
    Lines action_row_absent;
    Lines release_start;
    const char *no_rows = nullptr; // the store's own trace when it is empty

    std::function<void(int32_t index, int32_t state, const std::string &content)> add;
    std::function<std::string(int32_t index)> read;        // "no row" when there is none
    std::function<std::string(int32_t index)> whole;       // the stored row, all bytes
    std::function<std::string(int32_t index)> whole_field; // texts: all bytes of the field

    int call(Phase phase, oid index, const std::string &value) const {
        return fakes::set_phase(method, phase, magic, index, type, value.data(), value.size());
    }
    int call(Phase phase, oid index) const { return call(phase, index, written); }

    Lines filled(const std::vector<Lines> &parts, int32_t index) const {
        Lines result;
        for (const Lines &part : parts)
            for (const std::string &line : part)
                result.push_back(with(with(line, "%s", name), "%d", std::to_string(index)));
        return result;
    }
};

void PrintTo(const Column &column, std::ostream *out) { *out << column.name; }

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
void describe_destination_name(Column &column) {
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
void describe_credential(Column &column) {
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

std::vector<Column> names() {
    return {copy_source_name(), copy_destination_name(), copy_remote_user_name(),
            misc_destination_name()};
}
std::vector<Column> texts() {
    std::vector<Column> all = names();
    all.push_back(copy_password());
    return all;
}
std::vector<Column> integers() {
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

std::string test_name(const testing::TestParamInfo<Column> &info) {
    return std::string(info.param.name).substr(std::strlen("set_orvexFlash"));
}

class Columns : public fakes::FlashTest, public testing::WithParamInterface<Column> {
  protected:
    const Column &column = GetParam();

    // Nothing but these is traced, all at debug level.
    void expect_traces(const std::vector<Lines> &parts, int32_t index = 7) {
        EXPECT_EQ(fakes::trace_texts(101), column.filled(parts, index));
        EXPECT_THAT(fakes::trace_texts(100), IsEmpty());
    }
    Lines refusal(int32_t state) const {
        Lines lines = column.refused;
        for (std::string &line : lines)
            line += std::to_string(state) + ")";
        return lines;
    }
};
class SavedColumns : public Columns {};
class Texts : public Columns {};
class Names : public Columns {};
class Integers : public Columns {};

INSTANTIATE_TEST_SUITE_P(, Columns, testing::ValuesIn(all_columns()), test_name);
INSTANTIATE_TEST_SUITE_P(, SavedColumns, testing::ValuesIn(saved_columns()), test_name);
INSTANTIATE_TEST_SUITE_P(, Texts, testing::ValuesIn(texts()), test_name);
INSTANTIATE_TEST_SUITE_P(, Names, testing::ValuesIn(names()), test_name);
INSTANTIATE_TEST_SUITE_P(, Integers, testing::ValuesIn(integers()), test_name);

// RESERVE1

constexpr u_char every_type[] = {
    ASN_BOOLEAN,   ASN_INTEGER,   ASN_BIT_STR, ASN_OCTET_STR, ASN_NULL,      ASN_OBJECT_ID,
    ASN_SEQUENCE,  ASN_IPADDRESS, ASN_COUNTER, ASN_GAUGE,     ASN_TIMETICKS, ASN_OPAQUE,
    ASN_COUNTER64, 0x80,          0x81,        0x82,          0x00,          0xff};

TEST_P(Columns, AValueOfAnyOtherTypeIsWrongType) {
    for (u_char type : every_type) {
        if (type == column.type)
            continue;
        SCOPED_TRACE(static_cast<int>(type));
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(fakes::set_phase(column.method, reserve1, column.magic, 7, type,
                                   column.written.data(), column.written.size()),
                  wrong_type);
        EXPECT_EQ(errors.text(), column.type_message);
        const Lines message = {column.type_message};
        expect_traces(
            {column.every_call, column.reserve1_start, column.traces_refusals ? message : Lines{}});
    }
}

TEST_P(Columns, ANullValueOfAnotherTypeIsWrongType) {
    for (u_char type : every_type) {
        if (type == column.type)
            continue;
        SCOPED_TRACE(static_cast<int>(type));
        oid name[MAX_OID_LEN];
        const fakes::Oid instance = fakes::instance_of(column.magic, {7});
        std::copy(instance.begin(), instance.end(), name);
        for (size_t length : {size_t{0}, size_t{4}, sizeof(long)}) {
            fakes::Capture errors(STDERR_FILENO);
            EXPECT_EQ(
                column.method(reserve1, nullptr, type, length, nullptr, name, instance.size()),
                wrong_type);
            EXPECT_EQ(errors.text(), column.type_message);
        }
    }
}

TEST_P(Columns, TheTypeIsCheckedBeforeTheLength) {
    const u_char other = column.type == ASN_INTEGER ? ASN_OCTET_STR : ASN_INTEGER;
    for (size_t length : column.bad_lengths) {
        fakes::Capture errors(STDERR_FILENO);
        const std::string value(length, 'x');
        EXPECT_EQ(fakes::set_phase(column.method, reserve1, column.magic, 7, other, value.data(),
                                   value.size()),
                  wrong_type);
        EXPECT_EQ(errors.text(), column.type_message);
    }
}

TEST_P(Columns, ALengthOutsideTheLimitsIsWrongLength) {
    for (size_t length : column.bad_lengths) {
        SCOPED_TRACE(length);
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, std::string(length, 'x')), wrong_length);
        EXPECT_EQ(errors.text(), column.length_message);
        const Lines message = {column.length_message};
        expect_traces(
            {column.every_call, column.reserve1_start, column.traces_refusals ? message : Lines{}});
    }
}

TEST_P(Columns, TheLengthsAtTheLimitsAreAccepted) {
    for (const std::string &value : column.good_lengths) {
        SCOPED_TRACE(value.size());
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, value), no_error);
        EXPECT_EQ(errors.text(), "");
    }
}

TEST_P(Columns, AnAcceptedValueIsTracedAndNotWrittenToStandardError) {
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7), no_error);
    EXPECT_EQ(errors.text(), "");
    expect_traces({column.every_call, column.reserve1_start, column.reserve1_accepted});
}

TEST_P(Columns, Reserve1DoesNotLookAtTheRow) {
    column.add(7, flash::rowActive, column.before);
    const std::string before = column.whole(7);
    forget();
    EXPECT_EQ(column.call(reserve1, 7), no_error);
    {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.call(reserve1, 7, std::string(column.bad_lengths.back(), 'x')),
                  wrong_length);
    }
    EXPECT_THAT(container_calls(), IsEmpty());
    EXPECT_EQ(column.whole(7), before);
}

TEST_P(Columns, Reserve1AcceptsAValueForAnAbsentRow) {
    EXPECT_EQ(column.call(reserve1, 8), no_error);
    EXPECT_EQ(column.read(8), "no row");
}

TEST_P(Integers, NoLengthUpToThatOfALongIsWrongLength) {
    for (size_t length = 0; length <= sizeof(long); ++length) {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_NE(column.call(reserve1, 7, std::string(length, '\1')), wrong_length) << length;
        EXPECT_THAT(errors.text(), Not(EndsWith("bad length\n"))) << length;
    }
}

TEST_P(Integers, TheLengthIsCheckedBeforeTheValue) {
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7, std::string(sizeof(long) + 1, '\x7f')), wrong_length);
    EXPECT_EQ(errors.text(), column.length_message);
}

TEST_P(Texts, AnEmptyTextIsWrongLength) {
    oid name[MAX_OID_LEN];
    const fakes::Oid instance = fakes::instance_of(column.magic, {7});
    std::copy(instance.begin(), instance.end(), name);
    u_char nothing = 'x';
    for (u_char *value : {&nothing, static_cast<u_char *>(nullptr)}) {
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(column.method(reserve1, value, ASN_OCTET_STR, 0, nullptr, name, instance.size()),
                  wrong_length);
        EXPECT_EQ(errors.text(), column.length_message);
    }
}

// RESERVE2

TEST_P(Columns, Reserve2OfAnAbsentRowIsNoSuchName) {
    EXPECT_EQ(column.call(reserve2, 7), no_such_name);
    expect_traces({column.every_call, column.reserve2_start, {column.no_rows}, column.row_absent});
    EXPECT_EQ(column.read(7), "no row");
}

TEST_P(Columns, Reserve2NeverCreatesARow) {
    column.add(6, flash::rowNotReady, column.before);
    EXPECT_EQ(column.call(reserve2, 7), no_such_name);
    EXPECT_EQ(column.read(7), "no row");
    EXPECT_EQ(column.read(6), column.before);
}

TEST_P(Columns, Reserve2StoresTheValueWhileTheRowIsBeingCreated) {
    for (int32_t state : states_of_creation) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        forget();
        EXPECT_EQ(column.call(reserve2, 7), no_error);
        expect_traces({column.every_call, column.reserve2_start, column.changing,
                       column.before_store, column.stored});
        EXPECT_EQ(column.read(7), column.after);
    }
}

TEST_P(Columns, Reserve2ChangesNothingElseAndLeavesNothingOfTheOldValue) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    const std::string changed = column.whole(7);
    fakes::empty_tables();
    column.add(7, flash::rowNotReady, column.after);
    EXPECT_TRUE(changed == column.whole(7));
}

TEST_P(Columns, Reserve2OfARowInAnyOtherStateIsInconsistentAndChangesNothing) {
    for (int32_t state : other_states) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(reserve2, 7), inconsistent_value);
        expect_traces({column.every_call, column.reserve2_start, column.changing, refusal(state)});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ARowThatCannotBeWrittenInReserve2IsAGeneralError) {
    column.add(7, flash::rowNotReady, column.before);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(reserve2, 7), general_error);
    EXPECT_EQ(column.read(7), column.before);
}

TEST_P(Texts, NoTextIsTracedAsStoredWhenTheRowCannotBeWritten) {
    column.add(7, flash::rowNotReady, column.before);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(reserve2, 7), general_error);
    expect_traces({column.every_call, column.reserve2_start, column.changing, column.before_store});
}

// ACTION, COMMIT, UNDO

TEST_P(Columns, ActionConfirmsThatTheRowIsThere) {
    for (int32_t state : {flash::rowNotReady, flash::rowActive, flash::rowDestroy}) {
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(action, 7), no_error);
        expect_traces({column.every_call, column.action_start});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ActionOfAnAbsentRowIsNoSuchName) {
    EXPECT_EQ(column.call(action, 7), no_such_name);
    expect_traces(
        {column.every_call, column.action_start, {column.no_rows}, column.action_row_absent});
}

TEST_P(Columns, CommitAndUndoDoNothing) {
    column.add(7, flash::rowNotReady, column.before);
    const std::string before = column.whole(7);
    for (Phase phase : {commit, undo})
        for (oid index : {oid{7}, oid{8}}) {
            forget();
            EXPECT_EQ(column.call(phase, index), no_error);
            EXPECT_THAT(container_calls(), IsEmpty());
            expect_traces({column.every_call});
        }
    EXPECT_TRUE(column.whole(7) == before);
}

TEST_P(Columns, AnAcceptedSetIsStoredAfterTheLastPhase) {
    column.add(7, flash::rowNotReady, column.before);
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.call(phase, 7), no_error) << phase;
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Columns, UndoDoesNotRestoreTheOldValue) {
    column.add(7, flash::rowNotReady, column.before);
    for (Phase phase : {reserve1, reserve2, action, undo})
        EXPECT_EQ(column.call(phase, 7), no_error) << phase;
    EXPECT_EQ(column.read(7), column.after);
}

// FREE

TEST_P(Columns, FreePutsTheColumnBack) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve1, 7), no_error);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    forget();
    EXPECT_EQ(column.call(release, 7), no_error);
    expect_traces({column.every_call, column.release_start});
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Columns, FreePutsTheColumnBackInEveryStateButActiveAndNotInService) {
    for (int32_t state : {0, 3, 4, 5, 6}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(6, flash::rowNotReady, column.before);
        column.add(7, state, column.after);
        ASSERT_EQ(column.call(reserve2, 6), no_error); // fills the column's saved value
        EXPECT_EQ(column.call(release, 7), no_error);
        EXPECT_EQ(column.read(7), column.put_back);
    }
}

TEST_P(Columns, FreeLeavesAnActiveOrNotInServiceRowAlone) {
    for (int32_t state : {flash::rowActive, flash::rowNotInService}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(6, flash::rowNotReady, column.before);
        ASSERT_EQ(column.call(reserve2, 6), no_error); // fills the column's saved value
        column.add(7, state, column.after);
        const std::string before = column.whole(7);
        forget();
        EXPECT_EQ(column.call(release, 7), no_error);
        expect_traces({column.every_call, column.release_start});
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, ARefusedSetOfAnActiveOrNotInServiceRowLeavesItUnchangedAfterFree) {
    for (int32_t state : {flash::rowActive, flash::rowNotInService}) {
        SCOPED_TRACE(state);
        fakes::empty_tables();
        column.add(7, state, column.before);
        const std::string before = column.whole(7);
        EXPECT_EQ(column.call(reserve1, 7), no_error);
        EXPECT_EQ(column.call(reserve2, 7), inconsistent_value);
        EXPECT_EQ(column.call(release, 7), no_error);
        EXPECT_TRUE(column.whole(7) == before);
    }
}

TEST_P(Columns, FreeOfAnAbsentRowAnswersAsTheColumnDoes) {
    EXPECT_EQ(column.call(release, 7), column.release_without_row);
    expect_traces({column.every_call, column.release_start, {column.no_rows}});
    EXPECT_EQ(column.read(7), "no row");
}

TEST_P(Columns, ARowThatCannotBeWrittenInFreeIsAGeneralError) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(column.call(release, 7), general_error);
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Integers, FreeAfterARefusedValueReadsZero) {
    column.add(7, flash::rowNotReady, column.before);
    {
        fakes::Capture errors(STDERR_FILENO);
        ASSERT_EQ(column.call(reserve1, 7, std::string(sizeof(long) + 1, 'x')), wrong_length);
    }
    EXPECT_EQ(column.call(release, 7, std::string(sizeof(long) + 1, 'x')), no_error);
    EXPECT_EQ(column.read(7), "0");
}

// The index

TEST_P(Columns, TheRowIsNamedByTheLastArc) {
    column.add(7, flash::rowNotReady, column.before);
    fakes::Oid name = fakes::instance_of(column.magic, {9, 4, 7});
    std::string value = column.written;
    EXPECT_EQ(column.method(reserve2, reinterpret_cast<u_char *>(value.data()), column.type,
                            value.size(), nullptr, name.data(), name.size()),
              no_error);
    EXPECT_EQ(column.read(7), column.after);
}

TEST_P(Columns, AnIndexAbove31BitsNamesItsRow) {
    column.add(-1, flash::rowNotReady, column.before);
    EXPECT_EQ(column.call(reserve2, 4294967295U), no_error);
    EXPECT_EQ(column.read(-1), column.after);
}

// Saved values

TEST_P(SavedColumns, OneSavedValueServesAllRows) {
    const std::string other = beginning_with('Z', column.before);
    const std::string other_put_back = beginning_with('Z', column.put_back);
    column.add(6, flash::rowNotReady, column.before);
    column.add(7, flash::rowNotReady, other);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 6), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(6), other_put_back);
    EXPECT_EQ(column.read(7), other_put_back);
}

TEST_P(SavedColumns, ASecondSetOfTheSameRowOverwritesTheSavedValue) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    const std::string second(column.type == ASN_IPADDRESS ? 4 : 8, 'y');
    ASSERT_EQ(column.call(reserve2, 7, second), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_NE(column.read(7), column.put_back);
    EXPECT_EQ(column.read(7).front(), column.after.front());
}

TEST_P(SavedColumns, TheSavedValuesOfTheColumnsAreSeparate) {
    column.add(7, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    for (const Column &other : saved_columns()) {
        if (other.magic == column.magic)
            continue;
        const bool misc = other.magic == flash::magicMiscOpDestinationName;
        const int32_t index = misc ? 9 : 10 + other.magic;
        other.add(index, flash::rowNotReady, beginning_with('Q', other.before));
        ASSERT_EQ(other.call(reserve2, static_cast<oid>(index)), no_error);
    }
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Texts, ARefusedSetDoesNotTouchTheSavedText) {
    column.add(6, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    column.add(7, flash::rowActive, "something else");
    ASSERT_EQ(column.call(reserve2, 7), inconsistent_value);
    EXPECT_EQ(column.call(release, 6), no_error);
    EXPECT_EQ(column.read(6), column.put_back);
}

TEST_P(Texts, AnEmptyOldTextLeavesTheSavedTextAsItWas) {
    column.add(6, flash::rowNotReady, column.before);
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    column.add(7, flash::rowNotReady, "");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    EXPECT_EQ(column.read(7), column.put_back);
}

TEST_P(Texts, AnOldTextOfOneCharacterIsSavedAsNothing) {
    column.add(7, flash::rowNotReady, "q");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    // The source name's copy back is limited to the saved text's length, here to nothing at all.
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? column.after : "");
}

TEST_P(Texts, AFourCharacterTextReadsShortenedAfterFree) {
    column.add(7, flash::rowNotReady, "abcd");
    ASSERT_EQ(column.call(reserve2, 7), no_error);
    EXPECT_EQ(column.call(release, 7), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? "ab" : "abc");
}

// Texts

TEST_P(Names, ANameOfEveryLengthUpTo255IsStoredWhole) {
    for (size_t length : {size_t{1}, size_t{2}, size_t{100}, size_t{254}, size_t{255}}) {
        SCOPED_TRACE(length);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "");
        std::string value(length, 'n');
        value.back() = 'z';
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, value), no_error);
        EXPECT_EQ(column.read(7), value);
        EXPECT_EQ(fakes::get(column.magic, {7}).text(), value);
    }
}

TEST_P(Names, ALongNameReplacesALongName) {
    const std::string old(255, 'o');
    const std::string value(255, 'n');
    column.add(7, flash::rowNotReady, old);
    forget();
    EXPECT_EQ(column.call(reserve2, 7, value), no_error);
    EXPECT_EQ(column.read(7), value);
    for (const std::string &text : fakes::trace_texts(101))
        EXPECT_LE(text.size(), 511U);
    EXPECT_EQ(column.call(release, 7, value), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), std::string(source ? 253 : 254, 'o'));
}

TEST_P(Names, ANameWithAnEmbeddedNulReadsBackUpToIt) {
    column.add(7, flash::rowNotReady, std::string(255, 'o'));
    const std::string value("ab\0cd", 5);
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.call(phase, 7, value), no_error);
    EXPECT_EQ(column.read(7), "ab");
    EXPECT_EQ(fakes::get(column.magic, {7}).text(), "ab");
}

TEST_P(Texts, AnEmbeddedNulLeavesNothingOfTheOldText) {
    column.add(7, flash::rowNotReady, std::string(80, 'o'));
    EXPECT_EQ(column.call(reserve2, 7, std::string("ab\0cd", 5)), no_error);
    EXPECT_EQ(column.read(7), "ab");
    EXPECT_EQ(column.whole_field(7).find('o'), std::string::npos);
}

TEST_P(Texts, AShorterTextLeavesNothingOfTheOldOneBehindItsTerminator) {
    column.add(7, flash::rowNotReady, std::string(80, 'o'));
    EXPECT_EQ(column.call(reserve2, 7, "x"), no_error);
    std::string field(column.whole_field(7).size(), '\0');
    field.front() = 'x';
    EXPECT_EQ(column.whole_field(7), field);
}

TEST_P(Texts, PercentSignsAreOrdinaryCharacters) {
    column.add(7, flash::rowNotReady, "%s%n%d");
    EXPECT_EQ(column.call(reserve2, 7, "%n%s%x"), no_error);
    EXPECT_EQ(column.read(7), "%n%s%x");
    EXPECT_EQ(column.call(release, 7, "%n%s%x"), no_error);
    const bool source = column.magic == flash::magicCopySourceName;
    EXPECT_EQ(column.read(7), source ? "%s%n" : "%s%n%");
}

// The columns one by one

using SetCommand = fakes::FlashTest;
using SetProtocol = fakes::FlashTest;
using SetServerAddress = fakes::FlashTest;
using SetSourceName = fakes::FlashTest;
using SetPassword = fakes::FlashTest;
using SetNotify = fakes::FlashTest;
using SetMiscOpCommand = fakes::FlashTest;
using SetMiscOpDestinationName = fakes::FlashTest;
using SetSeveralColumns = fakes::FlashTest;

// What a 64-bit agent hands over whose low half alone would be `low`.
[[maybe_unused]] long above_32_bits(int32_t low) {
    return static_cast<long>((int64_t{1} << 32) + low);
}

TEST_F(SetCommand, AnyValueIsAcceptedAndStored) {
    const Column column = copy_command();
    for (int32_t value : {0, 1, 2, 3, 4, 5, -1, INT32_MAX, INT32_MIN}) {
        SCOPED_TRACE(value);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "9");
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, bytes_of_long(value)), no_error);
        EXPECT_EQ(column.read(7), std::to_string(value));
    }
}

TEST_F(SetCommand, AValueOfFourBytesIsStored) {
    const Column column = copy_command();
    for (int32_t value : {3, -2}) {
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "9");
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, bytes_of_word(value)), no_error);
        EXPECT_EQ(column.read(7), std::to_string(value));
    }
}

TEST_F(SetCommand, AValueOfOneToThreeBytesIsStoredWithoutASign) {
    const Column column = copy_command();
    const struct {
        int32_t value;
        size_t length;
        const char *stored;
    } cases[] = {{3, 1, "3"},
                 {3, 2, "3"},
                 {3, 3, "3"},
                 {0x7F, 1, "127"},
                 {0xFF, 1, "255"},
                 {0x0102, 2, "258"},
                 {0xFFFF, 2, "65535"},
                 {0x010203, 3, "66051"},
                 {0xFFFFFF, 3, "16777215"}};
    for (const auto &[value, length, stored] : cases) {
        SCOPED_TRACE(stored);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "9");
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, fakes::low_bytes(value, length)), no_error);
        EXPECT_EQ(column.read(7), stored);
    }
}

TEST_F(SetCommand, AValueOfNoBytesIsZero) {
    const Column column = copy_command();
    column.add(7, flash::rowNotReady, "9");
    fakes::Oid name = fakes::instance_of(column.magic, {7});
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.method(phase, nullptr, ASN_INTEGER, 0, nullptr, name.data(), name.size()),
                  no_error);
    EXPECT_EQ(column.read(7), "0");
}

TEST_F(SetProtocol, OneToSixButThreeAreAcceptedAndStored) {
    const Column column = copy_protocol();
    for (int32_t value : {1, 2, 4, 5, 6})
        for (const std::string &bytes :
             {bytes_of_long(value), bytes_of_word(value), fakes::low_bytes(value, 3),
              fakes::low_bytes(value, 2), fakes::low_bytes(value, 1)}) {
            fakes::empty_tables();
            column.add(7, flash::rowNotReady, "9");
            for (Phase phase : {reserve1, reserve2, action, commit})
                EXPECT_EQ(column.call(phase, 7, bytes), no_error) << value;
            EXPECT_EQ(column.read(7), std::to_string(value));
        }
}

TEST_F(SetProtocol, ThreeIsAWrongValue) {
    const Column column = copy_protocol();
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7, bytes_of_long(3)), wrong_value);
    EXPECT_EQ(errors.text(), "write to orvexFlashCopyProtocol: invalid value\n");
    EXPECT_EQ(fakes::traces(),
              (fakes::Traces{{101, "set_orvexFlashCopyProtocol : Entering \n"},
                             {101, "In set_orvexFlashCopyProtocol...\n"},
                             {101, "set_orvexFlashCopyProtocol : Entering RESERVE1\n"},
                             {101, "write to orvexFlashCopyProtocol: invalid value\n"}}));
    EXPECT_THAT(platform().errors, IsEmpty());
    EXPECT_THAT(container_calls(), IsEmpty());
}

void expect_unsupported_protocol(long value) {
    SCOPED_TRACE(value);
    const Column column = copy_protocol();
    fakes::reset();
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7, bytes_of_long(value)), general_error);
    EXPECT_EQ(errors.text(), "write to orvexFlashCopyProtocol: invalid value\n");
    EXPECT_EQ(
        fakes::traces(),
        (fakes::Traces{{101, "set_orvexFlashCopyProtocol : Entering \n"},
                       {101, "In set_orvexFlashCopyProtocol...\n"},
                       {101, "set_orvexFlashCopyProtocol : Entering RESERVE1\n"},
                       {101, "write to orvexFlashCopyProtocol: invalid value\n"},
                       {100, "set_orvexFlashCopyProtocol : This protocol is not supported\n"}}));
    EXPECT_THAT(fakes::calls("log_snmp_error"),
                ElementsAre("log_snmp_error code=0x4049003c text=text of 0x4049003c"));
    EXPECT_THAT(fakes::everything().back(), testing::StartsWith("log_snmp_error"));
    EXPECT_THAT(container_calls(), IsEmpty());
}

TEST_F(SetProtocol, AValueOutsideOneToSixIsAGeneralErrorAndLogged) {
    for (long value : {0L, 7L, -1L, 8L, 255L, long{INT32_MAX}, long{INT32_MIN}, LONG_MAX, LONG_MIN})
        expect_unsupported_protocol(value);
}

TEST_F(SetProtocol, AValueOfNoBytesIsZeroAndUnsupported) {
    const Column column = copy_protocol();
    fakes::Capture errors(STDERR_FILENO);
    EXPECT_EQ(column.call(reserve1, 7, ""), general_error);
    EXPECT_TRUE(
        fakes::traced(100, "set_orvexFlashCopyProtocol : This protocol is not supported\n"));
}

#if LONG_MAX > INT32_MAX
TEST_F(SetProtocol, AValueAbove32BitsIsRefusedWhateverItsLowHalf) {
    for (int32_t low : {1, 2, 3, 4, 5, 6})
        expect_unsupported_protocol(above_32_bits(low));
}
#endif

TEST_F(SetServerAddress, TheBytesBecomeTheAddressInTheirOrder) {
    const Column column = copy_server_address();
    column.add(7, flash::rowNotReady, column.before);
    const std::string address("\x0a\x00\x02\xfe", 4);
    uint32_t number = 0;
    std::memcpy(&number, address.data(), sizeof number);
    forget();
    EXPECT_EQ(column.call(reserve1, 7, address), no_error);
    EXPECT_EQ(column.call(reserve2, 7, address), no_error);
    EXPECT_EQ(fakes::trace_texts(101),
              (Lines{"DEBUG : set_orvexFlashCopyServerAddress : Server Address : " +
                         std::to_string(number) + " Length 4\n",
                     "DEBUG : set_orvexFlashCopyServerAddress : Server Address after copy : " +
                         std::to_string(number) + "\n"}));
    EXPECT_EQ(column.read(7), address);
}

TEST_F(SetServerAddress, FewerThanFourBytesAreFilledUpWithZeros) {
    const Column column = copy_server_address();
    for (size_t length = 0; length <= 4; ++length) {
        SCOPED_TRACE(length);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, column.before);
        const std::string address = std::string("\x0a\x01\x02\x03").substr(0, length);
        std::string expected = address;
        expected.resize(4, '\0');
        uint32_t number = 0;
        std::memcpy(&number, expected.data(), sizeof number);
        forget();
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, address), no_error);
        EXPECT_TRUE(fakes::traced(
            101, "DEBUG : set_orvexFlashCopyServerAddress : Server Address : " +
                     std::to_string(number) + " Length " + std::to_string(length) + "\n"));
        EXPECT_EQ(column.read(7), expected);
    }
}

TEST_F(SetServerAddress, ANullValueOfNoBytesIsTheZeroAddress) {
    const Column column = copy_server_address();
    column.add(7, flash::rowNotReady, column.before);
    fakes::Oid name = fakes::instance_of(column.magic, {7});
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(
            column.method(phase, nullptr, ASN_IPADDRESS, 0, nullptr, name.data(), name.size()),
            no_error);
    EXPECT_EQ(column.read(7), std::string(4, '\0'));
}

TEST_F(SetServerAddress, AnyAddressIsAccepted) {
    const Column column = copy_server_address();
    for (const std::string &address : {std::string(4, '\0'), std::string(4, '\xff')}) {
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, column.before);
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, address), no_error);
        EXPECT_EQ(column.read(7), address);
    }
}

TEST_F(SetServerAddress, TheCurrentAddressIsSavedBeforeTheStateIsTested) {
    const Column column = copy_server_address();
    column.add(6, flash::rowNotReady, "aaaa");
    column.add(7, flash::rowActive, "bbbb");
    ASSERT_EQ(column.call(reserve2, 6), no_error);
    ASSERT_EQ(column.call(reserve2, 7), inconsistent_value);
    EXPECT_EQ(column.call(release, 6), no_error);
    EXPECT_EQ(column.read(6), "bbbb");
}

TEST_F(SetPassword, TheFiveSpecialCharactersAreEscapedWithABackslash) {
    const Column column = copy_password();
    const struct {
        const char *typed;
        const char *stored;
    } passwords[] = {
        {"\"", "\\\""},
        {"$", "\\$"},
        {"[", "\\["},
        {"]", "\\]"},
        {"\\", "\\\\"},
        {"a$b", "a\\$b"},
        {"\\$", "\\\\\\$"},
        {"[x]\"y\"", "\\[x\\]\\\"y\\\""},
        {"plain{}'`;& 1", "plain{}'`;& 1"},
    };
    for (const auto &password : passwords) {
        SCOPED_TRACE(password.typed);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "old");
        forget();
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, password.typed), no_error);
        EXPECT_EQ(column.read(7), password.stored);
        const std::string stored = password.stored;
        EXPECT_TRUE(fakes::traced(101, "The final password string is " + stored + "\n"));
        EXPECT_TRUE(fakes::traced(
            101,
            "DEBUG : set_orvexFlashCopyPassword : User Password after copy : " + stored + "\n"));
    }
}

TEST_F(SetPassword, FortyCharactersThatAllNeedEscapingBecomeEighty) {
    const Column column = copy_password();
    for (const char *special : {"\"", "$", "[", "]", "\\"}) {
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, "old");
        std::string typed;
        std::string stored;
        for (int i = 0; i < 40; ++i) {
            typed += special;
            stored += std::string("\\") + special;
        }
        for (Phase phase : {reserve1, reserve2, action, commit})
            EXPECT_EQ(column.call(phase, 7, typed), no_error);
        EXPECT_EQ(column.read(7), stored);
        EXPECT_EQ(column.read(7).size(), 80U);
    }
}

TEST_F(SetPassword, AnEscapedPasswordOfEightyCharactersIsSavedButForItsLast) {
    const Column column = copy_password();
    std::string old;
    for (int i = 0; i < 40; ++i)
        old += "\\$";
    column.add(7, flash::rowNotReady, old);
    ASSERT_EQ(column.call(reserve2, 7, "new"), no_error);
    EXPECT_EQ(column.call(release, 7, "new"), no_error);
    EXPECT_EQ(column.read(7), old.substr(0, 79));
}

TEST_F(SetPassword, ThePasswordReadsBackEmpty) {
    const Column column = copy_password();
    column.add(7, flash::rowNotReady, "old");
    for (Phase phase : {reserve1, reserve2, action, commit})
        EXPECT_EQ(column.call(phase, 7, "secret"), no_error);
    EXPECT_EQ(fakes::get(column.magic, {7}).text(), "");
}

// The columns that take 1 and 2, or 3 alone, and refuse everything else in the same way.
struct Choice {
    Column column;
    std::vector<int32_t> accepted;
    const char *message;
};

void PrintTo(const Choice &choice, std::ostream *out) { *out << choice.column.name; }

std::vector<Choice> choices() {
    return {{copy_notify(), {1, 2}, "write to orvexFlashCopyNotifyOnCompletion: bad value\n"},
            {misc_notify(), {1, 2}, "write to orvexFlashMiscOpNotifyOnCompletion: bad value\n"},
            {misc_command(), {3}, "write to orvexFlashMiscOpCommand: invalid value\n"}};
}

class Choices : public fakes::FlashTest, public testing::WithParamInterface<Choice> {
  protected:
    const Choice &choice = GetParam();

    void expect_wrong(const std::string &value) {
        forget();
        fakes::Capture errors(STDERR_FILENO);
        EXPECT_EQ(choice.column.call(reserve1, 7, value), wrong_value);
        EXPECT_EQ(errors.text(), choice.message);
        EXPECT_EQ(fakes::trace_texts(101), choice.column.filled({choice.column.every_call}, 7));
        EXPECT_THAT(fakes::trace_texts(100), IsEmpty());
        EXPECT_THAT(platform().errors, IsEmpty());
        EXPECT_THAT(container_calls(), IsEmpty());
    }
};

INSTANTIATE_TEST_SUITE_P(, Choices, testing::ValuesIn(choices()), [](const auto &choice) {
    return std::string(choice.param.column.name).substr(14);
});

TEST_P(Choices, TheValuesAllowedAreStored) {
    for (int32_t value : choice.accepted)
        for (const std::string &bytes : {bytes_of_long(value), bytes_of_word(value)}) {
            fakes::empty_tables();
            choice.column.add(7, flash::rowNotReady, "9");
            for (Phase phase : {reserve1, reserve2, action, commit})
                EXPECT_EQ(choice.column.call(phase, 7, bytes), no_error) << value;
            EXPECT_EQ(choice.column.read(7), std::to_string(value));
        }
}

TEST_P(Choices, AnyOtherValueIsAWrongValue) {
    for (long value : {0L, 1L, 2L, 3L, 4L, 5L, 6L, -1L, -2L, 255L, 257L, long{INT32_MAX},
                       long{INT32_MIN}, LONG_MAX, LONG_MIN}) {
        SCOPED_TRACE(value);
        if (std::count(choice.accepted.begin(), choice.accepted.end(), value) == 0)
            expect_wrong(bytes_of_long(value));
    }
}

TEST_P(Choices, AValueOfNoBytesIsZeroAndWrong) { expect_wrong(""); }

#if LONG_MAX > INT32_MAX
TEST_P(Choices, AValueAbove32BitsIsRefusedWhateverItsLowHalf) {
    for (int32_t value : choice.accepted) {
        SCOPED_TRACE(value);
        expect_wrong(bytes_of_long(above_32_bits(value)));
        expect_wrong(bytes_of_long(-above_32_bits(-value)));
    }
}
#endif

TEST_F(SetSeveralColumns, AfterAFailedRequestTheIntegersReadZeroAndTheNameItsFirstTwoCharacters) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) {
        row.entryStatus = flash::rowNotReady;
        row.command = flash::commandFromFlash;
        row.protocol = flash::protocolFtp;
        row.notifyOnCompletion = flash::truthFalse;
        fakes::put(row.sourceName, "abcd");
    });
    const std::vector<Column> request = {copy_command(), copy_protocol(), copy_notify(),
                                         copy_source_name()};
    for (Phase phase : {reserve1, reserve2, release})
        for (const Column &column : request)
            EXPECT_EQ(column.call(phase, 7), no_error);
    EXPECT_EQ(fakes::get(flash::magicCopyCommand, {7}).integer(), 0);
    EXPECT_EQ(fakes::get(flash::magicCopyProtocol, {7}).integer(), 0);
    EXPECT_EQ(fakes::get(flash::magicCopyNotifyOnCompletion, {7}).integer(), 0);
    EXPECT_EQ(fakes::get(flash::magicCopySourceName, {7}).text(), "ab");
}

TEST_F(SetSeveralColumns, TheDestinationNamesOfTheTwoTablesAreSavedApart) {
    const Column copy = copy_destination_name();
    const Column misc = misc_destination_name();
    copy.add(7, flash::rowNotReady, "copy1");
    misc.add(7, flash::rowNotReady, "misc1");
    for (Phase phase : {reserve2, release}) {
        EXPECT_EQ(copy.call(phase, 7), no_error);
        EXPECT_EQ(misc.call(phase, 7), no_error);
    }
    EXPECT_EQ(copy.read(7), "copy");
    EXPECT_EQ(misc.read(7), "misc");
}

TEST_F(SetSeveralColumns, NoColumnAllocatesMemory) {
    for (const Column &column : all_columns()) {
        SCOPED_TRACE(column.name);
        fakes::empty_tables();
        column.add(7, flash::rowNotReady, column.before);
        fakes::fail_allocation(1);
        for (Phase phase : {reserve1, reserve2, action, commit, release, undo})
            EXPECT_EQ(column.call(phase, 7), no_error);
        EXPECT_EQ(createFlashCopyEntry(), nullptr) << "the failure was used up before";
    }
}

} // namespace
