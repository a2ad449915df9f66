// The socket of the daemon and its loop.
#ifndef RUMA_FS_DAEMON_SERVER_H
#define RUMA_FS_DAEMON_SERVER_H

#include "base/unique_fd.h"
#include "fs_daemon/inventory.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace ruma {

class Server {
  public:
    // The configured users; nothing means the daemon's own.
    struct Users {
        std::optional<uid_t> agent;  // answered beside root and the daemon's own
        std::optional<uid_t> daemon; // may own the daemon's directory likewise
    };
    enum class End { stop, restart };

    // Takes the daemon's directory for itself, creating it, and the run directory for the agent's
    // user, when they are missing. `check_configuration` throws std::exception with the reason why
    // the configuration cannot be used. Throws std::runtime_error with the reason when the
    // directory cannot be had or another daemon serves it.
    Server(Inventory &inventory, const Users &users, std::function<void()> check_configuration);
    // Removes the socket.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Scans the file systems, then serves requests until SIGTERM or SIGINT, or until SIGHUP asks
    // for a restart; one that the configuration does not permit is refused. Tells the service
    // manager, if there is one, when requests are served, and then at each tick that the loop still
    // turns.
    End run();

  private:
    using Clock = std::chrono::steady_clock;
    struct Client {
        UniqueFd fd;
        uint64_t used; // when it was last heard of, in turns
    };

    void lock();
    void listen();
    bool in_place() const;
    void look_after_socket();
    void take_signal();
    void add(int fd);
    bool turn(bool busy);
    void tick();
    void accept_clients();
    void refuse(int fd, std::optional<uid_t> user);
    void drop_idlest();
    bool serve(int fd);
    void report();

    Inventory &inventory_;
    const std::string directory_;
    const std::string socket_path_;
    const Users users_;
    const std::function<void()> check_configuration_;
    UniqueFd lock_;
    UniqueFd signals_;
    UniqueFd epoll_;
    UniqueFd listener_;
    struct stat socket_file_ {}; // of the listener
    bool socket_lost_ = false;
    std::map<int, Client> clients_;
    std::map<uid_t, Clock::time_point> refusals_; // that the log has, until they may be said again
    uint64_t turns_ = 0;
    std::optional<End> end_;
    bool accepting_ = true;
    Clock::time_point next_tick_;
    Clock::time_point next_report_;
    uint64_t malformed_ = 0;
    uint64_t refused_ = 0;
    uint64_t reported_ = 0;
};

} // namespace ruma

#endif
