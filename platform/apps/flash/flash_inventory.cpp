#include "flash_inventory.h"

#include "flash_answer.h"
#include "flash_codes.h"
#include "flash_trace.h"
#include "ruma/agent.h"
#include "ruma/cmi.h"
#include "ruma/pmb.h"

#include <cstdlib>
#include <cstring>

using namespace flash;

namespace {

// The records that the handlers answer from.
flashDeviceEntry device;
flashPartitionEntry partition;
flashFileEntry file;

// Takes the keys of a record from the requested instance. All are 0 for a GETNEXT that starts
// outside the column and, deliberately lax, for a GET with the wrong number of arcs.
void keys_from_name(const struct variable *vp, const oid *name, size_t length, int exact,
                    uint32_t *keys, size_t count) {
    const size_t column = vp->namelen;
    for (size_t i = 0; i < count; i++)
        keys[i] = 0;
    if (length <= column ||
        (exact ? length != column + count : snmp_oid_compare(name, column, vp->name, column) != 0))
        return;
    for (size_t i = 0; i < count && column + i < length; i++)
        keys[i] = static_cast<uint32_t>(name[column + i]);
}

void name_from_keys(const struct variable *vp, oid *name, size_t *length, const uint32_t *keys,
                    size_t count) {
    std::memcpy(name, vp->name, vp->namelen * sizeof(oid));
    for (size_t i = 0; i < count; i++)
        name[vp->namelen + i] = keys[i];
    *length = vp->namelen + count;
}

int message_type(int exact) { return exact ? CMI_EXACT : CMI_NEXT; }

// Asks the daemon for a record and copies it over `record`, which keeps its content on failure.
template <typename Record>
bool ask_daemon(uint32_t opcode, int exact, const void *request, uint32_t request_size,
                Record &record) {
    void *response = nullptr;
    uint32_t length = request_size;
    const bool answered =
        cmi_req_resp(opcode, static_cast<uint32_t>(message_type(exact)), request, &response,
                     &length, "SNMP", 0, 102, pmb_response_q, 4) == 0 &&
        response != nullptr && length >= sizeof record;
    if (answered)
        std::memcpy(&record, response, sizeof record);
    std::free(response);
    return answered;
}

u_char *counter(const flashCounter64 &value, size_t *var_len) {
    static struct counter64 holder;
    holder.high = value.high;
    holder.low = value.low;
    *var_len = sizeof holder;
    return reinterpret_cast<u_char *>(&holder);
}

void swap_words(void *record, std::size_t offset, std::size_t count) {
    char *bytes = static_cast<char *>(record) + offset;
    for (; count > 0; count--, bytes += sizeof(uint32_t)) {
        uint32_t value;
        std::memcpy(&value, bytes, sizeof value);
        value = __builtin_bswap32(value);
        std::memcpy(bytes, &value, sizeof value);
    }
}

// The sign is the opposite of the usual one, deliberately.
template <typename Record, typename Key>
int compare(const Record *a, const Record *b, Key Record::*key) {
    if (a == nullptr || b == nullptr)
        return -1;
    return INTCMP(b->*key, a->*key);
}

} // namespace

u_char *get_orvexFlashDeviceTable(struct variable *vp, oid *name, size_t *length, int exact,
                                  size_t *var_len, WriteMethod **) {
    uint32_t key;
    keys_from_name(vp, name, *length, exact, &key, 1);
    device.index = key;
    if (!ask_daemon(opcodeDevice, exact, &device, sizeof device, device))
        return nullptr;
    name_from_keys(vp, name, length, &device.index, 1);

    switch (vp->magic) {
    case magicDeviceSize:
        return answer_word(device.size, var_len);
    case magicDeviceFree:
        return answer_word(device.free, var_len);
    case magicDeviceBlockSize:
        return answer_word(device.blockSize, var_len);
    case magicDevicePartitions:
        return answer_word(device.partitions, var_len);
    case magicDevicePresent:
        device.present = truthTrue;
        return answer_word(device.present, var_len);
    case magicDeviceName:
        return answer_text(device.name, var_len);
    case magicDeviceDescr:
        return answer_text(device.description, var_len);
    case magicDeviceCapacity:
        return counter(device.capacity, var_len);
    default:
        return answer_unserved();
    }
}

