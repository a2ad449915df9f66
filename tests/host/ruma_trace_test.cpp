// ruma-trace, run as a program.
#include "evwrap/row.h"
#include "evwrap_fixture.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

// A running ruma-trace, which lies beside this program.
class Viewer {
  public:
    explicit Viewer(std::vector<std::string> arguments) {
        const std::string program =
            (fs::read_symlink("/proc/self/exe").parent_path() / "ruma-trace").string();
        arguments.insert(arguments.begin(), program);
        std::vector<char *> pointers;
        for (std::string &argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        // As from a terminal, whatever this program was started by.
        sigset_t interrupt;
        ::sigemptyset(&interrupt);
        ::sigaddset(&interrupt, SIGINT);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigdefault(&attributes, &interrupt);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        EXPECT_EQ(
            ::posix_spawn(&pid_, program.c_str(), &actions, &attributes, pointers.data(), environ),
            0)
            << program;
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        output_ = ends[0];
    }
    ~Viewer() {
        ::close(output_);
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Viewer(const Viewer &) = delete;
    Viewer &operator=(const Viewer &) = delete;

    pid_t pid() const { return pid_; }

    // The next line of output, without its newline; empty at the end or after a long silence.
    std::string line() {
        for (;;) {
            const size_t end = buffer_.find('\n');
            if (end != buffer_.npos) {
                const std::string result = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return result;
            }
            if (!fill())
                return "";
        }
    }

    // The rest of the output and, in `exit_code`, how the program ended.
    std::string rest(int *exit_code) {
        while (fill()) {
        }
        int status = -1;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        // As a shell has it.
        *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return buffer_;
    }

  private:
    bool fill() {
        pollfd waiting{output_, POLLIN, 0};
        const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(patience);
        if (::poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
            return false;
        char bytes[4096];
        const ssize_t got = ::read(output_, bytes, sizeof(bytes));
        if (got <= 0)
            return false;
        buffer_.append(bytes, static_cast<size_t>(got));
        return true;
    }

    pid_t pid_ = -1;
    int output_ = -1;
    std::string buffer_;
};

class RumaTraceTest : public EvwrapTest {
  protected:
    // The output of a run that must end with `expected`.
    static std::string run(std::vector<std::string> arguments, int expected = 0) {
        int exit_code = -1;
        const std::string output = Viewer(std::move(arguments)).rest(&exit_code);
        EXPECT_EQ(exit_code, expected) << output;
        return output;
    }

    // The level and text of each line.
    static std::string messages(const std::string &output) {
        std::string result;
        size_t begin = 0;
        while (begin < output.size()) {
            const size_t end = output.find('\n', begin);
            std::string line = output.substr(begin, end - begin);
            const size_t id = line.find(" 0x730000 ");
            result += id == line.npos ? "?" + line : line.substr(id + 10);
            result += "\n";
            begin = end + 1;
        }
        return result;
    }
};

TEST_F(RumaTraceTest, ShowsTimeProcessTraceIdLevelAndText) {
    record("a message\n", 100);
    EXPECT_THAT(run({}),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{6} " +
                                      std::to_string(::getpid()) + " 0x730000 error a message\n"));
}

TEST_F(RumaTraceTest, ShowsRecordsOldestFirstWithTheirLevels) {
    record("first\n", 101);
    record("second", 100);
    record("third\n\n", 7);
    EXPECT_EQ(messages(run({})), "debug first\nerror second\n7 third\n");
}

TEST_F(RumaTraceTest, ShowsEveryRecordOnOneLineWithControlCharactersEscaped) {
    record("two\nlines \x1b[2J\n");
    record("");
    EXPECT_EQ(messages(run({})), "debug two\\nlines \\x1b[2J\ndebug \n");
}

TEST_F(RumaTraceTest, ShowsNothingOfAnEmptyHistory) { EXPECT_EQ(run({}), ""); }

TEST_F(RumaTraceTest, ShowsErrorsOnlyOnRequest) {
    record("quiet", 101);
    record("loud", 100);
    EXPECT_EQ(messages(run({"--errors"})), "error loud\n");
}

TEST_F(RumaTraceTest, ShowsHowOftenAnErrorWasRepeatedAndWhenLast) {
    for (int i = 0; i < 4; i++)
        record("again and again\n", 100);
    EXPECT_THAT(messages(run({})),
                testing::MatchesRegex("error again and again \\(3 more, last "
                                      "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\)\n"));
}

TEST_F(RumaTraceTest, ShowsRecordsOfARowOnRequest) {
    {
        const ruma::RowScope row({ruma::RowTable::copy, 7});
        record("of copy 7");
    }
    {
        const ruma::RowScope row({ruma::RowTable::misc_op, 7});
        record("of operation 7");
    }
    {
        const ruma::RowScope row({ruma::RowTable::copy, 77});
        record("of copy 77");
    }
    record("of no row, though it says row 7");
    EXPECT_EQ(messages(run({"--row", "7"})), "debug of copy 7\ndebug of operation 7\n");
    EXPECT_EQ(run({"--row", "8"}), "");
}

TEST_F(RumaTraceTest, ShowsRecordsSinceATimeOnRequest) {
    record("now");
    EXPECT_EQ(messages(run({"--since", "10m"})), "debug now\n");
    EXPECT_EQ(messages(run({"--since", "2001-02-03 04:05"})), "debug now\n");
    EXPECT_EQ(run({"--since", "2037-12-31"}), "");
}

TEST_F(RumaTraceTest, CombinesWhatItIsAskedFor) {
    const ruma::RowScope row({ruma::RowTable::copy, 7});
    record("debug");
    record("error", 100);
    EXPECT_EQ(messages(run({"--row=7", "--since=1h", "--errors"})), "error error\n");
}

TEST_F(RumaTraceTest, PrintsOneJsonObjectALine) {
    const ruma::RowScope row({ruma::RowTable::copy, 4294967295});
    record("two\nlines, \"quoted\", of \xff\xc3\xa9\x01\n", 100);
    record("another", 7);
    const std::string output = run({"--json"});
    const size_t end = output.find('\n');
    const auto first = nlohmann::json::parse(output.substr(0, end));
    const auto second = nlohmann::json::parse(output.substr(end + 1));
    EXPECT_EQ(first["text"], "two\nlines, \"quoted\", of \uFFFD\u00E9\u0001\n");
    EXPECT_EQ(first["level"], "error");
    EXPECT_EQ(first["subtype"], 100);
    EXPECT_EQ(first["trace_id"], trace_id);
    EXPECT_EQ(first["pid"], ::getpid());
    EXPECT_EQ(first["table"], "copy");
    EXPECT_EQ(first["row"], 4294967295);
    EXPECT_EQ(first["repeats"], 0);
    EXPECT_THAT(first["time"].get<std::string>(),
                testing::MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{6}Z"));
    EXPECT_EQ(second["level"], "7");
    EXPECT_EQ(second["sequence"].get<uint32_t>() - first["sequence"].get<uint32_t>(), 1u);
}

TEST_F(RumaTraceTest, JsonNamesNoRowWhereNoneIsKnown) {
    record("text");
    const auto object = nlohmann::json::parse(run({"--json"}));
    EXPECT_TRUE(object["table"].is_null());
    EXPECT_TRUE(object["row"].is_null());
}

TEST_F(RumaTraceTest, FollowsTheHistory) {
    record("before");
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("debug before"));
    record("after", 100);
    EXPECT_THAT(viewer.line(), HasSubstr("error after"));
    for (int i = 0; i < 100; i++)
        record(std::to_string(i));
    for (int i = 0; i < 100; i++)
        ASSERT_THAT(viewer.line(), testing::EndsWith("debug " + std::to_string(i)));
}

TEST_F(RumaTraceTest, FollowingShowsWhatIsAskedForAlone) {
    record("before", 100);
    Viewer viewer({"--follow", "--errors", "--json"});
    EXPECT_EQ(nlohmann::json::parse(viewer.line())["text"], "before");
    record("not this");
    record("but this", 100);
    EXPECT_EQ(nlohmann::json::parse(viewer.line())["text"], "but this");
}

TEST_F(RumaTraceTest, FollowingShowsARepeatedErrorEachTimeItLooks) {
    record("refused", 100);
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), testing::EndsWith("error refused"));
    record("refused", 100);
    EXPECT_THAT(viewer.line(), HasSubstr("error refused (1 more, last"));
    record("refused", 100);
    EXPECT_THAT(viewer.line(), HasSubstr("error refused (2 more, last"));
}

