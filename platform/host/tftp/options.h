// What client and server agree on beyond the protocol's own rules: block size (RFC 2348), time
// until a retransmission and size of the file (RFC 2349).
#ifndef RUMA_HOST_TFTP_OPTIONS_H
#define RUMA_HOST_TFTP_OPTIONS_H

#include "tftp/packet.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ruma::tftp {

constexpr std::size_t standard_block_size = 512;
constexpr std::size_t wanted_block_size = 1468; // fills an Ethernet frame

// What a request asks for. The size is that of the file to send, 0 in a request to read.
struct Offer {
    std::size_t block_size = wanted_block_size;
    unsigned timeout = 1; // in seconds, 1 to 255
    uint64_t size = 0;
};

// What holds for a transfer; as it stands, with a server that knows no options.
struct Agreement {
    std::size_t block_size = standard_block_size;
    std::optional<unsigned> timeout; // in seconds
    std::optional<uint64_t> size;    // as the server gives it
};

// The offer as the options of a request. Throws std::bad_alloc.
std::vector<Option> options_of(const Offer &offer);

// Reads a server's answer to the offer, the payload of an OACK. Nothing when it is malformed, holds
// an option that was not offered or one twice, or goes beyond the offer. Throws std::bad_alloc.
std::optional<Agreement> agree(const Offer &offer, std::string_view answer);

} // namespace ruma::tftp

#endif
