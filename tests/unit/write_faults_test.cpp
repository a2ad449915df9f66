// Column SETs whose row cannot be written, and an error log that cannot be written.
#include "fakes/fixture.h"

#include "flash_write.h"

#include <arpa/inet.h>

namespace {

using namespace fakes;

// What FREE puts back after a SET that could not be written: the value that the SET saved.
struct Saved {
    const char *name;
    WriteMethod *method;
    int magic;
    const char *restored; // of the old text "former"
    std::string (*stored)(int32_t index);
    void (*prepare)(int32_t index, const char *text); // adds a row that holds this text
};
std::ostream &operator<<(std::ostream &out, const Saved &column) { return out << column.name; }

template <auto Field>
void add_copy(int32_t index, const char *text) {
    fakes::add_copy_row(index, [&](flashCopyEntry &row) {
        row.entryStatus = flash::rowNotReady;
        fakes::put(row.*Field, text);
    });
}
template <auto Field>
std::string stored_copy(int32_t index) {
    return (*fakes::stored_copy_row(index)).*Field;
}
void add_misc(int32_t index, const char *text) {
    fakes::add_misc_row(index, [&](flashMiscOpEntry &row) {
        row.entryStatus = flash::rowNotReady;
        fakes::put(row.destinationName, text);
    });
}
std::string stored_misc(int32_t index) { return fakes::stored_misc_row(index)->destinationName; }

const Saved saved_columns[] = {
    {"SourceName", set_orvexFlashCopySourceName, flash::magicCopySourceName, "form",
     stored_copy<&flashCopyEntry::sourceName>, add_copy<&flashCopyEntry::sourceName>},
    {"DestinationName", set_orvexFlashCopyDestinationName, flash::magicCopyDestinationName, "forme",
     stored_copy<&flashCopyEntry::destinationName>, add_copy<&flashCopyEntry::destinationName>},
    {"RemoteUserName", set_orvexFlashCopyRemoteUserName, flash::magicCopyRemoteUserName, "forme",
     stored_copy<&flashCopyEntry::remoteUserName>, add_copy<&flashCopyEntry::remoteUserName>},
    {"Password", set_orvexFlashCopyPassword, flash::magicCopyPassword, "forme",
     stored_copy<&flashCopyEntry::password>, add_copy<&flashCopyEntry::password>},
    {"MiscOpDestinationName", set_orvexFlashMiscOpDestinationName,
     flash::magicMiscOpDestinationName, "forme", stored_misc, add_misc},
};

class SavedColumn : public fakes::FlashTest, public testing::WithParamInterface<Saved> {};

INSTANTIATE_TEST_SUITE_P(Columns, SavedColumn, testing::ValuesIn(saved_columns),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(SavedColumn, IsSavedAlthoughTheWriteFails) {
    const Saved &column = GetParam();
    column.prepare(3, "earlier");
    column.prepare(7, "former");
    // A SET of another row fills the slot.
    ASSERT_EQ(fakes::set_text(column.method, reserve2, column.magic, 3, "new"), 0);
    fakes::forget();
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(fakes::set_text(column.method, reserve2, column.magic, 7, "wanted"), 5);
    EXPECT_EQ(column.stored(7), "former");
    EXPECT_EQ(fakes::set_text(column.method, release, column.magic, 7, "wanted"), 0);
    EXPECT_EQ(column.stored(7), column.restored);
}

using WriteFaults = fakes::FlashTest;

TEST_F(WriteFaults, TheServerAddressIsSavedAlthoughTheWriteFails) {
    const auto set = [](Phase phase, oid index, const char *address) {
        const in_addr_t bytes = inet_addr(address);
        return fakes::set_phase(set_orvexFlashCopyServerAddress, phase,
                                flash::magicCopyServerAddress, index, ASN_IPADDRESS, &bytes,
                                sizeof bytes);
    };
    const auto add = [](int32_t index, const char *address) {
        fakes::add_copy_row(index, [&](flashCopyEntry &row) {
            row.entryStatus = flash::rowNotReady;
            row.serverAddress = inet_addr(address);
        });
    };
    add(3, "10.0.0.3");
    add(7, "10.0.0.7");
    ASSERT_EQ(set(reserve2, 3, "10.0.0.4"), 0);
    platform().ordset_find.at(2, nullptr);
    EXPECT_EQ(set(reserve2, 7, "10.0.0.8"), 5);
    // FREE of the other row shows the slot.
    EXPECT_EQ(set(release, 3, "10.0.0.4"), 0);
    EXPECT_EQ(fakes::stored_copy_row(3)->serverAddress, inet_addr("10.0.0.7"));
}

TEST_F(WriteFaults, AnUnsupportedProtocolIsAGeneralErrorAlsoWhenItCannotBeLogged) {
    platform().log_snmp_error.always(-1);
    EXPECT_EQ(
        fakes::set_integer(set_orvexFlashCopyProtocol, reserve1, flash::magicCopyProtocol, 7, 9),
        5);
    ASSERT_EQ(platform().errors.size(), 1U);
    EXPECT_EQ(platform().errors[0].code, 0x4049003C);
}

TEST_F(WriteFaults, TheLoggersFailureIsTheResultOfLoggingAnError) {
    platform().log_snmp_error.returns(-1).returns(17);
    EXPECT_EQ(flash_log_snmp_error(0x4049003C), -1);
    EXPECT_EQ(flash_log_snmp_error(0x4049003C), 17);
}

} // namespace
