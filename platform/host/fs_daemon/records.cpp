#include "fs_daemon/records.h"

#include "flash_codes.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <linux/magic.h>
#include <string>
#include <sys/statvfs.h>
#include <sys/vfs.h>

namespace ruma {
namespace {

struct FsMagic {
    uint32_t magic;
    FsType type;
};

// The kernel's headers do not publish ubifs's number.
constexpr uint32_t ubifs_magic = 0x24051905;

constexpr FsMagic fs_magics[] = {
    {EXT4_SUPER_MAGIC, fs_ext}, {XFS_SUPER_MAGIC, fs_xfs},           {BTRFS_SUPER_MAGIC, fs_btrfs},
    {TMPFS_MAGIC, fs_tmpfs},    {OVERLAYFS_SUPER_MAGIC, fs_overlay}, {MSDOS_SUPER_MAGIC, fs_vfat},
    {ubifs_magic, fs_ubifs},    {JFFS2_SUPER_MAGIC, fs_jffs2},       {SQUASHFS_MAGIC, fs_squashfs},
    {NFS_SUPER_MAGIC, fs_nfs},  {F2FS_SUPER_MAGIC, fs_f2fs},         {EXFAT_SUPER_MAGIC, fs_exfat},
};

struct NameType {
    std::string_view ending;
    FileType type;
};

constexpr NameType name_types[] = {
    {".bin", type_image},          {".img", type_image},
    {".iso", type_image},          {".cfg", type_configuration},
    {".conf", type_configuration}, {".toml", type_configuration},
    {".json", type_configuration}, {".log", type_log},
    {".tar", type_archive},        {".gz", type_archive},
    {".xz", type_archive},         {".zip", type_archive},
    {".bz2", type_archive},        {".zst", type_archive},
};

uint32_t cap(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX));
}

int32_t cap_signed(uint64_t value) {
    return static_cast<int32_t>(std::min<uint64_t>(value, INT32_MAX));
}

uint64_t product(uint64_t left, uint64_t right) {
    uint64_t result = 0;
    return __builtin_mul_overflow(left, right, &result) ? UINT64_MAX : result;
}

// `part` of `whole` in per cent, rounded up.
int32_t percent(uint64_t part, uint64_t whole) {
    if (whole > UINT64_MAX / 128) {
        part >>= 8;
        whole >>= 8;
    }
    return whole == 0 ? 0 : static_cast<int32_t>((part * 100 + whole - 1) / whole);
}

flashCounter64 words(uint64_t value) {
    return {static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32)};
}

// How much of `text` fits into `limit` bytes without cutting a UTF-8 character. What is not UTF-8
// is cut at the limit.
std::size_t fitting(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text.size();
    }
    for (std::size_t cut = limit; cut > 0 && limit - cut < 4; --cut) {
        if ((static_cast<unsigned char>(text[cut]) & 0xC0U) != 0x80U) {
            return cut;
        }
    }
    return limit;
}

// Fills a zeroed text field; `reserve` bytes at its end stay zero.
template <std::size_t size>
void put_text(char (&field)[size], std::string_view text, std::size_t reserve) {
    memcpy(field, text.data(), fitting(text, size - reserve));
}

uint8_t byte(int value) { return static_cast<uint8_t>(value); }

void put_date(uint8_t (&field)[8], const timespec &when) {
    tm utc{};
    const time_t seconds = when.tv_sec;
    if (gmtime_r(&seconds, &utc) == nullptr) {
        return;
    }
    const int year = std::clamp(utc.tm_year, -1900, UINT16_MAX - 1900) + 1900;
    const uint8_t date[8] = {
        byte(year >> 8),      byte(year & 0xFF),
        byte(utc.tm_mon + 1), byte(utc.tm_mday),
        byte(utc.tm_hour),    byte(utc.tm_min),
        byte(utc.tm_sec),     byte(static_cast<int>(when.tv_nsec / 100'000'000))};
    memcpy(field, date, sizeof field);
}

} // namespace

std::optional<Volume> read_volume(int directory) {
    struct statvfs sizes {};
    struct statfs kind {};
    if (fstatvfs(directory, &sizes) != 0 || fstatfs(directory, &kind) != 0) {
        return std::nullopt;
    }
    const uint64_t unit = sizes.f_frsize != 0 ? sizes.f_frsize : sizes.f_bsize;
    const uint64_t blocks = sizes.f_blocks;
    const uint64_t unused = std::min<uint64_t>(sizes.f_bfree, blocks);
    const uint64_t available = std::min<uint64_t>(sizes.f_bavail, unused);

    Volume volume;
    volume.size = product(blocks, unit);
    volume.free = product(available, unit);
    volume.block_size = cap(unit);
    volume.max_name_length = cap(sizes.f_namemax);
    volume.percent_used = percent(blocks - unused, blocks - unused + available);
    const auto magic = static_cast<uint32_t>(kind.f_type);
    for (const FsMagic &known : fs_magics) {
        if (known.magic == magic) {
            volume.type = known.type;
        }
    }
    volume.read_only = (sizes.f_flag & ST_RDONLY) != 0;
    return volume;
}

FileType file_type(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "messages") {
        return type_log;
    }
    for (const NameType &known : name_types) {
        if (lower.ends_with(known.ending)) {
            return known.type;
        }
    }
    return type_regular;
}

flashDeviceEntry device_record(uint32_t device, const FileSystem &file_system,
                               const std::optional<Volume> &volume) {
    const Volume facts = volume.value_or(Volume{});
    flashDeviceEntry record{};
    record.index = device;
    record.size = cap(facts.size);
    record.free = cap(facts.free);
    record.blockSize = facts.block_size;
    record.partitions = 1;
    record.present = flash::truthTrue;
    put_text(record.name, file_system.scheme, 1);
    put_text(record.description, file_system.description, 1);
    record.capacity = words(facts.size);
    return record;
}

flashPartitionEntry partition_record(uint32_t device, const FileSystem &file_system,
                                     const std::optional<Volume> &volume, uint32_t files) {
    const Volume facts = volume.value_or(Volume{});
    flashPartitionEntry record{};
    record.deviceIndex = device;
    record.index = 1;
    record.state = !volume           ? partition_unavailable
                   : facts.read_only ? partition_read_only
                                     : partition_up;
    record.fsType = facts.type;
    record.size = cap(facts.size);
    record.free = cap(facts.free);
    record.blockSize = facts.block_size;
    record.files = volume ? cap_signed(files) : 0;
    record.maxNameLength = cap_signed(facts.max_name_length);
    record.percentUsed = facts.percent_used;
    put_text(record.name, file_system.scheme, 1);
    record.formatRequired = flash::truthFalse;
    record.writeAccess = record.state == partition_up ? flash::truthTrue : flash::truthFalse;
    record.capacity = words(facts.size);
    record.freeCapacity = words(facts.free);
    return record;
}

flashFileEntry file_record(const FileKey &key, std::string_view path, const FileFacts &facts) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    flashFileEntry record{};
    record.deviceIndex = key.device;
    record.partitionIndex = key.partition;
    record.index = key.file;
    record.size = cap(facts.size);
    put_text(record.name, name, 0);
    record.status = !facts.readable ? file_unreadable : facts.changing ? file_changing : file_valid;
    put_text(record.path, path, 0);
    put_date(record.modified, facts.modified);
    record.type = facts.readable ? file_type(name) : type_other;
    return record;
}

} // namespace ruma
