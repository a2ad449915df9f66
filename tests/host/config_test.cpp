// The configuration file.
#include "config/config.h"

#include "failing_allocations.h"
#include "provoked.h"
#include "temporary_directory.h"

#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::HasSubstr;

class ConfigTest : public testing::Test {
  protected:
    ruma::Config load(const std::string &text) {
        write_file(path, text);
        return ruma::load_config(path);
    }

    // What the reader complains of, without the file name in front.
    std::string complaint(const std::string &text) {
        try {
            load(text);
        } catch (const ruma::ConfigError &error) {
            const std::string what = error.what();
            EXPECT_EQ(what.compare(0, path.size() + 1, path + ":"), 0) << what;
            return what.substr(path.size() + 1);
        }
        return "accepted";
    }

    static std::string table(const std::string &scheme) {
        return "[[file_system]]\nscheme = \"" + scheme + "\"\ndirectory = \"/flash\"\n";
    }

    TemporaryDirectory directory;
    std::string path = directory / "platform.toml";
};

TEST_F(ConfigTest, ReadsEverySetting) {
    const ruma::Config config = load("[[file_system]]\n"
                                     "scheme = \"bootflash\"\n"
                                     "directory = \"/srv/boot flash\"\n"
                                     "description = \"Internal\"\n"
                                     "[[file_system]]\n"
                                     "scheme = \"usb-1\"\n"
                                     "directory = \"/srv/usb\"\n"
                                     "[core]\n"
                                     "directory = \"/srv/core\"\n"
                                     "[agent]\n"
                                     "user = \"Debian-snmp\"\n"
                                     "max_rows = 17\n"
                                     "report_lost_workers = true\n"
                                     "confine = true\n"
                                     "[fs_daemon]\n"
                                     "user = \"ruma-fsd\"\n"
                                     "confine = true\n"
                                     "[trace]\n"
                                     "debug = true\n");
    ASSERT_EQ(config.file_systems.size(), 2u);
    EXPECT_EQ(config.file_systems[0].scheme, "bootflash");
    EXPECT_EQ(config.file_systems[0].directory, "/srv/boot flash");
    EXPECT_EQ(config.file_systems[0].description, "Internal");
    EXPECT_EQ(config.file_systems[1].scheme, "usb-1");
    EXPECT_EQ(config.file_systems[1].description, "");
    EXPECT_EQ(config.core_directory, "/srv/core");
    EXPECT_EQ(config.agent_user, "Debian-snmp");
    EXPECT_EQ(config.max_rows, 17u);
    EXPECT_TRUE(config.report_lost_workers);
    EXPECT_TRUE(config.confine_agent);
    EXPECT_EQ(config.fs_daemon_user, "ruma-fsd");
    EXPECT_TRUE(config.confine_fs_daemon);
    EXPECT_TRUE(config.trace_debug);
}

TEST_F(ConfigTest, KeysOfTheSameNameBelongToTheirTables) {
    EXPECT_FALSE(load("[agent]\nconfine = true\n").confine_fs_daemon);
    EXPECT_FALSE(load("[fs_daemon]\nconfine = true\n").confine_agent);
    EXPECT_EQ(load("[fs_daemon]\nuser = \"ruma-fsd\"\n").agent_user, "");
    EXPECT_EQ(load("[agent]\nuser = \"snmp\"\n").fs_daemon_user, "");
}

TEST_F(ConfigTest, FileWithoutFileSystemsKeepsTheBuiltInOnes) {
    const ruma::Config config = load("[agent]\nuser = \"snmp\"\n");
    ASSERT_EQ(config.file_systems.size(), 3u);
    EXPECT_EQ(config.file_systems[0].scheme, "bootflash");
    EXPECT_EQ(config.agent_user, "snmp");
    EXPECT_EQ(config.core_directory, "");
    EXPECT_EQ(config.max_rows, 10000u);
    EXPECT_FALSE(config.report_lost_workers);
    EXPECT_FALSE(config.confine_agent);
    EXPECT_EQ(config.fs_daemon_user, "");
    EXPECT_FALSE(config.confine_fs_daemon);
    EXPECT_FALSE(config.trace_debug);
}

