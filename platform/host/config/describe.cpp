// Renders the description of the configuration file: "man" is the manual page man/platform.toml.5,
// "sample" the file platform.toml beside this one. Both are kept in the tree, so that nothing has
// to be run while building for another machine; a test compares them with what this program prints.
#include "config/description.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace {

using ruma::Config;
using ruma::FileSystem;
using ruma::Key;
using ruma::Number;
using ruma::Switch;
using ruma::Table;
using ruma::Text;

constexpr size_t columns = 100;

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string reserved_schemes() {
    return std::accumulate(std::begin(ruma::reserved_schemes), std::end(ruma::reserved_schemes),
                           std::string(), [](const std::string &before, std::string_view scheme) {
                               return before + (before.empty() ? "" : ", ") + quoted(scheme);
                           });
}

// What a value may be, without a full stop.
template <typename Record>
std::string limits(const Text<Record> &text) {
    const std::string most = std::to_string(text.max_length);
    switch (text.form) {
    case ruma::Form::scheme:
        return "1 to " + most + " characters of " + std::string(ruma::scheme_characters_by_name) +
               ", none of " + reserved_schemes();
    case ruma::Form::directory:
        return "an absolute path without \"..\", at most " + most + " bytes";
    case ruma::Form::text:
        break;
    }
    return "a string of at most " + most + " bytes without control characters";
}

template <typename Record>
std::string limits(const Number<Record> &number) {
    return "an integer from " + std::to_string(number.least) + " to " + std::to_string(number.most);
}

template <typename Record>
std::string limits(const Switch<Record> &) {
    return "true or false";
}

// What holds when the key is missing.
template <typename Record>
std::string fallback(const Text<Record> &text) {
    const std::string value = Record{}.*text.member;
    return value.empty() ? "may be left out" : "default " + quoted(value);
}

template <typename Record>
std::string fallback(const Number<Record> &number) {
    return "default " + std::to_string(Record{}.*number.member);
}

template <typename Record>
std::string fallback(const Switch<Record> &flag) {
    return std::string("default ") + (Record{}.*flag.member ? "true" : "false");
}

template <typename Record>
std::string rules(const Key<Record> &key) {
    return std::visit(
        [&key](const auto &value) {
            return limits(value) + "; " + (key.required ? "required" : fallback(value));
        },
        key.value);
}

// --- The manual page

constexpr const char *page_head =
    R"(.\" Rendered by describe_config; to change it, change platform/host/config.
.Dd November 21, 2026
.Dt PLATFORM.TOML 5
.Os "Orvex flash MIB"
.Sh NAME
.Nm platform.toml
.Nd configuration of the flash MIB's host platform
.Sh SYNOPSIS
.Pa /etc/ruma/platform.toml
.Sh DESCRIPTION
One file configures the platform on which the flash MIB module runs: which directories play the
device's flash file systems, and how the SNMP agent's modules,
.Xr fs_daemon 8
and the event history behave.
Each process reads it once, when it starts; the agent keeps what it has read over a
.Dv SIGHUP .
.Pp
The file is in TOML 1.0.
Keys and tables other than those below are refused.
So is a file longer than )";

constexpr const char *page_file_systems = R"( bytes.
Without the file, or without any table
.Ic file_system ,
the file systems are:
.Bl -column "bootflash" "/var/lib/ruma/bootflash" "Removable flash card" -offset indent
)";

constexpr const char *page_tail = R"(.Sh ENVIRONMENT
.Bl -tag -width Ds
.It Ev RUMA_CONFIG
The path of another file to read instead.
.El
.Sh FILES
.Bl -tag -width Ds
.It Pa /etc/ruma/platform.toml
The configuration.
.El
.Sh EXAMPLES
Two file systems, and the users of an installation with Debian's agent:
.Bd -literal -offset indent
[[file_system]]
scheme = "bootflash"
directory = "/var/lib/ruma/bootflash"

[[file_system]]
scheme = "usb-1"
directory = "/media/flash"
description = "USB stick"

[agent]
user = "Debian-snmp"

