#include "flash_write.h"

#include "flash_codes.h"
#include "flash_copy.h"
#include "flash_rows.h"
#include "flash_strict.h"
#include "flash_trace.h"
#include "flash_validate.h"
#include "orvex_flash_mib.h"
#include "ruma/syserr.h"

#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace flash;

namespace {

// The stores, by row type.
int32_t get(flashCopyEntry *row) { return getFlashCopyEntry(row); }
int32_t get(flashMiscOpEntry *row) { return getFlashMiscOpEntry(row); }
int32_t put(const flashCopyEntry *row) { return setFlashCopyEntry(row); }
int32_t put(const flashMiscOpEntry *row) { return setFlashMiscOpEntry(row); }
int32_t add(flashCopyEntry *row) { return addFlashCopyEntry(row); }
int32_t add(flashMiscOpEntry *row) { return addFlashMiscOpEntry(row); }
int32_t remove(const flashCopyEntry *row) { return deleteFlashCopyEntry(row); }
int32_t remove(const flashMiscOpEntry *row) { return deleteFlashMiscOpEntry(row); }
void release(flashCopyEntry *row) { flashCopyEntry_free(row); }
void release(flashMiscOpEntry *row) { flashMiscOpEntry_free(row); }
void last_answered(flashCopyEntry *row) { *row = last_copy_row(); }
void last_answered(flashMiscOpEntry *row) { *row = last_misc_op_row(); }

// A value as the agent presents it. The address may be null, whatever the length says.
struct Value {
    const u_char *bytes;
    u_char type;
    size_t length;
};

// Reads an INTEGER, whole. Type and length were checked in RESERVE1, and the agent presents the
// same value in every phase.
long integer(const Value &value) {
    long whole = 0;
    if (value.bytes == nullptr)
        return whole;
    if (value.length == sizeof(int32_t)) {
        int32_t narrow;
        std::memcpy(&narrow, value.bytes, sizeof narrow);
        return narrow;
    }
    constexpr bool bigEndian = std::endian::native == std::endian::big;
    char *low = reinterpret_cast<char *>(&whole) + (bigEndian ? sizeof whole - value.length : 0);
    std::memcpy(low, value.bytes, value.length);
    return whole;
}

int32_t row_index(const oid *name, size_t length) {
    return length == 0 ? 0 : static_cast<int32_t>(static_cast<uint32_t>(name[length - 1]));
}

// --- Columns -------------------------------------------------------------------------------------

// What a text column has beyond the others.
struct Name {
    const char *noun;             // in the message about a change
    const char *refusedNoun;      // in the refusal of a change
    const char *refusedGap = " "; // before the status in it
    const char *storedNoun;       // in the message about the change made
    char *saved;                  // what FREE puts back; has room for the longest field
    bool escaped = false;
    bool restoredShort = false;         // FREE loses one character more
    const char *beforeStore = nullptr;  // traced before the row is written
    const char *goneInAction = nullptr; // traced when ACTION finds no row
};

// Phases whose entry a column traces.
enum Announce : unsigned {
    announceCall = 1,
    announceReserve1 = 2,
    announceReserve2 = 4,
    announceAction = 8,
    announceFree = 16,
    announceActionOfEntry = 32,
    announcePhases = announceReserve1 | announceReserve2 | announceAction | announceFree,
};

// A writable column: what it accepts, where it lives in the row, what it says.
struct Column {
    const char *handler; // in traces
    const char *object;  // in refusals
    u_char type = ASN_INTEGER;
    size_t shortest = 0;
    size_t longest = sizeof(long); // what the agent hands over for any INTEGER
    size_t offset = 0;
    size_t size = sizeof(int32_t);
    int (*check)(const Column &column, long value) = nullptr; // of an INTEGER
    const Name *name = nullptr;                               // of an OCTET STRING
    bool refusalsTraced = false;
    unsigned announce = 0;
    const char *entering = nullptr; // traced on every call
    const char *freeing = "DEBUG : %s : Entering FREE of entry (index = %d) \n";
};

constexpr const char *freeingWithColon = "DEBUG : %s :Entering FREE: entry (index = %d) \n";

enum class Traced { no, yes };

// Says on standard error what is wrong with a value. `format` has one %s, the object.
void complain(const Column &column, const char *format, Traced traced) {
    char message[128];
    std::snprintf(message, sizeof message, format, column.object);
    std::fputs(message, stderr);
    if (traced == Traced::yes)
        flash_trace(traceDebug, "%s", message);
}

int check_protocol(const Column &column, long value) {
    const bool known = value >= protocolTftp && value <= protocolSftp;
    if (known && value != protocolLex)
        return SNMP_ERR_NOERROR;
    complain(column, "write to %s: invalid value\n", Traced::yes);
    if (known)
        return SNMP_ERR_WRONGVALUE;
    flash_trace(traceError, "%s : This protocol is not supported\n", column.handler);
    flash_log_snmp_error(unsupportedProtocol);
    // A general error deliberately, not a wrong value.
    return SNMP_ERR_GENERR;
}

int check_notify(const Column &column, long value) {
    if (value == truthTrue || value == truthFalse)
        return SNMP_ERR_NOERROR;
    complain(column, "write to %s: bad value\n", Traced::no);
    return SNMP_ERR_WRONGVALUE;
}

int check_misc_op_command(const Column &column, long value) {
    if (value == miscOpDelete)
        return SNMP_ERR_NOERROR;
    complain(column, "write to %s: invalid value\n", Traced::no);
    return SNMP_ERR_WRONGVALUE;
}

// What FREE puts back: one slot per column, shared by all rows.
uint32_t savedAddress;
char savedSourceName[sizeof(flashCopyEntry::sourceName)];
char savedDestinationName[sizeof(flashCopyEntry::destinationName)];
char savedUserName[sizeof(flashCopyEntry::remoteUserName)];
char savedPassword[sizeof(flashCopyEntry::password)];
char savedMiscOpDestinationName[sizeof(flashMiscOpEntry::destinationName)];

constexpr size_t longestName = 255;
constexpr size_t longestPassword = 40; // before escaping

constexpr Name sourceName{
    .noun = "source name",
    .refusedNoun = "source name",
    .refusedGap = "  ",
    .storedNoun = "Source Name",
    .saved = savedSourceName,
    .restoredShort = true,
    .beforeStore = "calling setFlashCopyEntry for sourcename...\n",
    .goneInAction = "getFlashCopyEntry FAILED in ACTION for sourceName.\n",
};
// Refusals and stored texts of destination names say "source name" too, deliberately.
constexpr Name destinationName{
    .noun = "destination name",
    .refusedNoun = "source name",
    .storedNoun = "Source Name",
    .saved = savedDestinationName,
};
constexpr Name userName{
    .noun = "user name",
    .refusedNoun = "user name",
    .storedNoun = "User Name",
    .saved = savedUserName,
};
constexpr Name password{
    .noun = "user password",
    .refusedNoun = "user password",
    .storedNoun = "User Password",
    .saved = savedPassword,
    .escaped = true,
};
constexpr Name miscOpDestinationName{
    .noun = "destination name",
    .refusedNoun = "source name",
    .storedNoun = "Source Name",
    .saved = savedMiscOpDestinationName,
};

constexpr Column copyCommand{
    .handler = "set_orvexFlashCopyCommand",
    .object = "orvexFlashCopyCommand",
    .offset = offsetof(flashCopyEntry, command),
};
constexpr Column copyProtocol{
    .handler = "set_orvexFlashCopyProtocol",
    .object = "orvexFlashCopyProtocol",
    .offset = offsetof(flashCopyEntry, protocol),
    .check = check_protocol,
    .announce = announceCall | announceReserve1 | announceReserve2,
    .entering = "In set_orvexFlashCopyProtocol...\n",
    .freeing = freeingWithColon,
};
constexpr Column copyServerAddress{
    .handler = "set_orvexFlashCopyServerAddress",
    .object = "orvexFlashCopyServerAddress",
    .type = ASN_IPADDRESS,
    .longest = sizeof(uint32_t),
    .offset = offsetof(flashCopyEntry, serverAddress),
};
constexpr Column copySourceName{
    .handler = "set_orvexFlashCopySourceName",
    .object = "orvexFlashCopySourceName",
    .type = ASN_OCTET_STR,
    .shortest = 1,
    .longest = longestName,
    .offset = offsetof(flashCopyEntry, sourceName),
    .size = sizeof(flashCopyEntry::sourceName),
    .name = &sourceName,
    .refusalsTraced = true,
    .announce = announceActionOfEntry,
    .entering = "Entering set_orvexFlashCopySourceName \n",
};
constexpr Column copyDestinationName{
    .handler = "set_orvexFlashCopyDestinationName",
    .object = "orvexFlashCopyDestinationName",
    .type = ASN_OCTET_STR,
    .shortest = 1,
    .longest = longestName,
    .offset = offsetof(flashCopyEntry, destinationName),
    .size = sizeof(flashCopyEntry::destinationName),
    .name = &destinationName,
    .announce = announceActionOfEntry,
};
constexpr Column copyRemoteUserName{
    .handler = "set_orvexFlashCopyRemoteUserName",
    .object = "orvexFlashCopyRemoteUserName",
    .type = ASN_OCTET_STR,
    .shortest = 1,
    .longest = longestName,
    .offset = offsetof(flashCopyEntry, remoteUserName),
    .size = sizeof(flashCopyEntry::remoteUserName),
    .name = &userName,
    .announce = announcePhases,
};
constexpr Column copyPassword{
    .handler = "set_orvexFlashCopyPassword",
    .object = "orvexFlashCopyPassword",
    .type = ASN_OCTET_STR,
    .shortest = 1,
    .longest = longestPassword,
    .offset = offsetof(flashCopyEntry, password),
    .size = sizeof(flashCopyEntry::password),
    .name = &password,
    .announce = announcePhases,
};
constexpr Column copyNotifyOnCompletion{
    .handler = "set_orvexFlashCopyNotifyOnCompletion",
    .object = "orvexFlashCopyNotifyOnCompletion",
    .offset = offsetof(flashCopyEntry, notifyOnCompletion),
    .check = check_notify,
    .freeing = freeingWithColon,
};
constexpr Column miscOpCommand{
    .handler = "set_orvexFlashMiscOpCommand",
    .object = "orvexFlashMiscOpCommand",
    .offset = offsetof(flashMiscOpEntry, command),
    .check = check_misc_op_command,
    .entering = "Entering set_orvexFlashMiscOpCommand\n",
};
constexpr Column miscOpDestination{
    .handler = "set_orvexFlashMiscOpDestinationName",
    // With the handler's prefix, unlike all the others, deliberately.
    .object = "set_orvexFlashMiscOpDestinationName",
    .type = ASN_OCTET_STR,
    .shortest = 1,
    .longest = longestName,
    .offset = offsetof(flashMiscOpEntry, destinationName),
    .size = sizeof(flashMiscOpEntry::destinationName),
    .name = &miscOpDestinationName,
    .announce = announceActionOfEntry,
    .entering = "Entering set_orvexFlashMiscOpDestinationName\n",
};
constexpr Column miscOpNotifyOnCompletion{
    .handler = "set_orvexFlashMiscOpNotifyOnCompletion",
    .object = "orvexFlashMiscOpNotifyOnCompletion",
    .offset = offsetof(flashMiscOpEntry, notifyOnCompletion),
    .check = check_notify,
    .entering = "Entering set_orvexFlashMiscOpNotifyOnCompletion\n",
    .freeing = freeingWithColon,
};

const char *type_refusal(u_char type) {
    switch (type) {
    case ASN_INTEGER:
        return "write to %s not ASN_INTEGER\n";
    case ASN_IPADDRESS:
        return "write to %s not ASN_IPADDRESS\n";
    default:
        return "write to %s not ASN_OCTET_STR\n";
    }
}

// An address of fewer than four bytes leaves the others 0.
uint32_t address(const Value &value) {
    uint32_t bytes = 0;
    if (value.bytes != nullptr)
        std::memcpy(&bytes, value.bytes, value.length);
    return bytes;
}

int check_value(const Column &column, const Value &value) {
    const Traced traced = column.refusalsTraced ? Traced::yes : Traced::no;
    if (value.type != column.type) {
        complain(column, type_refusal(column.type), traced);
        return SNMP_ERR_WRONGTYPE;
    }
    if (value.length < column.shortest || value.length > column.longest ||
        (value.bytes == nullptr && column.shortest > 0)) {
        complain(column, "write to %s: bad length\n", traced);
        return SNMP_ERR_WRONGLENGTH;
    }
    if (column.type == ASN_IPADDRESS)
        flash_trace(traceDebug, "DEBUG : %s : Server Address : %u Length %d\n", column.handler,
                    address(value), static_cast<int>(value.length));
    if (column.check != nullptr)
        return column.check(column, integer(value));
    if (column.name != nullptr && strict_refuses_name(value.bytes, value.length))
        return SNMP_ERR_WRONGVALUE;
    return SNMP_ERR_NOERROR;
}

// Puts a backslash before each character that the transfer scripts' quoting treats specially.
void escape(char *text, size_t size) {
    char escaped[sizeof(flashCopyEntry::password)];
    size_t length = 0;
    // Two bytes a character at most: the longest password fits.
    for (const char *character = text; *character != '\0' && length + 2 < sizeof escaped;
         character++) {
        if (std::strchr("\"$[]\\", *character) != nullptr)
            escaped[length++] = '\\';
        escaped[length++] = *character;
    }
    escaped[length] = '\0';
    std::memset(text, 0, size);
    std::memcpy(text, escaped, length);
    flash_trace(traceDebug, "The final password string is %s\n", text);
}

bool being_created(int32_t entryStatus) {
    return entryStatus >= rowNotReady && entryStatus <= rowCreateAndWait;
}

template <typename Row>
int store(const Row &row) {
    return put(&row) == success ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
}

template <typename Row>
int change_name(const Column &column, const Value &value, Row &row) {
    const Name &name = *column.name;
    char *field = reinterpret_cast<char *>(&row) + column.offset;
    char wanted[longestName + 1] = {};
    std::memcpy(wanted, value.bytes, value.length);
    flash_trace(traceDebug,
                "DEBUG : %s : Changing %s (old = %s) of the entry (index = %d) to %s \n",
                column.handler, name.noun, field, row.index, wanted);
    if (!being_created(row.entryStatus)) {
        flash_trace(traceDebug,
                    "ERROR %s: Can't change the %s if the row status is active (only if the row is "
                    "create)%s(status = %d)",
                    column.handler, name.refusedNoun, name.refusedGap, row.entryStatus);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    // One character short, and untouched by an empty name, deliberately.
    std::snprintf(name.saved, std::strlen(field), "%s", field);
    std::memset(field, 0, column.size);
    std::memcpy(field, value.bytes, value.length);
    if (name.escaped)
        escape(field, column.size);
    if (name.beforeStore != nullptr)
        flash_trace(traceDebug, "%s", name.beforeStore);
    const int status = store(row);
    if (status == SNMP_ERR_NOERROR)
        flash_trace(traceDebug, "DEBUG : %s : %s after copy : %s\n", column.handler,
                    name.storedNoun, field);
    return status;
}

template <typename Row>
int change(const Column &column, const Value &value, Row &row) {
    if (column.name != nullptr)
        return change_name(column, value, row);
    auto *field = reinterpret_cast<char *>(&row) + column.offset;
    if (column.type == ASN_IPADDRESS)
        std::memcpy(&savedAddress, field, sizeof savedAddress);
    if (!being_created(row.entryStatus))
        return SNMP_ERR_INCONSISTENTVALUE;
    if (column.type == ASN_IPADDRESS) {
        const uint32_t wanted = address(value);
        std::memcpy(field, &wanted, sizeof wanted);
        flash_trace(traceDebug, "DEBUG : %s : Server Address after copy : %u\n", column.handler,
                    wanted);
    } else {
        const auto wanted = static_cast<int32_t>(integer(value));
        std::memcpy(field, &wanted, sizeof wanted);
    }
    return store(row);
}

template <typename Row>
int put_back(const Column &column, Row &row) {
    // A row that is in service never took the refused value.
    if (row.entryStatus == rowActive || row.entryStatus == rowNotInService)
        return SNMP_ERR_NOERROR;
    char *field = reinterpret_cast<char *>(&row) + column.offset;
    if (column.name != nullptr) {
        const char *saved = column.name->saved;
        const size_t room = column.name->restoredShort ? std::strlen(saved) : column.size;
        if (room > 0) { // a short restore from an empty slot changes nothing, deliberately
            std::memset(field, 0, column.size);
            std::snprintf(field, room, "%s", saved);
        }
    } else {
        const uint32_t former = column.type == ASN_IPADDRESS ? savedAddress : 0;
        std::memcpy(field, &former, sizeof former);
    }
    return store(row);
}

void announce_phase(const Column &column, int action, int32_t index) {
    static constexpr struct {
        int action;
        unsigned flag;
        const char *format;
    } phases[] = {
        {RESERVE1, announceReserve1, "%s : Entering RESERVE1\n"},
        {RESERVE2, announceReserve2, "%s : Entering RESERVE2\n"},
        {ACTION, announceAction, "%s : Entering ACTION\n"},
        {FREE, announceFree, "%s : Entering FREE\n"},
    };
    if (column.announce & announceCall)
        flash_trace(traceDebug, "%s : Entering \n", column.handler);
    if (column.entering != nullptr)
        flash_trace(traceDebug, "%s", column.entering);
    for (const auto &phase : phases)
        if (phase.action == action && (column.announce & phase.flag))
            flash_trace(traceDebug, phase.format, column.handler);
    if (action == ACTION && (column.announce & announceActionOfEntry))
        flash_trace(traceDebug, "DEBUG : %s : Entering ACTION of entry (index = %d) \n",
                    column.handler, index);
}

// The template of all column handlers.
template <typename Row>
int write_column(const Column &column, int action, const Value &value, const oid *name,
                 size_t length) {
    Row row{};
    row.index = row_index(name, length);
    announce_phase(column, action, row.index);
    switch (action) {
    case RESERVE1:
        return check_value(column, value);
    case RESERVE2:
        if (get(&row) != success) {
            if (column.name != nullptr)
                flash_trace(traceDebug, "ERROR %s: Entry (index = %d) not found  ", column.handler,
                            row.index);
            return SNMP_ERR_NOSUCHNAME;
        }
        return change(column, value, row);
    case ACTION:
        if (get(&row) == success)
            return SNMP_ERR_NOERROR;
        if (column.name != nullptr && column.name->goneInAction != nullptr)
            flash_trace(traceDebug, "%s", column.name->goneInAction);
        return SNMP_ERR_NOSUCHNAME;
    case FREE:
        flash_trace(traceDebug, column.freeing, column.handler, row.index);
        if (get(&row) != success)
            return column.name != nullptr ? SNMP_ERR_NOERROR : SNMP_ERR_NOSUCHNAME;
        return put_back(column, row);
    default: // COMMIT, UNDO: nothing is deferred, nothing restored
        return SNMP_ERR_NOERROR;
    }
}

// --- Row status ----------------------------------------------------------------------------------

// What the two tables' row-status handlers differ in.
template <typename Row>
struct RowStatus;

template <>
struct RowStatus<flashCopyEntry> {
    static constexpr Column column{
        .handler = "set_orvexFlashCopyEntryStatus",
        .object = "orvexFlashCopyEntryStatus",
        .entering = "Entering set_orvexFlashCopyEntryStatus ....\n",
    };
    static constexpr const char *wrongValueSource = "set_orvexFlashCopyEntryStatus";
    static constexpr const char *table = "flashCopyTable";
    static constexpr const char *statusName = "flashCopyEntryStatus";
    static constexpr auto create = createFlashCopyEntry;

    // Whether another operation keeps this one from starting. Only active asks; createAndGo may
    // start a second copy while one runs, deliberately.
    static int check_running(long wanted) {
        flash_trace(traceDebug, "calling flashcopy_inprogress..\n");
        if (wanted != rowActive || flashcopy_inprogress() == 0)
            return SNMP_ERR_NOERROR;
        flash_trace(traceError, "ERROR: %s : Another Copy is in progress\n", column.handler);
        const snmp_error_record &record = fill_error_record(copyAlreadyRunning, ErrorRecord::clear);
        flash_trace(traceDebug, "Logged error %s\n", record.text);
        log_snmp_error(&record);
        return SNMP_ERR_GENERR;
    }

    static void trace_status(const flashCopyEntry &row) {
        flash_trace(traceDebug, "%s : The current flash copy status is %d \n", column.handler,
                    row.copyStatus);
    }

    static void trace_present(const flashCopyEntry &row) {
        flash_trace(traceDebug, "DEBUG : %s : Entry present  (index = %d, Server Addr = %u)\n",
                    column.handler, row.index, row.serverAddress);
    }

    static int start(flashCopyEntry *row) {
        flash_trace(traceDebug, "DEBUG : %s : Activating the entry (index = %d, Server Add = %u)\n",
                    column.handler, row->index, row->serverAddress);
        const int32_t status = validate_n_start_flash_copy(row);
        flash_trace(traceDebug, "DEBUG: %s : validate_n_start_flash_copy returned %s\n",
                    column.handler, syserr2str(status));
        flash_trace(traceDebug, "%s : flashcopyentrystatus is %d\n", column.handler,
                    row->entryStatus);
        return status;
    }

    static int stop(const flashCopyEntry *row) { return handle_flash_abort(row); }

    static void trace_stop_failed() {
        flash_trace(traceDebug, "DEBUG: %s : handle_flash_abort was unsuccessful\n",
                    column.handler);
    }

    static void trace_setting(const flashCopyEntry &row, long wanted) {
        flash_trace(traceDebug,
                    "DEBUG : %s : Setting the entry to  %d (index = %d, Server Add = %u)\n",
                    column.handler, static_cast<int>(wanted), row.index, row.serverAddress);
    }

    static void trace_store_failed() {
        flash_trace(traceDebug, "DEBUG: %s : setFlashCopyEntry Failed\n", column.handler);
    }
};

template <>
struct RowStatus<flashMiscOpEntry> {
    static constexpr Column column{
        .handler = "set_orvexFlashMiscOpEntryStatus",
        .object = "orvexFlashMiscOpEntryStatus",
        .entering = "Entering set_orvexFlashMiscOpEntryStatus\n",
    };
    // Without the handler's prefix, unlike the copy table's, deliberately.
    static constexpr const char *wrongValueSource = "orvexFlashMiscOpEntryStatus";
    static constexpr const char *table = "flashMiscOpTable";
    static constexpr const char *statusName = "flashMiscOpEntryStatus";
    static constexpr auto create = createFlashMiscOpEntry;

    static int check_running(long wanted) {
        if (wanted != rowActive)
            return SNMP_ERR_NOERROR;
        flash_trace(traceDebug, "calling flashdelete_inprogress..\n");
        if (flashdelete_inprogress() == 0)
            return SNMP_ERR_NOERROR;
        flash_trace(traceError, "ERROR: %s : Another delete is in progress\n", column.handler);
        return SNMP_ERR_INCONSISTENTVALUE;
    }

    static void trace_status(const flashMiscOpEntry &) {}

    static void trace_present(const flashMiscOpEntry &row) {
        flash_trace(traceDebug, "DEBUG : %s : Entry present  (index = %d)\n", column.handler,
                    row.index);
    }

    static int start(flashMiscOpEntry *row) {
        flash_trace(traceDebug, "DEBUG : %s : Activating the entry (index = %d)\n", column.handler,
                    row->index);
        return validate_n_start_flash_delete(row);
    }

    // A delete is over before its SET is answered: there is nothing to stop.
    static int stop(const flashMiscOpEntry *) { return 0; }
    static void trace_stop_failed() {}

    static void trace_setting(const flashMiscOpEntry &row, long wanted) {
        flash_trace(traceDebug, "DEBUG : %s : Setting the entry to  %d (index = %d)\n",
                    column.handler, static_cast<int>(wanted), row.index);
    }

    static void trace_store_failed() {}
};

// The image of the row before the last accepted row status. Nothing reads it: RESERVE1 answers for
// its allocation.
template <typename Row>
Row *undoCopy;

template <typename Row>
bool keep_undo_copy() {
    std::free(undoCopy<Row>);
    undoCopy<Row> = static_cast<Row *>(std::malloc(sizeof(Row)));
    if (undoCopy<Row> == nullptr)
        return false;
    last_answered(undoCopy<Row>);
    return true;
}

// Creates the row of an absent index in the store and copies it over `row`.
template <typename Row>
bool create_row(Row &row) {
    constexpr const char *self = RowStatus<Row>::column.handler;
    const int32_t index = row.index;
    Row *created = RowStatus<Row>::create();
    if (created == nullptr) {
        // Names the copy record in both tables, deliberately.
        flash_trace(traceDebug,
                    "ERROR  %s : RESERVE1 - Could not malloc for the flashCopyEntry for  a new "
                    "entry \n",
                    self);
        return false;
    }
    created->index = index;
    row = *created;
    flash_trace(traceDebug, "DEBUG  %s : Added new entry to %s ( index = %d)\n", self,
                RowStatus<Row>::table, index);
    if (add(created) == success)
        return true;
    flash_trace(traceDebug, "ERROR  %s : Adding a new entry (index = %d) failed\n", self, index);
    release(created);
    return false;
}

template <typename Row>
int reserve_row_status(const Value &value, bool present, int32_t index) {
    using Status = RowStatus<Row>;
    constexpr const char *self = Status::column.handler;

    flash_trace(traceDebug, "Entering RESERVE1 of %s ....\n", self);
    if (const int status = check_value(Status::column, value); status != SNMP_ERR_NOERROR)
        return status;
    const long wanted = integer(value);
    if (wanted == rowNotReady || wanted < rowActive || wanted > rowDestroy) {
        flash_trace(traceDebug, "returning SNMP_ERR_WRONGVALUE from %s ....\n",
                    Status::wrongValueSource);
        return SNMP_ERR_WRONGVALUE;
    }
    if (wanted == rowCreateAndGo && present) {
        flash_trace(traceDebug, "ERROR: %s : CreateAndGo on a existing row\n", self);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    if (const int status = Status::check_running(wanted); status != SNMP_ERR_NOERROR)
        return status;
    if (present && !keep_undo_copy<Row>()) {
        flash_trace(traceDebug, "ERROR: %s : Mallocing for entry into undolist failed\n", self);
        return SNMP_ERR_GENERR;
    }

    const bool creating = wanted == rowCreateAndGo || wanted == rowCreateAndWait;
    // Said whether or not a row is added, deliberately.
    flash_trace(traceDebug, "Adding a new row with all values 0\n");
    Row row{};
    row.index = index;
    const int32_t found = get(&row);
    if (found != success && found != noSuchRow)
        return SNMP_ERR_GENERR;
    if (found == noSuchRow) {
        if (wanted == rowDestroy)
            return SNMP_ERR_NOERROR;
        if (!create_row(row))
            return SNMP_ERR_GENERR;
    } else if (creating) {
        flash_trace(traceDebug, "ERROR  %s : CREATE on a existing row (index = %d)\n", self, index);
        return SNMP_ERR_INCONSISTENTVALUE;
    }

    flash_trace(traceDebug, "DEBUG  %s : Setting %s to %d \n", self, Status::statusName,
                row.entryStatus);
    row.entryStatus = static_cast<int32_t>(wanted);
    if (put(&row) == success)
        return SNMP_ERR_NOERROR;
    flash_trace(traceDebug, "ERROR  %s : Setting a new entry (index = %d) failed\n", self, index);
    if (creating)
        remove(&row);
    return SNMP_ERR_GENERR;
}

template <typename Row>
int act_on_row_status(long wanted, int32_t index) {
    using Status = RowStatus<Row>;
    constexpr const char *self = Status::column.handler;

    flash_trace(traceDebug, "DEBUG %s : Entering ACTION \n", self);
    Row row{};
    row.index = index;
    const int32_t found = get(&row);
    if (found != success && found != noSuchRow) {
        flash_trace(traceDebug,
                    "ERROR %s :  Some Generic error while getting the informatiom for the entry %d "
                    "\n",
                    self, index);
        return SNMP_ERR_GENERR;
    }
    Status::trace_status(row);
    if (found == noSuchRow) {
        flash_trace(traceDebug, "ERROR  %s : Should never come here... \n", self);
        return SNMP_ERR_GENERR;
    }
    Status::trace_present(row);
    switch (wanted) {
    case rowDestroy:
        if (Status::stop(&row) != 0)
            return SNMP_ERR_GENERR;
        remove(&row);
        return SNMP_ERR_NOERROR;
    case rowActive:
    case rowCreateAndGo:
        if (const int status = Status::start(&row); status != SNMP_ERR_NOERROR)
            return status;
        break;
    default: // notInService, createAndWait
        if (row.entryStatus == rowCreateAndWait) {
            Status::trace_setting(row, wanted);
            row.entryStatus = rowNotReady;
            break;
        }
        row.entryStatus = static_cast<int32_t>(wanted);
        if (Status::stop(&row) != 0) {
            Status::trace_stop_failed();
            return SNMP_ERR_GENERR;
        }
        break;
    }
    if (put(&row) == success)
        return SNMP_ERR_NOERROR;
    Status::trace_store_failed();
    return SNMP_ERR_GENERR;
}

// The row-status handler of both tables. `current` is the value that the GET handler answered, or
// null when there is no such row.
template <typename Row>
int write_row_status(int action, const Value &value, u_char *current, const oid *name,
                     size_t length) {
    constexpr const char *self = RowStatus<Row>::column.handler;
    const int32_t index = row_index(name, length);

    flash_trace(traceDebug, "%s", RowStatus<Row>::column.entering);
    if (index == 0) {
        flash_trace(traceDebug, "Row with Index 0 cannot be created \n");
        return SNMP_ERR_GENERR;
    }
    switch (action) {
    case RESERVE1:
        if (strict_refuses_index(index))
            return SNMP_ERR_NOCREATION;
        return reserve_row_status<Row>(value, current != nullptr, index);
    case RESERVE2:
        flash_trace(traceDebug, "DEBUG: %s :  Entering RESERVE2\n", self);
        if (current != nullptr)
            current[0] = 1;
        return SNMP_ERR_NOERROR;
    case ACTION:
        return act_on_row_status<Row>(integer(value), index);
    default: // COMMIT, FREE, UNDO: a created row stays, deliberately
        return SNMP_ERR_NOERROR;
    }
}

} // namespace

// One exported handler per column: the agent's write-method form around its descriptor.
#define COLUMN_HANDLER(handler, Row, column)                                                       \
    int handler(int action, u_char *var_val, u_char var_val_type, size_t var_val_len, u_char *,    \
                oid *name, size_t length) {                                                        \
        return write_column<Row>(column, action, {var_val, var_val_type, var_val_len}, name,       \
                                 length);                                                          \
    }

COLUMN_HANDLER(set_orvexFlashCopyCommand, flashCopyEntry, copyCommand)
COLUMN_HANDLER(set_orvexFlashCopyProtocol, flashCopyEntry, copyProtocol)
COLUMN_HANDLER(set_orvexFlashCopyServerAddress, flashCopyEntry, copyServerAddress)
COLUMN_HANDLER(set_orvexFlashCopySourceName, flashCopyEntry, copySourceName)
COLUMN_HANDLER(set_orvexFlashCopyDestinationName, flashCopyEntry, copyDestinationName)
COLUMN_HANDLER(set_orvexFlashCopyRemoteUserName, flashCopyEntry, copyRemoteUserName)
COLUMN_HANDLER(set_orvexFlashCopyPassword, flashCopyEntry, copyPassword)
COLUMN_HANDLER(set_orvexFlashCopyNotifyOnCompletion, flashCopyEntry, copyNotifyOnCompletion)
COLUMN_HANDLER(set_orvexFlashMiscOpCommand, flashMiscOpEntry, miscOpCommand)
COLUMN_HANDLER(set_orvexFlashMiscOpDestinationName, flashMiscOpEntry, miscOpDestination)
COLUMN_HANDLER(set_orvexFlashMiscOpNotifyOnCompletion, flashMiscOpEntry, miscOpNotifyOnCompletion)

int set_orvexFlashCopyEntryStatus(int action, u_char *var_val, u_char var_val_type,
                                  size_t var_val_len, u_char *statP, oid *name, size_t length) {
    return write_row_status<flashCopyEntry>(action, {var_val, var_val_type, var_val_len}, statP,
                                            name, length);
}

int set_orvexFlashMiscOpEntryStatus(int action, u_char *var_val, u_char var_val_type,
                                    size_t var_val_len, u_char *statP, oid *name, size_t length) {
    return write_row_status<flashMiscOpEntry>(action, {var_val, var_val_type, var_val_len}, statP,
                                              name, length);
}