TEST_F(ConfigTest, EmptyListMeansNoFileSystems) {
    EXPECT_TRUE(load("file_system = []\n").file_systems.empty());
}

TEST_F(ConfigTest, TheSampleIsTheBuiltInDefaultAndReportsLostWorkersAndConfines) {
    const ruma::Config config =
        ruma::load_config(ORVEX_SOURCE_DIRECTORY "/platform/host/config/platform.toml");
    const ruma::Config built_in = load("");
    ASSERT_EQ(config.file_systems.size(), built_in.file_systems.size());
    for (size_t i = 0; i < config.file_systems.size(); i++) {
        EXPECT_EQ(config.file_systems[i].scheme, built_in.file_systems[i].scheme);
        EXPECT_EQ(config.file_systems[i].directory, built_in.file_systems[i].directory);
        EXPECT_EQ(config.file_systems[i].description, built_in.file_systems[i].description);
    }
    EXPECT_EQ(config.core_directory, built_in.core_directory);
    EXPECT_EQ(config.agent_user, built_in.agent_user);
    EXPECT_EQ(config.max_rows, built_in.max_rows);
    EXPECT_TRUE(config.report_lost_workers);
    EXPECT_TRUE(config.confine_agent);
    EXPECT_EQ(config.fs_daemon_user, built_in.fs_daemon_user);
    EXPECT_TRUE(config.confine_fs_daemon);
    EXPECT_EQ(config.trace_debug, built_in.trace_debug);
}

TEST_F(ConfigTest, SchemeOf15CharactersIsTaken) {
    EXPECT_EQ(load(table("abcdefghij-0189")).file_systems[0].scheme, "abcdefghij-0189");
}

TEST_F(ConfigTest, SchemeOf16CharactersIsRefused) {
    EXPECT_EQ(complaint(table("abcdefghij-01890")), "2: scheme is longer than 15 bytes");
}

// As many as the inventory's record of a device holds.
TEST_F(ConfigTest, DescriptionOf143BytesIsTaken) {
    std::string text = "d";
    while (text.size() < 143)
        text += "\xc3\xbc";
    EXPECT_EQ(load(table("a") + "description = \"" + text + "\"\n").file_systems[0].description,
              text);
}

TEST_F(ConfigTest, DescriptionOf144BytesIsRefused) {
    EXPECT_EQ(complaint(table("a") + "description = \"" + std::string(144, 'd') + "\"\n"),
              "4: description is longer than 143 bytes");
}

TEST_F(ConfigTest, EmptySchemeIsRefused) {
    EXPECT_EQ(complaint(table("")), "2: scheme is missing or empty");
}

TEST_F(ConfigTest, SchemeOfOtherCharactersIsRefused) {
    for (const char *scheme :
         {"Bootflash", "boot_flash", "boot/flash", "boot:flash", "boot flash", "..",
          "b\xc3\xb6"
          "d"})
        EXPECT_THAT(complaint(table(scheme)), HasSubstr("2: scheme \"")) << scheme;
}

TEST_F(ConfigTest, ReservedSchemesAreRefused) {
    for (const char *scheme : {"log", "ilc-nvram", "core"})
        EXPECT_EQ(complaint(table(scheme)),
                  "2: scheme \"" + std::string(scheme) + "\" is reserved");
}

TEST_F(ConfigTest, SchemeUsedTwiceIsRefused) {
    EXPECT_EQ(complaint(table("a") + table("b") + table("a")), "8: scheme \"a\" is used twice");
}

TEST_F(ConfigTest, MissingSchemeOrDirectoryIsRefused) {
    EXPECT_EQ(complaint("\n[[file_system]]\ndirectory = \"/a\"\n"),
              "2: scheme is missing or empty");
    EXPECT_EQ(complaint("\n[[file_system]]\nscheme = \"a\"\n"), "2: directory is missing or empty");
    EXPECT_EQ(complaint("[core]\ndirectory = \"\"\n"), "2: directory is missing or empty");
}

