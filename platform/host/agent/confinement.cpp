#include "agent/confinement.h"

#include "base/transfer_tools.h"
#include "config/config.h"
#include "report/transfer_report.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/ds_agent.h>

#include <link.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace ruma {
namespace {

// All but device nodes.
constexpr uint64_t directory_rights =
    write_rights & ~(LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_BLOCK);
constexpr uint64_t device_rights = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_IOCTL_DEV;
// A log that was moved away is begun anew at a reload.
constexpr uint64_t log_rights = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG;
constexpr uint64_t socket_rights = LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_REMOVE_FILE;

// Where the module has the system log dumped.
constexpr const char *dump_directory = "/var/tmp";

// What a transfer's client writes to, and the terminals that expect runs it on.
constexpr const char *devices[] = {"/dev/null", "/dev/tty", "/dev/ptmx", "/dev/pts"};

void allow(std::vector<PathRule> &rules, const std::string &path, uint64_t rights) {
    if (!path.empty())
        rules.push_back({path, rights});
}

std::string directory_of(const std::string &path) {
    const auto slash = path.rfind('/');
    return slash == path.npos ? "." : path.substr(0, slash + 1);
}

// The flash directories, the working directory, where files are staged, and what clients write to.
void allow_transfers(std::vector<PathRule> &rules, uint64_t rights) {
    for (const FileSystem &file_system : config().file_systems)
        allow(rules, file_system.directory, rights);
    allow(rules, ".", rights);
    for (const char *device : devices)
        allow(rules, device, device_rights);
}

// The dynamic loader of this process, which is that of the programs that it starts. Empty without.
std::string loader() {
    std::string path;
    // The first object is the program itself, which names its loader at a distance from the table
    // of its segments.
    dl_iterate_phdr(
        [](dl_phdr_info *program, std::size_t, void *result) {
            const ElfW(Phdr) *table = nullptr;
            const ElfW(Phdr) *name = nullptr;
            for (const ElfW(Phdr) *each = program->dlpi_phdr;
                 each != program->dlpi_phdr + program->dlpi_phnum; ++each) {
                table = each->p_type == PT_PHDR ? each : table;
                name = each->p_type == PT_INTERP ? each : name;
            }
            if (table != nullptr && name != nullptr)
                *static_cast<std::string *>(result) =
                    reinterpret_cast<const char *>(program->dlpi_phdr) +
                    (name->p_vaddr - table->p_vaddr);
            return 1;
        },
        &path);
    return path;
}

} // namespace

std::string known_hosts_directory() {
    return access(state_dir().c_str(), F_OK) == 0 ? state_dir() : run_dir() + "/ssh";
}

void make_known_hosts_directory() {
    const std::string directory = known_hosts_directory();
    if (directory != state_dir())
        mkdir(directory.c_str(), 0700);
}

std::vector<std::string> socket_directories(const std::string &addresses) {
    std::vector<std::string> directories;
    std::istringstream list(addresses);
    for (std::string address; std::getline(list, address, ',');) {
        constexpr std::string_view transport = "unix:";
        if (address.starts_with(transport))
            address.erase(0, transport.size());
        if (address.starts_with('/'))
            directories.push_back(directory_of(address));
    }
    return directories;
}

Confinement agent_confinement() {
    Confinement result;
    result.denied.files = write_rights;
    allow_transfers(result.rules, directory_rights);
    allow(result.rules, run_dir(), directory_rights);
    allow(result.rules, state_dir(), directory_rights);
    allow(result.rules, config().writable, directory_rights);
    const char *persistent = get_persistent_directory();
    allow(result.rules, persistent == nullptr ? "" : persistent, directory_rights);
    allow(result.rules, dump_directory, files_rights);
    // An `extend` that passes through a shell takes its output from such a file.
    const char *temporary = get_temp_file_pattern();
    allow(result.rules, temporary == nullptr ? "" : directory_of(temporary), files_rights);
    for (const netsnmp_log_handler *log = get_logh_head(); log != nullptr; log = log->next)
        if (log->type == NETSNMP_LOGHANDLER_FILE && log->token != nullptr)
            allow(result.rules, directory_of(log->token), log_rights);
    const char *sockets =
        netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET);
    for (const std::string &directory :
         socket_directories(sockets == nullptr ? NETSNMP_AGENTX_SOCKET : sockets))
        allow(result.rules, directory, socket_rights);
    return result;
}

Confinement worker_confinement() {
    Confinement result;
    result.denied.files = write_rights | LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_IOCTL_DEV;
    // Transfers connect, and no server connects to them.
    result.denied.network = LANDLOCK_ACCESS_NET_BIND_TCP;
    result.denied.scope = LANDLOCK_SCOPE_SIGNAL | LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET;
    allow_transfers(result.rules, files_rights);
    allow(result.rules, known_hosts_directory(), files_rights & ~LANDLOCK_ACCESS_FS_REMOVE_FILE);
    // The page on which a worker and its scripts tell the cause of a failure is there.
    allow(result.rules, transfer_report_directory(), LANDLOCK_ACCESS_FS_WRITE_FILE);
    allow(result.rules, loader(), LANDLOCK_ACCESS_FS_EXECUTE);
    const auto allow_start = [&result](const std::string &directory, const char *name) {
        allow(result.rules, directory + "/" + name, LANDLOCK_ACCESS_FS_EXECUTE);
    };
    for (const TransferScript &script : transfer_scripts)
        if (script.protocol != flash::protocolUnset)
            allow_start(transfer_script_directory, script.name);
    for (const char *directory : transfer_program_directories)
        for (const TransferProgram &program : transfer_programs)
            allow_start(directory, program.name);
    return result;
}

} // namespace ruma
