#include "tftp/peer.h"

#include "tftp/packet.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <linux/errqueue.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>

namespace ruma::tftp {
namespace {

bool same_port(const sockaddr_in &a, const sockaddr_in &b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

// Whole milliseconds, rounded up: a wait that is too short would be repeated at once.
int milliseconds(Clock::duration time) {
    const auto count = std::chrono::ceil<std::chrono::milliseconds>(time).count();
    return static_cast<int>(std::min<long long>(count, INT_MAX));
}

bool says_port_unreachable(msghdr *message) {
    for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr;
         part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_RECVERR)
            continue;
        const auto *error = reinterpret_cast<const sock_extended_err *>(CMSG_DATA(part));
        return error->ee_origin == SO_EE_ORIGIN_ICMP && error->ee_type == ICMP_DEST_UNREACH &&
               error->ee_code == ICMP_PORT_UNREACH;
    }
    return false;
}

} // namespace

int Peer::open() {
    socket_ = UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_)
        return errno;
    // A system that keeps no error queue lets a closed port be one that does not answer.
    const int on = 1;
    static_cast<void>(setsockopt(socket_.get(), IPPROTO_IP, IP_RECVERR, &on, sizeof on));
    return 0;
}

int Peer::send_to(const sockaddr_in &address, std::string_view packet) const {
    // An error that is pending on the socket, from an earlier packet, is reported in place of
    // sending; the second attempt's is this packet's own.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (sendto(socket_.get(), packet.data(), packet.size(), 0,
                   reinterpret_cast<const sockaddr *>(&address), sizeof address) >= 0)
            return 0;
    }
    return errno;
}

Peer::Heard Peer::receive(Clock::time_point until) {
    // Looks at the clock each time, so that a flood of foreign datagrams ends with the wait.
    for (auto now = Clock::now(); now < until; now = Clock::now()) {
        pollfd wait{socket_.get(), POLLIN, 0};
        if (poll(&wait, 1, milliseconds(until - now)) <= 0)
            continue;
        if ((wait.revents & POLLERR) != 0 && port_is_closed())
            return Heard::closed;
        if (take_datagram())
            return Heard::datagram;
    }
    return Heard::silence;
}

// Reads one datagram. False when there is none to look at.
bool Peer::take_datagram() {
    socklen_t size = sizeof sender_;
    const ssize_t length = recvfrom(socket_.get(), buffer_.data(), buffer_.size(), 0,
                                    reinterpret_cast<sockaddr *>(&sender_), &size);
    if (length < 0 || sender_.sin_addr.s_addr != server_.sin_addr.s_addr)
        return false;
    length_ = static_cast<std::size_t>(length);
    if (settled_ && !same_port(sender_, server_)) {
        turn_away();
        return false;
    }
    return true;
}

// Empties the error queue. Other news than that of a closed port may be passing, or false.
bool Peer::port_is_closed() const {
    bool closed = false;
    for (;;) {
        sockaddr_in destination{};
        alignas(cmsghdr) char control[512];
        msghdr message{};
        message.msg_name = &destination;
        message.msg_namelen = sizeof destination;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (recvmsg(socket_.get(), &message, MSG_ERRQUEUE) < 0)
            return closed;
        closed = closed || (same_port(destination, server_) && says_port_unreachable(&message));
    }
}

void Peer::settle() {
    server_ = sender_;
    settled_ = true;
}

void Peer::turn_away() {
    // An error in answer to an error could go back and forth forever.
    const std::optional<Packet> packet = parse(datagram());
    if (!packet || packet->opcode != Opcode::error)
        send_to(sender_, error(ErrorCode::unknown_port, "Unknown transfer ID"));
}

} // namespace ruma::tftp
