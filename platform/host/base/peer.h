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

// Whether `user` may talk to this process: root, this process's own user, or `configured`.
bool is_trusted(uid_t user, std::optional<uid_t> configured);

} // namespace ruma

#endif
