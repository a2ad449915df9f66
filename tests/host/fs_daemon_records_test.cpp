// The inventory records as the kernel's numbers fill them.
#include "fs_daemon/records.cpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

const ruma::FileSystem flash_card{"slot0", "/x", "Removable flash card"};
const ruma::FileKey key{1, 1, 7};

std::string text(const char *field, std::size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string file_name(const std::string &path) {
    const flashFileEntry record = ruma::file_record(key, path, {});
    return text(record.name, sizeof record.name);
}

TEST(DeviceRecord, SizesAbove4GiBAreCappedAndTheCapacityIsNot) {
    ruma::Volume volume;
    volume.size = 0x1'2345'6789;
    volume.free = 0x1'0000'0000;
    const flashDeviceEntry record = ruma::device_record(3, flash_card, volume);
    EXPECT_EQ(record.index, 3U);
    EXPECT_EQ(record.size, UINT32_MAX);
    EXPECT_EQ(record.free, UINT32_MAX);
    EXPECT_EQ(record.capacity.low, 0x2345'6789U);
    EXPECT_EQ(record.capacity.high, 1U);
}

TEST(DeviceRecord, TextsAreTerminatedHoweverLong) {
    const ruma::FileSystem longest{std::string(40, 's'), "/x", std::string(255, 'd')};
    const flashDeviceEntry record = ruma::device_record(1, longest, std::nullopt);
    EXPECT_EQ(text(record.name, sizeof record.name), std::string(15, 's'));
    EXPECT_EQ(text(record.description, sizeof record.description), std::string(143, 'd'));
}

TEST(DeviceRecord, ReservedWordsAreZeroAndTheDeviceIsPresent) {
    const flashDeviceEntry record = ruma::device_record(1, flash_card, ruma::Volume{});
    for (const uint32_t word : record.reserved) {
        EXPECT_EQ(word, 0U);
    }
    EXPECT_EQ(record.present, 1);
    EXPECT_EQ(record.partitions, 1U);
}

TEST(PartitionRecord, StateAndWriteAccessTellReadOnlyAndUnavailable) {
    ruma::Volume volume;
    flashPartitionEntry record = ruma::partition_record(1, flash_card, volume, 5);
    EXPECT_EQ(record.state, 1);
    EXPECT_EQ(record.writeAccess, 1);
    EXPECT_EQ(record.formatRequired, 2);
    volume.read_only = true;
    record = ruma::partition_record(1, flash_card, volume, 5);
    EXPECT_EQ(record.state, 2);
    EXPECT_EQ(record.writeAccess, 2);
    record = ruma::partition_record(1, flash_card, std::nullopt, 5);
    EXPECT_EQ(record.state, 3);
    EXPECT_EQ(record.writeAccess, 2);
    EXPECT_EQ(record.files, 0);
    EXPECT_EQ(record.size, 0U);
    EXPECT_EQ(record.percentUsed, 0);
}

TEST(PartitionRecord, TheFileCountIsCappedAtTheGreatestInteger) {
    const flashPartitionEntry record =
        ruma::partition_record(1, flash_card, ruma::Volume{}, UINT32_MAX);
    EXPECT_EQ(record.files, INT32_MAX);
}

TEST(Volume, IsReadFromTheKernel) {
    const int directory = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const auto volume = ruma::read_volume(directory);
    close(directory);
    struct statvfs sizes {};
    ASSERT_EQ(statvfs("/", &sizes), 0);
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->size, uint64_t{sizes.f_blocks} * sizes.f_frsize);
    EXPECT_EQ(volume->block_size, sizes.f_frsize);
    EXPECT_EQ(volume->max_name_length, sizes.f_namemax);
    EXPECT_GE(volume->percent_used, 0);
    EXPECT_LE(volume->percent_used, 100);
}

TEST(Volume, ADescriptorThatIsNoneGivesNothing) { EXPECT_FALSE(ruma::read_volume(-1)); }

TEST(Volume, TheKindOfProcIsOther) {
    const int directory = open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const auto volume = ruma::read_volume(directory);
    close(directory);
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->type, ruma::fs_other);
    EXPECT_EQ(volume->percent_used, 0);
}

