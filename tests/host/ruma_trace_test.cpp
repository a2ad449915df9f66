// ruma-trace, run as a program.
#include "evwrap_fixture.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
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
        EXPECT_EQ(
            ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, pointers.data(), environ), 0)
            << program;
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
        *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

TEST_F(RumaTraceTest, FollowingPassesOverARecordThatNeverAppears) {
    record("before");
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("debug before"));
    ASSERT_EQ(::kill(viewer.pid(), SIGSTOP), 0);
    ASSERT_EQ(::waitpid(viewer.pid(), nullptr, WUNTRACED), viewer.pid());
    record("lost");
    history->clear();
    record("after");
    ASSERT_EQ(::kill(viewer.pid(), SIGCONT), 0);
    EXPECT_THAT(viewer.line(), HasSubstr("debug after"));
}

TEST_F(RumaTraceTest, FollowingSaysHowManyRecordsItMissed) {
    record("before");
    Viewer viewer({"--follow"});
    EXPECT_THAT(viewer.line(), HasSubstr("debug before"));
    ASSERT_EQ(::kill(viewer.pid(), SIGSTOP), 0);
    ASSERT_EQ(::waitpid(viewer.pid(), nullptr, WUNTRACED), viewer.pid());
    for (uint32_t i = 0; i < ruma::history_slots + 3; i++)
        record(std::to_string(i));
    ASSERT_EQ(::kill(viewer.pid(), SIGCONT), 0);
    EXPECT_EQ(viewer.line(), "-- 3 records lost --");
    EXPECT_THAT(viewer.line(), testing::EndsWith("debug 3"));
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
    EXPECT_THAT(texts(*history), IsEmpty());
}

TEST_F(RumaTraceTest, RefusesUnknownStatesAndCommands) {
    EXPECT_NE(run({"debug", "maybe"}, 105), "");
    EXPECT_NE(run({"filter", "some"}, 105), "");
    EXPECT_NE(run({"erase"}, 109), "");
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
