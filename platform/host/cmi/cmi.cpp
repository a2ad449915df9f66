// cmi_req_resp: the client of the file-system daemon.
//
// One connection is kept per process. A request that was not answered in time stays outstanding on
// it; as long as its answer has not arrived, the daemon is hung and further calls fail without
// waiting. A daemon that ended closes the connection, so its successor is found by the next call.
#include "ruma/cmi.h"

#include "base/peer.h"
#include "base/presence.h"
#include "base/system_error.h"
#include "cmi/cmi_wire.h"
#include "cmi/daemon_state.h"
#include "config/config.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

constexpr std::chrono::milliseconds call_limit{300};
constexpr uint32_t max_payload = 65536;

struct Free {
    void operator()(void *memory) const { free(memory); }
};
using Payload = std::unique_ptr<void, Free>;

struct Packet {
    ruma::CmiHeader header{};
    std::size_t payload = 0; // bytes received behind the header
};

enum class Received { packet, nothing, ended, malformed };

// Whether `fd` has something to read, or has ended, before the deadline.
bool readable(int fd, Deadline deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

// Takes one packet without waiting. What does not fit into `capacity` bytes of payload is
// malformed.
Received receive(int fd, Packet &packet, void *payload, std::size_t capacity) {
    iovec parts[] = {{&packet.header, sizeof packet.header}, {payload, capacity}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t got = 0;
    bool reset = false; // comes before what the daemon said when it closed without reading
    do {
        got = recvmsg(fd, &message, MSG_DONTWAIT);
    } while (got < 0 && (errno == EINTR || (errno == ECONNRESET && !std::exchange(reset, true))));
    if (got < 0) {
        return errno == EAGAIN ? Received::nothing : Received::ended;
    }
    if (got == 0) {
        return Received::ended;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0 ||
        static_cast<std::size_t>(got) < sizeof packet.header ||
        packet.header.magic != ruma::cmi_response_magic) {
        return Received::malformed;
    }
    packet.payload = static_cast<std::size_t>(got) - sizeof packet.header;
    return Received::packet;
}

class Connection {
  public:
    // Sends the request and waits for its answer. On success `payload` holds `length` bytes.
    bool call(uint32_t opcode, uint32_t message_type, const void *request, void *payload,
              uint32_t length, Deadline deadline);

    // What the last call has found out about the daemon.
    ruma::DaemonState state() const { return state_; }
    const std::string &detail() const { return detail_; }

  private:
    bool settle();
    bool open();
    void close();
    bool fail(ruma::DaemonState state, std::string detail = {});
    bool refused();
    bool send(const ruma::CmiHeader &header, const void *request);

    int fd_ = -1;
    pid_t owner_ = 0;
    uint32_t tag_ = 0;
    bool outstanding_ = false;
    ruma::DaemonState state_ = ruma::DaemonState::unknown;
    std::string detail_;
};

// Whether a daemon of this user is believed: root, this process's own user, the one configured.
bool may_serve(uid_t user) {
    const ruma::Config &config = ruma::config();
    const std::string &daemon =
        config.fs_daemon_user.empty() ? config.agent_user : config.fs_daemon_user;
    return ruma::is_trusted(user, std::nullopt) ||
           (!daemon.empty() && user == ruma::user_number(daemon));
}

void Connection::close() {
    ::close(fd_);
    fd_ = -1;
    outstanding_ = false;
}

// Returns false, as the call does that finds out.
bool Connection::fail(ruma::DaemonState state, std::string detail) {
    state_ = state;
    detail_ = std::move(detail);
    return false;
}

bool Connection::refused() {
    const std::string user = ruma::user_name(geteuid());
    return fail(ruma::DaemonState::refusing, ruma::user_text(geteuid()) +
                                                 ": set [agent] user = \"" + user + "\" in " +
                                                 ruma::config_path() + " and restart it");
}

bool Connection::open() {
    using ruma::DaemonState;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = ruma::fs_daemon_dir() + "/" + ruma::fs_daemon_socket;
    if (path.size() >= sizeof address.sun_path) {
        return fail(DaemonState::down, path + ": too long for a socket");
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);

    // Of a Unix socket, connect succeeds or fails at once; a full queue is a failure too.
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return fail(DaemonState::down, ruma::system_error_text(errno, "socket"));
    }
    owner_ = getpid();
    outstanding_ = false;
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        close();
        return fail(error == EAGAIN ? DaemonState::hung : DaemonState::down,
                    ruma::system_error_text(error, path));
    }
    const std::optional<uid_t> server = ruma::peer_user(fd_);
    if (!server || !may_serve(*server)) {
        close();
        const uid_t user = server.value_or(static_cast<uid_t>(-1));
        return fail(DaemonState::untrusted, ruma::user_text(user) +
                                                ", who is not believed: set [fs_daemon] user = \"" +
                                                ruma::user_name(user) + "\" in " +
                                                ruma::config_path() + " and restart the agent");
    }
    return true;
}

