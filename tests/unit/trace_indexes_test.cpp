// Row indexes, keys and statuses in traces: every message prints them as signed numbers, whatever a
// station chose.
#include "fakes/fixture.h"

#include "flash_validate.h"
#include "flash_write.h"

#include <cerrno>
#include <climits>

namespace {

using namespace fakes;

// A message that names a row, "#" in the place of its index, and how it comes about.
struct Message {
    const char *name;
    const char *text;
    void (*bring_about)(int32_t index);
};
std::ostream &operator<<(std::ostream &out, const Message &message) { return out << message.name; }

void add_copy(int32_t index, int32_t state = flash::rowNotReady, int32_t protocol = 1) {
    fakes::add_copy_row(index, [&](flashCopyEntry &row) {
        row.entryStatus = state;
        row.protocol = protocol;
        row.serverAddress = 0;
    });
}
void add_misc(int32_t index, int32_t state = flash::rowNotReady) {
    fakes::add_misc_row(index, [&](flashMiscOpEntry &row) {
        row.entryStatus = state;
        fakes::put(row.destinationName, "ilc-nvram:x");
    });
}

oid arc(int32_t index) { return static_cast<uint32_t>(index); }

void copy_status(Phase phase, int32_t index, long value) {
    fakes::set_integer(set_orvexFlashCopyEntryStatus, phase, flash::magicCopyEntryStatus,
                       arc(index), value);
}
void misc_status(Phase phase, int32_t index, long value) {
    fakes::set_integer(set_orvexFlashMiscOpEntryStatus, phase, flash::magicMiscOpEntryStatus,
                       arc(index), value);
}
template <WriteMethod Method, int Magic>
void integer_column(Phase phase, int32_t index) {
    fakes::set_integer(Method, phase, Magic, arc(index), 1L);
}
template <WriteMethod Method, int Magic>
void text_column(Phase phase, int32_t index) {
    fakes::set_text(Method, phase, Magic, arc(index), "new");
}
constexpr auto source_name = text_column<set_orvexFlashCopySourceName, flash::magicCopySourceName>;
constexpr auto destination_name =
    text_column<set_orvexFlashCopyDestinationName, flash::magicCopyDestinationName>;
constexpr auto user_name =
    text_column<set_orvexFlashCopyRemoteUserName, flash::magicCopyRemoteUserName>;
constexpr auto password = text_column<set_orvexFlashCopyPassword, flash::magicCopyPassword>;
constexpr auto misc_name =
    text_column<set_orvexFlashMiscOpDestinationName, flash::magicMiscOpDestinationName>;

void no_row_found() { platform().ordset_find.always(nullptr); }

const Message messages[] = {
    // Look-ups.
    {"LookUpByIndex", "looking for entry with index=#\n",
     [](int32_t index) {
         flashCopyEntry row{};
         get_flash_entry_with_index(static_cast<uint32_t>(index), &row);
     }},

    // Columns.
    {"SourceNameOfNoRow", "ERROR set_orvexFlashCopySourceName: Entry (index = #) not found  ",
     [](int32_t index) { source_name(reserve2, index); }},
    {"DestinationNameOfNoRow",
     "ERROR set_orvexFlashCopyDestinationName: Entry (index = #) not found  ",
     [](int32_t index) { destination_name(reserve2, index); }},
    {"UserNameOfNoRow", "ERROR set_orvexFlashCopyRemoteUserName: Entry (index = #) not found  ",
     [](int32_t index) { user_name(reserve2, index); }},
    {"PasswordOfNoRow", "ERROR set_orvexFlashCopyPassword: Entry (index = #) not found  ",
     [](int32_t index) { password(reserve2, index); }},
    {"MiscNameOfNoRow", "ERROR set_orvexFlashMiscOpDestinationName: Entry (index = #) not found  ",
     [](int32_t index) { misc_name(reserve2, index); }},
    {"SourceNameChanged",
     "DEBUG : set_orvexFlashCopySourceName : Changing source name (old = ) of the entry (index = "
     "#) to new \n",
     [](int32_t index) {
         add_copy(index);
         source_name(reserve2, index);
     }},
    {"DestinationNameChanged",
     "DEBUG : set_orvexFlashCopyDestinationName : Changing destination name (old = ) of the entry "
     "(index = #) to new \n",
     [](int32_t index) {
         add_copy(index);
         destination_name(reserve2, index);
     }},
    {"UserNameChanged",
     "DEBUG : set_orvexFlashCopyRemoteUserName : Changing user name (old = ) of the entry (index "
     "= #) to new \n",
     [](int32_t index) {
         add_copy(index);
         user_name(reserve2, index);
     }},
    {"PasswordChanged",
     "DEBUG : set_orvexFlashCopyPassword : Changing user password (old = ) of the entry (index = "
     "#) to new \n",
     [](int32_t index) {
         add_copy(index);
         password(reserve2, index);
     }},
    {"MiscNameChanged",
     "DEBUG : set_orvexFlashMiscOpDestinationName : Changing destination name (old = ilc-nvram:x) "
     "of the entry (index = #) to new \n",
     [](int32_t index) {
         add_misc(index);
         misc_name(reserve2, index);
     }},
    {"SourceNameInAction",
     "DEBUG : set_orvexFlashCopySourceName : Entering ACTION of entry (index = #) \n",
     [](int32_t index) { source_name(action, index); }},
    {"DestinationNameInAction",
     "DEBUG : set_orvexFlashCopyDestinationName : Entering ACTION of entry (index = #) \n",
     [](int32_t index) { destination_name(action, index); }},
    {"MiscNameInAction",
     "DEBUG : set_orvexFlashMiscOpDestinationName : Entering ACTION of entry (index = #) \n",
     [](int32_t index) { misc_name(action, index); }},
    {"CommandInFree", "DEBUG : set_orvexFlashCopyCommand : Entering FREE of entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashCopyCommand, flash::magicCopyCommand>(release, index);
     }},
    {"ProtocolInFree", "DEBUG : set_orvexFlashCopyProtocol :Entering FREE: entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashCopyProtocol, flash::magicCopyProtocol>(release, index);
     }},
    {"ServerAddressInFree",
     "DEBUG : set_orvexFlashCopyServerAddress : Entering FREE of entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashCopyServerAddress, flash::magicCopyServerAddress>(release,
                                                                                        index);
     }},
    {"SourceNameInFree",
     "DEBUG : set_orvexFlashCopySourceName : Entering FREE of entry (index = #) \n",
     [](int32_t index) { source_name(release, index); }},
    {"DestinationNameInFree",
     "DEBUG : set_orvexFlashCopyDestinationName : Entering FREE of entry (index = #) \n",
     [](int32_t index) { destination_name(release, index); }},
    {"UserNameInFree",
     "DEBUG : set_orvexFlashCopyRemoteUserName : Entering FREE of entry (index = #) \n",
     [](int32_t index) { user_name(release, index); }},
    {"PasswordInFree", "DEBUG : set_orvexFlashCopyPassword : Entering FREE of entry (index = #) \n",
     [](int32_t index) { password(release, index); }},
    {"NotifyInFree",
     "DEBUG : set_orvexFlashCopyNotifyOnCompletion :Entering FREE: entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashCopyNotifyOnCompletion, flash::magicCopyNotifyOnCompletion>(
             release, index);
     }},
    {"MiscCommandInFree",
     "DEBUG : set_orvexFlashMiscOpCommand : Entering FREE of entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashMiscOpCommand, flash::magicMiscOpCommand>(release, index);
     }},
    {"MiscNameInFree",
     "DEBUG : set_orvexFlashMiscOpDestinationName : Entering FREE of entry (index = #) \n",
     [](int32_t index) { misc_name(release, index); }},
    {"MiscNotifyInFree",
     "DEBUG : set_orvexFlashMiscOpNotifyOnCompletion :Entering FREE: entry (index = #) \n",
     [](int32_t index) {
         integer_column<set_orvexFlashMiscOpNotifyOnCompletion,
                        flash::magicMiscOpNotifyOnCompletion>(release, index);
     }},

    // Row status.
    {"RowAdded",
     "DEBUG  set_orvexFlashCopyEntryStatus : Added new entry to flashCopyTable ( index = #)\n",
     [](int32_t index) { copy_status(reserve1, index, 5); }},
    {"MiscRowAdded",
     "DEBUG  set_orvexFlashMiscOpEntryStatus : Added new entry to flashMiscOpTable ( index = #)\n",
     [](int32_t index) { misc_status(reserve1, index, 5); }},
    {"RowNotAdded",
     "ERROR  set_orvexFlashCopyEntryStatus : Adding a new entry (index = #) failed\n",
     [](int32_t index) {
         platform().ordset_add.returns(nullptr);
         copy_status(reserve1, index, 5);
     }},
    {"MiscRowNotAdded",
     "ERROR  set_orvexFlashMiscOpEntryStatus : Adding a new entry (index = #) failed\n",
     [](int32_t index) {
         platform().ordset_add.returns(nullptr);
         misc_status(reserve1, index, 5);
     }},
    {"RowThere", "ERROR  set_orvexFlashCopyEntryStatus : CREATE on a existing row (index = #)\n",
     [](int32_t index) {
         add_copy(index);
         copy_status(reserve1, index, 5);
     }},
    {"MiscRowThere",
     "ERROR  set_orvexFlashMiscOpEntryStatus : CREATE on a existing row (index = #)\n",
     [](int32_t index) {
         add_misc(index);
         misc_status(reserve1, index, 5);
     }},
    {"RowNotSet", "ERROR  set_orvexFlashCopyEntryStatus : Setting a new entry (index = #) failed\n",
     [](int32_t index) {
         no_row_found();
         copy_status(reserve1, index, 5);
     }},
    {"MiscRowNotSet",
     "ERROR  set_orvexFlashMiscOpEntryStatus : Setting a new entry (index = #) failed\n",
     [](int32_t index) {
         no_row_found();
         misc_status(reserve1, index, 5);
     }},
    {"RowNotLookedUp",
     "ERROR set_orvexFlashCopyEntryStatus :  Some Generic error while getting the informatiom for "
     "the entry # \n",
     [](int32_t index) {
         fakes::module().getFlashCopyEntry.returns(-1);
         copy_status(action, index, 1);
     }},
    {"MiscRowNotLookedUp",
     "ERROR set_orvexFlashMiscOpEntryStatus :  Some Generic error while getting the informatiom "
     "for the entry # \n",
     [](int32_t index) {
         fakes::module().getFlashMiscOpEntry.returns(-1);
         misc_status(action, index, 1);
     }},
    {"RowPresent",
     "DEBUG : set_orvexFlashCopyEntryStatus : Entry present  (index = #, Server Addr = 0)\n",
     [](int32_t index) {
         add_copy(index);
         copy_status(action, index, 2);
     }},
    {"MiscRowPresent", "DEBUG : set_orvexFlashMiscOpEntryStatus : Entry present  (index = #)\n",
     [](int32_t index) {
         add_misc(index);
         misc_status(action, index, 2);
     }},
    {"RowActivated",
     "DEBUG : set_orvexFlashCopyEntryStatus : Activating the entry (index = #, Server Add = 0)\n",
     [](int32_t index) {
         add_copy(index);
         copy_status(action, index, 1);
     }},
    {"MiscRowActivated",
     "DEBUG : set_orvexFlashMiscOpEntryStatus : Activating the entry (index = #)\n",
     [](int32_t index) {
         add_misc(index);
         misc_status(action, index, 1);
     }},
    {"RowMadeNotReady",
     "DEBUG : set_orvexFlashCopyEntryStatus : Setting the entry to  5 (index = #, Server Add = "
     "0)\n",
     [](int32_t index) {
         add_copy(index, flash::rowCreateAndWait);
         copy_status(action, index, 5);
     }},
    {"MiscRowMadeNotReady",
     "DEBUG : set_orvexFlashMiscOpEntryStatus : Setting the entry to  5 (index = #)\n",
     [](int32_t index) {
         add_misc(index, flash::rowCreateAndWait);
         misc_status(action, index, 5);
     }},

    {"CurrentStatus", "set_orvexFlashCopyEntryStatus : The current flash copy status is # \n",
     [](int32_t status) {
         fakes::add_copy_row(7, [&](flashCopyEntry &row) { row.copyStatus = status; });
         copy_status(action, 7, 2);
     }},
    {"FormerState", "DEBUG  set_orvexFlashCopyEntryStatus : Setting flashCopyEntryStatus to # \n",
     [](int32_t state) {
         add_copy(7, state);
         copy_status(reserve1, 7, 2);
     }},
    {"MiscFormerState",
     "DEBUG  set_orvexFlashMiscOpEntryStatus : Setting flashMiscOpEntryStatus to # \n",
     [](int32_t state) {
         add_misc(7, state);
         misc_status(reserve1, 7, 2);
     }},
    {"StateInTheRefusalOfAName",
     "ERROR set_orvexFlashCopySourceName: Can't change the source name if the row status is active "
     "(only if the row is create)  (status = #)",
     [](int32_t state) {
         add_copy(7, state);
         source_name(reserve2, 7);
     }},

    // Starts.
    {"CopyNotStored", "ERROR  validate_n_start_flash_copy : Set to entry (index= #) failed \n",
     [](int32_t index) {
         flashCopyEntry row = fakes::copy_row([&](flashCopyEntry &r) { r.index = index; });
         validate_n_start_flash_copy(&row);
     }},
    {"DeleteNotStored", "ERROR  validate_n_start_flash_delete : Set to entry (index= #) failed \n",
     [](int32_t index) {
         flashMiscOpEntry row = fakes::misc_row([&](flashMiscOpEntry &r) {
             r.index = index;
             fakes::put(r.destinationName, "ilc-nvram:x");
         });
         validate_n_start_flash_delete(&row);
     }},

    // Completion.
    {"CopyDone", "DEBUG : handle_flash_copy_done : Entering with whichRow=  #\n",
     [](int32_t index) { handle_flash_copy_done(2, index, 4242); }},
    {"CopyDoneLooksForItsRow", "looking for entry with index=#\n",
     [](int32_t index) { handle_flash_copy_done(2, index, 4242); }},
    {"CopyDoneNotStored", "ERROR  handle_flash_copy_done : Set to entry (index= #) failed \n",
     [](int32_t index) {
         add_copy(index);
         no_row_found();
         handle_flash_copy_done(2, index, 4242);
     }},
    {"StatusDone", "DEBUG : handle_flash_copy_done : Copy is done with status #\n",
     [](int32_t status) { handle_flash_copy_done(status, 7, 4242); }},
    {"StatusMessage",
     "handle_flash_copy_status: The values returned are status = #,index = #, pid = #\n",
     [](int32_t word) {
         pmb_message message = fakes::message({word, word, word});
         handle_flash_copy_status(0, 11, &message, nullptr);
     }},
    {"AgedOut", "flash_ageouttimerhandler: Deleting the aged out entry #\n",
     [](int32_t index) {
         fakes::add_copy_row(index, [](flashCopyEntry &row) { row.endTime -= 306; });
         flash_ageouttimerhandler(1, nullptr);
     }},
    {"PipeLine", "read_from_pipe returning status =1 for row=#\n",
     [](int32_t index) {
         std::string line = "1:" + std::to_string(index);
         read_stream = fmemopen(line.data(), line.size(), "r");
         flashPipeLine read{};
         read_from_pipe(0, &read);
         fakes::close_streams();
     }},
    {"Started", "DEBUG : start_flash_copy : Copy returned with status #\n",
     [](int32_t status) {
         flashCopyEntry row = fakes::copy_row([&](flashCopyEntry &r) { r.copyStatus = status; });
         start_flash_copy(&row);
     }},

    // GET.
    {"CopyStatus", "get_orvexFlashCopyTable: Flash copy status is #\n",
     [](int32_t status) {
         fakes::add_copy_row(7, [&](flashCopyEntry &row) { row.copyStatus = status; });
         fakes::get(flash::magicCopyStatus, {7});
     }},
    {"EntryStatus", "get_orvexFlashCopyTable: Flash copy entry status is #\n",
     [](int32_t status) {
         fakes::add_copy_row(7, [&](flashCopyEntry &row) { row.entryStatus = status; });
         fakes::get(flash::magicCopyEntryStatus, {7});
     }},
    {"FileKeys",
     "Calling PMB_OPC_FLASH_FILE_LIST with deviceIndex=#, PartitionIndex=# and FlashFileIndex=# "
     "and msg_type=1\n",
     [](int32_t key) {
         fakes::get(flash::magicFileSize, {arc(key), arc(key), arc(key)});
     }},
    {"NextFileKeys",
     "Calling PMB_OPC_FLASH_FILE_LIST with deviceIndex=#, PartitionIndex=# and FlashFileIndex=# "
     "and msg_type=2\n",
     [](int32_t key) {
         fakes::getnext(flash::magicFileSize, {arc(key), arc(key), arc(key)});
     }},
};

