// A daemon that does what each test tells it to, and a call to it.
#ifndef HOST_CMI_FAKE_DAEMON_H
#define HOST_CMI_FAKE_DAEMON_H

#include "cmi/cmi_wire.h"
#include "ruma/cmi.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cmi {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ruma::CmiHeader;

constexpr uint32_t opcode = 0x1E5B;
constexpr uint32_t size = 204;

// One run directory for the whole program, since the platform reads its name once.
class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        char name[] = "/tmp/cmi_test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        path = name;
        setenv("RUMA_RUN_DIR", name, 1);
        std::filesystem::create_directory(daemon());
        const std::string config = path + "/platform.toml";
        std::ofstream(config) << "[agent]\nuser = \"sys\"\n[fs_daemon]\nuser = \"daemon\"\n";
        setenv("RUMA_CONFIG", config.c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(path); }

    static std::string daemon() { return path + "/fsd"; }
    static std::string socket() { return daemon() + "/" + ruma::fs_daemon_socket; }

    static inline std::string path;
};

inline const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

struct Seen {
    CmiHeader header;
    std::string payload;
    pid_t sender;
};

// What the daemon sends for a request, packet by packet; it may wait as long as it likes.
using Script = std::function<std::vector<std::string>(const Seen &)>;

inline std::string packet(const CmiHeader &header, const std::string &payload) {
    std::string result(sizeof header, '\0');
    memcpy(result.data(), &header, sizeof header);
    return result + payload;
}

inline CmiHeader good_header(const Seen &seen) {
    CmiHeader header = seen.header;
    header.magic = ruma::cmi_response_magic;
    return header;
}

inline std::vector<std::string> good(const Seen &seen) {
    return {packet(good_header(seen), std::string(seen.header.length, 'r'))};
}

inline std::vector<std::string> silent(const Seen &) { return {}; }

// A daemon in a thread: each connection has one of its own, so that it may hang.
class FakeDaemon {
  public:
    explicit FakeDaemon(Script script) : script_(std::move(script)) {
        const std::string path = RunDirectory::socket();
        unlink(path.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        acceptor_ = std::thread([this] { accept_all(); });
    }

    ~FakeDaemon() {
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        close(listener_);
        {
            const std::lock_guard lock(mutex_);
            for (const int fd : connections_) {
                shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread &thread : threads_) {
            thread.join();
        }
        for (const int fd : connections_) {
            close(fd);
        }
    }

    void follow(Script script) {
        const std::lock_guard lock(mutex_);
        script_ = std::move(script);
    }
    std::size_t connections() {
        const std::lock_guard lock(mutex_);
        return connections_.size();
    }
    std::vector<Seen> seen() {
        const std::lock_guard lock(mutex_);
        return seen_;
    }
    // Sends on the latest connection without being asked.
    void say(const std::string &text) {
        const std::lock_guard lock(mutex_);
        send(connections_.back(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    // Ends every connection, as the kernel does for a daemon that is killed.
    void hang_up() {
        const std::lock_guard lock(mutex_);
        for (const int fd : connections_) {
            shutdown(fd, SHUT_RDWR);
        }
    }

  private:
    void accept_all() {
        for (int fd = 0; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const std::lock_guard lock(mutex_);
            connections_.push_back(fd);
            threads_.emplace_back([this, fd] { serve(fd); });
        }
    }

    void serve(int fd) {
        char buffer[8192];
        for (ssize_t got = 0; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;) {
            Seen seen{};
            memcpy(&seen.header, buffer, sizeof seen.header);
            seen.payload.assign(buffer + sizeof seen.header, buffer + got);
            ucred credentials{};
            socklen_t length = sizeof credentials;
            getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
            seen.sender = credentials.pid;
            Script script;
            {
                const std::lock_guard lock(mutex_);
                seen_.push_back(seen);
                script = script_;
            }
            for (const std::string &answer : script(seen)) {
                send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
        }
    }

    std::mutex mutex_;
    Script script_;
    int listener_ = -1;
    std::thread acceptor_;
    std::vector<int> connections_;
    std::vector<std::thread> threads_;
    std::vector<Seen> seen_;
};

struct Answer {
    int result;
    std::string record;
    Clock::duration took;
    bool response_null;
};

inline Answer ask(uint32_t length = size) {
    const std::string request(length, 'q');
    void *response = reinterpret_cast<void *>(1);
    const Clock::time_point start = Clock::now();
    const int result =
        cmi_req_resp(opcode, CMI_NEXT, request.data(), &response, &length, "test", 0, 102, 0, 4);
    Answer answer{result, {}, Clock::now() - start, response == nullptr};
    if (result == 0 && response != nullptr) {
        answer.record.assign(static_cast<const char *>(response), length);
    }
    free(response);
    return answer;
}

// A call that fails without having waited takes far less than a call that waited.
constexpr auto at_once = 200ms;
constexpr auto bounded = 1000ms;

} // namespace cmi

#endif