// Leaves a connection without anything outstanding or unread, or returns false.
bool Connection::settle() {
    if (owner_ != getpid()) {
        // Inherited over fork: it is the parent's. Its number may mean another file here by now,
        // so it is forgotten, not closed.
        fd_ = -1;
    }
    if (fd_ < 0) {
        return open();
    }
    Packet late;
    char payload[4096];
    switch (receive(fd_, late, payload, sizeof payload)) {
    case Received::nothing:
        return !outstanding_ || fail(ruma::DaemonState::hung);
    case Received::packet:
        if (outstanding_ && late.header.tag == tag_) {
            outstanding_ = false;
            return true;
        }
        break;
    case Received::ended:
    case Received::malformed:
        break;
    }
    close();
    return open();
}

bool Connection::send(const ruma::CmiHeader &header, const void *request) {
    iovec parts[] = {{const_cast<ruma::CmiHeader *>(&header), sizeof header},
                     {const_cast<void *>(request), header.length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t sent = 0;
    do {
        sent = sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool Connection::call(uint32_t opcode, uint32_t message_type, const void *request, void *payload,
                      uint32_t length, Deadline deadline) {
    using ruma::DaemonState;
    if (!settle()) {
        return false;
    }
    ++tag_;
    // What a daemon has said before it closed the connection can still be read.
    const bool sent =
        send({ruma::cmi_request_magic, tag_, opcode, message_type, 0, length}, request);
    outstanding_ = true;
    if (sent && !readable(fd_, deadline)) {
        return fail(DaemonState::hung);
    }
    Packet answer;
    const Received received = receive(fd_, answer, payload, length);
    if (received == Received::nothing) {
        return fail(DaemonState::hung);
    }
    const ruma::CmiHeader &header = answer.header;
    if (received == Received::packet && header.result == ruma::cmi_refused && header.tag == 0) {
        close();
        return refused();
    }
    if (received == Received::ended || !sent) {
        close();
        return fail(DaemonState::down, "it has closed the connection");
    }
    if (received != Received::packet || header.tag != tag_ || header.opcode != opcode ||
        header.message_type != message_type || header.length != answer.payload ||
        answer.payload != (header.result == ruma::cmi_ok ? length : 0)) {
        close();
        return fail(DaemonState::down, "it has given an answer of another form");
    }
    outstanding_ = false;
    state_ = DaemonState::up;
    return header.result == ruma::cmi_ok;
}

} // namespace

// The wait is this platform's own, so the arguments that steer it elsewhere are not looked at.
int cmi_req_resp(uint32_t opcode, uint32_t message_type, const void *request, void **response,
                 uint32_t *length, const char * /*client*/, int /*flags*/, int /*timeout*/,
                 int /*response_queue*/, int /*options*/) {
    static std::timed_mutex mutex;
    static Connection connection;

    ruma::miss_agent_module();
    if (response == nullptr) {
        return -1;
    }
    *response = nullptr;
    if (request == nullptr || length == nullptr || *length == 0 || *length > max_payload) {
        return -1;
    }
    try {
        const Deadline deadline = Clock::now() + call_limit;
        std::unique_lock lock(mutex, deadline);
        Payload payload(malloc(*length));
        if (!lock || !payload) {
            return -1;
        }
        const bool found =
            connection.call(opcode, message_type, request, payload.get(), *length, deadline);
        ruma::note_daemon_state(connection.state(), connection.detail());
        if (!found) {
            return -1;
        }
        *response = payload.release();
        return 0;
    } catch (...) {
        return -1;
    }
}
