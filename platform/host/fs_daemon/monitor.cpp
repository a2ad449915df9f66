#include "fs_daemon/monitor.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace ruma {
namespace {

constexpr uint32_t watched_events = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                    IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF |
                                    IN_ONLYDIR;
constexpr uint32_t end_of_directory = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// The two halves of a move are queued one after the other, but not at one instant.
constexpr std::chrono::milliseconds move_patience{100};
// A file that was written and neither closed nor written again for so long counts as settled: the
// writer may keep it open for ever, as loggers do.
constexpr uint32_t settle_seconds = 60;
constexpr std::chrono::seconds shortest_rescan_pause{1};
// Scanning again takes at most a fifth of the time.
constexpr int rescan_pause_factor = 4;

uint32_t now_seconds() {
    const auto since = Monitor::Clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(since).count()) |
           1U; // never 0, which means no write
}

bool is_mount_point(int directory) {
    struct statx status {};
    return statx(directory, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

UniqueFd open_path(int base, const char *name) {
    return UniqueFd(openat(base, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

} // namespace

Monitor::Monitor(Catalogue &catalogue, const FileSystem &file_system, const WatchLimits &limits)
    : catalogue_(catalogue), file_system_(file_system), limits_(limits),
      device_(catalogue.add_device([this](Directory &directory) { forget(directory); })),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!inotify_) {
        throw std::system_error(errno, std::generic_category(), "inotify");
    }
    catalogue_.set_available(device_, false);
}

void Monitor::report(const std::string &text) const {
    fprintf(stderr, "fs_daemon: %s: %s\n", file_system_.scheme.c_str(), text.c_str());
}

// ---- The directory of the file system

UniqueFd Monitor::open_root() {
    // The configured directory itself may be a symbolic link: that is the administrator's choice.
    UniqueFd root(open(file_system_.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!root || fstat(root.get(), &status) != 0 || (mount_seen_ && !is_mount_point(root.get()))) {
        if (!reported_) {
            report(file_system_.directory + " is unavailable");
            reported_ = true;
        }
        if (available_) {
            available_ = false;
            catalogue_.set_available(device_, false);
            abandon_scans();
        }
        return {};
    }
    if (!available_ || status.st_dev != root_device_ || status.st_ino != root_inode_) {
        available_ = true;
        root_device_ = status.st_dev;
        root_inode_ = status.st_ino;
        mount_seen_ = mount_seen_ || is_mount_point(root.get());
        catalogue_.set_available(device_, true);
        if (reported_) {
            report(file_system_.directory + " is available");
            reported_ = false;
        }
        abandon_scans();
        start_full_scan();
    }
    return root;
}

// Goes down step by step, so that no symbolic link leads out of the file system and no other file
// system mounted in it is entered. Sets errno on failure.
UniqueFd Monitor::open_directory(const Directory &directory) {
    UniqueFd fd = open_root();
    if (&top_of(directory) != &catalogue_.root(device_)) {
        errno = ENOENT;
        return {};
    }
    if (!fd || directory.parent == nullptr) {
        return fd;
    }
    std::string path = path_of(directory);
    if (path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return {};
    }
    for (std::size_t start = 0; fd && start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        path[end] = '\0';
        fd = open_path(fd.get(), &path[start]);
        start = end + 1;
    }
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return {};
    }
    if (status.st_dev != root_device_) {
        errno = ENOENT;
        return {};
    }
    return fd;
}

std::optional<FileFacts> Monitor::look_at(const Catalogue::Entry &entry) {
    const UniqueFd directory = open_directory(*entry.directory);
    const char *name = entry.file->first.c_str();
    struct stat status {};
    if (!directory || fstatat(directory.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    FileFacts facts;
    facts.size = static_cast<uint64_t>(status.st_size);
    facts.modified = status.st_mtim;
    // Root may read everything; a file that grants nobody anything is reported all the same.
    facts.readable = (status.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) != 0 &&
                     faccessat(directory.get(), name, R_OK, AT_EACCESS) == 0;
    const uint32_t written = entry.file->second.written;
    facts.changing = written != 0 && now_seconds() - written < settle_seconds;
    return facts;
}

// ---- Watches

void Monitor::watch(Directory &directory, int fd) {
    int added = -1;
    if (directory.watch >= 0 || watches_.size() < limits_.max_watches) {
        // Through the descriptor, since the path may name another directory by now.
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        added = inotify_add_watch(inotify_.get(), path.c_str(), watched_events);
    }
    if (directory.watch != added) {
        unwatch(directory);
    }
    if (added < 0) {
        rely_on_scans();
        return;
    }
    // The kernel gives one watch to one directory, however many names it has or had.
    Directory *&owner = watches_[added];
    if (owner != nullptr && owner != &directory) {
        owner->watch = -1;
    }
    owner = &directory;
    directory.watch = added;
}

void Monitor::rely_on_scans() {
    unwatched_ = true;
    if (!limit_reported_) {
        report("not every directory can be read and watched: changes are found by scanning again");
        limit_reported_ = true;
    }
}

void Monitor::unwatch(Directory &directory) {
    if (directory.watch >= 0) {
        inotify_rm_watch(inotify_.get(), directory.watch);
        watches_.erase(directory.watch);
        directory.watch = -1;
    }
}

// Lets go of a directory that is about to be destroyed.
void Monitor::forget(Directory &directory) {
    unwatch(directory);
    if (directory.ticket != 0) {
        queue_.erase(directory.ticket);
    }
    if (scan_ && scan_->directory == &directory) {
        scan_.reset();
    }
}

// ---- Scanning

void Monitor::enqueue(Directory &directory) {
    if (directory.ticket == 0) {
        directory.ticket = ++last_ticket_;
        queue_.emplace(directory.ticket, &directory);
    }
}

void Monitor::abandon_scans() {
    scan_.reset();
    for (const auto &[ticket, directory] : queue_) {
        directory->ticket = 0;
    }
    queue_.clear();
    full_scan_ = false;
}

void Monitor::start_full_scan() {
    full_scan_ = true;
    full_scan_began_ = Clock::now();
    rescan_wanted_ = false;
    unwatched_ = false;
    enqueue(catalogue_.root(device_));
}

void Monitor::finish_full_scan() {
    full_scan_ = false;
    full_scan_ended_ = Clock::now();
    full_scan_took_ = full_scan_ended_ - full_scan_began_;
    limit_reported_ = limit_reported_ && unwatched_;
}

bool Monitor::scan(unsigned entries) {
    for (; entries > 0 && (scan_ || !queue_.empty()); --entries) {
        if (scan_) {
            step();
        } else {
            Directory &directory = *queue_.begin()->second;
            queue_.erase(queue_.begin());
            directory.ticket = 0;
            begin(directory);
        }
    }
    if (scan_ || !queue_.empty()) {
        return true;
    }
    if (full_scan_) {
        finish_full_scan();
    }
    if (available_ && (rescan_wanted_ || unwatched_)) {
        const Clock::duration wanted =
            rescan_wanted_ ? shortest_rescan_pause : limits_.rescan_interval;
        const Clock::duration pause = std::max(wanted, full_scan_took_ * rescan_pause_factor);
        if (Clock::now() - full_scan_ended_ >= pause) {
            start_full_scan();
            return true;
        }
    }
    return false;
}

// A directory that cannot be opened is left as it is: when it has gone, an event or the scan of its
// parent removes it.
void Monitor::begin(Directory &directory) {
    const UniqueFd fd = open_directory(directory);
    UniqueFd listing(fd ? openat(fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
    DIR *stream = listing ? fdopendir(listing.get()) : nullptr;
    if (stream == nullptr) {
        if (available_ && errno != ENOENT && errno != ENOTDIR && errno != ELOOP &&
            errno != ENAMETOOLONG) {
            rely_on_scans();
        }
        return;
    }
    listing.release();
    scan_ = std::make_unique<Scan>();
    scan_->directory = &directory;
    scan_->stream.reset(stream);
    ++stamp_;
    // Before the names are read, so that no later change is missed.
    watch(directory, dirfd(stream));
}

void Monitor::step() {
    switch (scan_->phase) {
    case Phase::read:
        return read_name();
    case Phase::apply:
        return apply_name();
    case Phase::sweep_files:
        return sweep_file();
    case Phase::sweep_directories:
        return sweep_directory();
    }
}

void Monitor::read_name() {
    errno = 0;
    const dirent *entry = readdir(scan_->stream.get());
    if (entry != nullptr) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            scan_->names.emplace(name);
        }
        return;
    }
    if (errno != 0) {
        rely_on_scans();
        scan_.reset();
        return;
    }
    scan_->phase = Phase::apply;
}

// In the order of the names, so that a restart gives an unchanged file system the same indexes.
void Monitor::apply_name() {
    if (scan_->names.empty()) {
        scan_->stream.reset();
        scan_->phase = Phase::sweep_files;
        return;
    }
    const std::string name = std::move(scan_->names.extract(scan_->names.begin()).value());
    meet(*scan_->directory, name, dirfd(scan_->stream.get()));
}

void Monitor::sweep_file() {
    Directory &directory = *scan_->directory;
    const auto file = directory.files.upper_bound(scan_->cursor);
    if (file == directory.files.end()) {
        scan_->cursor.clear();
        scan_->phase = Phase::sweep_directories;
        return;
    }
    scan_->cursor = file->first;
    if (file->second.seen != stamp_) {
        catalogue_.remove_file(directory, scan_->cursor);
    }
}

void Monitor::sweep_directory() {
    Directory &directory = *scan_->directory;
    const auto child = directory.directories.upper_bound(scan_->cursor);
    if (child == directory.directories.end()) {
        scan_.reset();
        return;
    }
    scan_->cursor = child->first;
    if (child->second->seen != stamp_) {
        catalogue_.remove_directory(directory, scan_->cursor);
    }
}

// Enters what a name stands for at this moment; `fd` is the directory. A name that stands for
// nothing is left alone: what has just gone may have moved, and the event that tells is on its way.
void Monitor::meet(Directory &directory, const std::string &name, int fd) {
    struct stat status {};
    if (fstatat(fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (S_ISREG(status.st_mode)) {
        catalogue_.remove_directory(directory, name);
        if (File *file = catalogue_.ensure_file(directory, name)) {
            file->seen = stamp_;
        } else if (!indexes_reported_) {
            report("no file index is left: new files are not listed");
            indexes_reported_ = true;
        }
    } else if (S_ISDIR(status.st_mode)) {
        catalogue_.remove_file(directory, name);
        Directory &child = catalogue_.ensure_directory(directory, name);
        child.seen = stamp_;
        enqueue(child);
    } else {
        drop(directory, name);
    }
}

// ---- Events

void Monitor::take_events() {
    alignas(inotify_event) char buffer[65536];
    const ssize_t length = read(inotify_.get(), buffer, sizeof buffer);
    for (ssize_t offset = 0; offset < length;) {
        const auto &event = *reinterpret_cast<const inotify_event *>(&buffer[offset]);
        handle(event);
        offset += static_cast<ssize_t>(sizeof event + event.len);
    }
    expire_moves();
}

void Monitor::handle(const inotify_event &event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        request_rescan();
        return;
    }
    const auto watched = watches_.find(event.wd);
    if (watched == watches_.end()) {
        return;
    }
    Directory &directory = *watched->second;
    if ((event.mask & IN_IGNORED) != 0) {
        watches_.erase(watched);
        directory.watch = -1;
        enqueue(directory);
    }
    if ((event.mask & end_of_directory) != 0) {
        if (directory.parent == nullptr) {
            open_root();
        }
        return;
    }
    if (event.len == 0) {
        return;
    }

    const std::string name = event.name;
    if ((event.mask & (IN_MODIFY | IN_CLOSE_WRITE)) != 0) {
        const auto file = directory.files.find(name);
        if (file != directory.files.end()) {
            file->second.written = (event.mask & IN_MODIFY) != 0 ? now_seconds() : 0;
        }
    } else if ((event.mask & IN_MOVED_FROM) != 0) {
        moved_from(directory, name, std::to_string(event.cookie));
    } else if ((event.mask & IN_MOVED_TO) != 0) {
        moved_to(directory, name, std::to_string(event.cookie));
    } else {
        if ((event.mask & IN_DELETE) != 0) {
            drop(directory, name);
        }
        reconcile(directory, name);
    }
}

void Monitor::moved_from(Directory &directory, const std::string &name, const std::string &cookie) {
    Directory &limbo = catalogue_.limbo(device_);
    if (catalogue_.move_file(directory, name, limbo, cookie) ||
        catalogue_.move_directory(directory, name, limbo, cookie)) {
        moves_.push_back({cookie, Clock::now()});
    }
    // The old name may be in use again.
    reconcile(directory, name);
}

void Monitor::moved_to(Directory &directory, const std::string &name, const std::string &cookie) {
    Directory &limbo = catalogue_.limbo(device_);
    if (!catalogue_.move_file(limbo, cookie, directory, name) &&
        !catalogue_.move_directory(limbo, cookie, directory, name)) {
        drop(directory, name);
    }
    std::erase_if(moves_, [&](const Move &move) { return move.cookie == cookie; });
    reconcile(directory, name);
}

void Monitor::drop(Directory &directory, const std::string &name) {
    catalogue_.remove_file(directory, name);
    catalogue_.remove_directory(directory, name);
}

// Makes the catalogue agree with the file system about one name, whatever the event said: it
// describes what has been, perhaps several changes ago.
void Monitor::reconcile(Directory &directory, const std::string &name) {
    const UniqueFd fd = open_directory(directory);
    if (fd) {
        meet(directory, name, fd.get());
    }
}

// Moves that no target followed led out of the file system.
void Monitor::expire_moves() {
    const Clock::time_point limit = Clock::now() - move_patience;
    while (!moves_.empty() && moves_.front().when <= limit) {
        drop(catalogue_.limbo(device_), moves_.front().cookie);
        moves_.erase(moves_.begin());
    }
}

void Monitor::tick() {
    expire_moves();
    open_root();
}

} // namespace ruma
