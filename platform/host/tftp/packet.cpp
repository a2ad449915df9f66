#include "tftp/packet.h"

#include <utility>

namespace ruma::tftp {
namespace {

constexpr std::size_t opcode_size = 2;
constexpr std::string_view transfer_mode = "octet";

uint16_t read_word(std::string_view bytes) {
    return static_cast<uint16_t>(static_cast<unsigned char>(bytes[0]) << 8 |
                                 static_cast<unsigned char>(bytes[1]));
}

void write_word(char *bytes, uint16_t value) {
    bytes[0] = static_cast<char>(value >> 8);
    bytes[1] = static_cast<char>(value & 0xff);
}

void append_text(std::string *packet, std::string_view text) {
    packet->append(text);
    packet->push_back('\0');
}

// Takes a terminated text off the front; false when there is none.
bool take_text(std::string_view *rest, std::string *text) {
    const std::size_t end = rest->find('\0');
    if (end == rest->npos)
        return false;
    *text = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return true;
}

std::string header(Opcode opcode, uint16_t number) {
    char bytes[header_size];
    write_header(bytes, opcode, number);
    return {bytes, sizeof bytes};
}

} // namespace

std::optional<Packet> parse(std::string_view datagram) {
    if (datagram.size() < opcode_size)
        return std::nullopt;
    const auto opcode = static_cast<Opcode>(read_word(datagram));
    if (opcode == Opcode::option_acknowledgement)
        return Packet{.opcode = opcode, .payload = datagram.substr(opcode_size)};
    if (datagram.size() < header_size)
        return std::nullopt;
    Packet packet{opcode, read_word(datagram.substr(opcode_size)), datagram.substr(header_size)};
    switch (opcode) {
    case Opcode::data:
    case Opcode::acknowledgement:
        return packet;
    case Opcode::error: // some servers leave its terminator out
        packet.payload = packet.payload.substr(0, packet.payload.find('\0'));
        return packet;
    default:
        return std::nullopt;
    }
}

std::optional<std::vector<Option>> parse_options(std::string_view text) {
    std::vector<Option> options;
    while (!text.empty()) {
        Option option;
        if (!take_text(&text, &option.name) || !take_text(&text, &option.value))
            return std::nullopt;
        options.push_back(std::move(option));
    }
    return options;
}

std::string request(Opcode opcode, std::string_view name, const std::vector<Option> &options) {
    std::string packet(opcode_size, '\0');
    write_word(packet.data(), static_cast<uint16_t>(opcode));
    append_text(&packet, name);
    append_text(&packet, transfer_mode);
    for (const Option &option : options) {
        append_text(&packet, option.name);
        append_text(&packet, option.value);
    }
    return packet;
}

std::string acknowledgement(uint16_t block) { return header(Opcode::acknowledgement, block); }

std::string error(ErrorCode code, std::string_view text) {
    std::string packet = header(Opcode::error, static_cast<uint16_t>(code));
    append_text(&packet, text);
    return packet;
}

void write_header(char *packet, Opcode opcode, uint16_t number) {
    write_word(packet, static_cast<uint16_t>(opcode));
    write_word(packet + opcode_size, number);
}

} // namespace ruma::tftp
