// Who is at the other end of a Unix socket, as the kernel knows it.
#ifndef RUMA_HOST_BASE_PEER_H
#define RUMA_HOST_BASE_PEER_H

#include <optional>
#include <string>
#include <sys/types.h>

namespace ruma {

// The user at the other end of a connected Unix socket; nothing when the kernel does not tell.
std::optional<uid_t> peer_user(int socket);

// The number of the user called `name`; nothing when there is no such user. May block on the
// system's user directory.
std::optional<uid_t> user_number(const std::string &name);

// The number of a configured user; nothing when the name is empty, which configures none. Throws
// std::runtime_error when there is no such user. May block as user_number.
std::optional<uid_t> configured_user_number(const std::string &name);

// A user for a message: number and name, "107 (Debian-snmp)", or the number alone for one that the
// user directory does not know. May block as user_number. Throws std::bad_alloc.
std::string user_text(uid_t user);

// What a configuration file calls a user: the name, or the number for one without.
std::string user_name(uid_t user);

// Whether `user` may talk to this process: root, this process's own user, or `configured`.
bool is_trusted(uid_t user, std::optional<uid_t> configured);

} // namespace ruma

#endif
