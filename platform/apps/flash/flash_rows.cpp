#include "flash_rows.h"

#include "flash_answer.h"
#include "flash_codes.h"
#include "flash_trace.h"
#include "flash_write.h"
#include "ruma/agent.h"
#include "ruma/ordset.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

using namespace flash;

namespace {

// What the two tables differ in; everything below is written once, over the row type.
template <typename Row>
struct Table;

template <>
struct Table<flashCopyEntry> {
    static constexpr const char *name = "flashCopyTable";
    static constexpr const char *get = "getFlashCopyEntry";
    static constexpr const char *getnext = "getnextFlashCopyEntry";
    static constexpr auto order = flashCopyEntry_comp_func;
    static constexpr auto release = flashCopyEntry_free;
    static constexpr auto status = &flashCopyEntry::copyStatus;
};

template <>
struct Table<flashMiscOpEntry> {
    static constexpr const char *name = "flashMiscOpTable";
    static constexpr const char *get = "getFlashMiscOpEntry";
    static constexpr const char *getnext = "getnextFlashMiscOpEntry";
    static constexpr auto order = flashMiscOpEntry_comp_func;
    static constexpr auto release = flashMiscOpEntry_free;
    static constexpr auto status = &flashMiscOpEntry::operationStatus;
};

template <typename Row>
ordset store;

// The row that the table's GET handler last answered from; the values it returns point into it.
template <typename Row>
Row answer;

template <typename Row>
int compare(const void *a, const void *b) {
    if (a == nullptr || b == nullptr)
        return -1;
    // The index is an OID arc, so rows are in the order of their OIDs: unsigned.
    const auto first = static_cast<uint32_t>(static_cast<const Row *>(a)->index);
    const auto second = static_cast<uint32_t>(static_cast<const Row *>(b)->index);
    return static_cast<int8_t>(INTCMP(first, second));
}

template <typename Row>
int32_t add(Row *entry) {
    ordset *set = &store<Row>;
    if (ordset_size(set) == 0) {
        // A set that could not be made refuses the insertion.
        ordset_create(set, 1, 1, Table<Row>::order, 1);
        return ordset_add(set, entry, entry) != nullptr ? success : failure;
    }
    return ordset_add(set, entry, entry) == entry ? success : failure;
}

template <typename Row>
Row *find(const Row *key) {
    if (ordset_size(&store<Row>) == 0)
        return nullptr;
    return static_cast<Row *>(ordset_find(&store<Row>, key, 0));
}

template <typename Row>
int32_t get(Row *entry) {
    if (ordset_size(&store<Row>) == 0) {
        flash_trace(traceDebug, "%s: ordset_size returned 0\n", Table<Row>::get);
        return noSuchRow;
    }
    const auto *stored = static_cast<const Row *>(ordset_find(&store<Row>, entry, 0));
    if (stored == nullptr) {
        flash_trace(traceDebug, "%s: tmp_entry is NULL\n", Table<Row>::get);
        return noSuchRow;
    }
    *entry = *stored;
    return success;
}

template <typename Row>
int32_t getnext(Row *entry) {
    const void *next;
    if (entry->index == 0) {
        next = ordset_find_nth_obj(&store<Row>, 1);
        if (next == nullptr) {
            flash_trace(traceDebug, "no entry in the %s, ordset_find_nth_obj returned NULL.\n",
                        Table<Row>::name);
            return noSuchRow;
        }
    } else {
        next = ordset_find_nextgreater(&store<Row>, entry);
        if (next == nullptr) {
            flash_trace(traceDebug, "No entry in the %s...\n", Table<Row>::name);
            return noSuchRow;
        }
    }
    *entry = *static_cast<const Row *>(next);
    return success;
}

template <typename Row>
int32_t set(const Row *entry) {
    Row *stored = find(entry);
    if (stored == nullptr)
        return noSuchRow;
    *stored = *entry;
    return success;
}

template <typename Row>
int32_t remove(const Row *entry) {
    if (ordset_size(&store<Row>) == 0)
        return failure;
    auto *stored = static_cast<Row *>(ordset_remove(&store<Row>, entry));
    if (stored == nullptr)
        return failure;
    Table<Row>::release(stored);
    return success;
}

// Walks the rows in ascending order until one fits. The walk is linear deliberately: the visited
// rows are part of the debugging output.
template <typename Row, typename Fits>
int32_t scan(Row *entry, Fits fits) {
    entry->index = 0;
    do {
        if (getnext(entry) != success)
            return failure;
        flash_trace(traceDebug, "found entry after calling %s.\n", Table<Row>::getnext);
    } while (!fits(*entry));
    return success;
}

template <typename Row>
int32_t scan_for_status(int32_t status, Row *entry) {
    const int32_t result =
        scan(entry, [status](const Row &row) { return row.*Table<Row>::status == status; });
    if (result == success)
        flash_trace(traceDebug, "Now checking the status\n");
    return result;
}

struct Setter {
    int32_t magic;
    WriteMethod *method;
};

template <std::size_t Count>
void install(const Setter (&setters)[Count], int32_t magic, WriteMethod **write_method) {
    for (const Setter &setter : setters)
        if (setter.magic == magic)
            *write_method = setter.method;
}

// Finds the row of the requested instance. An instance that a GET cannot have, missing or of
// several arcs, asks for row 0.
template <typename Row>
int32_t find_instance(const struct variable *vp, oid *name, size_t *length, int exact) {
    Row &row = answer<Row>;
    const size_t column = vp->namelen;
    row.index = 0;
    if (*length > column &&
        (exact ? *length == column + 1 : snmp_oid_compare(name, column, vp->name, column) == 0))
        row.index = static_cast<int32_t>(static_cast<uint32_t>(name[column]));

    const int32_t result = exact ? get(&row) : getnext(&row);
    if (result != success)
        return result;
    std::memcpy(name, vp->name, column * sizeof(oid));
    name[column] = static_cast<uint32_t>(row.index);
    *length = column + 1;
    return success;
}

} // namespace

