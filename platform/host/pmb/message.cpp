#include "pmb/message.h"

#include "config/config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace ruma {

std::string pmb_socket_path(uint32_t node, uint32_t sap) {
    char name[64];
    std::snprintf(name, sizeof name, "/pmb-%08x-%u.sock", static_cast<unsigned>(node),
                  static_cast<unsigned>(sap));
    return run_dir() + name;
}

int pmb_socket_address(const std::string &path, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return 0;
}

pmb_message pmb_make_message(uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
                             std::size_t length) {
    pmb_message message{};
    message.node = node;
    message.sap = sap;
    message.opcode = opcode;
    message.sender_pid = static_cast<int32_t>(getpid());
    message.sender_uid = static_cast<uint32_t>(geteuid());
    if (length > 0 && length <= pmb_max_payload) {
        message.length = static_cast<uint32_t>(length);
        std::memcpy(message.payload, payload, length);
    }
    return message;
}

} // namespace ruma

extern "C" const void *pmb_payload_get(const struct pmb_message *message, uint32_t *length) {
    if (length != nullptr)
        *length = message == nullptr ? 0 : message->length;
    return message == nullptr ? nullptr : message->payload;
}
