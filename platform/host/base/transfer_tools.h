// What transfers are made of on this system: scripts at fixed paths, and the programs that the
// module and these start.
#ifndef RUMA_HOST_BASE_TRANSFER_TOOLS_H
#define RUMA_HOST_BASE_TRANSFER_TOOLS_H

#include <flash_codes.h>

#include <cstdint>

namespace ruma {

// Where the module finds the scripts.
inline constexpr const char *transfer_script_directory = "/ruma/bin";

struct TransferScript {
    const char *name;
    int32_t protocol; // flash::protocolUnset: a part that scripts share, which is read and not run
};

inline constexpr TransferScript transfer_scripts[] = {
    {"snmp.ftp.expect", flash::protocolFtp}, {"scp.expect", flash::protocolScp},
    {"sftp.expect", flash::protocolSftp},    {"transfer.tcl", flash::protocolUnset},
    {"ssh.tcl", flash::protocolUnset},
};

// Where the distribution has the programs: the latter may be a link to the former.
inline constexpr const char *transfer_program_directories[] = {"/usr/bin", "/bin"};

struct TransferProgram {
    const char *name;
    const char *package; // the distribution's, that has it
    const char *what_for;
};

// cp stages, expect sets up terminals by stty, scp and sftp start ssh, sleep waits for a client to
// end.
inline constexpr TransferProgram transfer_programs[] = {
    {"sh", "dash", "every copy"},
    {"cp", "coreutils", "TFTP copies from flash"},
    {"timeout", "coreutils", "copies by FTP, SCP and SFTP"},
    {"expect", "expect", "copies by FTP, SCP and SFTP"},
    {"stty", "coreutils", "copies by FTP, SCP and SFTP"},
    {"sleep", "coreutils", "copies by FTP, SCP and SFTP"},
    {"tnftp", "tnftp", "copies by FTP"},
    {"ssh", "openssh-client", "copies by SCP and SFTP"},
    {"scp", "openssh-client", "copies by SCP"},
    {"sftp", "openssh-client", "copies by SFTP"},
};

} // namespace ruma

#endif
