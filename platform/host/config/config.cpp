#include "config/config.h"

#include "flash_records.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <new>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <toml++/toml.h>
#include <utility>

namespace ruma {
namespace {

constexpr const char *default_config_path = "/etc/ruma/platform.toml";
constexpr const char *default_run_dir = "/run/ruma";
constexpr size_t max_scheme = 15;
constexpr size_t max_file_systems = 32;
constexpr size_t max_directory = 200; // leaves room for a file name in the module's path fields
constexpr size_t max_description = sizeof(flashDeviceEntry::description) - 1;
constexpr size_t max_user = 32;
constexpr int64_t max_max_rows = 1000000;
constexpr std::uintmax_t max_config_size = 1 << 20;

// Schemes that mean something else on the device than a file system.
constexpr std::string_view reserved_schemes[] = {"log", "ilc-nvram", "core"};

Config built_in_config() {
    Config config;
    config.file_systems = {{"bootflash", "/var/lib/ruma/bootflash", "Internal flash"},
                           {"slot0", "/var/lib/ruma/slot0", "Removable flash card"},
                           {"logflash", "/var/lib/ruma/logflash", "Log flash"}};
    return config;
}

// One file being read: every complaint names it and the line.
class Reader {
  public:
    explicit Reader(const std::string &path) : path_(path) {}

    [[noreturn]] void fail(const toml::node &node, const std::string &reason) const {
        fail(node.source().begin.line, reason);
    }

    [[noreturn]] void fail(toml::source_index line, const std::string &reason) const {
        throw ConfigError(path_ + ":" + std::to_string(line) + ": " + reason);
    }

    // Refuses keys other than those named.
    void check_keys(const toml::table &table, std::initializer_list<std::string_view> known) const {
        for (const auto &[key, node] : table) {
            if (std::find(known.begin(), known.end(), key.str()) == known.end())
                fail(key.source().begin.line, "unknown key \"" + std::string(key.str()) + "\"");
        }
    }

    // The value under `key`, or nothing when the key is absent. `kind` says what it must be.
    template <typename Value>
    std::optional<Value> value(const toml::table &table, std::string_view key,
                               const char *kind) const {
        const toml::node *node = table.get(key);
        if (node == nullptr)
            return std::nullopt;
        auto found = node->value_exact<Value>();
        if (!found)
            fail(*node, std::string(key) + " must be " + kind);
        return found;
    }

    // The text under `key`, or an empty one when the key is absent.
    std::string text(const toml::table &table, std::string_view key, size_t max_length) const {
        auto value = this->value<std::string>(table, key, "a string");
        if (!value)
            return {};
        const toml::node *node = table.get(key);
        const std::string name(key);
        if (value->size() > max_length)
            fail(*node, name + " is longer than " + std::to_string(max_length) + " bytes");
        const auto control = [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        };
        if (std::any_of(value->begin(), value->end(), control))
            fail(*node, name + " holds a control character");
        return std::move(*value);
    }

    std::string required_text(const toml::table &table, std::string_view key,
                              size_t max_length) const {
        std::string value = text(table, key, max_length);
        if (value.empty()) {
            const toml::node *node = table.get(key);
            fail(node == nullptr ? table : *node, std::string(key) + " is missing or empty");
        }
        return value;
    }

    // The number under `key`, or `fallback` when the key is absent.
    uint32_t number(const toml::table &table, std::string_view key, int64_t least, int64_t most,
                    uint32_t fallback) const {
        const auto value = this->value<int64_t>(table, key, "an integer");
        if (!value)
            return fallback;
        if (*value < least || *value > most)
            fail(*table.get(key), std::string(key) + " is not between " + std::to_string(least) +
                                      " and " + std::to_string(most));
        return static_cast<uint32_t>(*value);
    }

    // The switch under `key`, off when the key is absent.
    bool flag(const toml::table &table, std::string_view key) const {
        return value<bool>(table, key, "true or false").value_or(false);
    }

    std::string directory(const toml::table &table) const {
        std::string value = required_text(table, "directory", max_directory);
        const toml::node &node = *table.get("directory");
        if (value.front() != '/')
            fail(node, "directory \"" + value + "\" is not absolute");
        if ((value + "/").find("/../") != std::string::npos)
            fail(node, "directory \"" + value + "\" holds \"..\"");
        return value;
    }