class TraceIndexes : public fakes::FlashTest, public testing::WithParamInterface<Message> {};

INSTANTIATE_TEST_SUITE_P(Messages, TraceIndexes, testing::ValuesIn(messages),
                         [](const auto &test) { return std::string(test.param.name); });

std::string with_number(std::string text, int32_t number) {
    for (size_t at = text.find('#'); at != std::string::npos; at = text.find('#'))
        text.replace(at, 1, std::to_string(number));
    return text;
}

TEST_P(TraceIndexes, AreSigned) {
    for (const int32_t index : {1, INT_MAX, INT_MIN, -1}) {
        fakes::reset();
        fakes::empty_tables();
        fakes::forget();
        GetParam().bring_about(index);
        EXPECT_GE(fakes::trace_count(101, with_number(GetParam().text, index)) +
                      fakes::trace_count(100, with_number(GetParam().text, index)),
                  1)
            << with_number(GetParam().text, index);
    }
}

// Addresses are unsigned.

TEST_F(TraceIndexes, AServerAddressIsUnsigned) {
    const u_char address[4] = {255, 255, 255, 254};
    uint32_t number = 0;
    std::memcpy(&number, address, sizeof number);
    add_copy(7);
    for (const Phase phase : {reserve1, reserve2})
        fakes::set_phase(set_orvexFlashCopyServerAddress, phase, flash::magicCopyServerAddress, 7,
                         ASN_IPADDRESS, address, sizeof address);
    copy_status(action, 7, 2);
    const std::string text = std::to_string(number);
    EXPECT_TRUE(fakes::traced(
        101, "DEBUG : set_orvexFlashCopyServerAddress : Server Address : " + text + " Length 4\n"));
    EXPECT_TRUE(fakes::traced(
        101,
        "DEBUG : set_orvexFlashCopyServerAddress : Server Address after copy : " + text + "\n"));
    EXPECT_TRUE(fakes::traced(101, "DEBUG : set_orvexFlashCopyEntryStatus : Entry present  (index "
                                   "= 7, Server Addr = " +
                                       text + ")\n"));
}

} // namespace
