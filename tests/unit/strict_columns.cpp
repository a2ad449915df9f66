// What the strict build's SET handlers refuse.
#include "fakes/fixture.h"

#include "flash_write.h"

namespace {

using namespace fakes;

class StrictColumns : public fakes::FlashTest {};

struct TextColumn {
    WriteMethod *method;
    int magic;
};
constexpr TextColumn texts[] = {{set_orvexFlashCopySourceName, 53},
                                {set_orvexFlashCopyDestinationName, 54},
                                {set_orvexFlashCopyRemoteUserName, 55},
                                {set_orvexFlashCopyPassword, 60},
                                {set_orvexFlashMiscOpDestinationName, 75}};

TEST_F(StrictColumns, ATextWithAMeaningToAShellIsAWrongValue) {
    for (const TextColumn &column : texts) {
        EXPECT_EQ(fakes::set_text(column.method, reserve1, column.magic, 7, "a;b"),
                  SNMP_ERR_WRONGVALUE)
            << column.magic;
        EXPECT_EQ(fakes::set_text(column.method, reserve1, column.magic, 7, "a-b"),
                  SNMP_ERR_NOERROR)
            << column.magic;
    }
}

TEST_F(StrictColumns, ANumberIsNoText) {
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyCommand, reserve1, 50, 7, 1), SNMP_ERR_NOERROR);
    const uint32_t address = 0x0100000A;
    EXPECT_EQ(fakes::set_phase(set_orvexFlashCopyServerAddress, reserve1, 52, 7, ASN_IPADDRESS,
                               &address, sizeof address),
              SNMP_ERR_NOERROR);
}

TEST_F(StrictColumns, ARowAbove2147483647IsNotCreated) {
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyEntryStatus, reserve1, 59, 0x80000000,
                                 flash::rowCreateAndWait),
              SNMP_ERR_NOCREATION);
    EXPECT_EQ(fakes::set_integer(set_orvexFlashCopyEntryStatus, reserve1, 59, 0x7FFFFFFF,
                                 flash::rowCreateAndWait),
              SNMP_ERR_NOERROR);
    EXPECT_EQ(fakes::set_integer(set_orvexFlashMiscOpEntryStatus, reserve1, 79, 0xFFFFFFFF,
                                 flash::rowCreateAndWait),
              SNMP_ERR_NOCREATION);
}

} // namespace
