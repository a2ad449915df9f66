// Names, programs, the kernel.
#include "checks.h"

#include "base/system_error.h"
#include "base/transfer_tools.h"
#include "base/unique_fd.h"
#include "sandbox/landlock.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <unistd.h>

extern "C" {
#include <sys/pidfd.h> // which does not say so itself
}

namespace fs = std::filesystem;

namespace doctor {
namespace {

constexpr uintmax_t max_counted = 1000000;

std::string find(const std::vector<std::string> &directories, const std::string &name, int mode) {
    for (const std::string &directory : directories) {
        const std::string path = directory + "/" + name;
        if (access(path.c_str(), mode) == 0)
            return path;
    }
    return {};
}

// A module of the name in any of the forms that the stock tools find.
std::string find_mib(const std::vector<std::string> &directories, const std::string &name) {
    for (const char *suffix : {"", ".txt", ".mib", ".my"}) {
        const std::string path = find(directories, name + suffix, R_OK);
        if (!path.empty())
            return path;
    }
    return {};
}

uintmax_t count_directories(const std::string &top, uintmax_t limit) {
    std::error_code error;
    uintmax_t count = 1;
    fs::recursive_directory_iterator entry(top, fs::directory_options::skip_permission_denied,
                                           error);
    for (; !error && entry != fs::recursive_directory_iterator() && count < limit;
         entry.increment(error)) {
        std::error_code gone;
        if (!entry->is_symlink(gone) && entry->is_directory(gone))
            ++count;
    }
    return count;
}

void check_watches(const Installation &installation, Findings &findings) {
    uintmax_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_user_watches") >> limit;
    uintmax_t needed = 0;
    if (installation.config)
        for (const ruma::FileSystem &each : installation.config->file_systems)
            needed += count_directories(each.directory, max_counted);
    const std::string found = std::to_string(needed) + " directories to watch, " +
                              std::to_string(limit) + " watches for each user";
    if (needed > limit)
        findings.warning("inotify", found + ": changes are found by scanning",
                         "sysctl fs.inotify.max_user_watches=" + std::to_string(2 * needed));
    else
        findings.ok("inotify", found);
}

// One who is to confine itself, by what the kernel must have for that.
void check_confined(const char *who, const char *table, bool is_configured,
                    const std::string &missing, Findings &findings) {
    const std::string what = std::string("confinement of ") + who;
    if (!is_configured)
        findings.note(
            what, std::string("[") + table + "] confine is false: it does all that its user may",
            std::string("set confine = true in [") + table + "] of " + ruma::config_path() +
                ", and restart it; see security.md");
    else if (!missing.empty())
        findings.note(what, "it is configured, and this kernel has no " + missing,
                      "a kernel that has it: Landlock is in 5.13 and newer, with landlock in "
                      "/sys/kernel/security/lsm; see security.md");
    else
        findings.ok(what, "it is configured, and the kernel has what it needs");
}

void check_confinement(const ruma::Config &config, Findings &findings) {
    const int landlock = ruma::landlock_abi();
    const bool has_seccomp = access("/proc/sys/kernel/seccomp/actions_avail", F_OK) == 0;
    const std::string missing = landlock > 0 ? "" : "Landlock";
    const std::string filter = has_seccomp ? "" : "seccomp";
    if (landlock > 0)
        findings.ok("Landlock", "version " + std::to_string(landlock));
    check_confined("the agent", "agent", config.confine_agent, missing, findings);
    const char *const both = missing.empty() || filter.empty() ? "" : " and no ";
    check_confined("fs_daemon", "fs_daemon", config.confine_fs_daemon, missing + both + filter,
                   findings);
}

} // namespace

void check_mibs(const Installation &installation, Findings &findings) {
    const std::string path = find_mib(installation.mibs, "ORVEX-FLASH-MIB");
    if (path.empty())
        findings.warning("MIB", "ORVEX-FLASH-MIB is in no directory of the stock tools",
                         "install the package orvex-flash-mib");
    else
        findings.ok("MIB", path);
    std::string missing;
    for (const char *name : {"SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF"})
        if (find_mib(installation.mibs, name).empty())
            missing.append(missing.empty() ? "" : " ").append(name);
    if (missing.empty())
        findings.ok("base modules", "SNMPv2-SMI and what goes with it are there");
    else
        findings.note("base modules", "missing: " + missing + "; names do not resolve with them",
                      "use the form without imports: snmpwalk -M " + installation.bare_mibs +
                          " -m ORVEX-FLASH-MIB …");
}

void check_programs(const Installation &installation, Findings &findings) {
    for (const ruma::TransferProgram &program : ruma::transfer_programs) {
        const std::string path = find(installation.programs, program.name, X_OK);
        if (path.empty())
            findings.error(std::string("program ") + program.name,
                           std::string("it is missing, for ") + program.what_for,
                           std::string("apt-get install ") + program.package);
        else
            findings.ok(std::string("program ") + program.name, path);
    }
}

void check_scripts(const Installation &installation, Findings &findings) {
    for (const ruma::TransferScript &script : ruma::transfer_scripts) {
        const std::string path = installation.scripts + "/" + script.name;
        const std::string what = std::string("script ") + script.name;
        const bool run = script.protocol != flash::protocolUnset;
        if (access(path.c_str(), run ? R_OK | X_OK : R_OK) == 0)
            findings.ok(what, path);
        else
            findings.error(what, ruma::system_error_text(errno, path),
                           errno == EACCES ? "chmod a+rx " + path
                                           : "install the package orvex-flash-mib again");
    }
}

void check_kernel(const Installation &installation, Findings &findings) {
    if (installation.config)
        check_confinement(*installation.config, findings);
    const ruma::UniqueFd self(pidfd_open(getpid(), 0));
    if (self)
        findings.ok("pidfd", "the agent sees at once that a worker ends");
    else
        findings.note("pidfd", "not there: lost workers are noticed up to a second late",
                      "a kernel of 5.3 or newer");
    check_watches(installation, findings);
}

} // namespace doctor
