#include "config/description.h"

#include "flash_records.h"

namespace ruma {
namespace {

constexpr size_t max_scheme = 15;
constexpr size_t max_directory = 200; // leaves room for a file name in the module's path fields
constexpr size_t max_description = sizeof(flashDeviceEntry::description) - 1;
constexpr size_t max_user = 32;
constexpr int64_t max_max_rows = 1000000;

constexpr Key<FileSystem> file_system_keys[] = {
    {"scheme", Text<FileSystem>{&FileSystem::scheme, Form::scheme, max_scheme}, true,
     "Its name in URIs such as \"bootflash:image.bin\"; no two have the same.", ""},
    {"directory", Text<FileSystem>{&FileSystem::directory, Form::directory, max_directory}, true,
     "The directory that holds its files.", ""},
    {"description", Text<FileSystem>{&FileSystem::description, Form::text, max_description}, false,
     "A text for the operator, in UTF-8.", ""},
};

constexpr Key<Config> core_keys[] = {
    {"directory", Text<Config>{&Config::core_directory, Form::directory, max_directory}, true,
     "The directory of core files.", "#\"/var/lib/ruma/core\""},
};

constexpr Key<Config> agent_keys[] = {
    {"user", Text<Config>{&Config::agent_user, Form::text, max_user}, false,
     "User that the SNMP agent runs as, whose requests fs_daemon answers beside root's. Without it "
     "the user that fs_daemon runs as.",
     "#\"Debian-snmp\""},
    {"max_rows", Number<Config>{&Config::max_rows, 1, max_max_rows}, false,
     "Rows that the copy table and the misc-operation table may hold each. A request to create "
     "another one is refused.",
     "10000"},
    {"report_lost_workers", Switch<Config>{&Config::report_lost_workers}, false,
     "Whether a copy whose worker ends without a report, or cannot be forked, is completed as a "
     "failed transfer. Without it its row stays in progress, no other copy can be set to active "
     "before it is destroyed, and the dead worker stays a zombie until the agent ends.",
     "true"},
    {"confine", Switch<Config>{&Config::confine_agent}, false,
     "Whether the agent confines itself and, more narrowly, the workers of its copies with "
     "Landlock, where the kernel has it.",
     "true"},
    {"writable", Text<Config>{&Config::writable, Form::directory, max_directory}, false,
     "A directory below which a confined agent may write besides its own places. A file system "
     "that "
     "is mounted on a flash directory after the agent has started can be written only where this "
     "directory holds the flash directory.",
     "\"/var/lib/ruma\""},
};

constexpr Key<Config> fs_daemon_keys[] = {
    {"user", Text<Config>{&Config::fs_daemon_user, Form::text, max_user}, false,
     "User that fs_daemon runs as, whose answers the agent takes beside those of root and of its "
     "own user. Without it the user under \"user\" of the table \"agent\".",
     "#\"ruma-fsd\""},
    {"confine", Switch<Config>{&Config::confine_fs_daemon}, false,
     "Whether fs_daemon confines itself with Landlock and a filter of its system calls, where the "
     "kernel has them.",
     "true"},
};

constexpr Key<Config> trace_keys[] = {
    {"debug", Switch<Config>{&Config::trace_debug}, false,
     "Whether the event history records debug messages from the start. Errors are always recorded.",
     "false"},
};

constexpr Table<Config> tables[] = {
    {"core",
     "Core files, which a copy to a server takes as \"core:NAME\". Without this table there are "
     "none.",
     core_keys},
    {"agent", "What the SNMP agent runs as and does.", agent_keys},
    {"fs_daemon", "What the file-system daemon runs as and does.", fs_daemon_keys},
    {"trace", "The event history, which ruma-trace shows.", trace_keys},
};

} // namespace

const Table<FileSystem> file_system_table = {
    "file_system",
    "One table per file system of the device. With \"file_system = []\" there are none.",
    file_system_keys};

const std::span<const Table<Config>> config_tables = tables;

std::vector<FileSystem> built_in_file_systems() {
    return {{"bootflash", "/var/lib/ruma/bootflash", "Internal flash"},
            {"slot0", "/var/lib/ruma/slot0", "Removable flash card"},
            {"logflash", "/var/lib/ruma/logflash", "Log flash"}};
}

} // namespace ruma
