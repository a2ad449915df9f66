// The two directions of a transfer.
#ifndef RUMA_HOST_TFTP_TRANSFER_H
#define RUMA_HOST_TFTP_TRANSFER_H

#include "tftp/incoming_file.h"
#include "tftp/outcome.h"
#include "tftp/session.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>

namespace ruma::tftp {

// Each blocks until the transfer ends, at the latest by its limits, and may throw std::bad_alloc.

// Receives `name` into a file that has been opened, and commits it.
Outcome fetch(const sockaddr_in &server, const Limits &limits, const std::string &name,
              IncomingFile *file);

// Sends `size` bytes of an open file as `name`.
Outcome send(const sockaddr_in &server, const Limits &limits, const std::string &name, int file,
             uint64_t size);

} // namespace ruma::tftp

#endif
