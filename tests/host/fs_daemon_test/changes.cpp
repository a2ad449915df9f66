// Files that come, go, move and grow under the daemon.
#include "daemon.h"

#include "cmi/cmi_wire.h"
#include "provoked.h"
#include "ruma/cmi.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sysexits.h>
#include <unistd.h>

namespace {

using namespace fs_daemon;

// ---- Changes

TEST_F(FsDaemon, ANewFileIsThereInTheNextRequestWithAGreaterIndex) {
    write_file(first / "old");
    start();
    Client client(socket_path());
    for (uint32_t i = 2; i < 200; ++i) {
        write_file(first / numbered("new", i));
        const auto record = client.file(CMI_EXACT, 1, 1, i);
        ASSERT_TRUE(record) << i;
        EXPECT_EQ(text(record->name), numbered("new", i));
    }
}

TEST_F(FsDaemon, FilesOfANewDirectoryAreFound) {
    start();
    fs::create_directories(first / "a/b/c");
    write_file(first / "a/b/c/f");
    EXPECT_TRUE(eventually([&] { return lists({"1:a/b/c/f"}); }));
    write_file(first / "a/b/g");
    EXPECT_TRUE(eventually([&] { return lists({"1:a/b/c/f", "1:a/b/g"}); }));
}

TEST_F(FsDaemon, ARemovedFileIsGoneAndTheOthersKeepTheirIndexes) {
    for (const char *name : {"a", "b", "c"}) {
        write_file(first / name);
    }
    start();
    Client client(socket_path());
    fs::remove(first / "b");
    EXPECT_FALSE(client.file(CMI_EXACT, 1, 1, 2));
    EXPECT_EQ(text(client.file(CMI_NEXT, 1, 1, 1)->name), "c");
    EXPECT_EQ(client.file(CMI_NEXT, 1, 1, 1)->index, 3U);
    EXPECT_EQ(partition(1)->files, 2);
    write_file(first / "b");
    EXPECT_EQ(walk().at("1:b"), 4U);
}

TEST_F(FsDaemon, ARenamedFileKeepsItsIndex) {
    fs::create_directory(first / "sub");
    write_file(first / "a");
    write_file(first / "b");
    start();
    const uint32_t index = walk().at("1:a");
    fs::rename(first / "a", first / "sub/moved");
    ASSERT_TRUE(eventually([&] { return lists({"1:sub/moved", "1:b"}); }));
    EXPECT_EQ(walk().at("1:sub/moved"), index);
    fs::rename(first / "sub/moved", first / "b");
    ASSERT_TRUE(eventually([&] { return lists({"1:b"}); }));
    EXPECT_EQ(walk().at("1:b"), index);
}

TEST_F(FsDaemon, AFileRenamedTwiceBeforeTheDaemonLooksKeepsItsIndex) {
    fs::create_directory(first / "d");
    write_file(first / "a");
    write_file(first / "d/f");
    start();
    const auto before = walk();
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    fs::rename(first / "a", first / "b");
    fs::rename(first / "b", first / "d/c");
    fs::rename(first / "d", first / "e");
    fs::rename(first / "e", first / "g");
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    ASSERT_TRUE(eventually([&] { return lists({"1:g/c", "1:g/f"}); }));
    EXPECT_EQ(walk().at("1:g/c"), before.at("1:a"));
    EXPECT_EQ(walk().at("1:g/f"), before.at("1:d/f"));
}

TEST_F(FsDaemon, ANewFileWithTheNameOfOneMovedAwayHasAnIndexOfItsOwnThatStays) {
    write_file(first / "a");
    start();
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    fs::rename(first / "a", base / "away");
    write_file(first / "a");
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    ASSERT_TRUE(eventually([&] { return walk() == std::map<std::string, uint32_t>{{"1:a", 2}}; }));
    ASSERT_TRUE(eventually([&] { return partition(1)->files == 1; }));
    EXPECT_EQ(walk().at("1:a"), 2U);
}

TEST_F(FsDaemon, FilesOfARenamedDirectoryKeepTheirIndexesAndAreStillWatched) {
    fs::create_directories(first / "old/deep");
    write_file(first / "old/deep/f");
    write_file(first / "z");
    start();
    const uint32_t index = walk().at("1:old/deep/f");
    fs::rename(first / "old", first / "new");
    ASSERT_TRUE(eventually([&] { return lists({"1:new/deep/f", "1:z"}); }));
    EXPECT_EQ(walk().at("1:new/deep/f"), index);
    write_file(first / "new/deep/g");
    EXPECT_TRUE(eventually([&] { return lists({"1:new/deep/f", "1:new/deep/g", "1:z"}); }));
    fs::remove(first / "new/deep/f");
    EXPECT_TRUE(eventually([&] { return lists({"1:new/deep/g", "1:z"}); }));
}

TEST_F(FsDaemon, TwoFilesThatAreExchangedAreBothThere) {
    write_file(first / "a", "1");
    write_file(first / "b", "22");
    start();
    ASSERT_EQ(renameat2(AT_FDCWD, (first / "a").c_str(), AT_FDCWD, (first / "b").c_str(),
                        RENAME_EXCHANGE),
              0);
    ASSERT_TRUE(eventually([&] { return lists({"1:a", "1:b"}); }));
    EXPECT_EQ(find("a")->size, 2U);
    EXPECT_EQ(find("b")->size, 1U);
}

TEST_F(FsDaemon, AMoveBetweenFileSystemsIsARemovalAndANewFile) {
    fs::create_directory(first / "d");
    write_file(first / "d/f");
    write_file(second / "other");
    start();
    fs::rename(first / "d", second / "d");
    EXPECT_TRUE(eventually([&] { return lists({"2:d/f", "2:other"}); }));
    EXPECT_TRUE(eventually([&] { return partition(1)->files == 0; }));
    EXPECT_EQ(partition(2)->files, 2);
    fs::rename(second / "other", base / "outside");
    EXPECT_TRUE(eventually([&] { return lists({"2:d/f"}); }));
    EXPECT_TRUE(eventually([&] { return partition(2)->files == 1; }));
}

TEST_F(FsDaemon, ARemovedTreeIsGone) {
    fs::create_directories(first / "a/b/c");
    write_file(first / "a/b/c/f");
    write_file(first / "a/g");
    write_file(first / "z");
    start();
    fs::remove_all(first / "a");
    EXPECT_TRUE(eventually([&] { return lists({"1:z"}); }));
    EXPECT_TRUE(eventually([&] { return partition(1)->files == 1; }));
}

TEST_F(FsDaemon, AWalkGoesOnWhenTheFileItStandsOnIsRemoved) {
    for (const char *name : {"a", "b", "c"}) {
        write_file(first / name);
    }
    start();
    Client client(socket_path());
    const auto second_file = client.file(CMI_NEXT, 1, 1, 1);
    ASSERT_TRUE(second_file);
    fs::remove(first / "b");
    EXPECT_EQ(text(client.file(CMI_NEXT, 1, 1, second_file->index)->name), "c");
}

TEST_F(FsDaemon, ALinkPutInPlaceOfADirectoryIsNotFollowed) {
    fs::create_directory(first / "sub");
    fs::create_directory(base / "outside");
    write_file(first / "sub/f", "inside");
    write_file(base / "outside/f", "much longer, and outside");
    start();
    ASSERT_EQ(find("sub/f")->size, 6U);
    fs::rename(first / "sub", base / "away");
    fs::create_directory_symlink(base / "outside", first / "sub");
    EXPECT_FALSE(Client(socket_path()).file(CMI_EXACT, 1, 1, 1));
    EXPECT_TRUE(walk().empty());
}

TEST_F(FsDaemon, AfterAnySequenceOfChangesTheListIsTheTree) {
    start();
    std::mt19937 random(20240229);
    const auto pick = [&](uint32_t count) { return static_cast<uint32_t>(random() % count); };
    // A name at a random depth; what lies there, and whether its parent exists, is left to chance.
    const auto any = [&] {
        fs::path path = first;
        for (uint32_t depth = pick(3); depth > 0; --depth) {
            path /= numbered("d", pick(3));
        }
        return path / (pick(2) == 0 ? numbered("d", pick(3)) : numbered("f", pick(4)));
    };
    for (int round = 0; round < 20; ++round) {
        for (int change = 0; change < 100; ++change) {
            const fs::path path = any();
            std::error_code ignored; // many of the changes are impossible
            switch (pick(5)) {
            case 0:
                fs::create_directory(path, ignored);
                break;
            case 1:
                fs::remove_all(path, ignored);
                break;
            case 2:
            case 3:
                fs::rename(path, any(), ignored);
                break;
            default:
                write_file(path);
            }
        }
        std::set<std::string> expected;
        for (const auto &entry : fs::recursive_directory_iterator(first)) {
            if (entry.is_regular_file()) {
                expected.insert("1:" + entry.path().lexically_relative(first).string());
            }
        }
        ASSERT_TRUE(eventually([&] { return lists(expected); })) << round;
        const auto before = walk();
        ASSERT_TRUE(eventually([&] {
            return partition(1)->files == static_cast<int32_t>(expected.size());
        })) << round;
        EXPECT_EQ(walk(), before);
    }
}

TEST_F(FsDaemon, AfterMoreChangesThanTheKernelRecordsTheListIsRightAndOldIndexesStay) {
    std::ifstream limit_file("/proc/sys/fs/inotify/max_queued_events");
    uint32_t limit = 0;
    ASSERT_TRUE(limit_file >> limit);
    fs::create_directory(first / "sub");
    write_file(first / "kept");
    write_file(first / "sub/kept");
    write_file(first / "removed");
    start();
    const auto before = walk();
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    for (uint32_t i = 0; i < limit / 2 + 100; ++i) {
        const fs::path name = first / numbered("t", i % 7);
        write_file(name);
        fs::remove(name);
    }
    fs::remove(first / "removed");
    write_file(first / "sub/late");
    fs::create_directory(first / "new");
    write_file(first / "new/late");
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    ASSERT_TRUE(eventually([&] {
        return lists({"1:kept", "1:sub/kept", "1:sub/late", "1:new/late"});
    }));
    const auto after = walk();
    EXPECT_EQ(after.at("1:kept"), before.at("1:kept"));
    EXPECT_EQ(after.at("1:sub/kept"), before.at("1:sub/kept"));
    EXPECT_EQ(partition(1)->files, 4);
    write_file(first / "new/later");
    EXPECT_TRUE(eventually([&] { return walk().contains("1:new/later"); }));
}

TEST_F(FsDaemon, BeyondTheWatchLimitChangesAreFoundByScanning) {
    fs::create_directories(first / "a/b");
    write_file(first / "a/b/f");
    start({"--max-watches", "1", "--rescan-interval", "1"});
    const uint32_t index = walk().at("1:a/b/f");
    EXPECT_PROVOKED(errors(),
                    "fs_daemon: …: not every directory can be read and watched: changes are "
                    "found by scanning again");
    write_file(first / "a/b/g");
    write_file(first / "a/h");
    EXPECT_TRUE(eventually([&] { return lists({"1:a/b/f", "1:a/b/g", "1:a/h"}); }));
    fs::remove(first / "a/b/g");
    EXPECT_TRUE(eventually([&] { return partition(1)->files == 2; }));
    EXPECT_EQ(walk().at("1:a/b/f"), index);
}

} // namespace
