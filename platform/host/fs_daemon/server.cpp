#include "fs_daemon/server.h"

#include "base/peer.h"
#include "base/run_directory.h"
#include "cmi/cmi_wire.h"
#include "config/config.h"
#include "flash_codes.h"
#include "ruma/cmi.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <systemd/sd-daemon.h>
#include <utility>

namespace ruma {
namespace {

constexpr std::size_t max_clients = 64;
constexpr std::chrono::seconds tick_interval{1};
constexpr std::chrono::milliseconds moves_interval{100};
constexpr std::chrono::seconds report_interval{60};
constexpr std::chrono::minutes refusal_interval{10};
// A first scan may take as long as it needs, as long as it goes on.
constexpr const char *scan_goes_on = "EXTEND_TIMEOUT_USEC=30000000";

// One kind of request. Key words that a record does not have stay 0.
struct Request {
    uint32_t opcode;
    uint32_t size;
    std::size_t key_words;
    bool (*answer)(Inventory &inventory, const FileKey &key, bool next, void *record);
};

template <class Record, bool (Inventory::*look_up)(const FileKey &, bool, Record &)>
bool answer(Inventory &inventory, const FileKey &key, bool next, void *record) {
    Record found{};
    if (!(inventory.*look_up)(key, next, found)) {
        return false;
    }
    memcpy(record, &found, sizeof found);
    return true;
}

constexpr Request requests[] = {
    {flash::opcodeDevice, sizeof(flashDeviceEntry), 1,
     answer<flashDeviceEntry, &Inventory::device>},
    {flash::opcodePartition, sizeof(flashPartitionEntry), 2,
     answer<flashPartitionEntry, &Inventory::partition>},
    {flash::opcodeFile, flashFileRequestSize, 3, answer<flashFileEntry, &Inventory::file>},
};

struct Packet {
    CmiHeader header;
    unsigned char record[flashFileRequestSize];
};
static_assert(sizeof(Packet) == sizeof(CmiHeader) + flashFileRequestSize);

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": too long for a socket");
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

UniqueFd make_socket() {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        fail("socket");
    }
    return fd;
}

// The request that a packet of `length` bytes holds, or null.
const Request *recognise(const Packet &packet, std::size_t length) {
    const CmiHeader &header = packet.header;
    if (length < sizeof header || header.magic != cmi_request_magic || header.result != 0 ||
        (header.message_type != CMI_EXACT && header.message_type != CMI_NEXT)) {
        return nullptr;
    }
    const auto known =
        std::find_if(std::begin(requests), std::end(requests),
                     [&](const Request &request) { return request.opcode == header.opcode; });
    if (known == std::end(requests) || header.length != known->size ||
        length != sizeof header + known->size) {
        return nullptr;
    }
    return known;
}

} // namespace

Server::Server(Inventory &inventory, const Users &users, std::function<void()> check_configuration)
    : inventory_(inventory), directory_(fs_daemon_dir()),
      socket_path_(directory_ + "/" + fs_daemon_socket), users_(users),
      check_configuration_(std::move(check_configuration)) {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGHUP);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    signals_ = UniqueFd(signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC));
    epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    if (!signals_ || !epoll_) {
        fail("signalfd or epoll");
    }
    add(signals_.get());
    for (const int fd : inventory_.descriptors()) {
        add(fd);
    }
    lock();
}

Server::~Server() {
    if (listener_ && in_place()) {
        unlink(socket_path_.c_str());
    }
}

void Server::add(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        fail("epoll");
    }
}

void Server::lock() {
    prepare_run_dir(run_dir(), users_.agent);
    prepare_run_dir(directory_, users_.daemon);
    const std::string path = directory_ + "/fs_daemon.lock";
    lock_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock_) {
        fail(path);
    }
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            fail(path);
        }
        throw std::runtime_error("another daemon serves " + directory_);
    }
}

