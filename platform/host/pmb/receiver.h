// The receiving end of the message service.
#ifndef RUMA_HOST_PMB_RECEIVER_H
#define RUMA_HOST_PMB_RECEIVER_H

#include "base/unique_fd.h"
#include "pmb/message.h"

#include <cstdint>
#include <sys/stat.h>

namespace ruma {

// Datagrams that a receiver has seen.
struct PmbCounters {
    uint64_t delivered;
    uint64_t foreign;   // dropped: the sender is not the receiver's user
    uint64_t malformed; // dropped: no valid header, or not the length that the header says
    uint64_t truncated; // dropped: longer than any message

    uint64_t dropped() const { return foreign + malformed + truncated; }
};

// The receiver of one access point, in one process. The socket file outlives it: the next receiver
// replaces a file that nobody listens on.
class PmbReceiver {
  public:
    PmbReceiver() = default;
    PmbReceiver(const PmbReceiver &) = delete;
    PmbReceiver &operator=(const PmbReceiver &) = delete;

    // Starts to receive. Returns 0 or an errno: EADDRINUSE when another receiver is alive, EEXIST
    // when something that is no socket stands at the path. Does not block.
    int open(uint32_t node, uint32_t sap);

    // Stops to receive; open() may start it again. What has arrived is lost, the counters stay.
    void close() { socket_ = {}; }

    // Whether senders still find this receiver: its socket file may have been removed or replaced.
    // Only while open.
    bool in_place() const;

    // The non-blocking, close-on-exec socket to wait on; -1 while not open.
    int descriptor() const { return socket_.get(); }

    // Takes the next message that passes every check; drops and counts the others. The sender must
    // be the effective user that this process has now, which may differ from the one that opened
    // the receiver. Returns false when none is there, and after a bounded number of drops.
    // Does not block.
    bool receive(pmb_message &message);

    // Tells whether datagrams wait to be received, good ones or not.
    bool waiting() const;

    const PmbCounters &counters() const { return counters_; }

  private:
    uint32_t node_ = 0;
    uint32_t sap_ = 0;
    struct stat file_ {}; // of the socket
    UniqueFd socket_;
    PmbCounters counters_{};
};

} // namespace ruma

#endif
