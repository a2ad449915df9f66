// Values and names of a SET that no manager sends and the agent lets through.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <algorithm>

namespace {

using namespace fakes;

class SetValues : public fakes::FlashTest {};

struct TextColumn {
    WriteMethod *method;
    int magic;
};
constexpr TextColumn texts[] = {
    {set_orvexFlashCopySourceName, 53},        {set_orvexFlashCopyDestinationName, 54},
    {set_orvexFlashCopyRemoteUserName, 55},    {set_orvexFlashCopyPassword, 60},
    {set_orvexFlashMiscOpDestinationName, 75},
};

TEST_F(SetValues, ATextThatIsNowhereHasAWrongLength) {
    fakes::Capture errors(STDERR_FILENO);
    for (const TextColumn &column : texts) {
        fakes::Oid name = fakes::instance_of(column.magic, {7});
        EXPECT_EQ(
            column.method(reserve1, nullptr, ASN_OCTET_STR, 5, nullptr, name.data(), name.size()),
            SNMP_ERR_WRONGLENGTH)
            << column.magic;
    }
}

TEST_F(SetValues, AnIntegerThatIsNowhereIsZero) {
    for (const size_t length : {size_t{0}, sizeof(int32_t), sizeof(long)}) {
        fakes::empty_tables();
        fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
        fakes::Oid name = fakes::instance_of(50, {7});
        for (const int phase : {reserve1, reserve2})
            EXPECT_EQ(set_orvexFlashCopyCommand(phase, nullptr, ASN_INTEGER, length, nullptr,
                                                name.data(), name.size()),
                      SNMP_ERR_NOERROR);
        EXPECT_EQ(fakes::stored_copy_row(7)->command, 0) << length;
    }
}

TEST_F(SetValues, NothingBehindAnEmbeddedNulIsKeptInTheRow) {
    using namespace std::string_view_literals;
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    ASSERT_EQ(fakes::set_text(set_orvexFlashCopyPassword, reserve2, 60, 7, "ab\0cd"sv),
              SNMP_ERR_NOERROR);
    const flashCopyEntry row = *fakes::stored_copy_row(7);
    EXPECT_STREQ(row.password, "ab");
    EXPECT_TRUE(std::all_of(row.password + 2, std::end(row.password),
                            [](char byte) { return byte == '\0'; }));
}

TEST_F(SetValues, FreeLeavesNothingOfTheRefusedNameInTheRow) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) {
        row.entryStatus = flash::rowNotReady;
        fakes::put(row.remoteUserName, "guest");
    });
    WriteMethod *const method = set_orvexFlashCopyRemoteUserName;
    ASSERT_EQ(fakes::set_text(method, reserve2, 55, 7, "a far longer name"), SNMP_ERR_NOERROR);
    ASSERT_EQ(fakes::set_text(method, release, 55, 7, "a far longer name"), SNMP_ERR_NOERROR);
    const flashCopyEntry row = *fakes::stored_copy_row(7);
    EXPECT_STREQ(row.remoteUserName, "gues");
    EXPECT_TRUE(std::all_of(row.remoteUserName + 4, std::end(row.remoteUserName),
                            [](char byte) { return byte == '\0'; }));
}

TEST_F(SetValues, ASourceNameOfTwoCharactersReadsEmptyAfterFree) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) {
        row.entryStatus = flash::rowNotReady;
        fakes::put(row.sourceName, "ab");
    });
    WriteMethod *const method = set_orvexFlashCopySourceName;
    ASSERT_EQ(fakes::set_text(method, reserve2, 53, 7, "refused"), SNMP_ERR_NOERROR);
    ASSERT_EQ(fakes::set_text(method, release, 53, 7, "refused"), SNMP_ERR_NOERROR);
    EXPECT_STREQ(fakes::stored_copy_row(7)->sourceName, "");
}

TEST_F(SetValues, OneUndoCopyOfATableIsKeptAtMost) {
    fakes::add_copy_row(7, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    fakes::add_misc_row(7, [](flashMiscOpEntry &row) { row.entryStatus = flash::rowNotReady; });
    u_char present = 0;
    fakes::watch_allocations();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyEntryStatus, reserve1, 59, 7,
                                     flash::rowNotInService, &present),
                  SNMP_ERR_NOERROR);
        EXPECT_EQ(fakes::set_integer(set_orvexFlashMiscOpEntryStatus, reserve1, 79, 7,
                                     flash::rowNotInService, &present),
                  SNMP_ERR_NOERROR);
    }
    EXPECT_EQ(fakes::outstanding_allocations(), 2U);
}

TEST_F(SetValues, ANameWithoutArcsNamesNoRow) {
    fakes::add_copy_row(1, [](flashCopyEntry &row) { row.entryStatus = flash::rowNotReady; });
    long value = flash::rowActive;
    auto *bytes = reinterpret_cast<u_char *>(&value);
    oid nowhere = 1;
    EXPECT_EQ(set_orvexFlashCopyEntryStatus(action, bytes, ASN_INTEGER, sizeof value, nullptr,
                                            &nowhere, 0),
              SNMP_ERR_GENERR);
    EXPECT_TRUE(fakes::traced(101, "Row with Index 0 cannot be created \n"));
    EXPECT_EQ(
        set_orvexFlashCopyCommand(action, bytes, ASN_INTEGER, sizeof value, nullptr, &nowhere, 0),
        SNMP_ERR_NOSUCHNAME);
}

TEST_F(SetValues, ANameOfOneArcNamesTheRowOfThatArc) {
    fakes::add_copy_row(7);
    oid name = 7;
    EXPECT_EQ(set_orvexFlashCopyCommand(action, nullptr, ASN_INTEGER, 0, nullptr, &name, 1),
              SNMP_ERR_NOERROR);
}

} // namespace
