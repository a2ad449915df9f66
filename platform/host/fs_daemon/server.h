// The socket of the daemon and its loop.
#ifndef RUMA_FS_DAEMON_SERVER_H
#define RUMA_FS_DAEMON_SERVER_H

#include "base/unique_fd.h"
#include "fs_daemon/inventory.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>

namespace ruma {

class Server {
  public:
    // Takes the run directory for itself, creating it for `agent_user` when it is missing. Throws
    // std::runtime_error with the reason when that is impossible or another daemon serves it.
    Server(Inventory &inventory, const std::string &run_dir, std::optional<uid_t> agent_user);
    // Removes the socket.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Scans the file systems, then serves requests until SIGTERM, SIGINT or SIGHUP.
    void run();

  private:
    using Clock = std::chrono::steady_clock;
    struct Client {
        UniqueFd fd;
        uint64_t used; // when it was last heard of, in turns
    };

    void lock();
    void listen();
    void add(int fd);
    bool turn(bool busy);
    void tick();
    void accept_clients();
    void drop_idlest();
    bool serve(int fd);
    void report();

    Inventory &inventory_;
    const std::string run_dir_;
    const std::string socket_path_;
    const std::optional<uid_t> agent_user_;
    UniqueFd lock_;
    UniqueFd signals_;
    UniqueFd epoll_;
    UniqueFd listener_;
    std::map<int, Client> clients_;
    uint64_t turns_ = 0;
    bool ended_ = false;
    bool accepting_ = true;
    Clock::time_point next_tick_;
    Clock::time_point next_report_;
    uint64_t malformed_ = 0;
    uint64_t refused_ = 0;
    uint64_t reported_ = 0;
};

} // namespace ruma

#endif