TEST_F(ConfigTest, RelativeDirectoryIsRefused) {
    EXPECT_EQ(complaint("[[file_system]]\nscheme = \"a\"\ndirectory = \"flash\"\n"),
              "3: directory \"flash\" is not absolute");
    EXPECT_EQ(complaint("[core]\ndirectory = \"./core\"\n"),
              "2: directory \"./core\" is not absolute");
}

TEST_F(ConfigTest, DirectoryWithDotDotIsRefused) {
    for (const char *name : {"/a/../b", "/..", "/a/.."})
        EXPECT_THAT(complaint("[core]\ndirectory = \"" + std::string(name) + "\"\n"),
                    HasSubstr("holds \"..\""));
    EXPECT_EQ(load("[core]\ndirectory = \"/a..b/..c\"\n").core_directory, "/a..b/..c");
}

TEST_F(ConfigTest, ControlCharactersAreRefused) {
    EXPECT_EQ(complaint("[core]\ndirectory = \"/a\\nb\"\n"),
              "2: directory holds a control character");
    EXPECT_EQ(complaint("[agent]\nuser = \"a\\u0000b\"\n"), "2: user holds a control character");
}

TEST_F(ConfigTest, UnknownKeysAreRefusedAtEveryLevel) {
    EXPECT_EQ(complaint("[agent]\nuser = \"a\"\n\n[flash]\nx = 1\n"), "4: unknown key \"flash\"");
    EXPECT_EQ(complaint(table("a") + "size = 3\n"), "4: unknown key \"size\"");
    EXPECT_EQ(complaint("[core]\ndirectory = \"/c\"\nlimit = 1\n"), "3: unknown key \"limit\"");
    EXPECT_EQ(complaint("[agent]\ngroup = \"a\"\n"), "2: unknown key \"group\"");
    EXPECT_EQ(complaint("[trace]\nconfine = true\n"), "2: unknown key \"confine\"");
}

TEST_F(ConfigTest, ValuesOfTheWrongKindAreRefused) {
    EXPECT_EQ(complaint("[agent]\nuser = 7\n"), "2: user must be a string");
    EXPECT_EQ(complaint("agent = \"x\"\n"), "1: agent must be a table");
    EXPECT_EQ(complaint("file_system = \"x\"\n"), "1: file_system must be an array of tables");
    EXPECT_EQ(complaint("file_system = [1]\n"), "1: file_system must be an array of tables");
    EXPECT_EQ(complaint("[[file_system]]\nscheme = [\"a\"]\n"), "2: scheme must be a string");
}

TEST_F(ConfigTest, RowLimitIsANumberFromOneToAMillion) {
    EXPECT_EQ(load("[agent]\nmax_rows = 1\n").max_rows, 1u);
    EXPECT_EQ(load("[agent]\nmax_rows = 1000000\n").max_rows, 1000000u);
    for (const char *value : {"0", "-1", "1000001", "4294967297", "9223372036854775807"})
        EXPECT_EQ(complaint("[agent]\nmax_rows = " + std::string(value) + "\n"),
                  "2: max_rows is not between 1 and 1000000");
    for (const char *value : {"\"17\"", "17.0", "true", "[17]"})
        EXPECT_EQ(complaint("[agent]\nmax_rows = " + std::string(value) + "\n"),
                  "2: max_rows must be an integer");
}

TEST_F(ConfigTest, SwitchIsTrueOrFalse) {
    EXPECT_FALSE(load("[agent]\nreport_lost_workers = false\n").report_lost_workers);
    for (const char *value : {"\"true\"", "1", "[true]"})
        EXPECT_EQ(complaint("[agent]\nreport_lost_workers = " + std::string(value) + "\n"),
                  "2: report_lost_workers must be true or false");
}

