// The packets of TFTP (RFC 1350) and the options in them (RFC 2347), as bytes. Nothing here knows
// of sockets or files.
#ifndef RUMA_HOST_TFTP_PACKET_H
#define RUMA_HOST_TFTP_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ruma::tftp {

enum class Opcode : uint16_t {
    read_request = 1,
    write_request = 2,
    data = 3,
    acknowledgement = 4,
    error = 5,
    option_acknowledgement = 6,
};

enum class ErrorCode : uint16_t {
    undefined = 0,
    no_such_file = 1,
    no_access = 2,
    disk_full = 3,
    illegal_operation = 4,
    unknown_port = 5,
    file_exists = 6,
    no_such_user = 7,
    options_refused = 8,
};

constexpr std::size_t header_size = 4;
constexpr std::size_t max_request_size = 512;

struct Option {
    std::string name;
    std::string value;
};

// A packet that a server may send. `number` is the block of DATA and ACK and the code of ERROR.
// `payload` is the content of DATA, the text of ERROR without its terminator and the options of
// OACK as they stand there; it lies in the datagram that was parsed.
struct Packet {
    Opcode opcode;
    uint16_t number = 0;
    std::string_view payload;
};

// Takes a datagram apart; nothing when it is no packet of a server.
std::optional<Packet> parse(std::string_view datagram);

// Takes the options of an OACK apart; nothing unless they are pairs of terminated texts. Throws
// std::bad_alloc.
std::optional<std::vector<Option>> parse_options(std::string_view text);

// Each composes a packet and throws std::bad_alloc. A request may come out longer than
// max_request_size.
std::string request(Opcode opcode, std::string_view name, const std::vector<Option> &options);
std::string acknowledgement(uint16_t block);
std::string error(ErrorCode code, std::string_view text);

// The first header_size bytes of a packet, whose content is its caller's.
void write_header(char *packet, Opcode opcode, uint16_t number);

} // namespace ruma::tftp

#endif
