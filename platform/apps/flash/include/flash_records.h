// Records of the module: the rows of the two writable tables, and the inventory records that the
// file-system daemon fills. All are exchanged whole, in host byte order.
#ifndef FLASH_RECORDS_H
#define FLASH_RECORDS_H

#include <cstddef>
#include <cstdint>

// Wall-clock time in the width of the device, seconds and microseconds.
struct flashTimestamp {
    int32_t seconds;
    int32_t microseconds;
};

// A 64-bit value as two words, so that records have the same layout at every word size.
struct flashCounter64 {
    uint32_t low;
    uint32_t high;
};

// One row of the copy table.
struct flashCopyEntry {
    int32_t index; // the key; 0 is before the first row and never a row
    int32_t command;
    int32_t protocol;
    uint32_t serverAddress; // network byte order
    char sourceName[256];   // as set: 255 characters and the terminator
    char destinationName[256];
    char remoteUserName[256];
    char password[84]; // escaped: up to 80 characters and the terminator
    int32_t copyStatus;
    int32_t notifyOnCompletion;
    uint32_t copyTime; // hundredths of a second
    int32_t entryStatus;
    flashTimestamp startTimestamp;
    flashTimestamp endTimestamp;
    int32_t creationTime; // seconds since the epoch
    int32_t endTime;      // seconds since the epoch; the age-out measures from it
    char sourcePath[255]; // local paths, the terminator inside
    char destinationPath[255];
    char schemeName[16];
    char sourcePathName[255]; // path parts of the names
    char destinationPathName[255];
    int32_t pathKind; // flash::PathKind, 0 until a name has been classified
};

// One row of the misc-operation table.
struct flashMiscOpEntry {
    int32_t index; // the key, as in flashCopyEntry
    int32_t command;
    char destinationName[256]; // the file to delete, as set
    int32_t operationStatus;
    int32_t notifyOnCompletion;
    uint32_t operationTime; // hundredths of a second
    int32_t entryStatus;
    char destinationFile[255]; // local path
    char schemeName[16];
    char intermediateName[255]; // the name without its scheme
};

// One flash device.
struct flashDeviceEntry {
    uint32_t index;
    uint32_t size;       // bytes, capped
    uint32_t free;       // bytes, capped
    uint32_t blockSize;  // bytes
    uint32_t partitions; // count
    int32_t present;     // the handler answers a constant
    char name[16];
    char description[144];
    uint32_t reserved[3];
    flashCounter64 capacity; // bytes
};

// One partition of a flash device.
struct flashPartitionEntry {
    uint32_t deviceIndex;
    uint32_t index;
    int32_t state;
    int32_t fsType;
    uint32_t size;      // bytes, capped
    uint32_t free;      // bytes, capped
    uint32_t blockSize; // bytes
    int32_t files;      // count, capped
    int32_t maxNameLength;
    int32_t percentUsed;
    char name[16];
    int32_t formatRequired; // the handler answers a constant
    int32_t writeAccess;
    flashCounter64 capacity;     // bytes
    flashCounter64 freeCapacity; // bytes
};

// One file on a partition. The texts need no terminator when they fill their field.
struct flashFileEntry {
    uint32_t deviceIndex;
    uint32_t partitionIndex;
    uint32_t index;
    uint32_t size; // bytes, capped
    char name[32];
    int32_t status;
    char path[256];
    uint8_t modified[8]; // DateAndTime
    int32_t type;
};

// Bytes of a file request; the file record stands at its beginning.
constexpr std::size_t flashFileRequestSize = 872;

static_assert(offsetof(flashCopyEntry, command) == 4);
static_assert(offsetof(flashCopyEntry, protocol) == 8);
static_assert(offsetof(flashCopyEntry, serverAddress) == 12);
static_assert(offsetof(flashCopyEntry, sourceName) == 16);
static_assert(offsetof(flashCopyEntry, destinationName) == 272);
static_assert(offsetof(flashCopyEntry, remoteUserName) == 528);
static_assert(offsetof(flashCopyEntry, password) == 784);
static_assert(offsetof(flashCopyEntry, copyStatus) == 868);
static_assert(offsetof(flashCopyEntry, notifyOnCompletion) == 872);
static_assert(offsetof(flashCopyEntry, copyTime) == 876);
static_assert(offsetof(flashCopyEntry, entryStatus) == 880);
static_assert(offsetof(flashCopyEntry, startTimestamp) == 884);
static_assert(offsetof(flashCopyEntry, endTime) == 904);
static_assert(offsetof(flashCopyEntry, sourcePath) == 908);
static_assert(offsetof(flashCopyEntry, schemeName) == 1418);
static_assert(offsetof(flashCopyEntry, pathKind) == 1944);
static_assert(sizeof(flashCopyEntry) == 1948);

static_assert(offsetof(flashMiscOpEntry, destinationName) == 8);
static_assert(offsetof(flashMiscOpEntry, operationStatus) == 264);
static_assert(offsetof(flashMiscOpEntry, entryStatus) == 276);
static_assert(offsetof(flashMiscOpEntry, destinationFile) == 280);
static_assert(offsetof(flashMiscOpEntry, schemeName) == 535);
static_assert(offsetof(flashMiscOpEntry, intermediateName) == 551);
static_assert(sizeof(flashMiscOpEntry) == 808);

static_assert(offsetof(flashDeviceEntry, size) == 4);
static_assert(offsetof(flashDeviceEntry, free) == 8);
static_assert(offsetof(flashDeviceEntry, blockSize) == 12);
static_assert(offsetof(flashDeviceEntry, partitions) == 16);
static_assert(offsetof(flashDeviceEntry, present) == 20);
static_assert(offsetof(flashDeviceEntry, name) == 24);
static_assert(offsetof(flashDeviceEntry, description) == 40);
static_assert(offsetof(flashDeviceEntry, reserved) == 184);
static_assert(offsetof(flashDeviceEntry, capacity) == 196);
static_assert(sizeof(flashDeviceEntry) == 204);

static_assert(offsetof(flashPartitionEntry, index) == 4);
static_assert(offsetof(flashPartitionEntry, state) == 8);
static_assert(offsetof(flashPartitionEntry, fsType) == 12);
static_assert(offsetof(flashPartitionEntry, size) == 16);
static_assert(offsetof(flashPartitionEntry, free) == 20);
static_assert(offsetof(flashPartitionEntry, blockSize) == 24);
static_assert(offsetof(flashPartitionEntry, files) == 28);
static_assert(offsetof(flashPartitionEntry, maxNameLength) == 32);
static_assert(offsetof(flashPartitionEntry, percentUsed) == 36);
static_assert(offsetof(flashPartitionEntry, name) == 40);
static_assert(offsetof(flashPartitionEntry, formatRequired) == 56);
static_assert(offsetof(flashPartitionEntry, writeAccess) == 60);
static_assert(offsetof(flashPartitionEntry, capacity) == 64);
static_assert(offsetof(flashPartitionEntry, freeCapacity) == 72);
static_assert(sizeof(flashPartitionEntry) == 80);

static_assert(offsetof(flashFileEntry, partitionIndex) == 4);
static_assert(offsetof(flashFileEntry, index) == 8);
static_assert(offsetof(flashFileEntry, size) == 12);
static_assert(offsetof(flashFileEntry, name) == 16);
static_assert(offsetof(flashFileEntry, status) == 48);
static_assert(offsetof(flashFileEntry, path) == 52);
static_assert(offsetof(flashFileEntry, modified) == 308);
static_assert(offsetof(flashFileEntry, type) == 316);
static_assert(sizeof(flashFileEntry) == 320);

#endif
