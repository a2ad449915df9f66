#include "config/config.h"

#include "config/description.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <toml++/toml.h>
#include <utility>
#include <variant>

namespace ruma {
namespace {

constexpr const char *default_config_path = "/etc/ruma/platform.toml";
constexpr const char *default_run_dir = "/run/ruma";
constexpr const char *default_state_dir = "/var/lib/ruma/state";
constexpr const char *missing = " is missing or empty";

// Whether one of `described`, keys or tables, has that name.
template <typename Described>
bool named(std::span<const Described> described, std::string_view name) {
    return std::any_of(described.begin(), described.end(),
                       [name](const Described &each) { return each.name == name; });
}

Config built_in_config() {
    Config config;
    config.file_systems = built_in_file_systems();
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

    // Refuses keys that are not `known`.
    template <typename Known>
    void check_keys(const toml::table &table, const Known &known) const {
        for (const auto &[key, node] : table) {
            if (!known(key.str()))
                fail(key.source().begin.line, "unknown key \"" + std::string(key.str()) + "\"");
        }
    }

    // The value of `node`. `kind` says what it must be.
    template <typename Value>
    Value exact(const toml::node &node, const std::string &name, const char *kind) const {
        auto found = node.value_exact<Value>();
        if (!found)
            fail(node, name + " must be " + kind);
        return std::move(*found);
    }

    void check_directory(const toml::node &node, const std::string &name,
                         const std::string &value) const {
        if (!value.starts_with('/'))
            fail(node, name + " \"" + value + "\" is not absolute");
        if ((value + "/").find("/../") != std::string::npos)
            fail(node, name + " \"" + value + "\" holds \"..\"");
    }

    void check_scheme(const toml::node &node, const std::string &name,
                      const std::string &value) const {
        if (value.find_first_not_of(scheme_characters) != std::string::npos)
            fail(node, name + " \"" + value + "\" holds other characters than " +
                           std::string(scheme_characters_by_name));
        if (std::find(std::begin(reserved_schemes), std::end(reserved_schemes), value) !=
            std::end(reserved_schemes))
            fail(node, name + " \"" + value + "\" is reserved");
    }

    template <typename Record>
    void take(const toml::node &node, const Key<Record> &key, const Text<Record> &described,
              Record &record) const {
        const std::string name(key.name);
        auto value = exact<std::string>(node, name, "a string");
        if (value.size() > described.max_length)
            fail(node, name + " is longer than " + std::to_string(described.max_length) + " bytes");
        const auto control = [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        };
        if (std::any_of(value.begin(), value.end(), control))
            fail(node, name + " holds a control character");
        if (key.required && value.empty())
            fail(node, name + missing);
        if (described.form == Form::directory)
            check_directory(node, name, value);
        if (described.form == Form::scheme)
            check_scheme(node, name, value);
        record.*described.member = std::move(value);
    }

    template <typename Record>
    void take(const toml::node &node, const Key<Record> &key, const Number<Record> &described,
              Record &record) const {
        const std::string name(key.name);
        const auto value = exact<int64_t>(node, name, "an integer");
        if (value < described.least || value > described.most)
            fail(node, name + " is not between " + std::to_string(described.least) + " and " +
                           std::to_string(described.most));
        record.*described.member = static_cast<uint32_t>(value);
    }

    template <typename Record>
    void take(const toml::node &node, const Key<Record> &key, const Switch<Record> &described,
              Record &record) const {
        record.*described.member = exact<bool>(node, std::string(key.name), "true or false");
    }

    // Takes what `table` holds into `record`; what it lacks keeps its default.
    template <typename Record>
    void take(const toml::table &table, std::span<const Key<Record>> keys, Record &record) const {
        check_keys(table, [keys](std::string_view name) { return named(keys, name); });
        for (const Key<Record> &key : keys) {
            const toml::node *node = table.get(key.name);
            if (node == nullptr && key.required)
                fail(table, std::string(key.name) + missing);
            if (node != nullptr)
                std::visit([&](const auto &described) { take(*node, key, described, record); },
                           key.value);
        }
    }

    std::vector<FileSystem> file_systems(const toml::node &node) const {
        const std::string name(file_system_table.name);
        const toml::array *tables = node.as_array();
        if (tables == nullptr)
            fail(node, name + " must be an array of tables");
        std::vector<FileSystem> result;
        for (const toml::node &element : *tables) {
            const toml::table *table = element.as_table();
            if (table == nullptr)
                fail(element, name + " must be an array of tables");
            if (result.size() == max_file_systems)
                fail(element, "more than " + std::to_string(max_file_systems) + " file systems");
            FileSystem added;
            take(*table, file_system_table.keys, added);
            for (const FileSystem &other : result) {
                if (other.scheme == added.scheme)
                    fail(*table->get("scheme"), "scheme \"" + added.scheme + "\" is used twice");
            }
            result.push_back(std::move(added));
        }
        return result;
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
        check_keys(root, [](std::string_view name) {
            return name == file_system_table.name || named(config_tables, name);
        });
        Config result = built_in_config();
        if (const toml::node *node = root.get(file_system_table.name))
            result.file_systems = file_systems(*node);
        for (const Table<Config> &described : config_tables) {
            const toml::node *node = root.get(described.name);
            if (node == nullptr)
                continue;
            const toml::table *table = node->as_table();
            if (table == nullptr)
                fail(*node, std::string(described.name) + " must be a table");
            if (!table->empty())
                take(*table, described.keys, result);
        }
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

const std::string &state_dir() {
    static const std::string &instance =
        *new std::string(environment("RUMA_STATE_DIR", default_state_dir));
    return instance;
}

std::string fs_daemon_dir() { return run_dir() + "/fsd"; }

} // namespace ruma
