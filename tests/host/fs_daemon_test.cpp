// The file-system daemon as a process of its own, on real directories.
#include "cmi/cmi_wire.h"
#include "flash_codes.h"
#include "flash_records.h"
#include "provoked.h"
#include "ruma/cmi.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <pwd.h>
#include <random>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string slurp(const fs::path &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const fs::path &path, const std::string &content = "x") {
    std::ofstream(path) << content;
}

std::string numbered(std::string stem, uint64_t number) {
    stem += std::to_string(number);
    return stem;
}

// Whether the condition comes true within a generous time.
bool eventually(const std::function<bool()> &condition) {
    for (const auto end = std::chrono::steady_clock::now() + 20s;
         std::chrono::steady_clock::now() < end;) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

template <std::size_t size>
std::string text(const char (&field)[size]) {
    return std::string(field, strnlen(field, size));
}

// A connection that waits patiently, so that a loaded machine fails no test.
class Client {
  public:
    explicit Client(const std::string &socket_path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const timeval patience{20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        connected_ =
            connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { close(fd_); }

    bool connected() const { return connected_; }

    bool send(const std::string &packet, int flags = 0) {
        return ::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL | flags) ==
               static_cast<ssize_t>(packet.size());
    }
    // One packet, empty when the connection was closed.
    std::string receive() {
        char buffer[2048];
        const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    }

    static std::string request(uint32_t opcode, uint32_t type, const std::vector<uint32_t> &key,
                               std::size_t size) {
        const ruma::CmiHeader header{ruma::cmi_request_magic,    77, opcode, type, 0,
                                     static_cast<uint32_t>(size)};
        std::string packet(sizeof header + size, '\0');
        memcpy(packet.data(), &header, sizeof header);
        memcpy(packet.data() + sizeof header, key.data(), key.size() * sizeof key[0]);
        return packet;
    }

    template <class Record>
    std::optional<Record> ask(uint32_t opcode, uint32_t type, const std::vector<uint32_t> &key,
                              std::size_t size = sizeof(Record)) {
        if (!send(request(opcode, type, key, size))) {
            return std::nullopt;
        }
        const std::string answer = receive();
        ruma::CmiHeader header{};
        if (answer.size() < sizeof header) {
            return std::nullopt;
        }
        memcpy(&header, answer.data(), sizeof header);
        EXPECT_EQ(header.magic, ruma::cmi_response_magic);
        EXPECT_EQ(header.tag, 77U);
        EXPECT_EQ(header.opcode, opcode);
        EXPECT_EQ(header.message_type, type);
        EXPECT_EQ(header.length, answer.size() - sizeof header);
        EXPECT_EQ(header.length, header.result == ruma::cmi_ok ? size : 0);
        if (header.result != ruma::cmi_ok || answer.size() < sizeof header + sizeof(Record)) {
            return std::nullopt;
        }
        Record record{};
        memcpy(&record, answer.data() + sizeof header, sizeof record);
        return record;
    }

    auto device(uint32_t type, uint32_t device) {
        return ask<flashDeviceEntry>(flash::opcodeDevice, type, {device});
    }
    auto partition(uint32_t type, uint32_t device, uint32_t partition) {
        return ask<flashPartitionEntry>(flash::opcodePartition, type, {device, partition});
    }
    auto file(uint32_t type, uint32_t device, uint32_t partition, uint32_t file) {
        return ask<flashFileEntry>(flash::opcodeFile, type, {device, partition, file},
                                   flashFileRequestSize);
    }

    // All files: their indexes by path, preceded by the device.
    std::map<std::string, uint32_t> walk() {
        std::map<std::string, uint32_t> found;
        flashFileEntry last{};
        while (const auto record =
                   file(CMI_NEXT, last.deviceIndex, last.partitionIndex, last.index)) {
            const bool forward =
                std::tie(record->deviceIndex, record->partitionIndex, record->index) >
                std::tie(last.deviceIndex, last.partitionIndex, last.index);
            EXPECT_TRUE(forward);
            if (!forward) {
                break;
            }
            found[std::to_string(record->deviceIndex) + ":" + text(record->path)] = record->index;
            last = *record;
        }
        return found;
    }

  private:
    int fd_ = -1;
    bool connected_ = false;
};

class FsDaemon : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/fs_daemon_test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        base = name;
        // For the tests that play other users.
        fs::permissions(base, fs::perms(0755));
        first = base / "first";
        second = base / "second";
        fs::create_directory(first);
        fs::create_directory(second);
        configure();
    }

    void TearDown() override {
        EXPECT_EQ(stop(), 0) << errors();
        fs::remove_all(base);
    }

    void configure(const std::string &more = "") {
        write_file(base / "platform.toml",
                   "[[file_system]]\nscheme = \"bootflash\"\ndirectory = \"" + first.string() +
                       "\"\ndescription = \"Internal flash\"\n"
                       "[[file_system]]\nscheme = \"slot0\"\ndirectory = \"" +
                       second.string() + "\"\n" + more);
    }

    pid_t spawn(const std::vector<std::string> &more = {}) {
        std::vector<std::string> words = {fs::read_symlink("/proc/self/exe").parent_path() /
                                              "fs_daemon",
                                          "--foreground",
                                          "--config",
                                          base / "platform.toml",
                                          "--run-dir",
                                          run_dir()};
        words.insert(words.end(), more.begin(), more.end());
        const std::string errors_path = base / "errors";
        const pid_t child = fork();
        if (child == 0) {
            std::vector<char *> arguments;
            for (std::string &word : words) {
                arguments.push_back(word.data());
            }
            arguments.push_back(nullptr);
            const int errors =
                open(errors_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            dup2(errors, STDERR_FILENO);
            dup2(errors, STDOUT_FILENO);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        return child;
    }

    // Starts the daemon and waits until it listens.
    void start(const std::vector<std::string> &more = {}) {
        daemon = spawn(more);
        ASSERT_GT(daemon, 0);
        ASSERT_TRUE(eventually([this] { return Client(socket_path()).connected(); })) << errors();
    }

    static int wait_for(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
    int stop(int signal = SIGTERM) {
        if (daemon <= 0) {
            return 0;
        }
        kill(daemon, signal);
        const int status = wait_for(daemon);
        daemon = 0;
        return status;
    }

    std::string run_dir() const { return base / "run"; }
    std::string daemon_dir() const { return run_dir() + "/fsd"; }
    std::string socket_path() const { return daemon_dir() + "/" + ruma::fs_daemon_socket; }
    std::string errors() const { return slurp(base / "errors"); }

    // What the daemon lists now, over a connection of its own.
    std::map<std::string, uint32_t> walk() { return Client(socket_path()).walk(); }
    std::optional<flashFileEntry> find(const std::string &path) {
        Client client(socket_path());
        const auto all = client.walk();
        const auto found = all.find("1:" + path);
        return found == all.end() ? std::nullopt : client.file(CMI_EXACT, 1, 1, found->second);
    }
    std::optional<flashPartitionEntry> partition(uint32_t device) {
        return Client(socket_path()).partition(CMI_EXACT, device, 1);
    }
    bool lists(const std::set<std::string> &paths) {
        std::set<std::string> found;
        for (const auto &[path, index] : walk()) {
            found.insert(path);
        }
        return found == paths;
    }

    fs::path base, first, second;
    pid_t daemon = 0;
};

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

// ---- File systems that come and go

TEST_F(FsDaemon, ADirectoryThatDisappearsIsUnavailableUntilItReturns) {
    write_file(first / "a");
    write_file(second / "b");
    start();
    fs::rename(first, base / "away");
    ASSERT_TRUE(eventually([&] { return partition(1)->state == 3; }));
    EXPECT_TRUE(lists({"2:b"}));
    EXPECT_EQ(partition(1)->files, 0);
    EXPECT_EQ(partition(1)->size, 0U);
    EXPECT_EQ(Client(socket_path()).device(CMI_EXACT, 1)->size, 0U);
    EXPECT_NE(errors().find(first.string() + " is unavailable"), std::string::npos);
    EXPECT_PROVOKED(errors(), "fs_daemon: …: … is unavailable");
    write_file(base / "away/c");
    fs::rename(base / "away", first);
    ASSERT_TRUE(eventually([&] { return lists({"1:a", "1:c", "2:b"}); }));
    EXPECT_EQ(walk().at("1:a"), 1U);
    EXPECT_EQ(partition(1)->state, 1);
    EXPECT_PROVOKED(errors(), "fs_daemon: …: … is available");
    write_file(first / "d");
    EXPECT_TRUE(eventually([&] { return walk().contains("1:d"); }));
}

TEST_F(FsDaemon, ADirectoryThatIsReplacedIsListedAnew) {
    write_file(first / "a");
    start();
    fs::remove_all(first);
    fs::create_directory(first);
    write_file(first / "b");
    EXPECT_TRUE(eventually([&] { return lists({"1:b"}); }));
    write_file(first / "c");
    EXPECT_TRUE(eventually([&] { return lists({"1:b", "1:c"}); }));
}

TEST_F(FsDaemon, ADirectoryThatAppearsAfterTheStartIsServed) {
    fs::remove(first);
    start();
    EXPECT_EQ(partition(1)->state, 3);
    fs::create_directory(first);
    write_file(first / "a");
    EXPECT_TRUE(eventually([&] { return lists({"1:a"}); }));
    EXPECT_EQ(partition(1)->state, 1);
}

// Mounts of this process and its children only.
class FsDaemonMounts : public FsDaemon {
  protected:
    void SetUp() override {
        FsDaemon::SetUp();
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "only root can mount: " << strerror(errno);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    }
    void TearDown() override {
        EXPECT_EQ(stop(), 0) << errors();
        umount(first.c_str());
        FsDaemon::TearDown();
    }
    static bool mount_tmpfs(const fs::path &directory, unsigned long flags = 0) {
        return mount("fs_daemon_test", directory.c_str(), "tmpfs", flags, "size=1m") == 0;
    }
};

TEST_F(FsDaemonMounts, AnUnmountedFileSystemIsUnavailableUntilItIsMountedAgain) {
    write_file(first / "beneath");
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "a");
    start();
    EXPECT_TRUE(lists({"1:a"}));
    EXPECT_EQ(partition(1)->fsType, 5);
    EXPECT_EQ(partition(1)->size, 1U << 20);
    ASSERT_EQ(umount(first.c_str()), 0) << "the daemon keeps the file system busy";
    ASSERT_TRUE(eventually([&] { return partition(1)->state == 3; }));
    EXPECT_TRUE(walk().empty());
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "b");
    ASSERT_TRUE(eventually([&] { return lists({"1:b"}); }));
    EXPECT_EQ(partition(1)->state, 1);
}

TEST_F(FsDaemonMounts, AReadOnlyFileSystemSaysSo) {
    ASSERT_TRUE(mount_tmpfs(first, MS_RDONLY));
    start();
    EXPECT_EQ(partition(1)->state, 2);
    EXPECT_EQ(partition(1)->writeAccess, 2);
    ASSERT_EQ(mount(nullptr, first.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    EXPECT_EQ(partition(1)->state, 1);
}

TEST_F(FsDaemonMounts, FilesOfAnotherFileSystemMountedInsideAreNotListed) {
    fs::create_directory(first / "sub");
    write_file(first / "sub/hidden");
    write_file(first / "a");
    start();
    EXPECT_TRUE(lists({"1:a", "1:sub/hidden"}));
    ASSERT_TRUE(mount_tmpfs(first / "sub"));
    write_file(first / "sub/foreign");
    write_file(first / "sub/hidden", "another one");
    EXPECT_TRUE(lists({"1:a"}));
    stop();
    start();
    EXPECT_TRUE(lists({"1:a"}));
    stop();
    ASSERT_EQ(umount((first / "sub").c_str()), 0);
}

TEST_F(FsDaemonMounts, AFullFileSystemIsUsedTo100PerCent) {
    ASSERT_TRUE(mount_tmpfs(first));
    write_file(first / "fill", std::string(2U << 20, 'x'));
    start();
    EXPECT_EQ(partition(1)->percentUsed, 100);
    EXPECT_EQ(partition(1)->free, 0U);
    fs::remove(first / "fill");
    EXPECT_EQ(partition(1)->percentUsed, 0);
}

// ---- Clients

TEST_F(FsDaemon, AMalformedRequestClosesItsConnectionOnlyAndIsCounted) {
    start();
    Client good(socket_path());
    const std::string request = Client::request(flash::opcodeDevice, CMI_NEXT, {0}, 204);
    const auto with = [&](std::size_t offset, uint32_t word) {
        std::string changed = request;
        std::memcpy(&changed[offset], &word, sizeof word);
        return changed;
    };
    const std::vector<std::string> bad = {
        std::string(1, 'x'),
        request.substr(0, 23),
        request.substr(0, 24),
        request.substr(0, request.size() - 1),
        request + "x",
        std::string(100'000, '\0'),
        with(0, 'x'),         // magic
        with(8, 'x'),         // opcode
        with(12, 3),          // message type
        with(12, 0),          // message type
        with(16, 1),          // result
        with(20, 203),        // length
        with(20, 0x780000cc), // length
        Client::request(flash::opcodeFile, CMI_NEXT, {0}, 320),
        Client::request(flash::opcodePartition, CMI_NEXT, {0}, 204),
        Client::request(flash::opcodeFile + 1, CMI_NEXT, {0}, 204),
    };
    for (std::size_t i = 0; i < bad.size(); ++i) {
        Client client(socket_path());
        ASSERT_TRUE(client.send(bad[i])) << i;
        EXPECT_EQ(client.receive(), "") << i;
        EXPECT_TRUE(good.device(CMI_NEXT, 0)) << i;
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(errors().find(std::to_string(bad.size()) + " malformed requests"), std::string::npos)
        << errors();
    EXPECT_PROVOKED(errors(),
                    "fs_daemon: … malformed requests, … connections of other users refused");
}

TEST_F(FsDaemon, AClientThatTakesNoAnswersHoldsUpNobody) {
    start();
    Client greedy(socket_path());
    const std::string request = Client::request(flash::opcodeFile, CMI_NEXT, {0}, 872);
    Client good(socket_path());
    for (int round = 0; round < 5000 && greedy.send(request, MSG_DONTWAIT); ++round) {
    }
    EXPECT_TRUE(good.device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, ManyClientsAreServedAndTheIdlestMakeRoom) {
    start();
    Client busy(socket_path());
    ASSERT_TRUE(busy.device(CMI_NEXT, 0));
    std::vector<std::unique_ptr<Client>> idle;
    for (int i = 0; i < 200; ++i) {
        idle.push_back(std::make_unique<Client>(socket_path()));
        ASSERT_TRUE(idle.back()->connected());
        EXPECT_TRUE(busy.device(CMI_NEXT, 0)) << i;
    }
    EXPECT_FALSE(idle.front()->device(CMI_NEXT, 0));
    EXPECT_TRUE(idle.back()->device(CMI_NEXT, 0));
    const auto open =
        fs::directory_iterator(numbered("/proc/", static_cast<uint64_t>(daemon)) + "/fd");
    EXPECT_LT(std::distance(begin(open), end(open)), 90);
}

TEST_F(FsDaemon, RequestsThatArriveTogetherAreAnsweredInOrder) {
    start();
    Client client(socket_path());
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(client.send(
            Client::request(flash::opcodeDevice, CMI_EXACT, {i % 2 == 0 ? 1U : 2U}, 204)));
    }
    for (int i = 0; i < 8; ++i) {
        const std::string answer = client.receive();
        ASSERT_EQ(answer.size(), sizeof(ruma::CmiHeader) + 204);
        uint32_t index = 0;
        std::memcpy(&index, &answer[sizeof(ruma::CmiHeader)], sizeof index);
        EXPECT_EQ(index, i % 2 == 0 ? 1U : 2U);
    }
}

// Runs `body` as another user, in a process of its own; returns its result, or -1.
int as_user(uid_t user, const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(setresuid(user, user, user) == 0 ? body() : 125);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FsDaemon, OnlyTheConfiguredUserIsAnsweredBesideRootAndItself) {
    ASSERT_EQ(geteuid(), 0U) << "only root can play other users";
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const uid_t agent = nobody->pw_uid;
    configure("[agent]\nuser = \"nobody\"\n");
    start();
    const auto answered = [this] {
        Client client(socket_path());
        return !client.connected() ? 3 : client.device(CMI_NEXT, 0) ? 1 : 2;
    };
    EXPECT_EQ(answered(), 1);
    EXPECT_EQ(as_user(agent, answered), 1);
    EXPECT_EQ(as_user(12345, answered), 2);
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(errors().find("1 connections of other users refused"), std::string::npos) << errors();
}

// ---- Life

TEST_F(FsDaemon, ItEndsWithResult0AndRemovesItsSocket) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start();
        EXPECT_EQ(stop(signal), 0) << signal;
        EXPECT_FALSE(fs::exists(socket_path())) << signal;
    }
    EXPECT_EQ(errors(), "");
}

TEST_F(FsDaemon, AtSighupItAsksToBeStartedAgainByItsResult) {
    start();
    EXPECT_EQ(WEXITSTATUS(stop(SIGHUP)), EX_TEMPFAIL);
    EXPECT_FALSE(fs::exists(socket_path()));
    EXPECT_EQ(errors(), "");
}

TEST_F(FsDaemon, AtSighupWithAConfigurationThatCannotBeUsedItServesOn) {
    start();
    write_file(base / "platform.toml", "nonsense = 1\n");
    kill(daemon, SIGHUP);
    EXPECT_TRUE(eventually([this] { return !errors().empty(); }));
    EXPECT_PROVOKED(errors(), "fs_daemon: not started again: …");
    EXPECT_NE(errors().find("platform.toml:1: unknown key"), std::string::npos) << errors();
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, ASocketThatWasTakenAwayIsMadeAgain) {
    start();
    Client client(socket_path());
    const auto take_away = [&](const std::string &what) {
        fs::remove_all(what);
        return eventually([this] { return Client(socket_path()).connected(); });
    };
    EXPECT_TRUE(take_away(socket_path()));
    EXPECT_TRUE(take_away(daemon_dir()));
    EXPECT_TRUE(take_away(run_dir()));
    EXPECT_TRUE(client.device(CMI_NEXT, 0)) << "who is connected stays so";
    EXPECT_PROVOKED(errors(), "fs_daemon: … had gone and has been made again");
    // And it is this daemon's alone.
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
}

TEST_F(FsDaemon, ASocketThatCannotBeMadeAgainIsReportedOnce) {
    start();
    Client client(socket_path());
    fs::remove(socket_path());
    write_file(socket_path(), "precious");
    ASSERT_TRUE(eventually([this] { return !errors().empty(); }));
    const std::string said = errors();
    EXPECT_NE(said.find("has gone: " + socket_path() + " is not a socket"), std::string::npos);
    EXPECT_PROVOKED(said, "fs_daemon: … has gone: …");
    EXPECT_TRUE(client.device(CMI_NEXT, 0));
    fs::remove(socket_path());
    EXPECT_TRUE(eventually([this] { return Client(socket_path()).connected(); }));
    EXPECT_EQ(errors(),
              said + "fs_daemon: " + socket_path() + " had gone and has been made again\n");
}

TEST_F(FsDaemon, TheSocketOfASuccessorIsLeftAlone) {
    start();
    kill(daemon, SIGSTOP);
    fs::rename(run_dir(), base / "former");
    const pid_t former = std::exchange(daemon, 0);
    start();
    kill(former, SIGTERM);
    kill(former, SIGCONT);
    wait_for(former);
    EXPECT_TRUE(Client(socket_path()).connected());
}

TEST_F(FsDaemon, ASecondDaemonRefusesToStartAndDisturbsNothing) {
    start();
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_PROVOKED(errors(), "fs_daemon: another daemon serves …");
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
    // Not even when its lock file has been taken away.
    fs::remove(daemon_dir() + "/fs_daemon.lock");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, TheSocketOfADeadDaemonIsReplaced) {
    start();
    stop(SIGKILL);
    ASSERT_TRUE(fs::exists(socket_path()));
    start();
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0));
}

TEST_F(FsDaemon, WhatIsNotASocketIsNotReplaced) {
    fs::create_directories(daemon_dir());
    write_file(socket_path(), "precious");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(slurp(socket_path()), "precious");
    EXPECT_PROVOKED(errors(), "fs_daemon: … is not a socket");
}

TEST_F(FsDaemon, TheRunDirectoryIsMadeAndAnybodyMayConnect) {
    ASSERT_FALSE(fs::exists(run_dir()));
    start();
    EXPECT_EQ(fs::status(socket_path()).permissions(), fs::perms(0666));
}

TEST_F(FsDaemon, TheDirectoriesAreTheUsersWhoWriteThem) {
    ASSERT_EQ(geteuid(), 0U) << "only root makes directories for others";
    configure("[agent]\nuser = \"nobody\"\n[fs_daemon]\nuser = \"daemon\"\n");
    const auto owner = [](const std::string &path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_uid : 99999;
    };
    start();
    EXPECT_EQ(owner(run_dir()), getpwnam("nobody")->pw_uid);
    EXPECT_EQ(owner(daemon_dir()), getpwnam("daemon")->pw_uid);
    EXPECT_EQ(fs::status(daemon_dir()).permissions(), fs::perms(0755));
}

TEST_F(FsDaemon, ADirectoryOfTheDaemonsThatIsTheAgentsIsAnError) {
    configure("[agent]\nuser = \"nobody\"\n[fs_daemon]\nuser = \"daemon\"\n");
    fs::create_directories(daemon_dir());
    ASSERT_EQ(chown(daemon_dir().c_str(), getpwnam("nobody")->pw_uid, 0), 0);
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: " + daemon_dir() + " belongs to another user\n");
}

TEST_F(FsDaemon, AUserOfTheDaemonWhoDoesNotExistIsAnError) {
    configure("[fs_daemon]\nuser = \"no-such-user\"\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: there is no user no-such-user\n");
}

TEST_F(FsDaemon, ARunDirectoryThatIsALinkIsAnError) {
    fs::create_directory(base / "elsewhere");
    fs::create_symlink("elsewhere", run_dir());
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_NE(errors().find("is a symbolic link"), std::string::npos) << errors();
    EXPECT_TRUE(fs::is_empty(base / "elsewhere"));
}

TEST_F(FsDaemon, AConfigurationThatCannotBeUsedIsAnError) {
    write_file(base / "platform.toml", "nonsense = 1\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_NE(errors().find("platform.toml:1: unknown key"), std::string::npos);
    fs::remove(base / "platform.toml");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(FsDaemon, AnAgentUserWhoDoesNotExistIsAnError) {
    configure("[agent]\nuser = \"no-such-user\"\n");
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn())), 1);
    EXPECT_EQ(errors(), "fs_daemon: there is no user no-such-user\n");
    EXPECT_PROVOKED(errors(), "there is no user …");
}

