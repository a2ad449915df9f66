// What travels between cmi_req_resp and a daemon: one packet each way over a Unix socket of the
// SEQPACKET kind, a header and then the record. Both ends run on one machine, so all numbers are in
// host byte order.
#ifndef RUMA_HOST_CMI_WIRE_H
#define RUMA_HOST_CMI_WIRE_H

#include <cstdint>

namespace ruma {

constexpr uint32_t cmi_request_magic = 0x434d4951;
constexpr uint32_t cmi_response_magic = 0x434d4952;

// Name of the file-system daemon's socket in its directory.
constexpr const char *fs_daemon_socket = "fs_daemon.sock";

// Results that a daemon puts into its response.
enum CmiResult : int32_t { cmi_ok = 0, cmi_no_such_record = 1, cmi_refused = 2 };

// Before a daemon closes the connection of a user whom it does not answer, it says so: a header
// with the result cmi_refused, in which all else but the magic is 0.

struct CmiHeader {
    uint32_t magic;
    uint32_t tag; // chosen by the client, repeated in the response
    uint32_t opcode;
    uint32_t message_type; // CMI_EXACT or CMI_NEXT, repeated in the response
    int32_t result;        // a CmiResult; 0 in requests
    uint32_t length;       // bytes that follow the header; 0 in a response that reports a failure
};
static_assert(sizeof(CmiHeader) == 24);

} // namespace ruma

#endif