TEST(Percent, IsRoundedUpAndNeverAbove100) {
    EXPECT_EQ(ruma::percent(0, 1000), 0);
    EXPECT_EQ(ruma::percent(1, 1000), 1);
    EXPECT_EQ(ruma::percent(500, 1000), 50);
    EXPECT_EQ(ruma::percent(999, 1000), 100);
    EXPECT_EQ(ruma::percent(1000, 1000), 100);
    EXPECT_EQ(ruma::percent(UINT64_MAX / 2, UINT64_MAX), 50);
}

TEST(FileRecord, NameIsTheLastComponentAndPathTheWholeWay) {
    const flashFileEntry record = ruma::file_record(key, "a/b/c.txt", {});
    EXPECT_EQ(record.deviceIndex, 1U);
    EXPECT_EQ(record.partitionIndex, 1U);
    EXPECT_EQ(record.index, 7U);
    EXPECT_EQ(text(record.name, sizeof record.name), "c.txt");
    EXPECT_EQ(text(record.path, sizeof record.path), "a/b/c.txt");
}

TEST(FileRecord, ANameOf32BytesFillsTheFieldAndALongerOneIsCut) {
    EXPECT_EQ(file_name(std::string(32, 'n')), std::string(32, 'n'));
    EXPECT_EQ(file_name(std::string(33, 'n')), std::string(32, 'n'));
}

TEST(FileRecord, ACutNeverFallsIntoAUtf8Character) {
    EXPECT_EQ(file_name(std::string(31, 'n') + "\xC3\xA4"), std::string(31, 'n'));
    EXPECT_EQ(file_name(std::string(30, 'n') + "\xC3\xA4x"), std::string(30, 'n') + "\xC3\xA4");
    EXPECT_EQ(file_name(std::string(29, 'n') + "\xF0\x9F\x98\x80"), std::string(29, 'n'));
    EXPECT_EQ(file_name(std::string(40, '\x80')), std::string(32, '\x80'));
}

TEST(FileRecord, APathOf256BytesFillsTheFieldAndALongerOneIsCut) {
    for (const std::size_t length : {256U, 257U, 4000U}) {
        const flashFileEntry record = ruma::file_record(key, std::string(length, 'p'), {});
        EXPECT_EQ(text(record.path, sizeof record.path), std::string(256, 'p'));
        EXPECT_EQ(record.modified[0], 1970 >> 8);
    }
}

TEST(FileRecord, SizesAbove4GiBAreCapped) {
    ruma::FileFacts facts;
    facts.size = uint64_t{5} << 30;
    EXPECT_EQ(ruma::file_record(key, "f", facts).size, UINT32_MAX);
}

TEST(FileRecord, ModifiedIsDateAndTimeInUtc) {
    ruma::FileFacts facts;
    facts.modified = {1709251199, 750'000'000}; // the end of a leap day
    const flashFileEntry record = ruma::file_record(key, "f", facts);
    const uint8_t expected[8] = {2024 >> 8, 2024 & 0xFF, 2, 29, 23, 59, 59, 7};
    EXPECT_EQ(memcmp(record.modified, expected, sizeof expected), 0);
}

TEST(FileRecord, StatusTellsChangingAndUnreadable) {
    ruma::FileFacts facts;
    EXPECT_EQ(ruma::file_record(key, "f", facts).status, 1);
    facts.changing = true;
    EXPECT_EQ(ruma::file_record(key, "f", facts).status, 2);
    facts.readable = false;
    EXPECT_EQ(ruma::file_record(key, "f.bin", facts).status, 3);
    EXPECT_EQ(ruma::file_record(key, "f.bin", facts).type, 6);
}

TEST(FileType, IsToldByTheEndingOfTheName) {
    const std::pair<const char *, int32_t> names[] = {
        {"readme", 1},   {"a.txt", 1},    {"bin", 1},       {"a.bin.txt", 1},  {"image.BIN", 2},
        {"disk.img", 2}, {"cd.iso", 2},   {"start.cfg", 3}, {"a.conf", 3},     {"a.toml", 3},
        {"a.json", 3},   {"boot.log", 4}, {"messages", 4},  {"messages.1", 1}, {"a.tar", 5},
        {"a.tar.gz", 5}, {"a.xz", 5},     {"a.zip", 5},     {"a.bz2", 5},      {"a.zst", 5},
    };
    for (const auto &[name, type] : names) {
        EXPECT_EQ(ruma::file_record(key, name, {}).type, type) << name;
    }
}

} // namespace