flashCopyEntry *createFlashCopyEntry(void) {
    auto *entry = static_cast<flashCopyEntry *>(std::calloc(1, sizeof(flashCopyEntry)));
    if (entry == nullptr)
        return nullptr;
    entry->command = commandToFlash;
    entry->protocol = protocolTftp;
    entry->serverAddress = 0xFFFFFFFF;
    entry->copyStatus = copyStatusInitial;
    entry->notifyOnCompletion = truthFalse;
    entry->creationTime = static_cast<int32_t>(std::time(nullptr));
    // The age-out measures from here: a row that is being filled in gets its full time.
    entry->endTime = entry->creationTime;
    return entry;
}

flashMiscOpEntry *createFlashMiscOpEntry(void) {
    auto *entry = static_cast<flashMiscOpEntry *>(std::calloc(1, sizeof(flashMiscOpEntry)));
    if (entry == nullptr)
        return nullptr;
    entry->command = miscOpDelete;
    entry->operationStatus = miscOpStatusInitial;
    entry->notifyOnCompletion = truthFalse;
    return entry;
}

void flashCopyEntry_free(flashCopyEntry *entry) { std::free(entry); }
void flashMiscOpEntry_free(flashMiscOpEntry *entry) { std::free(entry); }

int32_t addFlashCopyEntry(flashCopyEntry *entry) { return add(entry); }
int32_t addFlashMiscOpEntry(flashMiscOpEntry *entry) { return add(entry); }
int32_t getFlashCopyEntry(flashCopyEntry *entry) { return get(entry); }
int32_t getFlashMiscOpEntry(flashMiscOpEntry *entry) { return get(entry); }
int32_t getnextFlashCopyEntry(flashCopyEntry *entry) { return getnext(entry); }
int32_t getnextFlashMiscOpEntry(flashMiscOpEntry *entry) { return getnext(entry); }
int32_t setFlashCopyEntry(const flashCopyEntry *entry) { return set(entry); }
int32_t setFlashMiscOpEntry(const flashMiscOpEntry *entry) { return set(entry); }
int32_t deleteFlashCopyEntry(const flashCopyEntry *entry) { return remove(entry); }
int32_t deleteFlashMiscOpEntry(const flashMiscOpEntry *entry) { return remove(entry); }