// A viewer that follows the history of another directory than the process's.
class FollowTest : public RumaTraceTest {
  protected:
    void begin() {
        EventHistory(other.path(), HistoryAccess::record).append(trace_id, 101, {}, "before");
        ::setenv("RUMA_RUN_DIR", other.path().c_str(), 1);
        viewer.emplace(std::vector<std::string>{"--follow"});
        ::setenv("RUMA_RUN_DIR", directory().c_str(), 1);
        EXPECT_THAT(viewer->line(), HasSubstr("debug before"));
    }

    TemporaryDirectory other;
    std::optional<Viewer> viewer;
};

TEST_F(FollowTest, WaitsWithoutUsingTheProcessor) {
    begin();
    const auto switches = [&] {
        const std::string status = read_file("/proc/" + std::to_string(viewer->pid()) + "/status");
        const std::string name = "\nvoluntary_ctxt_switches:";
        return std::stol(status.substr(status.find(name) + name.size()));
    };
    const long before = switches();
    const auto began = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2)); // how long is what is looked at
    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began);
    EXPECT_LE(static_cast<double>(switches() - before), 3 * seconds.count());
}

TEST_F(RumaTraceTest, FollowingPassesOverRecordsThatNeverAppear) {
    record("before");
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("debug before"));
    ASSERT_EQ(::kill(viewer.pid(), SIGSTOP), 0);
    ASSERT_EQ(::waitpid(viewer.pid(), nullptr, WUNTRACED), viewer.pid());
    for (int i = 0; i < 100; i++)
        record("lost");
    history->clear();
    record("after");
    ASSERT_EQ(::kill(viewer.pid(), SIGCONT), 0);
    EXPECT_THAT(viewer.line(), HasSubstr("debug after"));
}