TEST_F(ConfigTest, ThirtyTwoFileSystemsAreTakenAndOneMoreIsRefused) {
    std::string text;
    for (int i = 0; i < 32; i++)
        text += table("fs" + std::to_string(i));
    EXPECT_EQ(load(text).file_systems.size(), 32u);
    EXPECT_EQ(complaint(text + table("fs32")), "97: more than 32 file systems");
}

TEST_F(ConfigTest, SyntaxErrorsNameTheLine) {
    EXPECT_EQ(complaint("\n\nscheme = \n").substr(0, 2), "3:");
}

TEST_F(ConfigTest, MissingFileIsAnError) {
    EXPECT_THROW(ruma::load_config(directory / "absent.toml"), ruma::ConfigError);
}

TEST_F(ConfigTest, DirectoryInPlaceOfTheFileIsAnError) {
    EXPECT_THROW(ruma::load_config(directory.path()), ruma::ConfigError);
}

TEST_F(ConfigTest, AFileThatMayNotBeReadIsAnErrorThatNamesTheReason) {
    write_file(path, "");
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
    ASSERT_EQ(::seteuid(65534), 0);
    std::string reason;
    try {
        ruma::load_config(path);
    } catch (const ruma::ConfigError &error) {
        reason = error.what();
    }
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(reason, path + ": Permission denied");
}

// The complaints that docs/troubleshoot.md lists.
TEST_F(ConfigTest, ComplaintsAreThoseOfTheDocument) {
    EXPECT_PROVOKED(complaint("x = 1\n"), "…: unknown key \"…\"");
    EXPECT_PROVOKED(complaint("[agent]\nuser = 7\n"), "…: … must be a string");
    EXPECT_PROVOKED(complaint("[agent]\nmax_rows = \"7\"\n"), "…: … must be an integer");
    EXPECT_PROVOKED(complaint("[agent]\nconfine = 1\n"), "…: … must be true or false");
    EXPECT_PROVOKED(complaint("agent = 1\n"), "…: … must be a table");
    EXPECT_PROVOKED(complaint("file_system = 1\n"), "…: file_system must be an array of tables");
    EXPECT_PROVOKED(complaint(table("abcdefghij-01890")), "…: … is longer than … bytes");
    EXPECT_PROVOKED(complaint("[agent]\nuser = \"a\\t\"\n"), "…: … holds a control character");
    EXPECT_PROVOKED(complaint("[[file_system]]\n"), "…: … is missing or empty");
    EXPECT_PROVOKED(complaint("[agent]\nmax_rows = 0\n"), "…: … is not between … and …");
    EXPECT_PROVOKED(complaint("[core]\ndirectory = \"core\"\n"), "…: … \"…\" is not absolute");
    EXPECT_PROVOKED(complaint("[core]\ndirectory = \"/..\"\n"), "…: … \"…\" holds \"..\"");
    EXPECT_PROVOKED(complaint(table("Flash")),
                    "…: scheme \"…\" holds other characters than a-z, 0-9 and -");
    EXPECT_PROVOKED(complaint(table("log")), "…: scheme \"…\" is reserved");
    EXPECT_PROVOKED(complaint(table("a") + table("a")), "…: scheme \"…\" is used twice");
    std::string many;
    for (int i = 0; i < 33; i++)
        many += table("fs" + std::to_string(i));
    EXPECT_PROVOKED(complaint(many), "…: more than 32 file systems");
    EXPECT_PROVOKED(complaint("agent = \n"), "…: Error while parsing …");
    EXPECT_PROVOKED(path + ":" + complaint(std::string((1 << 20) + 1, '\n')),
                    "…: longer than 1048576 bytes");
}

