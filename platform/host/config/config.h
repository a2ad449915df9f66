// Configuration of the host platform: which directories play the device's file systems, and where
// the platform keeps its state.
#ifndef RUMA_HOST_CONFIG_H
#define RUMA_HOST_CONFIG_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace ruma {

// One file system of the device: the scheme of its URIs, the directory that holds its files, a text
// for the operator.
struct FileSystem {
    std::string scheme;
    std::string directory;
    std::string description;
};

struct Config {
    std::vector<FileSystem> file_systems;
    std::string core_directory; // where core files lie; empty when there are none
    std::string agent_user;     // user that the agent runs as; empty means the daemon's own
    uint32_t max_rows = 10000;  // rows that each writable table holds at most
    // Whether a worker that ends without its status message completes its row as failed.
    bool report_lost_workers = false;
    bool confine_agent = false;     // whether the agent and its workers confine themselves
    std::string writable;           // where a confined agent may write besides; empty for nowhere
    std::string fs_daemon_user;     // user that fs_daemon runs as; empty means the agent's
    bool confine_fs_daemon = false; // whether fs_daemon confines itself
    bool trace_debug = false;       // whether debug messages are recorded from the start
};

// A configuration that cannot be used; what() names the file, the line and the reason.
class ConfigError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads a configuration file. Throws ConfigError.
Config load_config(const std::string &path);

// The path of this process's configuration: RUMA_CONFIG, or /etc/ruma/platform.toml.
std::string config_path();

// This process's configuration, read at the first call; the built-in default when the file does not
// exist. A file that cannot be used is reported once on standard error and gives a configuration
// without file systems: everything is refused rather than guessed. Throws std::bad_alloc; the next
// call then tries again. But where memory runs out while the parser reports a syntax error, it ends
// the process: one that must not end makes the first call when it starts.
const Config &config();

// The directory of the agent's message socket, event history and error log: RUMA_RUN_DIR, or
// /run/ruma. Read at the first call, not created: see prepare_run_dir.
const std::string &run_dir();

// The directory of what survives a boot, the known host keys: RUMA_STATE_DIR, or
// /var/lib/ruma/state. Read at the first call; whoever installs the platform makes it.
const std::string &state_dir();

// The directory of the file-system daemon's socket and lock, in the run directory.
std::string fs_daemon_dir();

} // namespace ruma

#endif