void Server::listen() {
    const sockaddr_un address = address_of(socket_path_);
    struct stat status {};
    if (lstat(socket_path_.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) {
            throw std::runtime_error(socket_path_ + " is not a socket");
        }
        const UniqueFd probe = make_socket();
        if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
                0 ||
            errno != ECONNREFUSED) {
            throw std::runtime_error("another daemon serves " + socket_path_);
        }
        if (unlink(socket_path_.c_str()) != 0) {
            fail(socket_path_);
        }
    }
    UniqueFd fd = make_socket();
    // Everybody may connect; who is answered is decided by what the kernel says of the peer.
    const mode_t mask = umask(0111);
    const int bound = bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(mask);
    if (bound != 0) {
        fail(socket_path_);
    }
    if (lstat(socket_path_.c_str(), &socket_file_) != 0) {
        fail(socket_path_);
    }
    listener_ = std::move(fd);
    if (::listen(listener_.get(), static_cast<int>(max_clients)) != 0) {
        fail(socket_path_);
    }
    add(listener_.get());
}

// Whether the name of the socket still means this daemon's.
bool Server::in_place() const {
    struct stat status {};
    return lstat(socket_path_.c_str(), &status) == 0 && status.st_dev == socket_file_.st_dev &&
           status.st_ino == socket_file_.st_ino;
}

// Makes the socket again when somebody has taken it or its directory away; until that is possible
// the clients that are connected are served.
void Server::look_after_socket() {
    if (in_place()) {
        return;
    }
    try {
        lock_ = {};
        lock();
        listen();
        fprintf(stderr, "fs_daemon: %s had gone and has been made again\n", socket_path_.c_str());
        socket_lost_ = false;
    } catch (const std::runtime_error &error) {
        if (!socket_lost_) {
            fprintf(stderr, "fs_daemon: %s has gone: %s\n", socket_path_.c_str(), error.what());
        }
        socket_lost_ = true;
    }
}

Server::End Server::run() {
    sd_notify(0, "STATUS=Scanning the file systems");
    inventory_.tick();
    bool busy = true;
    while (!end_) {
        busy = turn(busy);
        // Whoever finds the socket finds the whole inventory.
        if (!listener_ && !busy) {
            listen();
            sd_notify(0, "READY=1\nSTATUS=Serving the inventory");
        }
    }
    sd_notify(0, "STOPPING=1");
    next_report_ = {};
    report();
    return *end_;
}

void Server::take_signal() {
    signalfd_siginfo signal{};
    if (read(signals_.get(), &signal, sizeof signal) != sizeof signal) {
        return;
    }
    if (signal.ssi_signo != SIGHUP) {
        end_ = End::stop;
        return;
    }
    try {
        check_configuration_();
        end_ = End::restart;
    } catch (const std::exception &error) {
        fprintf(stderr, "fs_daemon: not started again: %s\n", error.what());
    }
}

// Waits for something to happen and deals with it. Changes of the file systems come before
// requests, so that a request sees every change made before it was sent. Returns whether scans are
// left to do.
bool Server::turn(bool busy) {
    ++turns_;
    const Clock::time_point now = Clock::now();
    const Clock::time_point wake =
        inventory_.moves_pending() ? std::min(now + moves_interval, next_tick_) : next_tick_;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
    epoll_event events[max_clients + 64];
    const int count = epoll_wait(epoll_.get(), events, static_cast<int>(std::size(events)),
                                 busy || wait <= 0 ? 0 : static_cast<int>(wait));
    if (count < 0 && errno != EINTR) {
        fail("epoll");
    }
    inventory_.take_events();
    const bool more = inventory_.scan();

    bool knocking = false;
    for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        if (fd == signals_.get()) {
            take_signal();
        } else if (fd == listener_.get()) {
            knocking = true;
        } else if (clients_.contains(fd) && !serve(fd)) {
            clients_.erase(fd);
        }
    }
    // Last, since a new client may get the number of one that just left.
    if (knocking) {
        accept_clients();
    }
    if (Clock::now() >= next_tick_) {
        tick();
    }
    return more;
}

