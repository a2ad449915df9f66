#include "pmb/receiver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace ruma {
namespace {

// Bounds the time that a flood of bad messages can take from the receiver's loop at once.
constexpr int max_datagrams_per_call = 64;

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

UniqueFd make_socket() {
    return UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Returns 0 when a receiver may take the path: nothing is there, or a socket that nobody holds.
int check_free(const std::string &path, const sockaddr_un &address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(status.st_mode))
        return EEXIST;
    const UniqueFd probe = make_socket();
    if (!probe)
        return errno;
    const int error = connect(probe.get(), generic(address), sizeof address) == 0 ? 0 : errno;
    if (error == ECONNREFUSED || error == ENOENT)
        return 0;
    return error == 0 ? EADDRINUSE : error;
}

// Binds under a name of this process's own first and moves that into place: a sender finds the old
// socket or the new one, but never none.
int bind_in_place(int socket, const std::string &path) {
    const std::string own = path + "." + std::to_string(getpid());
    sockaddr_un address{};
    if (const int error = pmb_socket_address(own, address))
        return error;
    if (unlink(own.c_str()) != 0 && errno != ENOENT)
        return errno;
    // Everybody may send: the credentials that come with each message decide. The mode comes with
    // the socket, since the name may be another file's as soon as the socket has it: the directory
    // can belong to a user who must not use this process's rights.
    const mode_t mask = umask(0111);
    const int bound = bind(socket, generic(address), sizeof address);
    const int bind_error = errno;
    umask(mask);
    if (bound != 0)
        return bind_error;
    if (rename(own.c_str(), path.c_str()) == 0)
        return 0;
    const int error = errno;
    unlink(own.c_str());
    return error;
}

} // namespace

int PmbReceiver::open(uint32_t node, uint32_t sap) {
    if (socket_)
        return EISCONN;
    const std::string path = pmb_socket_path(node, sap);
    sockaddr_un address{};
    if (const int error = pmb_socket_address(path, address))
        return error;
    if (const int error = check_free(path, address))
        return error;
    UniqueFd opened = make_socket();
    if (!opened)
        return errno;
    // Before the socket has a name, so that no message can arrive without credentials.
    const int on = 1;
    if (setsockopt(opened.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return errno;
    if (const int error = bind_in_place(opened.get(), path))
        return error;
    if (lstat(path.c_str(), &file_) != 0)
        return errno;
    node_ = node;
    sap_ = sap;
    socket_ = std::move(opened);
    return 0;
}

bool PmbReceiver::in_place() const {
    struct stat status {};
    return lstat(pmb_socket_path(node_, sap_).c_str(), &status) == 0 &&
           status.st_dev == file_.st_dev && status.st_ino == file_.st_ino;
}

bool PmbReceiver::receive(pmb_message &message) {
    for (int i = 0; i < max_datagrams_per_call; ++i) {
        PmbHeader header{};
        iovec parts[] = {{&header, sizeof header}, {message.payload, sizeof message.payload}};
        // Room for the credentials and nothing else: descriptors that a sender attaches are
        // discarded by the kernel.
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(ucred))];
        msghdr datagram{};
        datagram.msg_iov = parts;
        datagram.msg_iovlen = 2;
        datagram.msg_control = control;
        datagram.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(socket_.get(), &datagram, MSG_CMSG_CLOEXEC);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return false;

        ucred sender{};
        bool vouched = false;
        const cmsghdr *info = CMSG_FIRSTHDR(&datagram);
        if (info != nullptr && info->cmsg_level == SOL_SOCKET &&
            info->cmsg_type == SCM_CREDENTIALS && info->cmsg_len == CMSG_LEN(sizeof sender)) {
            std::memcpy(&sender, CMSG_DATA(info), sizeof sender);
            vouched = true;
        }
        if (!vouched || sender.uid != geteuid()) {
            ++counters_.foreign;
            continue;
        }
        if ((datagram.msg_flags & MSG_TRUNC) != 0) {
            ++counters_.truncated;
            continue;
        }
        if (static_cast<std::size_t>(size) < sizeof header || header.magic != pmb_magic ||
            header.version != pmb_version ||
            header.length != static_cast<std::size_t>(size) - sizeof header ||
            (datagram.msg_flags & MSG_CTRUNC) != 0) {
            ++counters_.malformed;
            continue;
        }
        message.node = node_;
        message.sap = sap_;
        message.opcode = header.opcode;
        message.sender_pid = sender.pid;
        message.sender_uid = sender.uid;
        message.length = header.length;
        ++counters_.delivered;
        return true;
    }
    return false;
}

bool PmbReceiver::waiting() const {
    pollfd socket{socket_.get(), POLLIN, 0};
    return poll(&socket, 1, 0) > 0;
}

} // namespace ruma
