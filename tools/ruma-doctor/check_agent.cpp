// Configuration, daemon, agent, modules, access.
#include "checks.h"

#include "base/peer.h"
#include "base/printable.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "cmi/cmi_wire.h"
#include "cmi/daemon_state.h"
#include "pmb/message.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace doctor {
namespace {

const Oid flash_root = {1, 3, 6, 1, 4, 1, ORVEX_ENTERPRISE_NUMBER, 1, 1};

std::string quoted_line(const std::string &text) { return ruma::printable(text); }

// Why a shared object cannot be loaded, or is of another version than this program, which its text
// called `version` tells, if it has one; empty when neither. Its code runs in a process of its own.
std::string load_problem(const std::string &path, const char *version) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::strerror(errno);
    const ruma::UniqueFd reader(ends[0]);
    ruma::UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        std::string problem;
        void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            problem = dlerror();
        } else if (version != nullptr) {
            const auto *text = static_cast<const char *>(dlsym(handle, version));
            if (text == nullptr || std::strcmp(text, RUMA_VERSION) != 0)
                problem = std::string("its version is ") + (text == nullptr ? "older" : text) +
                          ", that of ruma-doctor " RUMA_VERSION;
        }
        static_cast<void>(
            !write(writer.get(), problem.data(), std::min(problem.size(), size_t{500})));
        _exit(problem.empty() ? 0 : 1);
    }
    writer.close();
    char text[501] = "";
    const ssize_t size = child < 0 ? 0 : read(reader.get(), text, sizeof text - 1);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return "it could not be tried";
    if (status == 0)
        return {};
    return size > 0 ? quoted_line(text) : "it ends the process that loads it";
}

struct Module {
    const char *name;
    const char *version; // its text of that name, or null
    const Directive *line;
};

bool check_module(const Module &module, Findings &findings) {
    const std::string what = std::string("module ") + module.name;
    if (module.line == nullptr) {
        findings.error(what, "no dlmod line loads it",
                       std::string("add a line \"dlmod ") + module.name + " /usr/lib/ruma/" +
                           module.name + ".so\" to snmpd.conf");
        return false;
    }
    const std::string path = ruma::printable(module.line->words[2]);
    const std::string &place = module.line->place;
    if (path.front() != '/') {
        findings.error(what, path + " is not absolute (" + place + ")",
                       "write the whole path: /usr/lib/ruma/" + std::string(module.name) + ".so");
        return false;
    }
    const std::string problem = load_problem(module.line->words[2], module.version);
    if (!problem.empty()) {
        findings.error(what, "it cannot be used (" + place + "): " + problem,
                       "install the package orvex-flash-mib again; ldd " + path +
                           " shows missing libraries");
        return false;
    }
    findings.ok(what, path + " can be loaded (" + place + ")");
    return true;
}

// Whether somebody receives at a message socket: 0, or an errno.
int connect_error(const std::string &path) {
    sockaddr_un address{};
    if (const int error = ruma::pmb_socket_address(path, address))
        return error;
    const ruma::UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
               ? 0
               : errno;
}

// Whether the agent takes the subagent that loads the modules.
void check_master(const Installation &installation, Findings &findings) {
    const std::vector<Directive> &directives = installation.agent_config.directives;
    const bool takes = std::any_of(directives.begin(), directives.end(), [](const Directive &each) {
        return strcasecmp(each.words[0].c_str(), "master") == 0 && each.words.size() > 1 &&
               (each.words[1] == "agentx" || each.words[1] == "all" || each.words[1] == "yes" ||
                each.words[1] == "on");
    });
    if (takes)
        findings.ok("subagent", "the modules run in one, and the agent takes subagents");
    else
        findings.error("subagent", "the modules run in one, and the agent takes none",
                       "add a line \"master agentx\" to " + installation.agent_config_path +
                           " and restart the agent");
}

// Who may read and write the tables.
void check_open_access(const std::vector<Access> &found, Findings &findings) {
    bool reads = false;
    bool writes = false;
    for (const Access &access : found) {
        if (access.shown == Shown::nothing)
            continue;
        const std::string what = "access by \"" + ruma::printable(access.who) + "\"";
        reads = reads || !access.writes || access.shown == Shown::all;
        if (!access.writes)
            continue;
        writes = true;
        if (access.needs_priv)
            findings.ok(what, "writes the flash tables with authentication and privacy only (" +
                                  access.place + ")");
        else
            findings.warning(what,
                             "writes the flash tables without privacy (" + access.place +
                                 "): whoever does that moves files with the agent's rights",
                             "give write access to SNMPv3 users with the level priv only, "
                             "orvex-flash-setup makes one; keep others out by a view that "
                             "excludes .1.3.6.1.4.1." +
                                 std::to_string(ORVEX_ENTERPRISE_NUMBER) + " (option -V)");
    }
    if (!reads)
        findings.error("access", "nobody may read the flash tables",
                       "run orvex-flash-setup, or give a view that includes "
                       ".1.3.6.1.4.1." +
                           std::to_string(ORVEX_ENTERPRISE_NUMBER) + ".1");
    else if (!writes)
        findings.note("access", "nobody may write the flash tables: no copy can be asked for",
                      "run orvex-flash-setup");
}

} // namespace