    FileSystem file_system(const toml::table &table) const {
        check_keys(table, {"scheme", "directory", "description"});
        const std::string scheme = required_text(table, "scheme", max_scheme);
        const toml::node &node = *table.get("scheme");
        if (scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") != std::string::npos)
            fail(node, "scheme \"" + scheme + "\" holds other characters than a-z, 0-9 and -");
        if (std::find(std::begin(reserved_schemes), std::end(reserved_schemes), scheme) !=
            std::end(reserved_schemes))
            fail(node, "scheme \"" + scheme + "\" is reserved");
        return {scheme, directory(table), text(table, "description", max_description)};
    }

    std::vector<FileSystem> file_systems(const toml::node &node) const {
        const toml::array *tables = node.as_array();
        if (tables == nullptr)
            fail(node, "file_system must be an array of tables");
        std::vector<FileSystem> result;
        for (const toml::node &element : *tables) {
            const toml::table *table = element.as_table();
            if (table == nullptr)
                fail(element, "file_system must be an array of tables");
            if (result.size() == max_file_systems)
                fail(element, "more than " + std::to_string(max_file_systems) + " file systems");
            FileSystem added = file_system(*table);
            for (const FileSystem &other : result) {
                if (other.scheme == added.scheme)
                    fail(*table->get("scheme"), "scheme \"" + added.scheme + "\" is used twice");
            }
            result.push_back(std::move(added));
        }
        return result;
    }

    // The table under `key`, or an empty one when the key is absent.
    const toml::table &section(const toml::table &root, std::string_view key,
                               std::initializer_list<std::string_view> known) const {
        static const toml::table absent;
        const toml::node *node = root.get(key);
        if (node == nullptr)
            return absent;
        const toml::table *table = node->as_table();
        if (table == nullptr)
            fail(*node, std::string(key) + " must be a table");
        check_keys(*table, known);
        return *table;
    }

    std::string content() const {
        std::string text(max_config_size, '\0');
        std::ifstream file(path_, std::ios::binary);
        if (!file.is_open())
            throw ConfigError(path_ + ": " + std::generic_category().message(errno));
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        if (file.bad())
            throw ConfigError(path_ + ": cannot be read");
        text.resize(static_cast<size_t>(file.gcount()));
        return text;
    }

    Config read() const {
        toml::table root;
        try {
            // Not parse_file, which ends the process when memory for its file name is missing.
            root = toml::parse(content());
        } catch (const toml::parse_error &error) {
            fail(error.source().begin.line, std::string(error.description()));
        }
        check_keys(root, {"file_system", "core", "agent"});
        Config result = built_in_config();
        if (const toml::node *node = root.get("file_system"))
            result.file_systems = file_systems(*node);
        const toml::table &core = section(root, "core", {"directory"});
        if (!core.empty())
            result.core_directory = directory(core);
        const toml::table &agent =
            section(root, "agent", {"user", "max_rows", "report_lost_workers"});
        result.agent_user = text(agent, "user", max_user);
        result.max_rows = number(agent, "max_rows", 1, max_max_rows, result.max_rows);
        result.report_lost_workers = flag(agent, "report_lost_workers");
        return result;
    }

  private:
    const std::string &path_;
};

// The value of an environment variable, or `fallback` when it is not set or empty.
std::string environment(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value == nullptr || *value == '\0' ? fallback : value;
}

Config process_config() {
    const std::string path = config_path();
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 && errno == ENOENT)
        return built_in_config();
    try {
        return load_config(path);
    } catch (const ConfigError &error) {
        std::fprintf(stderr, "ruma: %s\n", error.what());
        return {};
    }
}

} // namespace

Config load_config(const std::string &path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw ConfigError(path + ": " + std::generic_category().message(errno));
    if (!S_ISREG(status.st_mode))
        throw ConfigError(path + ": not a regular file");
    if (static_cast<std::uintmax_t>(status.st_size) > max_config_size)
        throw ConfigError(path + ": longer than " + std::to_string(max_config_size) + " bytes");
    return Reader(path).read();
}

std::string config_path() { return environment("RUMA_CONFIG", default_config_path); }

const Config &config() {
    // Never destroyed: handlers may still ask while the process ends.
    static const Config &instance = *new Config(process_config());
    return instance;
}

const std::string &run_dir() {
    static const std::string &instance =
        *new std::string(environment("RUMA_RUN_DIR", default_run_dir));
    return instance;
}

} // namespace ruma
