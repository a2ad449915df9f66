// The installation that is looked at: where things are, and whose.
#ifndef RUMA_DOCTOR_INSTALLATION_H
#define RUMA_DOCTOR_INSTALLATION_H

#include "agent_config.h"
#include "config/config.h"
#include "finding.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace doctor {

// A module that a process has loaded, of which there is another file by now: the agent has not been
// restarted since an upgrade.
struct FormerModule {
    pid_t process;
    std::string path;
};

struct Installation {
    std::string agent_config_path = "/etc/snmp/snmpd.conf";
    // Where the modules run in a subagent; there need not be one.
    std::string subagent_config_path = "/etc/snmp/orvex-flash-subagent.conf";
    std::string users_path = "/var/lib/snmp/snmpd.conf"; // where the agent keeps its users
    std::string scripts = "/ruma/bin";
    std::string staging = "/var/lib/ruma/staging";
    std::vector<std::string> programs = {"/usr/bin", "/bin"}; // as the scripts look for them
    std::vector<std::string> mibs = {"/usr/share/snmp/mibs", "/usr/share/snmp/mibs/ietf",
                                     "/usr/share/snmp/mibs/iana", "/var/lib/mibs/ietf",
                                     "/var/lib/mibs/iana"};
    std::string bare_mibs = "/usr/share/orvex-flash-mib/mibs"; // that import nothing

    std::string user; // the agent's, as whom the checks run; empty before it is known
    std::optional<ruma::Config> config; // nothing when it cannot be used
    std::string config_problem;
    AgentConfig agent_config;                 // with the users' file
    AgentConfig subagent_config;              // empty when there is none
    std::vector<FormerModule> former_modules; // of the processes that could be looked at
};

// One check. They run in the order of the table, as the agent's user.
struct Check {
    const char *name;
    void (*run)(const Installation &installation, Findings &findings);
};

extern const std::vector<Check> checks;

// The configuration that loads the modules: the subagent's where it does and the agent's does not.
const AgentConfig &module_config(const Installation &installation);

// The line that loads a module; null when there is none.
const Directive *dlmod_line(const AgentConfig &config, const char *name);

// Looks for processes that have a former file of one of the modules. Needs the rights of the agent
// as it was started: root's.
std::vector<FormerModule> former_modules(const Installation &installation);

} // namespace doctor

#endif
