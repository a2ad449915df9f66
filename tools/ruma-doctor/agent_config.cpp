#include "agent_config.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

namespace doctor {
namespace {

constexpr int max_depth = 8;
constexpr std::size_t max_lines = 100000;

// Words as the agent takes them: between blanks, or in double quotes.
std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> words;
    for (std::size_t at = 0; (at = line.find_first_not_of(" \t\r", at)) != line.npos;) {
        if (line[at] == '#')
            break;
        const bool is_quoted = line[at] == '"';
        const std::size_t begin = is_quoted ? at + 1 : at;
        const std::size_t end = std::min(
            is_quoted ? line.find('"', begin) : line.find_first_of(" \t\r", begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        at = is_quoted ? std::min(end + 1, line.size()) : end;
    }
    return words;
}

class Reader {
  public:
    explicit Reader(AgentConfig &config) : config_(config) {}

    void read(const fs::path &path, int depth) {
        std::ifstream file(path);
        if (!file) {
            config_.unreadable.push_back(path.string() + ": " + std::strerror(errno));
            return;
        }
        std::string line;
        for (int number = 1; std::getline(file, line) && config_.directives.size() < max_lines;
             ++number) {
            std::vector<std::string> words = split(line);
            if (words.empty() || words.front().front() == '[')
                continue;
            if (words.size() > 1 && depth < max_depth && include(path, words, depth))
                continue;
            config_.directives.push_back(
                {std::move(words), path.string() + ":" + std::to_string(number)});
        }
    }

  private:
    bool include(const fs::path &path, const std::vector<std::string> &words, int depth) {
        if (strcasecmp(words[0].c_str(), "includeDir") == 0) {
            std::error_code error;
            std::vector<fs::path> files;
            for (const auto &entry : fs::directory_iterator(words[1], error))
                if (entry.path().extension() == ".conf")
                    files.push_back(entry.path());
            if (error)
                config_.unreadable.push_back(words[1] + ": " + error.message());
            std::sort(files.begin(), files.end());
            for (const fs::path &file : files)
                read(file, depth + 1);
            return true;
        }
        if (strcasecmp(words[0].c_str(), "includeFile") == 0) {
            read(path.parent_path() / words[1], depth + 1);
            return true;
        }
        return false;
    }

    AgentConfig &config_;
};

bool is(const Directive &directive, const char *name) {
    return strcasecmp(directive.words[0].c_str(), name) == 0;
}

bool is_prefix(const Oid &prefix, const Oid &whole) {
    return prefix.size() <= whole.size() && std::equal(prefix.begin(), prefix.end(), whole.begin());
}

std::string word(const Directive &directive, std::size_t number) {
    return number < directive.words.size() ? directive.words[number] : "";
}

Shown subtree_shows(const Oid &subtree, const Oid &root) {
    if (is_prefix(subtree, root))
        return Shown::all;
    return is_prefix(root, subtree) ? Shown::some : Shown::nothing;
}

// The view of an easy directive: "-V VIEW", an OID, or nothing, which is everything.
Shown easy_view(const AgentConfig &config, const Directive &directive, std::size_t first,
                const Oid &root) {
    const std::string text = word(directive, first);
    if (text.empty())
        return Shown::all;
    if (text == "-V")
        return view_shows(config, word(directive, first + 1), root);
    const Oid subtree = parse_oid(text);
    return subtree.empty() ? Shown::nothing : subtree_shows(subtree, root);
}

struct Easy {
    const char *name;
    bool writes;
    bool user; // else a community, which is a secret
};

constexpr Easy easies[] = {
    {"rwcommunity", true, false},   {"rocommunity", false, false}, {"rwcommunity6", true, false},
    {"rocommunity6", false, false}, {"rwuser", true, true},        {"rouser", false, true},
};

void add_easy(const AgentConfig &config, const Directive &directive, const Easy &easy,
              const Oid &root, std::vector<Access> &found) {
    // rwuser [-s MODEL] USER [LEVEL [VIEW]]; rwcommunity COMMUNITY [SOURCE [VIEW]]
    const std::size_t name = easy.user && word(directive, 1) == "-s" ? 3 : 1;
    const std::string level = word(directive, name + 1);
    const bool priv = easy.user && (strcasecmp(level.c_str(), "priv") == 0 ||
                                    strcasecmp(level.c_str(), "authPriv") == 0);
    std::string who = easy.name;
    if (easy.user)
        who.append(" ").append(word(directive, name));
    found.push_back(
        {directive.place, who, easy.writes, priv, easy_view(config, directive, name + 2, root)});
}

// access GROUP CONTEXT MODEL LEVEL MATCH READ WRITE NOTIFY
void add_access(const AgentConfig &config, const Directive &directive, const Oid &root,
                std::vector<Access> &found) {
    const std::string level = word(directive, 4);
    const bool priv =
        strcasecmp(level.c_str(), "priv") == 0 || strcasecmp(level.c_str(), "authPriv") == 0;
    const std::string who = "access " + word(directive, 1);
    found.push_back(
        {directive.place, who, false, priv, view_shows(config, word(directive, 6), root)});
    found.push_back(
        {directive.place, who, true, priv, view_shows(config, word(directive, 7), root)});
}

} // namespace

AgentConfig read_agent_config(const std::string &path) {
    AgentConfig config;
    Reader(config).read(path, 0);
    return config;
}

Oid parse_oid(std::string_view text) {
    if (!text.empty() && text.front() == '.')
        text.remove_prefix(1);
    std::string numeric(text);
    if (text.substr(0, 3) == "iso")
        numeric.replace(0, 3, 1, '1');
    Oid oid;
    const char *at = numeric.data();
    const char *const end = at + numeric.size();
    while (at < end) {
        uint32_t arc = 0;
        const auto [next, error] = std::from_chars(at, end, arc);
        if (error != std::errc() || (next < end && *next != '.'))
            return {};
        oid.push_back(arc);
        at = next + 1;
    }
    return oid;
}

Shown view_shows(const AgentConfig &config, const std::string &view, const Oid &root) {
    std::size_t best = 0; // length of the longest subtree above the root
    bool included = false;
    bool some = false;
    for (const Directive &directive : config.directives) {
        if (!is(directive, "view") || word(directive, 1) != view)
            continue;
        const bool includes = strcasecmp(word(directive, 2).c_str(), "included") == 0;
        const Oid subtree = parse_oid(word(directive, 3));
        if (subtree.empty())
            continue;
        if (is_prefix(subtree, root) && subtree.size() >= best) {
            best = subtree.size();
            included = includes;
        } else if (is_prefix(root, subtree)) {
            some = some || includes;
        }
    }
    if (included)
        return Shown::all;
    return some ? Shown::some : Shown::nothing;
}

std::vector<Access> accesses(const AgentConfig &config, const Oid &root) {
    std::vector<Access> found;
    for (const Directive &directive : config.directives) {
        const auto *const easy = std::find_if(std::begin(easies), std::end(easies),
                                              [&](auto &each) { return is(directive, each.name); });
        if (easy != std::end(easies))
            add_easy(config, directive, *easy, root, found);
        else if (is(directive, "access"))
            add_access(config, directive, root, found);
    }
    return found;
}

} // namespace doctor
