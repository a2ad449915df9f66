// The records that the daemon answers with.
#include "daemon.h"

#include "cmi/cmi_wire.h"
#include "ruma/cmi.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sysexits.h>
#include <unistd.h>

namespace {

using namespace fs_daemon;

// ---- Records

TEST_F(FsDaemon, DevicesAreNumberedInTheOrderOfTheConfiguration) {
    start();
    Client client(socket_path());
    const auto one = client.device(CMI_NEXT, 0);
    ASSERT_TRUE(one);
    EXPECT_EQ(one->index, 1U);
    EXPECT_EQ(text(one->name), "bootflash");
    EXPECT_EQ(text(one->description), "Internal flash");
    EXPECT_EQ(one->partitions, 1U);
    const auto two = client.device(CMI_NEXT, 1);
    ASSERT_TRUE(two);
    EXPECT_EQ(two->index, 2U);
    EXPECT_EQ(text(two->name), "slot0");
    EXPECT_FALSE(client.device(CMI_NEXT, 2));
    EXPECT_FALSE(client.device(CMI_NEXT, UINT32_MAX));
    EXPECT_TRUE(client.device(CMI_EXACT, 2));
    EXPECT_FALSE(client.device(CMI_EXACT, 0));
    EXPECT_FALSE(client.device(CMI_EXACT, 3));
}

TEST_F(FsDaemon, SizesAreThoseOfTheFileSystem) {
    start();
    struct statvfs sizes {};
    ASSERT_EQ(statvfs(first.c_str(), &sizes), 0);
    const uint64_t capacity = uint64_t{sizes.f_blocks} * sizes.f_frsize;
    const auto record = Client(socket_path()).device(CMI_EXACT, 1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->capacity.low, static_cast<uint32_t>(capacity));
    EXPECT_EQ(record->capacity.high, static_cast<uint32_t>(capacity >> 32));
    EXPECT_EQ(record->size, capacity > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(capacity));
    EXPECT_EQ(record->blockSize, sizes.f_frsize);
    const auto slice = partition(1);
    ASSERT_TRUE(slice);
    EXPECT_EQ(slice->capacity.high, record->capacity.high);
    EXPECT_EQ(slice->maxNameLength, static_cast<int32_t>(sizes.f_namemax));
}

TEST_F(FsDaemon, EachDeviceHasOnePartition) {
    write_file(first / "a");
    start();
    Client client(socket_path());
    const auto one = client.partition(CMI_NEXT, 0, 0);
    ASSERT_TRUE(one);
    EXPECT_EQ(one->deviceIndex, 1U);
    EXPECT_EQ(one->index, 1U);
    EXPECT_EQ(one->state, 1);
    EXPECT_EQ(one->files, 1);
    EXPECT_EQ(text(one->name), "bootflash");
    EXPECT_EQ(one->writeAccess, 1);
    EXPECT_EQ(client.partition(CMI_NEXT, 0, 9)->deviceIndex, 1U);
    EXPECT_EQ(client.partition(CMI_NEXT, 1, 0)->deviceIndex, 1U);
    EXPECT_EQ(client.partition(CMI_NEXT, 1, 1)->deviceIndex, 2U);
    EXPECT_EQ(client.partition(CMI_NEXT, 1, 7)->deviceIndex, 2U);
    EXPECT_FALSE(client.partition(CMI_NEXT, 2, 1));
    EXPECT_FALSE(client.partition(CMI_NEXT, UINT32_MAX, UINT32_MAX));
    EXPECT_TRUE(client.partition(CMI_EXACT, 2, 1));
    EXPECT_FALSE(client.partition(CMI_EXACT, 1, 0));
    EXPECT_FALSE(client.partition(CMI_EXACT, 1, 2));
    EXPECT_FALSE(client.partition(CMI_EXACT, 3, 1));
}

TEST_F(FsDaemon, RegularFilesAreListedAtAnyDepthAndNothingElse) {
    fs::create_directories(first / "sub/.hidden");
    write_file(first / "a");
    write_file(first / ".dot");
    write_file(first / "sub/b");
    write_file(first / "sub/.hidden/c");
    write_file(second / "d");
    fs::create_symlink(first / "a", first / "link");
    fs::create_directory_symlink(second, first / "linked");
    ASSERT_EQ(mkfifo((first / "fifo").c_str(), 0600), 0);
    start();
    EXPECT_TRUE(lists({"1:a", "1:.dot", "1:sub/b", "1:sub/.hidden/c", "2:d"}));
    EXPECT_EQ(partition(1)->files, 4);
    EXPECT_EQ(partition(2)->files, 1);
}

TEST_F(FsDaemon, ARestartGivesUnchangedFilesTheSameIndexes) {
    for (uint32_t i = 0; i < 50; ++i) {
        write_file(first / numbered("f", (i * 37) % 50));
    }
    start();
    const auto before = walk();
    EXPECT_EQ(before.size(), 50U);
    EXPECT_EQ(before.at("1:f0"), 1U);
    stop();
    start();
    EXPECT_EQ(walk(), before);
}

TEST_F(FsDaemon, AFileRecordHoldsWhatTheFileSystemSays) {
    write_file(first / "start.cfg", std::string(1234, 'x'));
    const timespec when[2] = {{0, 0}, {1709251199, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (first / "start.cfg").c_str(), when, 0), 0);
    start();
    const auto record = Client(socket_path()).file(CMI_EXACT, 1, 1, 1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->size, 1234U);
    EXPECT_EQ(text(record->name), "start.cfg");
    EXPECT_EQ(text(record->path), "start.cfg");
    EXPECT_EQ(record->status, 1);
    EXPECT_EQ(record->type, 3);
    const uint8_t expected[8] = {2024 >> 8, 2024 & 0xFF, 2, 29, 23, 59, 59, 0};
    EXPECT_EQ(memcmp(record->modified, expected, sizeof expected), 0);
}

TEST_F(FsDaemon, TheSizeIsThatOfTheMomentOfTheRequest) {
    write_file(first / "grows");
    start();
    Client client(socket_path());
    std::ofstream file(first / "grows", std::ios::app);
    for (uint32_t size = 2; size < 200; ++size) {
        file << 'x' << std::flush;
        EXPECT_EQ(client.file(CMI_EXACT, 1, 1, 1)->size, size);
    }
}

TEST_F(FsDaemon, AFileIsChangingUntilItsWriterClosesIt) {
    start();
    Client client(socket_path());
    std::ofstream file(first / "upload");
    file << "part" << std::flush;
    EXPECT_EQ(client.file(CMI_EXACT, 1, 1, 1)->status, 2);
    file.close();
    EXPECT_EQ(client.file(CMI_EXACT, 1, 1, 1)->status, 1);
}

TEST_F(FsDaemon, AFileThatNobodyMayReadIsUnreadable) {
    write_file(first / "secret.bin");
    fs::permissions(first / "secret.bin", fs::perms::none);
    start();
    const auto record = Client(socket_path()).file(CMI_EXACT, 1, 1, 1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->status, 3);
    EXPECT_EQ(record->type, 6);
}

} // namespace
