// Keeps the catalogue of one file system current: scans its directory, and watches it for changes.
//
// Work comes in slices, so that a file system of any size holds up nobody. No descriptor is kept
// open on the file system between scans, so that it can be unmounted.
#ifndef RUMA_FS_DAEMON_MONITOR_H
#define RUMA_FS_DAEMON_MONITOR_H

#include "base/unique_fd.h"
#include "fs_daemon/catalogue.h"
#include "fs_daemon/records.h"

#include <chrono>
#include <dirent.h>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <sys/inotify.h>
#include <unordered_map>
#include <vector>

namespace ruma {

struct WatchLimits {
    // Directories of one file system that are watched; beyond them, and beyond what the kernel
    // grants, changes are found by scanning again.
    uint32_t max_watches = UINT32_MAX;
    std::chrono::seconds rescan_interval{30};
};

class Monitor {
  public:
    using Clock = std::chrono::steady_clock;

    // Adds a device to the catalogue. Throws std::system_error without inotify.
    Monitor(Catalogue &catalogue, const FileSystem &file_system, const WatchLimits &limits);
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // Readable when there are events to take.
    int descriptor() const { return inotify_.get(); }
    void take_events();

    // Scans up to `entries` names further. Returns whether more is left to do now.
    bool scan(unsigned entries);

    // To be called about once a second, and a little after moves_pending().
    void tick();
    bool moves_pending() const { return !moves_.empty(); }

    // Scans everything again, as soon as the last time lies back far enough.
    void request_rescan() { rescan_wanted_ = true; }

    // The directory of the file system, opened; empty when it is unavailable. Notices when it has
    // gone, come back or been replaced.
    UniqueFd open_root();

    // What is known of a file of the catalogue at this moment; nothing when it has gone.
    std::optional<FileFacts> look_at(const Catalogue::Entry &entry);

  private:
    struct CloseDirectory {
        void operator()(DIR *directory) const { closedir(directory); }
    };
    enum class Phase { read, apply, sweep_files, sweep_directories };
    // The directory that is being scanned: its names are read, entered, and then whatever was not
    // met is removed.
    struct Scan {
        Directory *directory = nullptr;
        std::unique_ptr<DIR, CloseDirectory> stream;
        Phase phase = Phase::read;
        std::set<std::string> names;
        std::string cursor; // where the sweep stands
    };
    // Something that was moved away and waits in the limbo, under the name of its cookie. Where to
    // is told by a later event, or never.
    struct Move {
        std::string cookie;
        Clock::time_point when;
    };

    UniqueFd open_directory(const Directory &directory);
    void enqueue(Directory &directory);
    void forget(Directory &directory);
    void watch(Directory &directory, int fd);
    void unwatch(Directory &directory);
    void rely_on_scans();

    void start_full_scan();
    void finish_full_scan();
    void abandon_scans();
    void begin(Directory &directory);
    void step();
    void read_name();
    void apply_name();
    void sweep_file();
    void sweep_directory();

    void handle(const inotify_event &event);
    void moved_from(Directory &directory, const std::string &name, const std::string &cookie);
    void moved_to(Directory &directory, const std::string &name, const std::string &cookie);
    void drop(Directory &directory, const std::string &name);
    void reconcile(Directory &directory, const std::string &name);
    void expire_moves();
    void meet(Directory &directory, const std::string &name, int fd);
    void report(const std::string &text) const;

    Catalogue &catalogue_;
    const FileSystem file_system_;
    const WatchLimits limits_;
    const uint32_t device_;
    UniqueFd inotify_;

    bool available_ = false;
    bool reported_ = false; // that it is unavailable
    bool mount_seen_ = false;
    dev_t root_device_ = 0;
    ino_t root_inode_ = 0;

    std::unordered_map<int, Directory *> watches_;
    std::vector<Move> moves_;
    std::map<uint64_t, Directory *> queue_;
    uint64_t last_ticket_ = 0;
    std::unique_ptr<Scan> scan_;
    uint32_t stamp_ = 0;

    bool rescan_wanted_ = false;
    bool full_scan_ = false;
    bool unwatched_ = false; // some directory is known only by scanning
    bool limit_reported_ = false;
    bool indexes_reported_ = false;
    Clock::time_point full_scan_began_;
    Clock::time_point full_scan_ended_;
    Clock::duration full_scan_took_{};
};

} // namespace ruma

#endif
