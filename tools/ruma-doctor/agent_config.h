// The stock agent's configuration, as far as the flash module depends on it.
#ifndef RUMA_DOCTOR_AGENT_CONFIG_H
#define RUMA_DOCTOR_AGENT_CONFIG_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace doctor {

// One directive: its words, and where it stands.
struct Directive {
    std::vector<std::string> words; // at least one
    std::string place;              // "FILE:LINE"
};

struct AgentConfig {
    std::vector<Directive> directives;   // of all files, in the order in which the agent reads them
    std::vector<std::string> unreadable; // files and directories, with the reason
};

// Reads a configuration file and what it includes, to a bounded depth and number of lines.
AgentConfig read_agent_config(const std::string &path);

using Oid = std::vector<uint32_t>;

// A numeric OID, or one that begins with "iso"; empty for any other name.
Oid parse_oid(std::string_view text);

// What a view, or an OID in the place of one, shows of the tree below `root`.
enum class Shown { nothing, some, all };
Shown view_shows(const AgentConfig &config, const std::string &view, const Oid &root);

// Who is given access: a directive, at which level, and whether to the tree below `root`.
struct Access {
    std::string place;
    std::string who; // as the administrator wrote it, never a community
    bool writes;     // else reads only
    bool needs_priv; // only with authentication and privacy
    Shown shown;
};
std::vector<Access> accesses(const AgentConfig &config, const Oid &root);

} // namespace doctor

#endif
