#include "base/peer.h"

#include <cerrno>
#include <pwd.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace ruma {

std::optional<uid_t> peer_user(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        length != sizeof credentials) {
        return std::nullopt;
    }
    return credentials.uid;
}

std::optional<uid_t> user_number(const std::string &name) {
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd *found = nullptr;
    int result = 0;
    while ((result = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) ==
               ERANGE &&
           buffer.size() < (1U << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (result != 0 || found == nullptr) {
        return std::nullopt;
    }
    return entry.pw_uid;
}

std::optional<uid_t> configured_user_number(const std::string &name) {
    if (name.empty()) {
        return std::nullopt;
    }
    const std::optional<uid_t> number = user_number(name);
    if (!number) {
        throw std::runtime_error("there is no user " + name);
    }
    return number;
}

bool is_trusted(uid_t user, std::optional<uid_t> configured) {
    return user == 0 || user == geteuid() || user == configured;
}

} // namespace ruma
