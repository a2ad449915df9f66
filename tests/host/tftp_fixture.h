// What the tests of the TFTP client share: directories, addresses, content.
#ifndef TFTP_FIXTURE_H
#define TFTP_FIXTURE_H

#include "temporary_directory.h"
#include "tftp/session.h"

#include <ruma/tftp.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tftp_test {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uid_t nobody = 65534;

inline std::string content(std::size_t size) {
    std::string text(size, '\0');
    uint32_t state = 12345;
    for (char &c : text) {
        state = state * 1664525 + 1013904223;
        c = static_cast<char>(state >> 24);
    }
    return text;
}

inline unsigned permissions(const fs::path &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Two loopback addresses of this process's own, so that servers of other tests are not in the way.
inline std::string own_address(unsigned number = 0) {
    const auto pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string(64 + (pid >> 16) % 64 + 128 * number) + "." +
           std::to_string(pid >> 8 & 255) + "." + std::to_string(pid & 255);
}

inline sockaddr_in socket_address(const std::string &host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

inline double seconds_of(const std::function<void()> &body) {
    const auto began = Clock::now();
    body();
    return std::chrono::duration<double>(Clock::now() - began).count();
}

// Each test has a directory "local" of its own, the current one, and one above it.
class Tftp : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(chmod(top.path().c_str(), 0755), 0);
        fs::create_directory(local);
        ASSERT_EQ(chdir(local.c_str()), 0);
        ruma::tftp::limits() = {};
        ASSERT_EQ(tftp_timeout_set(20), 0);
        ASSERT_EQ(tftp_connect(own_address().c_str(), -1), 0);
    }

    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // Mounts a file system of 64 KiB, gone with this process at the latest.
    static void mount_small(const fs::path &where) {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", where.c_str(), "tmpfs", 0, "size=64k,mode=0777"), 0);
    }

    std::vector<std::string> local_files() const {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(local))
            names.push_back(entry.path().filename());
        return names;
    }

    int get() const { return tftp_get2("there", (local / "here").c_str(), 0); }

  private:
    TemporaryDirectory top;

  protected:
    const fs::path local = top / "local";
    const fs::path above = top.path();
};

} // namespace tftp_test

#endif
