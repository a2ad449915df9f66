// The file-system daemon: serves the inventory of the configured file systems to the SNMP agent.
#include "base/peer.h"
#include "config/config.h"
#include "fs_daemon/confinement.h"
#include "fs_daemon/server.h"

#include <cerrno>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sys/stat.h>
#include <sysexits.h>

namespace {

// Asks whoever supervises the daemon to start it again, with the configuration as it is now.
constexpr int restart_status = EX_TEMPFAIL;

// Like ruma::config(), but a file that cannot be used, or that was named and is missing, is an
// error.
ruma::Config read_config() {
    const char *name = getenv("RUMA_CONFIG");
    const bool named = name != nullptr && *name != '\0';
    struct stat status {};
    if (!named && stat(ruma::config_path().c_str(), &status) != 0 && errno == ENOENT) {
        return ruma::config();
    }
    return ruma::load_config(ruma::config_path());
}

int serve(const ruma::WatchLimits &limits) {
    const ruma::Config config = read_config();
    const ruma::Server::Users users{ruma::configured_user_number(config.agent_user),
                                    ruma::configured_user_number(config.fs_daemon_user)};
    ruma::Inventory inventory(config.file_systems, limits);
    ruma::Server server(inventory, users, [] { read_config(); });
    if (config.confine_fs_daemon) {
        ruma::confine_daemon();
    }
    return server.run() == ruma::Server::End::restart ? restart_status : EXIT_SUCCESS;
}

int run(int argc, char **argv) {
    CLI::App app("Serves the inventory of the flash file systems to the SNMP agent", "fs_daemon");
    std::string config_path;
    std::string run_dir;
    bool foreground = true;
    ruma::WatchLimits limits;
    int64_t rescan_seconds = limits.rescan_interval.count();
    app.add_option("--config", config_path,
                   "Configuration file; default $RUMA_CONFIG or /etc/ruma/platform.toml");
    app.add_option("--run-dir", run_dir,
                   "Directory of the agent's and, in fsd, the daemon's files; default "
                   "$RUMA_RUN_DIR or /run/ruma");
    app.add_flag("--foreground", foreground, "Stay in the foreground: always the case");
    app.add_option("--max-watches", limits.max_watches,
                   "Directories to watch of each file system; changes in others are found by "
                   "scanning. Default: as many as the kernel grants");
    app.add_option("--rescan-interval", rescan_seconds,
                   "Seconds between scans of a file system that is not watched completely")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.set_version_flag("--version", std::string("fs_daemon ") + RUMA_VERSION);
    CLI11_PARSE(app, argc, argv);

    limits.rescan_interval = std::chrono::seconds(rescan_seconds);
    if (!config_path.empty()) {
        setenv("RUMA_CONFIG", config_path.c_str(), 1);
    }
    if (!run_dir.empty()) {
        setenv("RUMA_RUN_DIR", run_dir.c_str(), 1);
    }
    return serve(limits);
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "fs_daemon: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