int flashCopyEntry_comp_func(const void *a, const void *b) { return compare<flashCopyEntry>(a, b); }
int flashMiscOpEntry_comp_func(const void *a, const void *b) {
    return compare<flashMiscOpEntry>(a, b);
}

void set_flashCopyTable_setmethods(int32_t magic, WriteMethod **write_method) {
    static constexpr Setter setters[] = {
        {magicCopyCommand, set_orvexFlashCopyCommand},
        {magicCopyProtocol, set_orvexFlashCopyProtocol},
        {magicCopyServerAddress, set_orvexFlashCopyServerAddress},
        {magicCopySourceName, set_orvexFlashCopySourceName},
        {magicCopyDestinationName, set_orvexFlashCopyDestinationName},
        {magicCopyRemoteUserName, set_orvexFlashCopyRemoteUserName},
        {magicCopyNotifyOnCompletion, set_orvexFlashCopyNotifyOnCompletion},
        {magicCopyEntryStatus, set_orvexFlashCopyEntryStatus},
        {magicCopyPassword, set_orvexFlashCopyPassword},
    };
    install(setters, magic, write_method);
}

void set_flashMiscOpTable_setmethods(int32_t magic, WriteMethod **write_method) {
    static constexpr Setter setters[] = {
        {magicMiscOpCommand, set_orvexFlashMiscOpCommand},
        {magicMiscOpDestinationName, set_orvexFlashMiscOpDestinationName},
        {magicMiscOpNotifyOnCompletion, set_orvexFlashMiscOpNotifyOnCompletion},
        {magicMiscOpEntryStatus, set_orvexFlashMiscOpEntryStatus},
    };
    install(setters, magic, write_method);
}

int32_t get_flash_entry_with_status(int32_t status, flashCopyEntry *entry) {
    return scan_for_status(status, entry);
}

int32_t get_flashMiscOp_entry_with_status(int32_t status, flashMiscOpEntry *entry) {
    return scan_for_status(status, entry);
}

int32_t get_flash_entry_with_index(uint32_t index, flashCopyEntry *entry) {
    flash_trace(traceDebug, "looking for entry with index=%d\n", static_cast<int>(index));
    const int32_t result = scan(entry, [index](const flashCopyEntry &row) {
        return static_cast<uint32_t>(row.index) == index;
    });
    if (result == success)
        flash_trace(traceDebug, "Now checking the row\n");
    return result;
}

int32_t flashcopy_inprogress(void) {
    flashCopyEntry entry{};
    flash_trace(traceDebug, "calling get_flash_entry_with_status()..\n");
    return get_flash_entry_with_status(copyInProgress, &entry) == success ? 1 : 0;
}

int32_t flashdelete_inprogress(void) {
    flashMiscOpEntry entry{};
    flash_trace(traceDebug, "calling get_flashMiscOp_entry_with_status()..\n");
    return get_flashMiscOp_entry_with_status(miscOpInProgress, &entry) == success ? 1 : 0;
}

int header_flashCopyEntry(struct variable *vp, oid *name, size_t *length, int exact) {
    flash_trace(traceDebug, "%s : Entering \n", "header_flashCopyEntry");
    const int32_t result = find_instance<flashCopyEntry>(vp, name, length, exact);
    if (result == success)
        return MATCH_SUCCEEDED;
    flash_trace(traceError, "from %s : returning ERROR=%d \n", "header_flashCopyEntry", result);
    return MATCH_FAILED;
}

