// ruma-doctor: checks an installation of the flash MIB as the agent's user, and says what to do.
#include "installation.h"

#include "base/peer.h"
#include "base/printable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

using doctor::Finding;
using doctor::Findings;
using doctor::Installation;
using doctor::Severity;

constexpr int not_checked = 3;

const char *name_of(Severity severity) {
    constexpr const char *names[] = {"ok", "note", "warning", "error"};
    return names[static_cast<int>(severity)];
}

// The exit status.
int status_of(const Findings &findings) {
    int status = 0;
    for (const Finding &finding : findings.list())
        status = std::max(status, static_cast<int>(finding.severity) - 1);
    return std::max(status, 0);
}

void print_lines(const Findings &findings, bool quiet) {
    for (const Finding &finding : findings.list()) {
        if (quiet && finding.severity < Severity::warning)
            continue;
        std::printf("%s: %s: %s\n", name_of(finding.severity), finding.what.c_str(),
                    finding.found.c_str());
        if (!finding.remedy.empty())
            std::printf("    remedy: %s\n", finding.remedy.c_str());
    }
}

void print_json(const Findings &findings, bool quiet, const std::string &user) {
    nlohmann::json list = nlohmann::json::array();
    for (const Finding &finding : findings.list()) {
        if (quiet && finding.severity < Severity::warning)
            continue;
        list.push_back({{"check", finding.check},
                        {"severity", name_of(finding.severity)},
                        {"what", finding.what},
                        {"found", finding.found},
                        {"remedy", finding.remedy}});
    }
    const nlohmann::json whole = {
        {"user", user}, {"status", status_of(findings)}, {"findings", list}};
    std::puts(whole.dump(2, ' ', true, nlohmann::json::error_handler_t::replace).c_str());
}

// As the daemon reads it: what cannot be used is no configuration.
void read_configuration(Installation &installation) {
    try {
        const char *name = std::getenv("RUMA_CONFIG");
        const bool named = name != nullptr && *name != '\0';
        if (!named && access(ruma::config_path().c_str(), F_OK) != 0)
            installation.config = ruma::config();
        else
            installation.config = ruma::load_config(ruma::config_path());
    } catch (const ruma::ConfigError &error) {
        installation.config_problem = error.what();
    }
}

// The agent's: named, configured, the distribution's, or whoever runs this.
std::string agent_user(const Installation &installation) {
    if (!installation.user.empty())
        return installation.user;
    if (installation.config && !installation.config->agent_user.empty())
        return installation.config->agent_user;
    if (geteuid() == 0 && ruma::user_number("Debian-snmp"))
        return "Debian-snmp";
    return ruma::user_name(geteuid());
}

// What only root may read is read before the rights are given up.
void read_agent_configuration(Installation &installation) {
    installation.agent_config = doctor::read_agent_config(installation.agent_config_path);
    doctor::AgentConfig users = doctor::read_agent_config(installation.users_path);
    for (doctor::Directive &directive : users.directives)
        installation.agent_config.directives.push_back(std::move(directive));
    if (access(installation.subagent_config_path.c_str(), F_OK) == 0)
        installation.subagent_config = doctor::read_agent_config(installation.subagent_config_path);
    installation.former_modules = doctor::former_modules(installation);
}

void become(const std::string &user) {
    const passwd *entry = getpwnam(user.c_str());
    if (entry == nullptr)
        throw std::runtime_error("there is no user " + ruma::printable(user));
    if (entry->pw_uid == geteuid())
        return;
    if (geteuid() != 0)
        throw std::runtime_error("only root can check as user " + user);
    const uid_t uid = entry->pw_uid;
    const gid_t gid = entry->pw_gid;
    if (initgroups(user.c_str(), gid) != 0 || setresgid(gid, gid, gid) != 0 ||
        setresuid(uid, uid, uid) != 0)
        throw std::system_error(errno, std::generic_category(), "to become user " + user);
}

void split_paths(const std::string &text, std::vector<std::string> &paths) {
    if (text.empty())
        return;
    paths.clear();
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(':', at), text.size());
        paths.push_back(text.substr(at, end - at));
        at = end + 1;
    }
}

int run(int argc, char **argv) {
    Installation installation;
    bool json = false;
    bool quiet = false;
    std::string config;
    std::string programs;
    std::string mibs;
    CLI::App app(
        "Checks an installation of the flash MIB, as the agent's user, and says what to do "
        "about what it finds",
        "ruma-doctor");
    app.add_flag("--json", json, "Findings as JSON");
    app.add_flag("-q,--quiet", quiet, "Warnings and errors only");
    app.add_option("--user", installation.user,
                   "The agent's user; default [agent] user, or Debian-snmp");
    app.add_option("--config", config,
                   "Configuration file; default $RUMA_CONFIG or /etc/ruma/platform.toml");
    app.add_option("--snmpd-config", installation.agent_config_path, "The agent's configuration")
        ->capture_default_str();
    app.add_option("--snmpd-users", installation.users_path, "Where the agent keeps its users")
        ->capture_default_str();
    app.add_option("--subagent-config", installation.subagent_config_path,
                   "The configuration of a subagent with the modules")
        ->capture_default_str();
    app.add_option("--scripts", installation.scripts, "Directory of the transfer scripts")
        ->capture_default_str();
    app.add_option("--staging", installation.staging, "The agent's working directory")
        ->capture_default_str();
    app.add_option("--programs", programs,
                   "Where the scripts look for programs; default /usr/bin:/bin");
    app.add_option("--mib-directories", mibs, "Where the stock tools look for MIBs");
    app.set_version_flag("--version", std::string("ruma-doctor ") + RUMA_VERSION);
    app.footer("Exit status: 0 all is well, 1 warnings, 2 errors, 3 it could not be checked.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : not_checked;
    }
    if (!config.empty())
        setenv("RUMA_CONFIG", config.c_str(), 1);
    split_paths(programs, installation.programs);
    split_paths(mibs, installation.mibs);

    // What the library says of the daemon, the findings say.
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    read_configuration(installation);
    read_agent_configuration(installation);
    installation.user = agent_user(installation);
    become(installation.user);
    Findings findings;
    for (const doctor::Check &check : doctor::checks) {
        findings.begin(check.name);
        check.run(installation, findings);
    }
    if (json)
        print_json(findings, quiet, installation.user);
    else
        print_lines(findings, quiet);
    return std::fflush(stdout) == 0 ? status_of(findings) : not_checked;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ruma-doctor: %s\n", error.what());
        return not_checked;
    }
}