void check_configuration(const Installation &installation, Findings &findings) {
    if (!installation.config) {
        findings.error("configuration", quoted_line(installation.config_problem),
                       "correct the file (platform.toml(5)) and restart fs_daemon and the agent");
        return;
    }
    const auto count = installation.config->file_systems.size();
    const bool there = access(ruma::config_path().c_str(), F_OK) == 0;
    const std::string found = std::to_string(count) + " file systems, agent's user " +
                              installation.user + (there ? "" : ", all by default");
    if (count == 0)
        findings.error("configuration", "no file system is configured",
                       "add a [[file_system]] to " + ruma::config_path());
    else if (!there)
        findings.note("configuration", found, "write " + ruma::config_path());
    else
        findings.ok("configuration", ruma::config_path() + ": " + found);
    if (installation.config->agent_user.empty() && geteuid() != 0)
        findings.warning(
            "configuration", "[agent] user is not set: a daemon of another user refuses the agent",
            "set [agent] user = \"" + installation.user + "\" in " + ruma::config_path());
}

void check_daemon(const Installation &installation, Findings &findings) {
    if (!installation.config)
        return;
    const bool has_a_device = ruma::daemon_has_a_device();
    const std::string socket = ruma::fs_daemon_dir() + "/" + ruma::fs_daemon_socket;
    const std::string user = ruma::user_name(geteuid());
    switch (ruma::daemon_state()) {
    case ruma::DaemonState::up:
        if (has_a_device)
            findings.ok("fs_daemon", "answers user " + user + " at " + socket);
        else
            findings.error("fs_daemon", "answers, and has no file system",
                           "add a [[file_system]] to " + ruma::config_path() + " and restart it");
        break;
    case ruma::DaemonState::hung:
        findings.error("fs_daemon", "does not answer at " + socket,
                       "systemctl restart orvex-flash-fsd; a file system that does not answer "
                       "holds it up");
        break;
    case ruma::DaemonState::refusing:
        findings.error("fs_daemon", "refuses user " + user,
                       "set [agent] user = \"" + user + "\" in " + ruma::config_path() +
                           " and restart it");
        break;
    case ruma::DaemonState::untrusted:
        findings.error("fs_daemon", "runs as a user who is not believed",
                       "set [fs_daemon] user in " + ruma::config_path() + " and restart the agent");
        break;
    case ruma::DaemonState::down:
    case ruma::DaemonState::unknown:
        findings.error("fs_daemon", "is not running: nobody listens at " + socket,
                       "systemctl start orvex-flash-fsd; journalctl -u orvex-flash-fsd says why "
                       "it ended");
        break;
    }
}

void check_agent(const Installation &, Findings &findings) {
    constexpr uint32_t node = 0xfe000000;
    constexpr uint32_t sap = 28;
    const std::string path = ruma::pmb_socket_path(node, sap);
    int error = connect_error(path);
    // An agent that is just being started gets a moment.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while ((error == ECONNREFUSED || error == ENOENT) && std::chrono::steady_clock::now() < until) {
        usleep(50000);
        error = connect_error(path);
    }
    if (error == 0)
        findings.ok("agent", "ruma_agent receives messages at " + path);
    else
        findings.error("agent",
                       "no agent with ruma_agent runs: " + ruma::system_error_text(error, path),
                       "systemctl restart snmpd; its log says why a module was not loaded");
}

void check_modules(const Installation &installation, Findings &findings) {
    for (const std::string &each : installation.agent_config.unreadable)
        findings.warning("agent configuration", ruma::printable(each),
                         "run ruma-doctor as root, or correct the include");
    if (installation.agent_config.directives.empty())
        return;
    const AgentConfig &config = module_config(installation);
    if (&config == &installation.subagent_config)
        check_master(installation, findings);
    for (const FormerModule &former : installation.former_modules)
        findings.warning("loaded modules",
                         "process " + std::to_string(former.process) + " still runs the former " +
                             ruma::printable(former.path),
                         "systemctl restart snmpd, which ends copies in progress");
    const Module agent{"ruma_agent", "ruma_agent_version", dlmod_line(config, "ruma_agent")};
    const Module flash{"orvex_flash_mib", nullptr, dlmod_line(config, "orvex_flash_mib")};
    check_module(agent, findings);
    check_module(flash, findings);
    if (agent.line == nullptr || flash.line == nullptr)
        return;
    if (agent.line > flash.line)
        findings.error("order of modules",
                       "ruma_agent (" + agent.line->place + ") stands behind orvex_flash_mib (" +
                           flash.line->place + ")",
                       "put the dlmod line of ruma_agent first");
    else
        findings.ok("order of modules", "ruma_agent stands before orvex_flash_mib");
}

void check_access(const Installation &installation, Findings &findings) {
    if (!installation.agent_config.directives.empty())
        check_open_access(accesses(installation.agent_config, flash_root), findings);
}

} // namespace doctor
