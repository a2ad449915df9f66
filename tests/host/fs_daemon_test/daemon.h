// The file-system daemon as a process of its own, on real directories, and its client.
#ifndef HOST_FS_DAEMON_DAEMON_H
#define HOST_FS_DAEMON_DAEMON_H

#include "cmi/cmi_wire.h"
#include "flash_codes.h"
#include "flash_records.h"
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
#include <optional>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace fs_daemon {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

inline std::string slurp(const fs::path &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_file(const fs::path &path, const std::string &content = "x") {
    std::ofstream(path) << content;
}

inline std::string numbered(std::string stem, uint64_t number) {
    stem += std::to_string(number);
    return stem;
}

// Whether the condition comes true within a generous time.
inline bool eventually(const std::function<bool()> &condition) {
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

    // Whether the daemons under test are to confine themselves: these tests run once with and once
    // without.
    static bool confined() { return getenv("RUMA_TEST_CONFINED") != nullptr; }

    void configure(std::string more = "") {
        const std::string table = "[fs_daemon]\n";
        if (more.find(table) == more.npos) {
            more += table;
        }
        more.insert(more.find(table) + table.size(),
                    std::string("confine = ") + (confined() ? "true\n" : "false\n"));
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

} // namespace fs_daemon

#endif