u_char *get_orvexFlashPartitionTable(struct variable *vp, oid *name, size_t *length, int exact,
                                     size_t *var_len, WriteMethod **) {
    uint32_t keys[2];
    if (exact && *length != vp->namelen + 2U)
        return nullptr;
    keys_from_name(vp, name, *length, exact, keys, 2);
    partition.deviceIndex = keys[0];
    partition.index = keys[1];
    if (!ask_daemon(opcodePartition, exact, &partition, sizeof partition, partition))
        return nullptr;
    keys[0] = partition.deviceIndex;
    keys[1] = partition.index;
    name_from_keys(vp, name, length, keys, 2);

    switch (vp->magic) {
    case magicPartitionState:
        return answer_word(partition.state, var_len);
    case magicPartitionFsType:
        return answer_word(partition.fsType, var_len);
    case magicPartitionSize:
        return answer_word(partition.size, var_len);
    case magicPartitionFree:
        return answer_word(partition.free, var_len);
    case magicPartitionBlockSize:
        return answer_word(partition.blockSize, var_len);
    case magicPartitionFiles:
        return answer_word(partition.files, var_len);
    case magicPartitionMaxNameLength:
        return answer_word(partition.maxNameLength, var_len);
    case magicPartitionPercentUsed:
        return answer_word(partition.percentUsed, var_len);
    case magicPartitionName:
        return answer_text(partition.name, var_len);
    case magicPartitionFormatRequired:
        partition.formatRequired = truthFalse;
        return answer_word(partition.formatRequired, var_len);
    case magicPartitionWriteAccess:
        return answer_word(partition.writeAccess, var_len);
    case magicPartitionCapacity:
        return counter(partition.capacity, var_len);
    case magicPartitionFreeCapacity:
        return counter(partition.freeCapacity, var_len);
    default:
        return answer_unserved();
    }
}

u_char *get_orvexFlashFileTable(struct variable *vp, oid *name, size_t *length, int exact,
                                size_t *var_len, WriteMethod **) {
    uint32_t keys[3];
    flash_trace(traceDebug, "Entering get_orvexFlashFileTable\n");
    keys_from_name(vp, name, *length, exact, keys, 3);
    file.deviceIndex = keys[0];
    file.partitionIndex = keys[1];
    file.index = keys[2];
    flash_trace(traceDebug,
                "Calling PMB_OPC_FLASH_FILE_LIST with deviceIndex=%d, PartitionIndex=%d and "
                "FlashFileIndex=%d and msg_type=%d\n",
                static_cast<int>(keys[0]), static_cast<int>(keys[1]), static_cast<int>(keys[2]),
                message_type(exact));
    void *request = std::calloc(1, flashFileRequestSize);
    if (request == nullptr)
        return nullptr;
    std::memcpy(request, &file, sizeof file);
    const bool answered = ask_daemon(opcodeFile, exact, request, flashFileRequestSize, file);
    std::free(request);
    if (!answered)
        return nullptr;
    keys[0] = file.deviceIndex;
    keys[1] = file.partitionIndex;
    keys[2] = file.index;
    name_from_keys(vp, name, length, keys, 3);

    switch (vp->magic) {
    case magicFileSize:
        return answer_word(file.size, var_len);
    case magicFileName:
        return answer_text(file.name, var_len);
    case magicFileStatus:
        return answer_word(file.status, var_len);
    case magicFilePath:
        return answer_text(file.path, var_len);
    case magicFileType:
        flash_trace(traceDebug, "%s : orvexFlashFileType: %d\n", "get_orvexFlashFileTable",
                    file.type);
        return answer_word(file.type, var_len);
    case magicFileModified:
        *var_len = sizeof file.modified;
        return file.modified;
    default:
        return answer_unserved();
    }
}

void flashDeviceEntry_t_ntoh(flashDeviceEntry *entry) {
    swap_words(entry, 0, 6);
    swap_words(entry, offsetof(flashDeviceEntry, reserved), 3);
}

void flashPartitionEntry_ntoh(flashPartitionEntry *entry) {
    swap_words(entry, 0, 10);
    swap_words(entry, offsetof(flashPartitionEntry, formatRequired), 2);
}

void flashCopyEntry_ntoh(flashCopyEntry *entry) {
    swap_words(entry, 0, 4);
    swap_words(entry, offsetof(flashCopyEntry, copyStatus), 4);
}

// The two directions are the same swap.
void flashDeviceEntry_hton(flashDeviceEntry *entry) { flashDeviceEntry_t_ntoh(entry); }
void flashPartitionEntry_hton(flashPartitionEntry *entry) { flashPartitionEntry_ntoh(entry); }
void flashCopyEntry_hton(flashCopyEntry *entry) { flashCopyEntry_ntoh(entry); }

int flashDeviceEntry_comp(const flashDeviceEntry *a, const flashDeviceEntry *b) {
    return compare(a, b, &flashDeviceEntry::index);
}

int flashPartitionEntry_comp(const flashPartitionEntry *a, const flashPartitionEntry *b) {
    return compare(a, b, &flashPartitionEntry::index);
}

int flashCopyEntry_comp(const flashCopyEntry *a, const flashCopyEntry *b) {
    return compare(a, b, &flashCopyEntry::index);
}