void Server::tick() {
    inventory_.tick();
    if (listener_ && !accepting_) {
        accepting_ = true;
        add(listener_.get());
    }
    if (listener_) {
        look_after_socket();
    }
    sd_notify(0, listener_ ? "WATCHDOG=1" : scan_goes_on);
    report();
    next_tick_ = Clock::now() + tick_interval;
}

void Server::accept_clients() {
    // Not without end: whoever keeps connecting must not keep the others waiting.
    for (std::size_t turn = 0; turn < max_clients; ++turn) {
        UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN) {
                // Out of descriptors or memory: leave the queue alone until the next tick.
                fprintf(stderr, "fs_daemon: accept: %s\n", strerror(errno));
                epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
                accepting_ = false;
            }
            return;
        }
        const std::optional<uid_t> user = peer_user(fd.get());
        if (!user || !is_trusted(*user, users_.agent)) {
            ++refused_;
            refuse(fd.get(), user);
            continue;
        }
        if (clients_.size() == max_clients) {
            drop_idlest();
        }
        const int number = fd.get();
        add(number);
        clients_.emplace(number, Client{std::move(fd), turns_});
    }
}

// Tells a client that its user is not answered, and the log whom to configure if that is the agent.
void Server::refuse(int fd, std::optional<uid_t> user) {
    CmiHeader header{};
    header.magic = cmi_response_magic;
    header.result = cmi_refused;
    static_cast<void>(send(fd, &header, sizeof header, MSG_DONTWAIT | MSG_NOSIGNAL));
    const Clock::time_point now = Clock::now();
    std::erase_if(refusals_, [now](const auto &each) { return now >= each.second; });
    if (!user || refusals_.size() == max_clients ||
        !refusals_.emplace(*user, now + refusal_interval).second) {
        return;
    }
    fprintf(stderr,
            "fs_daemon: refuses user %s: if the agent is that user's, set [agent] user = \"%s\" in "
            "%s and restart the daemon\n",
            user_text(*user).c_str(), user_name(*user).c_str(), config_path().c_str());
}

// Makes room: a client that finds its connection closed makes a new one when it needs it.
void Server::drop_idlest() {
    clients_.erase(
        std::min_element(clients_.begin(), clients_.end(), [](const auto &a, const auto &b) {
            return a.second.used < b.second.used;
        }));
}

// Answers one request. Returns false when the connection is to be closed.
bool Server::serve(int fd) {
    Packet packet;
    const ssize_t got = recv(fd, &packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
    clients_.at(fd).used = turns_;
    const Request *request = recognise(packet, static_cast<std::size_t>(got));
    if (request == nullptr) {
        ++malformed_;
        return false;
    }
    uint32_t words[3] = {};
    memcpy(words, packet.record, request->key_words * sizeof words[0]);

    CmiHeader &header = packet.header;
    const bool next = header.message_type == CMI_NEXT;
    memset(packet.record, 0, sizeof packet.record);
    const bool found =
        request->answer(inventory_, {words[0], words[1], words[2]}, next, packet.record);
    header.magic = cmi_response_magic;
    header.result = found ? cmi_ok : cmi_no_such_record;
    header.length = found ? request->size : 0;
    const std::size_t length = sizeof header + header.length;
    // A client that does not take its answers is not waited for.
    return send(fd, &packet, length, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

void Server::report() {
    if (malformed_ + refused_ != reported_ && Clock::now() >= next_report_) {
        fprintf(
            stderr, "fs_daemon: %llu malformed requests, %llu connections of other users refused\n",
            static_cast<unsigned long long>(malformed_), static_cast<unsigned long long>(refused_));
        reported_ = malformed_ + refused_;
        next_report_ = Clock::now() + report_interval;
    }
}

} // namespace ruma