TEST_F(RumaTraceTest, FollowingSaysHowManyRecordsItMissed) {
    constexpr uint32_t slots = ruma::ring_slots[ruma::ring_others];
    for (const bool json : {false, true}) {
        history->clear();
        record("before");
        Viewer viewer({"--follow", json ? "--json" : "--since=1h"});
        EXPECT_THAT(viewer.line(), HasSubstr("before"));
        ASSERT_EQ(::kill(viewer.pid(), SIGSTOP), 0);
        ASSERT_EQ(::waitpid(viewer.pid(), nullptr, WUNTRACED), viewer.pid());
        for (uint32_t i = 0; i < slots + 3; i++)
            record("record " + std::to_string(i));
        ASSERT_EQ(::kill(viewer.pid(), SIGCONT), 0);
        EXPECT_EQ(viewer.line(), json ? R"({"lost":3})" : "-- 3 records lost --");
        EXPECT_THAT(viewer.line(), HasSubstr("record 3"));
    }
}

TEST_F(FollowTest, GoesOnWithTheFileThatHasTakenThePlace) {
    begin();
    // Removed while it is being written, and made anew by a process that starts.
    EventHistory old(other.path(), HistoryAccess::record);
    fs::remove(other / "event-history");
    old.append(trace_id, 101, {}, "last of the old");
    EXPECT_THAT(viewer->line(), HasSubstr("debug last of the old"));
    EventHistory next(other.path(), HistoryAccess::record);
    next.append(trace_id, 101, {}, "first of the new");
    EXPECT_THAT(viewer->line(), HasSubstr("debug first of the new"));
    next.append(trace_id, 101, {}, "second of the new");
    EXPECT_THAT(viewer->line(), HasSubstr("debug second of the new"));
}

