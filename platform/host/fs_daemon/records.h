// The inventory records, filled from what the kernel reports. The numbers below are also those of
// the MIB's enumerations.
#ifndef RUMA_FS_DAEMON_RECORDS_H
#define RUMA_FS_DAEMON_RECORDS_H

#include "config/config.h"
#include "flash_records.h"
#include "fs_daemon/catalogue.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

namespace ruma {

enum PartitionState : int32_t {
    partition_up = 1,
    partition_read_only = 2,
    partition_unavailable = 3
};

enum FsType : int32_t {
    fs_other = 1,
    fs_ext = 2, // ext2, ext3 and ext4 are one number to the kernel
    fs_xfs = 3,
    fs_btrfs = 4,
    fs_tmpfs = 5,
    fs_overlay = 6,
    fs_vfat = 7,
    fs_ubifs = 8,
    fs_jffs2 = 9,
    fs_squashfs = 10,
    fs_nfs = 11,
    fs_f2fs = 12,
    fs_exfat = 13
};

enum FileStatus : int32_t { file_valid = 1, file_changing = 2, file_unreadable = 3 };

enum FileType : int32_t {
    type_regular = 1,
    type_image = 2,
    type_configuration = 3,
    type_log = 4,
    type_archive = 5,
    type_other = 6 // files that cannot be read
};

// A mounted file system. Sizes are in bytes.
struct Volume {
    uint64_t size = 0;
    uint64_t free = 0; // what users other than root can still fill
    uint32_t block_size = 0;
    uint32_t max_name_length = 0;
    int32_t percent_used = 0; // of what users other than root can fill, rounded up
    FsType type = fs_other;
    bool read_only = false;
};

struct FileFacts {
    uint64_t size = 0;
    timespec modified{};
    bool readable = true;
    bool changing = false;
};

// Asks the kernel about the file system of an open directory; nothing when it does not answer.
std::optional<Volume> read_volume(int directory);

// The kind of a file, told by its name.
FileType file_type(std::string_view name);

// A volume that is absent gives a record with sizes of 0.
flashDeviceEntry device_record(uint32_t device, const FileSystem &file_system,
                               const std::optional<Volume> &volume);
flashPartitionEntry partition_record(uint32_t device, const FileSystem &file_system,
                                     const std::optional<Volume> &volume, uint32_t files);
// `path` is relative to the file system.
flashFileEntry file_record(const FileKey &key, std::string_view path, const FileFacts &facts);

} // namespace ruma

#endif
