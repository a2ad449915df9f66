// What the configuration file may hold, described once: the parser takes keys, limits and defaults
// from here, and the manual page and the sample file are rendered from it (describe.cpp).
#ifndef RUMA_HOST_CONFIG_DESCRIPTION_H
#define RUMA_HOST_CONFIG_DESCRIPTION_H

#include "config/config.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ruma {

enum class Form {
    text,      // any characters but control characters
    directory, // an absolute path without ".."
    scheme,    // characters of scheme_characters, none of reserved_schemes
};

// The kinds of values. A member of the record takes the value; what it holds in a record just made
// is the default.
template <typename Record>
struct Text {
    std::string Record::*member;
    Form form;
    size_t max_length; // bytes
};
template <typename Record>
struct Number {
    uint32_t Record::*member;
    int64_t least;
    int64_t most;
};
template <typename Record>
struct Switch {
    bool Record::*member;
};

template <typename Record>
struct Key {
    std::string_view name;
    std::variant<Text<Record>, Number<Record>, Switch<Record>> value;
    bool required;            // in a table that holds any key
    std::string_view meaning; // sentences; in double quotes what the reader would type
    std::string_view sample;  // the value in the sample file; after a "#" it is commented out there
};

template <typename Record>
struct Table {
    std::string_view name;
    std::string_view meaning;
    std::span<const Key<Record>> keys;
};

constexpr size_t max_file_systems = 32;
constexpr std::uintmax_t max_config_size = 1 << 20;
constexpr std::string_view scheme_characters = "abcdefghijklmnopqrstuvwxyz0123456789-";
constexpr std::string_view scheme_characters_by_name = "a-z, 0-9 and -";
// Schemes that mean something else on the device than a file system.
constexpr std::string_view reserved_schemes[] = {"log", "ilc-nvram", "core"};

// An array of tables, each one a file system.
extern const Table<FileSystem> file_system_table;
// Tables of which the file has one each at most, in the order in which the documents show them.
extern const std::span<const Table<Config>> config_tables;
// What stands for the file systems when the file names none, not even an empty list.
std::vector<FileSystem> built_in_file_systems();

} // namespace ruma

#endif