TEST_F(RumaTraceTest, FollowingEndsAtCtrlCAsTheShellExpects) {
    record("before");
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("debug before"));
    ASSERT_EQ(::kill(viewer.pid(), SIGINT), 0);
    int exit_code = -1;
    EXPECT_EQ(viewer.rest(&exit_code), "");
    EXPECT_EQ(exit_code, 128 + SIGINT);
}

TEST_F(RumaTraceTest, TurnsTheRecordingOfDebugMessagesOnAndOff) {
    history->configure(ruma::switch_errors);
    EXPECT_EQ(run({"--debug", "on"}), "recording of debug messages on\n");
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    EXPECT_EQ(run({"--debug", "off"}), "recording of debug messages off\n");
    EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 100), 0);
    EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), 0) << "printing is another switch";
}

TEST_F(RumaTraceTest, TurnsTheRecordingOfDebugMessagesToWhatIsConfigured) {
    history->configure(ruma::switches_recording);
    EXPECT_EQ(run({"--debug", "off"}), "recording of debug messages off\n");
    EXPECT_EQ(run({"--debug", "default"}), "recording of debug messages on\n");
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    history->configure(ruma::switch_errors);
    EXPECT_EQ(run({"--debug", "on"}), "recording of debug messages on\n");
    EXPECT_EQ(run({"--debug", "default"}), "recording of debug messages off\n");
    EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101), 0);
}

TEST_F(RumaTraceTest, RecordsDebugMessagesAndFollowsThem) {
    history->configure(ruma::switch_errors);
    record("before", 100);
    Viewer viewer({"--debug", "on", "--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("error before"));
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    record("after");
    EXPECT_THAT(viewer.line(), HasSubstr("debug after"));
}

TEST_F(RumaTraceTest, SetsAndShowsDebugPrinting) {
    EXPECT_EQ(run({"debug", "on"}), "debug on\n");
    EXPECT_NE(evwrap_chk_int(101, 0, 0, 1), 0);
    EXPECT_EQ(run({"debug"}), "debug on\n");
    EXPECT_EQ(run({"debug", "off"}), "debug off\n");
    EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), 0);
}

TEST_F(RumaTraceTest, SetsAndShowsTheFilter) {
    const struct {
        const char *name;
        bool error;
        bool debug;
    } cases[] = {{"error", true, false},
                 {"debug", false, true},
                 {"none", false, false},
                 {"all", true, true}};
    for (const auto &[name, error, debug] : cases) {
        EXPECT_EQ(run({"filter", name}), std::string("filter ") + name + "\n");
        EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 100) != 0, error) << name;
        EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101) != 0, debug) << name;
        EXPECT_EQ(run({"filter"}), std::string("filter ") + name + "\n");
    }
}

TEST_F(RumaTraceTest, ClearsTheHistory) {
    record("secret");
    EXPECT_EQ(run({"clear"}), "");
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(RumaTraceTest, RefusesUnknownStatesAndCommands) {
    EXPECT_NE(run({"debug", "maybe"}, 105), "");
    EXPECT_NE(run({"filter", "some"}, 105), "");
    EXPECT_NE(run({"erase"}, 109), "");
    EXPECT_NE(run({"--debug", "maybe"}, 105), "");
    EXPECT_THAT(run({"--since", "yesterday"}, 105),
                HasSubstr("neither a span nor a time: yesterday"));
    for (const char *row : {"0", "-1", "4294967296", "seven"})
        EXPECT_NE(run({"--row", row}, 105), "") << row;
}

TEST_F(RumaTraceTest, SaysWhenThereIsNoHistory) {
    TemporaryDirectory empty;
    ::setenv("RUMA_RUN_DIR", empty.path().c_str(), 1);
    EXPECT_EQ(run({}, 1),
              "ruma-trace: " + (empty / "event-history") + ": No such file or directory\n");
    EXPECT_NE(run({"debug", "on"}, 1), "");
    EXPECT_FALSE(fs::exists(empty / "event-history"));
    ::setenv("RUMA_RUN_DIR", RunDirectory::directory->path().c_str(), 1);
}

} // namespace
