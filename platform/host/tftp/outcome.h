// How a transfer ended.
#ifndef RUMA_HOST_TFTP_OUTCOME_H
#define RUMA_HOST_TFTP_OUTCOME_H

#include "tftp/packet.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace ruma::tftp {

// A result of the C interface, and what it means in this case.
struct Outcome {
    int result = 0;
    std::string text;
    bool about_file = false; // an error of this side's file, not of the network
    int server_code = -1;    // of the error that the server reported; negative: it reported none
    std::string server_text; // what it said, as it came
};

// What every result of its kind means; null when that is the system's own text for an errno.
const char *sentence(int result);

// Each may throw std::bad_alloc.

// An error of this side, by its errno.
Outcome failed_here(int error);

// One that is about the local file.
Outcome failed_at_file(int error);

// An error that the server reported. Its text, which may be anything, comes out printable and cut.
Outcome failed_there(uint16_t code, std::string_view text);

// What the server is told about an error of this side.
ErrorCode told_to_server(int error);

} // namespace ruma::tftp

#endif