[fs_daemon]
user = "ruma-fsd"
.Ed
.Sh DIAGNOSTICS
A file that cannot be used is reported on standard error, with its path, the line and the reason:
.Pp
.Dl ruma: /etc/ruma/platform.toml:7: unknown key \(dqsize\(dq
.Pp
.Xr fs_daemon 8
then does not start.
The agent goes on without any file system, so that it refuses every copy rather than to guess.
.Sh SEE ALSO
.Xr ruma-trace 1 ,
.Xr orvex-flash-mib 7 ,
.Xr fs_daemon 8
)";

// Text for the manual page: each sentence on a line of its own, nothing taken for a request.
std::string roff(std::string_view text) {
    std::string result;
    bool in_quotes = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (c == '"') {
            result += in_quotes ? "\\(rq" : "\\(lq";
            in_quotes = !in_quotes;
        } else if (c == '-' && in_quotes) {
            result += "\\-";
        } else if (c == ' ' && i != 0 && text[i - 1] == '.') {
            result += '\n';
        } else {
            result += c;
        }
    }
    return result;
}

template <typename Record>
void print_keys(const Table<Record> &table) {
    std::printf("%s\n.Bl -tag -width Ds\n", roff(table.meaning).c_str());
    for (const Key<Record> &key : table.keys)
        std::printf(".It Ic %s\n%s\nThe value: %s.\n", std::string(key.name).c_str(),
                    roff(key.meaning).c_str(), roff(rules(key)).c_str());
    std::puts(".El");
}

void print_page() {
    std::printf("%s%ju%s", page_head, ruma::max_config_size, page_file_systems);
    for (const FileSystem &each : ruma::built_in_file_systems())
        std::printf(".It %s Ta %s Ta %s\n", each.scheme.c_str(), each.directory.c_str(),
                    each.description.c_str());
    std::printf(".El\n.Sh TABLES AND KEYS\n");
    std::printf(".Ss [[%s]], at most %zu\n", std::string(ruma::file_system_table.name).c_str(),
                ruma::max_file_systems);
    print_keys(ruma::file_system_table);
    for (const Table<Config> &table : ruma::config_tables) {
        std::printf(".Ss [%s]\n", std::string(table.name).c_str());
        print_keys(table);
    }
    std::printf("%s", page_tail);
}

// --- The sample

// Prints `text` as comment lines; all but the first are indented by `indent` more.
void print_comment(const std::string &text, size_t indent = 0) {
    std::string line = "#";
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        // More blanks than one are the writer's.
        const std::string word = text.substr(begin, end - begin);
        if (line.size() + 1 + word.size() > columns) {
            std::puts(line.c_str());
            line = "#" + std::string(indent, ' ');
        }
        line += " " + word;
        begin = end + 1;
    }
    std::puts(line.c_str());
}

std::string sentence(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text + ".";
}

void print_sample_file_systems() {
    const Table<FileSystem> &table = ruma::file_system_table;
    const std::string name(table.name);
    std::puts("");
    print_comment(std::string(table.meaning) + " At most " +
                  std::to_string(ruma::max_file_systems) + ".");
    for (const Key<FileSystem> &key : table.keys) {
        constexpr size_t width = 15;
        std::string head = "  " + std::string(key.name);
        head.resize(width, ' ');
        print_comment(head + std::string(key.meaning) + " " + sentence(rules(key)), width);
    }
    bool first = true;
    for (const FileSystem &each : ruma::built_in_file_systems()) {
        std::printf("%s[[%s]]\nscheme = \"%s\"\ndirectory = \"%s\"\ndescription = \"%s\"\n",
                    first ? "" : "\n", name.c_str(), each.scheme.c_str(), each.directory.c_str(),
                    each.description.c_str());
        first = false;
    }
}

void print_sample(const Table<Config> &table) {
    std::puts("");
    print_comment(std::string(table.meaning));
    std::printf("[%s]\n", std::string(table.name).c_str());
    bool first = true;
    for (const Key<Config> &key : table.keys) {
        if (!first)
            std::puts("");
        first = false;
        print_comment(std::string(key.meaning) + " " + sentence(rules(key)));
        const bool shown_only = key.sample.front() == '#';
        std::printf("%s%s = %s\n", shown_only ? "#" : "", std::string(key.name).c_str(),
                    std::string(key.sample.substr(shown_only ? 1 : 0)).c_str());
    }
}

void print_sample() {
    std::puts("# Configuration of the host platform, installed as /etc/ruma/platform.toml. See "
              "platform.toml(5).");
    std::puts(
        "# Rendered by describe_config; to change what it says, change platform/host/config.");
    print_sample_file_systems();
    for (const Table<Config> &table : ruma::config_tables)
        print_sample(table);
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc == 2 ? argv[1] : "";
    if (what == "man") {
        print_page();
    } else if (what == "sample") {
        print_sample();
    } else {
        std::fputs("usage: describe_config man|sample\n", stderr);
        return EXIT_FAILURE;
    }
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
