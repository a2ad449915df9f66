#include "base/peer.h"

#include "base/printable.h"

#include <cerrno>
#include <pwd.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace ruma {
namespace {

struct User {
    uid_t number;
    std::string name;
};

// Asks the user directory by one of its two calls.
template <typename Call>
std::optional<User> look_up(const Call &call) {
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd *found = nullptr;
    int result = 0;
    while ((result = call(&entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1U << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (result != 0 || found == nullptr) {
        return std::nullopt;
    }
    return User{entry.pw_uid, entry.pw_name};
}

} // namespace

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
    const auto entry = look_up([&](auto... rest) { return getpwnam_r(name.c_str(), rest...); });
    return entry ? std::optional(entry->number) : std::nullopt;
}

std::string user_name(uid_t user) {
    const auto entry = look_up([&](auto... rest) { return getpwuid_r(user, rest...); });
    return entry ? printable(entry->name) : std::to_string(user);
}

std::string user_text(uid_t user) {
    const std::string number = std::to_string(user);
    const std::string name = user_name(user);
    return name == number ? number : number + " (" + name + ")";
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
