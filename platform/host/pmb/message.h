// A message of the message service, and its form on the wire.
#ifndef RUMA_HOST_PMB_MESSAGE_H
#define RUMA_HOST_PMB_MESSAGE_H

#include <ruma/pmb.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/un.h>

namespace ruma {

constexpr std::size_t pmb_max_payload = 1024;

// Stands before the payload in each datagram; host byte order, since both ends are on one machine.
struct PmbHeader {
    uint32_t magic;
    uint32_t version;
    uint32_t opcode;
    uint32_t length; // of the payload, in bytes
};

constexpr uint32_t pmb_magic = 0x504d4231;
constexpr uint32_t pmb_version = 1;

// The socket path of an access point.
std::string pmb_socket_path(uint32_t node, uint32_t sap);

// Makes the socket address of a path. Returns 0, or ENAMETOOLONG.
int pmb_socket_address(const std::string &path, sockaddr_un &address);

} // namespace ruma

// `node` and `sap` name the access point that received the message; the sender is the one that the
// kernel vouches for. A message made locally carries whatever its maker enters.
struct pmb_message {
    uint32_t node;
    uint32_t sap;
    uint32_t opcode;
    int32_t sender_pid;
    uint32_t sender_uid;
    uint32_t length; // of the payload, in bytes; at most pmb_max_payload
    alignas(8) unsigned char payload[ruma::pmb_max_payload];
};

namespace ruma {

// Makes a message of this process's own, as the receiver of `node` and `sap` would have got it. A
// payload longer than pmb_max_payload gives an empty one.
pmb_message pmb_make_message(uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
                             std::size_t length);

} // namespace ruma

#endif