TEST_F(FsDaemon, ARunDirectoryWithTooLongANameIsAnError) {
    const std::string longest = base / std::string(120, 'r');
    EXPECT_EQ(WEXITSTATUS(wait_for(spawn({"--run-dir", longest}))) != 0, true);
    EXPECT_FALSE(fs::exists(socket_path()));
}

TEST_F(FsDaemon, HelpAndVersionAreShown) {
    EXPECT_EQ(wait_for(spawn({"--help"})), 0);
    EXPECT_NE(errors().find("--run-dir"), std::string::npos);
    EXPECT_EQ(wait_for(spawn({"--version"})), 0);
    EXPECT_NE(errors().find("fs_daemon 0."), std::string::npos);
    EXPECT_NE(wait_for(spawn({"--no-such-option"})), 0);
}

// ---- With a service manager

// The end that a service manager listens on.
class Manager {
  public:
    explicit Manager(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        close(socket_);
    }

    // The next message; empty when there is none yet.
    std::string next() const {
        char text[256] = {};
        return recv(socket_, text, sizeof text - 1, 0) > 0 ? text : "";
    }
    bool hears(const std::string &expected) const {
        return eventually([&] { return next() == expected; });
    }

  private:
    int socket_;
};

TEST_F(FsDaemon, ItIsReadyWhenItServesAndThenSaysThatItIsAlive) {
    const Manager manager(base / "notify");
    daemon = spawn();
    ASSERT_TRUE(manager.hears("STATUS=Scanning the file systems"));
    std::string said;
    ASSERT_TRUE(eventually([&] { return (said = manager.next()).starts_with("READY=1\n"); }));
    EXPECT_TRUE(Client(socket_path()).device(CMI_NEXT, 0)) << "at once";
    EXPECT_EQ(said, "READY=1\nSTATUS=Serving the inventory");
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(manager.hears("STOPPING=1"));
}