// Neither ends the process nor gives half a configuration, wherever memory runs out.
TEST_F(ConfigTest, MissingMemoryIsReported) {
    const std::pair<std::string, std::string> files[] = {
        {table("a") + table("b") + "[agent]\nuser = \"snmp\"\n", "2 file systems"},
        {table("a") + "[flash]\n", "refused"},
    };
    for (const auto &[text, expected] : files) {
        write_file(path, text);
        long allowed = 0;
        std::string outcome = "no memory";
        while (outcome == "no memory" && allowed < 10000) {
            const int found = with_allocations(allowed++, [this] {
                try {
                    return static_cast<int>(ruma::load_config(path).file_systems.size());
                } catch (const ruma::ConfigError &) {
                    return -1;
                } catch (const std::bad_alloc &) {
                    return -2;
                }
            });
            if (found != -2)
                outcome = found == -1 ? "refused" : std::to_string(found) + " file systems";
        }
        EXPECT_EQ(outcome, expected);
        EXPECT_GT(allowed, 10);
    }
}

TEST_F(ConfigTest, HugeFileIsRefusedUnread) {
    write_file(path, "");
    std::filesystem::resize_file(path, (1 << 20) + 1);
    EXPECT_THROW(ruma::load_config(path), ruma::ConfigError);
}

// The process's own configuration is read once: each case runs in a process of its own.
using ConfigProcessTest = ConfigTest;

TEST_F(ConfigProcessTest, EnvironmentNamesTheFile) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", path.c_str(), 1);
            write_file(path, table("a"));
            std::exit(ruma::config().file_systems.at(0).scheme == "a" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, IsReadOnlyOnce) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", path.c_str(), 1);
            write_file(path, table("a"));
            ruma::config();
            write_file(path, table("b"));
            std::exit(ruma::config().file_systems.at(0).scheme == "a" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, MissingFileGivesTheBuiltInDefaultSilently) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", (directory / "absent.toml").c_str(), 1);
            const ruma::Config &config = ruma::config();
            std::string found;
            for (const ruma::FileSystem &file_system : config.file_systems)
                found += file_system.scheme + " " + file_system.directory + "\n";
            const bool right = found == "bootflash /var/lib/ruma/bootflash\n"
                                        "slot0 /var/lib/ruma/slot0\n"
                                        "logflash /var/lib/ruma/logflash\n";
            std::exit(right ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, UnusableFileIsReportedOnceAndGivesNoFileSystems) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_CONFIG", path.c_str(), 1);
            write_file(path, "x = 1\n");
            ruma::config();
            std::exit(ruma::config().file_systems.empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^ruma: [^\n]*platform.toml:1: unknown key \"x\"\n$");
}

TEST_F(ConfigProcessTest, ConfigPathIsTheSystemsByDefault) {
    EXPECT_EXIT(
        {
            ::unsetenv("RUMA_CONFIG");
            std::exit(ruma::config_path() == "/etc/ruma/platform.toml" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, RunDirectoryIsTheSystemsByDefault) {
    EXPECT_EXIT(
        {
            ::unsetenv("RUMA_RUN_DIR");
            std::exit(ruma::run_dir() == "/run/ruma" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, StateDirectoryIsTheSystemsByDefaultAndTheEnvironmentNamesAnother) {
    EXPECT_EXIT(
        {
            ::unsetenv("RUMA_STATE_DIR");
            std::exit(ruma::state_dir() == "/var/lib/ruma/state" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
    EXPECT_EXIT(
        {
            ::setenv("RUMA_STATE_DIR", (directory / "state").c_str(), 1);
            std::exit(ruma::state_dir() == directory / "state" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, TheDaemonHasADirectoryOfItsOwnInTheRunDirectory) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_RUN_DIR", "/somewhere", 1);
            std::exit(ruma::fs_daemon_dir() == "/somewhere/fsd" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(ConfigProcessTest, EnvironmentNamesTheRunDirectoryOnceAndItIsNotCreated) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_RUN_DIR", (directory / "run").c_str(), 1);
            const bool right = ruma::run_dir() == directory / "run";
            ::setenv("RUMA_RUN_DIR", "/elsewhere", 1);
            std::exit(right && ruma::run_dir() == directory / "run" &&
                              !std::filesystem::exists(directory / "run")
                          ? 0
                          : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

} // namespace