int header_flashMiscOpEntry(struct variable *vp, oid *name, size_t *length, int exact) {
    const int32_t result = find_instance<flashMiscOpEntry>(vp, name, length, exact);
    return result == success ? MATCH_SUCCEEDED : MATCH_FAILED;
}

u_char *get_orvexFlashCopyTable(struct variable *vp, oid *name, size_t *length, int exact,
                                size_t *var_len, WriteMethod **write_method) {
    static char noPassword[1];
    constexpr const char *self = "get_orvexFlashCopyTable";

    flash_trace(traceDebug, "Entering get_orvexFlashCopyTable....\n");
    const int match = header_flashCopyEntry(vp, name, length, exact);
    set_flashCopyTable_setmethods(vp->magic, write_method);
    if (match == MATCH_FAILED) {
        flash_trace(traceDebug, "header_flashCopyEntry returned MATCH_FAILED....\n");
        return nullptr;
    }

    flashCopyEntry &row = answer<flashCopyEntry>;
    if (ordset_size(&store<flashCopyEntry>) == 0) {
        flash_trace(traceDebug, "flashCopyTable does not exist....\n");
        return nullptr;
    }
    const void *stored = ordset_find(&store<flashCopyEntry>, &row, 0);
    switch (vp->magic) {
    case magicCopyCommand:
        return answer_word(row.command, var_len);
    case magicCopyProtocol:
        return answer_word(row.protocol, var_len);
    case magicCopyServerAddress:
        return answer_word(row.serverAddress, var_len);
    case magicCopySourceName:
        return answer_text(row.sourceName, var_len);
    case magicCopyDestinationName:
        return answer_text(row.destinationName, var_len);
    case magicCopyRemoteUserName:
        return answer_text(row.remoteUserName, var_len);
    case magicCopyStatus:
        if (stored != nullptr)
            flash_trace(traceDebug, "%s: Flash copy status is %d\n", self,
                        static_cast<const flashCopyEntry *>(stored)->copyStatus);
        return answer_word(row.copyStatus, var_len);
    case magicCopyNotifyOnCompletion:
        return answer_word(row.notifyOnCompletion, var_len);
    case magicCopyTime:
        return answer_word(row.copyTime, var_len);
    case magicCopyEntryStatus:
        flash_trace(traceDebug, "%s: Flash copy entry status is %d\n", self, row.entryStatus);
        return answer_word(row.entryStatus, var_len);
    case magicCopyPassword:
        return answer_text(noPassword, var_len);
    default:
        return answer_unserved();
    }
}

u_char *get_orvexFlashMiscOpTable(struct variable *vp, oid *name, size_t *length, int exact,
                                  size_t *var_len, WriteMethod **write_method) {
    flash_trace(traceDebug, "Entering get_orvexFlashMiscOpTable\n");
    const int match = header_flashMiscOpEntry(vp, name, length, exact);
    set_flashMiscOpTable_setmethods(vp->magic, write_method);
    if (match == MATCH_FAILED) {
        flash_trace(traceDebug, "header_flashMiscOpEntry returned MATCH_FAILED....\n");
        return nullptr;
    }

    flashMiscOpEntry &row = answer<flashMiscOpEntry>;
    switch (vp->magic) {
    case magicMiscOpCommand:
        return answer_word(row.command, var_len);
    case magicMiscOpDestinationName:
        return answer_text(row.destinationName, var_len);
    case magicMiscOpStatus:
        return answer_word(row.operationStatus, var_len);
    case magicMiscOpNotifyOnCompletion:
        return answer_word(row.notifyOnCompletion, var_len);
    case magicMiscOpTime:
        return answer_word(row.operationTime, var_len);
    case magicMiscOpEntryStatus:
        return answer_word(row.entryStatus, var_len);
    default:
        return answer_unserved();
    }
}

const flashCopyEntry &flash::last_copy_row() { return answer<flashCopyEntry>; }
const flashMiscOpEntry &flash::last_misc_op_row() { return answer<flashMiscOpEntry>; }
