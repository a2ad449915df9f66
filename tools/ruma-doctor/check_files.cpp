// Directories: whose they are, who may do what in them, how much room there is.
#include "checks.h"

#include "agent/flash_directories.h"
#include "base/peer.h"
#include "base/printable.h"
#include "base/system_error.h"
#include "report/explain.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace doctor {
namespace {

constexpr std::size_t max_entries = 100000;
constexpr uint64_t little_space = 5; // per cent

std::string owner_of(const struct stat &status) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    return "owner " + ruma::user_name(status.st_uid) + " and mode " + mode;
}

// Whether somebody owns it who is neither root nor the agent's user, as whom the checks run.
bool is_foreign(const struct stat &status) {
    return status.st_uid != 0 && status.st_uid != geteuid();
}

std::string make_remedy(const std::string &owner, const std::string &path, const char *mode) {
    return "install -d " + owner + " -m " + mode + " " + path;
}

// The agent's user, and for a daemon with a user of its own the group that lets it read.
bool has_group(const Installation &installation) {
    return !installation.config->fs_daemon_user.empty();
}

std::string unwritable_remedy(const Installation &installation, const std::string &path) {
    struct statvfs system {};
    if (statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0)
        return "mount it for writing (mount -o remount,rw), or look in the kernel's log for why it "
               "is not; the agent's service has to be allowed to write " +
               path;
    return "chown " + installation.user + (has_group(installation) ? ":ruma-flash " : " ") + path +
           " && chmod u+rwx " + path;
}

// Whether `user` passes the mode bits of a file for reading, and for a directory searching.
bool mode_lets_read(const struct stat &status, const std::string &user) {
    const passwd *entry = getpwnam(user.c_str());
    if (entry == nullptr)
        return false;
    const mode_t wanted = S_ISDIR(status.st_mode) ? 5 : 4;
    if (entry->pw_uid == 0)
        return true;
    if (entry->pw_uid == status.st_uid)
        return (status.st_mode >> 6 & wanted) == wanted;
    gid_t groups[256];
    int count = 256;
    const bool known = getgrouplist(user.c_str(), entry->pw_gid, groups, &count) >= 0;
    for (int i = 0; known && i < count; ++i) {
        if (groups[i] == status.st_gid)
            return (status.st_mode >> 3 & wanted) == wanted;
    }
    return (status.st_mode & wanted) == wanted;
}

void check_space(const std::string &what, const std::string &path, Findings &findings) {
    struct statvfs space {};
    if (statvfs(path.c_str(), &space) != 0 || space.f_blocks == 0)
        return;
    const uint64_t percent = uint64_t{space.f_bavail} * 100 / space.f_blocks;
    const std::string found = std::to_string(percent) + "% free";
    if (space.f_bavail == 0)
        findings.error(what, "no space is left", "delete files below " + path);
    else if (percent < little_space)
        findings.warning(what, found, "delete files below " + path);
    else
        findings.ok(what, found);
}

void check_flash(const Installation &installation, const ruma::FileSystem &file_system,
                 Findings &findings) {
    const std::string path = ruma::printable(file_system.directory);
    const std::string what = file_system.scheme + " (" + path + ")";
    struct stat status {};
    const std::string problem = ruma::explain_directory(file_system.directory);
    if (stat(file_system.directory.c_str(), &status) != 0) {
        findings.error(what, problem,
                       "mount it or make it: " +
                           make_remedy("-o " + installation.user +
                                           (has_group(installation) ? " -g ruma-flash" : ""),
                                       path, "2750"));
        return;
    }
    if (!problem.empty()) {
        findings.error(what,
                       "the agent cannot write it: " + problem + "; it has " + owner_of(status),
                       unwritable_remedy(installation, path));
        return;
    }
    findings.ok(what, "the agent can read and write it");
    if (is_foreign(status))
        findings.warning(what,
                         "it is another user's than the agent's, who can turn copies and deletes "
                         "to other files; it has " +
                             owner_of(status),
                         "chown " + installation.user + " " + path);
    const std::string &daemon = installation.config->fs_daemon_user;
    if (!daemon.empty() && !mode_lets_read(status, daemon))
        findings.error(what,
                       "fs_daemon's user " + daemon + " cannot read it; it has " + owner_of(status),
                       "give it to a group that " + daemon + " is in: chgrp ruma-flash " + path +
                           " && chmod g+rx " + path);
    const auto search = ruma::search_writable(file_system.directory, max_entries);
    if (!search.writable.empty()) {
        const std::string writable = ruma::printable(search.writable);
        findings.warning(what, "others than its owner can write " + writable,
                         "chmod go-w " + writable + "; find " + path + " -type d -perm /022");
    }
    check_space(what, file_system.directory, findings);
}

// A directory that the agent keeps things in. Returns whether it is there.
bool check_own(const Installation &installation, const std::string &what, const std::string &path,
               const char *mode, mode_t forbidden, Findings &findings) {
    struct stat status {};
    const std::string problem = ruma::explain_directory(path);
    const std::string remedy = make_remedy("-o " + installation.user, path, mode);
    if (lstat(path.c_str(), &status) != 0 || !problem.empty()) {
        findings.error(what, problem.empty() ? ruma::system_error_text(errno, path) : problem,
                       remedy);
        return false;
    }
    if (is_foreign(status))
        findings.error(what, path + " is another user's than the agent's: " + owner_of(status),
                       remedy);
    else if ((status.st_mode & forbidden) != 0)
        findings.error(what, path + " has " + owner_of(status),
                       std::string("chmod ") + mode + " " + path);
    else
        findings.ok(what, path + " has " + owner_of(status));
    return true;
}

} // namespace

void check_flash_directories(const Installation &installation, Findings &findings) {
    if (!installation.config)
        return;
    for (const ruma::FileSystem &file_system : installation.config->file_systems)
        check_flash(installation, file_system, findings);
}

void check_staging(const Installation &installation, Findings &findings) {
    if (check_own(installation, "staging directory", installation.staging, "0700", 0022, findings))
        check_space("staging directory", installation.staging, findings);
}

void check_run_directory(const Installation &installation, Findings &findings) {
    check_own(installation, "run directory", ruma::run_dir(), "0755", 0022, findings);
}

void check_state_directory(const Installation &installation, Findings &findings) {
    check_own(installation, "state directory", ruma::state_dir(), "0700", 0077, findings);
}

} // namespace doctor
