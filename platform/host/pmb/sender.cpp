#include "pmb/message.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr int sending_queue = 1;
constexpr int no_access_point = -1;
constexpr auto max_wait = std::chrono::seconds(2);

int fail(int error) {
    errno = error;
    return -1;
}

int destination(uint32_t node, uint32_t sap, sockaddr_un &address) {
    try {
        return ruma::pmb_socket_address(ruma::pmb_socket_path(node, sap), address);
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

// Lets the next send on `socket` wait until `deadline` at most. False when that has passed.
bool limit_wait(int socket, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<microseconds>(deadline - Clock::now()).count();
    if (left <= 0)
        return false;
    timeval limit{};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(left / 1000000);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(left % 1000000);
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

} // namespace

extern "C" {

// Answers come back in the call that asks for them here, so that one number serves every process.
int pmb_response_q = 0;

// The socket stays without a name of its own: nobody answers a message, and two senders of one name
// have nothing to collide on.
int pmb_bind(int kind, int sap, const struct pmb_queue_attributes *attributes, const char *name) {
    if (kind != sending_queue || sap != no_access_point || attributes == nullptr || name == nullptr)
        return fail(EINVAL);
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int pmb_send(int handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
             uint32_t length, const struct pmb_send_options *options) {
    if (options == nullptr || options->word[0] != 1 || (payload == nullptr && length > 0))
        return fail(EINVAL);
    if (length > ruma::pmb_max_payload)
        return fail(EMSGSIZE);
    sockaddr_un address{};
    if (const int error = destination(node, sap, address))
        return fail(error);

    ruma::PmbHeader header{ruma::pmb_magic, ruma::pmb_version, opcode, length};
    iovec parts[] = {{&header, sizeof header}, {const_cast<void *>(payload), length}};
    msghdr datagram{};
    datagram.msg_name = &address;
    datagram.msg_namelen = sizeof address;
    datagram.msg_iov = parts;
    datagram.msg_iovlen = 2;
    const auto deadline = Clock::now() + max_wait;
    while (limit_wait(handle, deadline)) {
        if (sendmsg(handle, &datagram, MSG_NOSIGNAL) >= 0)
            return 0;
        if (errno != EINTR && errno != EAGAIN)
            return -1;
    }
    return fail(Clock::now() >= deadline ? ETIMEDOUT : errno);
}

int pmb_unbind(int handle, int) {
    if (handle >= 0)
        close(handle);
    return 0;
}
}
