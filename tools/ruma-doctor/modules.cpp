// The modules: which line loads them, and whether processes run what is installed.
#include "installation.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <strings.h>

namespace fs = std::filesystem;

namespace doctor {

const Directive *dlmod_line(const AgentConfig &config, const char *name) {
    const auto found = std::find_if(config.directives.begin(), config.directives.end(),
                                    [name](const Directive &each) {
                                        return strcasecmp(each.words[0].c_str(), "dlmod") == 0 &&
                                               each.words.size() > 2 && each.words[1] == name;
                                    });
    return found == config.directives.end() ? nullptr : &*found;
}

const AgentConfig &module_config(const Installation &installation) {
    const auto loads_one = [](const AgentConfig &config) {
        return dlmod_line(config, "ruma_agent") != nullptr ||
               dlmod_line(config, "orvex_flash_mib") != nullptr;
    };
    return loads_one(installation.subagent_config) && !loads_one(installation.agent_config)
               ? installation.subagent_config
               : installation.agent_config;
}

std::vector<FormerModule> former_modules(const Installation &installation) {
    std::vector<FormerModule> found;
    std::vector<std::string> paths;
    for (const char *name : {"ruma_agent", "orvex_flash_mib"})
        if (const Directive *line = dlmod_line(module_config(installation), name))
            paths.push_back(line->words[2]);
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        pid_t process = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), process).ec != std::errc())
            continue;
        std::ifstream maps(entry.path() / "maps");
        std::string line;
        while (!paths.empty() && std::getline(maps, line)) {
            const auto former =
                std::find_if(paths.begin(), paths.end(), [&line](const std::string &path) {
                    const std::string end = " " + path + " (deleted)";
                    return line.size() > end.size() &&
                           line.compare(line.size() - end.size(), end.npos, end) == 0;
                });
            if (former != paths.end()) {
                found.push_back({process, *former});
                break;
            }
        }
    }
    return found;
}

} // namespace doctor
