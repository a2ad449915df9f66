// Numbers of the module: result codes, platform codes, statuses, row states, magics, opcodes.
#ifndef FLASH_CODES_H
#define FLASH_CODES_H

#include <cstdint>

namespace flash {

// Results of store operations and look-ups.
enum Result : int32_t {
    success = 0,
    failure = 0x40490001,   // insertion or removal failed; no row found by a scan; transfer failed
    noSuchRow = 0x40490002, // store look-ups: no such row, or no rows at all
};

// Platform error codes that the module logs or takes.
enum PlatformCode : int32_t {
    invalidSourceFile = 0x4049001C,
    invalidDestinationFile = 0x4049001D,
    unsupportedProtocol = 0x4049003C,
    copyAlreadyRunning = 0x4049003E,
    coreResolvedElsewhere = 0x401E0059, // the core-file resolver's second form of success
};

// Copy status of a copy row.
enum CopyStatus : int32_t {
    copyInProgress = 1,
    copySuccess = 2,
    copyInvalidCommand = 3,
    copyInvalidProtocol = 4,
    copyInvalidSourceName = 5,
    copyInvalidDestinationName = 6,
    copyBusy = 8,
    copyDeviceFull = 12,
    STATUS_FILE_TRANSFERERR = 14,
    copyNoMemory = 16,
    copyStatusInitial = 17,
    copyScpFailure = 18,
};

// Operation status of a misc-operation row.
enum MiscOpStatus : int32_t {
    miscOpInProgress = 1,
    miscOpSuccess = 2,
    miscOpFailed = 10,
    miscOpStatusInitial = 14,
};

// Row status of either table.
enum RowState : int32_t {
    rowActive = 1,
    rowNotInService = 2,
    rowNotReady = 3,
    rowCreateAndGo = 4,
    rowCreateAndWait = 5,
    rowDestroy = 6,
};

enum CopyCommand : int32_t {
    commandToFlash = 1, // with erase
    commandToFlashWithoutErase = 2,
    commandFromFlash = 3,
    commandFromFlashLog = 4,
};

enum CopyProtocol : int32_t {
    protocolUnset = 0,
    protocolTftp = 1,
    protocolRcp = 2, // also how a copy of line-card NVRAM is asked for
    protocolLex = 3,
    protocolFtp = 4,
    protocolScp = 5,
    protocolSftp = 6,
};

enum MiscOpCommand : int32_t { miscOpDelete = 3 };

enum TruthValue : int32_t { truthTrue = 1, truthFalse = 2 };

// Which file name of a copy row an operation works on. Any other value means the source too.
enum Side : int32_t { sideDestination = 1, sideSource = 2 };

// Which way a transfer goes.
enum Direction : int32_t { directionToFlash = 1, directionFromFlash = 2 };

// Path kind of a copy row.
enum PathKind : int32_t { pathOrdinary = 1, pathOnStandby = 2 };

// pipe_status.
enum PipeState : int32_t { pipeCreated = 1, pipeFailed = 2 };

// Magic numbers of the object table. The gaps are objects of the MIB that are not served.
enum Magic : uint8_t {
    magicScalar = 1,
    magicDeviceSize = 5,
    magicDeviceFree = 6,
    magicDeviceBlockSize = 7,
    magicDevicePartitions = 8,
    magicDevicePresent = 9,
    magicDeviceName = 10,
    magicDeviceDescr = 11,
    magicDeviceReserved9 = 12,
    magicDeviceReserved10 = 13,
    magicDeviceReserved11 = 14,
    magicDeviceReserved12 = 15,
    magicDeviceReserved13 = 16,
    magicDeviceCapacity = 17,
    magicPartitionState = 29,
    magicPartitionFsType = 30,
    magicPartitionSize = 31,
    magicPartitionFree = 32,
    magicPartitionBlockSize = 33,
    magicPartitionFiles = 34,
    magicPartitionMaxNameLength = 35,
    magicPartitionPercentUsed = 36,
    magicPartitionName = 37,
    magicPartitionFormatRequired = 38,
    magicPartitionWriteAccess = 39,
    magicPartitionCapacity = 40,
    magicPartitionFreeCapacity = 41,
    magicFileSize = 43,
    magicFileName = 44,
    magicFileStatus = 45,
    magicFilePath = 46,
    magicFileType = 47,
    magicFileModified = 48,
    magicCopyCommand = 50,
    magicCopyProtocol = 51,
    magicCopyServerAddress = 52,
    magicCopySourceName = 53,
    magicCopyDestinationName = 54,
    magicCopyRemoteUserName = 55,
    magicCopyStatus = 56,
    magicCopyNotifyOnCompletion = 57,
    magicCopyTime = 58,
    magicCopyEntryStatus = 59,
    magicCopyPassword = 60,
    magicMiscOpCommand = 74,
    magicMiscOpDestinationName = 75,
    magicMiscOpStatus = 76,
    magicMiscOpNotifyOnCompletion = 77,
    magicMiscOpTime = 78,
    magicMiscOpEntryStatus = 79,
};

// Requests to the file-system daemon.
enum DaemonOpcode : uint32_t {
    opcodeDevice = 0x1E5B,
    opcodePartition = 0x1E5C,
    opcodeFile = 0x1E5D,
};

// The worker's status message.
enum StatusMessage : uint32_t {
    statusMessageNode = 0xfe000000,
    statusMessageSap = 28,
    statusMessageOpcode = 7786,
};

// The library callback that delivers the status message.
enum StatusCallback : int { statusCallbackMajor = 0, statusCallbackMinor = 11 };

} // namespace flash

#endif
