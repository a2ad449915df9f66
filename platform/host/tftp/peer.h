// The socket of one transfer, which listens to one server.
#ifndef RUMA_HOST_TFTP_PEER_H
#define RUMA_HOST_TFTP_PEER_H

#include "base/unique_fd.h"

#include <chrono>
#include <cstddef>
#include <netinet/in.h>
#include <string_view>
#include <vector>

namespace ruma::tftp {

using Clock = std::chrono::steady_clock;

// Datagrams from other addresses than the server's are dropped. The server answers a request from
// any port of its own; the one that settle() accepts is then the only one heard and sent to, and
// whatever comes from another port of that address is answered with error 5 and dropped.
//
// The socket is not connected, so that this side sees those datagrams; that the server's port is
// closed it learns from the kernel's error queue, in which every entry names the port meant.
class Peer {
  public:
    enum class Heard { datagram, silence, closed };

    explicit Peer(const sockaddr_in &server) : server_(server), buffer_(buffer_size) {}

    // Opens the socket. Returns 0 or an errno.
    int open();

    // Sends to the settled port, before that to the one of the constructor. Returns 0 or an errno.
    int send(std::string_view packet) { return send_to(server_, packet); }

    // Waits for a datagram until the time given: silence when none comes, closed when the port last
    // sent to is.
    Heard receive(Clock::time_point until);

    // What was heard last, valid until the next call of receive().
    std::string_view datagram() const { return {buffer_.data(), length_}; }

    // Accepts the sender of datagram() as the server's side of this transfer.
    void settle();
    bool settled() const { return settled_; }

    // Answers datagram() with error 5.
    void turn_away();

  private:
    // Above the largest packet, so that one that breaks the agreement shows.
    static constexpr std::size_t buffer_size = 2048;

    int send_to(const sockaddr_in &address, std::string_view packet) const;
    bool take_datagram();
    bool port_is_closed() const;

    sockaddr_in server_;
    sockaddr_in sender_{}; // of datagram()
    bool settled_ = false;
    UniqueFd socket_;
    std::vector<char> buffer_;
    std::size_t length_ = 0;
};

} // namespace ruma::tftp

#endif
