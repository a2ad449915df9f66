// SET of the columns one by one: which values they take, and how they keep them.
#include "columns.h"

#include "flash_write.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace write_columns;

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
