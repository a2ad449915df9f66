#include "agent/flash_directories.h"

#include "base/peer.h"
#include "base/printable.h"
#include "config/config.h"
#include "report/explain.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <filesystem>
#include <new>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace ruma {
namespace {

constexpr std::size_t max_entries_searched = 10000; // the agent is not up meanwhile
constexpr int max_depth = 32;                       // a descriptor each

// With an access list the group's bits are its mask: they tell of further users too.
bool others_can_write(const fs::file_status &status) {
    return fs::is_directory(status) &&
           (status.permissions() & (fs::perms::group_write | fs::perms::others_write)) !=
               fs::perms::none;
}

void warn(const FileSystem &file_system) {
    const DirectorySearch search = search_writable(file_system.directory, max_entries_searched);
    if (!search.writable.empty())
        snmp_log(LOG_WARNING,
                 "ruma_agent: %s: others than its owner can write %s, and so turn copies and "
                 "deletes to other files; it is the first such directory, there may be more\n",
                 file_system.scheme.c_str(), printable(search.writable).c_str());
    else if (!search.whole)
        snmp_log(LOG_WARNING,
                 "ruma_agent: %s: no more than %zu entries below %s were searched for directories "
                 "that others can write\n",
                 file_system.scheme.c_str(), search.entries,
                 printable(file_system.directory).c_str());
}

void warn_if_closed(const FileSystem &file_system) {
    const std::string problem = explain_directory(file_system.directory);
    if (!problem.empty())
        snmp_log(LOG_WARNING, "ruma_agent: %s: user %s cannot write it: %s\n",
                 file_system.scheme.c_str(), user_text(geteuid()).c_str(), problem.c_str());
}

void look_at_each(void (*look)(const FileSystem &)) {
    for (const FileSystem &file_system : config().file_systems) {
        try {
            look(file_system);
        } catch (const std::bad_alloc &) {
            snmp_log(LOG_WARNING, "ruma_agent: %s: no memory to look at its directories\n",
                     file_system.scheme.c_str());
        }
    }
}

} // namespace

DirectorySearch search_writable(const std::string &top, std::size_t max_entries) {
    DirectorySearch search;
    std::error_code error;
    if (others_can_write(fs::status(top, error))) {
        search.writable = top;
        return search;
    }
    fs::recursive_directory_iterator entry(top, fs::directory_options::skip_permission_denied,
                                           error);
    if (error == std::errc::no_such_file_or_directory)
        return search;
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (search.entries == max_entries) {
            search.whole = false;
            return search;
        }
        search.entries++;
        std::error_code gone;
        if (entry->is_symlink(gone) || !entry->is_directory(gone))
            continue;
        if (others_can_write(entry->symlink_status(gone))) {
            search.writable = entry->path();
            return search;
        }
        if (entry.depth() == max_depth) {
            entry.disable_recursion_pending();
            search.whole = false;
        }
    }
    if (error)
        search.whole = false;
    return search;
}

void warn_of_writable_directories() { look_at_each(warn); }

void warn_of_closed_directories() { look_at_each(warn_if_closed); }

} // namespace ruma