TEST_F(FsDaemon, WhileItHangsItDoesNotSayThatItIsAlive) {
    const Manager manager(base / "notify");
    start();
    ASSERT_TRUE(manager.hears("WATCHDOG=1"));
    kill(daemon, SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(daemon, &status, WUNTRACED), daemon);
    while (!manager.next().empty()) {
    }
    // A turn of its loop takes a second at most.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(manager.next(), "");
    kill(daemon, SIGCONT);
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
}

// ---- With the agent's own client

class FsDaemonCmi : public FsDaemon {
  protected:
    void SetUp() override {
        FsDaemon::SetUp();
        setenv("RUMA_RUN_DIR", run_dir().c_str(), 1);
        setenv("RUMA_CONFIG", (base / "platform.toml").c_str(), 1);
    }
    static int first_device() {
        flashDeviceEntry request{};
        void *response = nullptr;
        uint32_t length = sizeof request;
        const int result = cmi_req_resp(flash::opcodeDevice, CMI_NEXT, &request, &response, &length,
                                        "test", 0, 102, 0, 4);
        free(response);
        return result;
    }
};

TEST_F(FsDaemonCmi, ADaemonThatHangsDiesOrRestartsIsFoundAgain) {
    start();
    EXPECT_TRUE(eventually([] { return first_device() == 0; }));
    // Hung: nothing answers, until it goes on.
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    EXPECT_NE(first_device(), 0);
    EXPECT_NE(first_device(), 0);
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    EXPECT_TRUE(eventually([] { return first_device() == 0; }));
    // Killed, then started again.
    stop(SIGKILL);
    EXPECT_NE(first_device(), 0);
    start();
    EXPECT_TRUE(eventually([] { return first_device() == 0; }));
    // Killed while it hangs, then started again.
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    EXPECT_NE(first_device(), 0);
    stop(SIGKILL);
    start();
    EXPECT_TRUE(eventually([] { return first_device() == 0; }));
}

} // namespace
