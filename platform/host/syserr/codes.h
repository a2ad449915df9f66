// Platform error codes of the host platform's own procedures. The texts are in syserr.cpp.
#ifndef RUMA_HOST_CODES_H
#define RUMA_HOST_CODES_H

#include <cstdint>

namespace ruma {

enum Code : int32_t {
    success = 0,

    // Device URIs and core-file URIs.
    uri_bad_argument = 0x4A010001,
    uri_malformed = 0x4A010002,
    uri_unknown_scheme = 0x4A010003,
    uri_outside = 0x4A010004,
    uri_no_directory = 0x4A010005,
    uri_not_found = 0x4A010006,
    uri_too_long = 0x4A010007,
    uri_refused = 0x4A010008,
    uri_no_memory = 0x4A010009,
    uri_no_core_files = 0x4A01000A,
    uri_not_a_file = 0x4A01000B,
    uri_foreign_character = 0x4A01000C,

    // The log dump.
    log_bad_request = 0x4A020001,
    log_not_found = 0x4A020002,
    log_not_a_file = 0x4A020003,
    log_unreadable = 0x4A020004,
    log_output_failed = 0x4A020005,
    log_no_space = 0x4A020006,
};

} // namespace ruma

#endif
