// The trace facility: event history, debug printing and ruma-trace.
#include "ruma/evwrap.h"

#include "evwrap/history.h"
#include "evwrap/quiet.h"
#include "failing_allocations.h"
#include "temporary_directory.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using ruma::EventHistory;
using Access = EventHistory::Access;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr uint32_t trace_id = 0x730000;
constexpr auto patience = std::chrono::seconds(20);
constexpr uid_t nobody = 65534;

// The texts of all records, oldest first.
std::vector<std::string> texts(const EventHistory &history) {
    std::vector<std::string> result;
    for (uint32_t i = ruma::history_slots; i > 0; i--) {
        if (const auto event = history.read(history.next_ticket() - i))
            result.push_back(event->text);
    }
    return result;
}

std::string reason_of(const std::string &directory, Access access) {
    try {
        EventHistory(directory, access);
    } catch (const ruma::HistoryError &error) {
        return error.what();
    }
    return "opened";
}

// Runs `body` in a child process and returns the child's wait status.
int in_child(const std::function<int()> &body) {
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

class HistoryTest : public testing::Test {
  protected:
    void append(const std::string &text, uint32_t subtype = ruma::trace_debug) {
        history.append(trace_id, subtype, text);
    }

    // Overwrites `from` in the file's bytes by `to`, of the same length.
    void tamper(const std::string &from, const std::string &to) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        const size_t at = read_file(path).find(from);
        ASSERT_NE(at, std::string::npos);
        file.seekp(static_cast<std::streamoff>(at));
        file << to;
    }

    TemporaryDirectory directory;
    const std::string path = directory / "event-history";
    EventHistory history{directory.path(), Access::record};
};

TEST_F(HistoryTest, ANewHistoryIsEmptyTakesEverythingAndPrintsNothing) {
    EXPECT_THAT(texts(history), IsEmpty());
    EXPECT_EQ(history.filter(), ruma::filter_all);
    EXPECT_TRUE(history.takes(ruma::trace_error));
    EXPECT_TRUE(history.takes(ruma::trace_debug));
    EXPECT_FALSE(history.debug());
}

TEST_F(HistoryTest, TheFileIsRegularBoundedAndReadableByItsOwnerOnly) {
    TemporaryDirectory other;
    const mode_t before = ::umask(0);
    EventHistory(other.path(), Access::record);
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::lstat((other / "event-history").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_nlink, 1u);
    EXPECT_LT(status.st_size, 2 << 20);
    EXPECT_GE(status.st_blocks * 512, status.st_size) << "space is not reserved";
}

TEST_F(HistoryTest, OpeningLeavesNothingElseBehind) {
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), fs::directory_iterator()), 1);
}

TEST_F(HistoryTest, OpeningLeavesNoDescriptorOpen) {
    const auto count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = count();
    EventHistory again(directory.path(), Access::record);
    EventHistory view(directory.path(), Access::view);
    EXPECT_EQ(count(), before);
}

TEST_F(HistoryTest, ARecordKeepsEverything) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    append("hello\nworld\n", 100);
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    const auto event = history.read(0);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->text, "hello\nworld\n");
    EXPECT_EQ(event->subtype, 100u);
    EXPECT_EQ(event->trace_id, trace_id);
    EXPECT_EQ(event->pid, static_cast<uint32_t>(::getpid()));
    const auto time =
        std::chrono::seconds(event->seconds) + std::chrono::nanoseconds(event->nanoseconds);
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
}

TEST_F(HistoryTest, TextsOfEveryLengthAreKept) {
    for (size_t length = 0; length <= ruma::history_text_capacity; length++) {
        const std::string text(length, static_cast<char>('a' + length % 26));
        const uint32_t ticket = history.next_ticket();
        append(text);
        const auto event = history.read(ticket);
        ASSERT_TRUE(event) << length;
        ASSERT_EQ(event->text, text);
    }
}

TEST_F(HistoryTest, TheLongestMessageOfAModuleFits) {
    append(std::string(511, 'x'));
    EXPECT_THAT(texts(history), ElementsAre(std::string(511, 'x')));
}

TEST_F(HistoryTest, LongerTextsAreCut) {
    append(std::string(100000, 'x'));
    EXPECT_THAT(texts(history), ElementsAre(std::string(ruma::history_text_capacity, 'x')));
}

TEST_F(HistoryTest, TheRingKeepsTheNewestRecords) {
    const uint32_t count = 3 * ruma::history_slots + 5;
    for (uint32_t i = 0; i < count; i++)
        append(std::to_string(i));
    const auto kept = texts(history);
    ASSERT_EQ(kept.size(), ruma::history_slots);
    for (uint32_t i = 0; i < ruma::history_slots; i++)
        ASSERT_EQ(kept[i], std::to_string(count - ruma::history_slots + i));
    EXPECT_FALSE(history.read(count - ruma::history_slots - 1));
}

TEST_F(HistoryTest, TheRecordsOfAnEarlierProcessAreStillThere) {
    append("before");
    EventHistory again(directory.path(), Access::record);
    again.append(trace_id, ruma::trace_debug, "after");
    EXPECT_THAT(texts(history), ElementsAre("before", "after"));
}

TEST_F(HistoryTest, AForkedWriterWritesWithItsOwnProcessId) {
    pid_t child = ::fork();
    if (child == 0) {
        append("from the child");
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const auto event = history.read(0);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->pid, static_cast<uint32_t>(child));
    EXPECT_EQ(event->text, "from the child");
}

TEST_F(HistoryTest, AWriterThatChangedItsUserGoesOnWriting) {
    EXPECT_EQ(in_child([&] {
                  // Only root can change its user; others write on as they are.
                  if (::geteuid() == 0 && ::setuid(nobody) != 0)
                      return 1;
                  append("as another user");
                  return 0;
              }),
              0);
    EXPECT_THAT(texts(history), ElementsAre("as another user"));
}

TEST_F(HistoryTest, AnAlteredRecordIsNotShown) {
    append("first message");
    append("second message");
    append("third message");
    tamper("second message", "secOnd message");
    EXPECT_THAT(texts(history), ElementsAre("first message", "third message"));
}

TEST_F(HistoryTest, ARecordMixedFromTwoIsNotShown) {
    append(std::string(200, 'a'));
    append("intact");
    tamper(std::string(100, 'a'), std::string(100, 'b'));
    EXPECT_THAT(texts(history), ElementsAre("intact"));
}

TEST_F(HistoryTest, ClearWipesTheTextsOut) {
    append("password");
    history.clear();
    EXPECT_THAT(texts(history), IsEmpty());
    EXPECT_EQ(read_file(path).find("password"), std::string::npos);
    append("after");
    EXPECT_THAT(texts(history), ElementsAre("after"));
}

TEST_F(HistoryTest, ClearKeepsTheSwitches) {
    history.set_debug(true);
    history.set_filter(ruma::filter_error);
    history.clear();
    EXPECT_TRUE(history.debug());
    EXPECT_EQ(history.filter(), ruma::filter_error);
}

TEST_F(HistoryTest, SwitchesReachEveryProcessThatHasTheHistoryOpen) {
    EventHistory other(directory.path(), Access::control);
    other.set_debug(true);
    other.set_filter(ruma::filter_error);
    EXPECT_TRUE(history.debug());
    EXPECT_TRUE(history.takes(ruma::trace_error));
    EXPECT_FALSE(history.takes(ruma::trace_debug));
    EXPECT_FALSE(history.takes(7));
    other.set_filter(ruma::filter_debug);
    EXPECT_FALSE(history.takes(ruma::trace_error));
    EXPECT_TRUE(history.takes(ruma::trace_debug));
    EXPECT_TRUE(history.takes(7));
    other.set_filter(ruma::filter_none);
    EXPECT_FALSE(history.takes(ruma::trace_error));
    EXPECT_FALSE(history.takes(ruma::trace_debug));
}

TEST_F(HistoryTest, ALinkIsNotFollowed) {
    TemporaryDirectory other;
    fs::create_symlink(path, other / "event-history");
    for (const Access access : {Access::record, Access::control, Access::view})
        EXPECT_THAT(reason_of(other.path(), access), HasSubstr("is a symbolic link"));
    EXPECT_TRUE(fs::is_symlink(other / "event-history"));
}

TEST_F(HistoryTest, AFifoIsRefusedWithoutWaiting) {
    TemporaryDirectory other;
    ASSERT_EQ(::mkfifo((other / "event-history").c_str(), 0600), 0);
    EXPECT_THAT(reason_of(other.path(), Access::record), HasSubstr("is not a regular file"));
}

TEST_F(HistoryTest, AFileThatIsNotPrivatelyOursIsRefused) {
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_THAT(reason_of(directory.path(), Access::record), HasSubstr("is open to other users"));
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    if (::chown(path.c_str(), nobody, nobody) == 0) { // what only root can arrange
        EXPECT_THAT(reason_of(directory.path(), Access::record),
                    HasSubstr("belongs to another user"));
        EXPECT_EQ(reason_of(directory.path(), Access::view), "opened");
    }
}

TEST_F(HistoryTest, AFileOfAnotherLayoutIsReplacedByAWriterAndRefusedByAViewer) {
    for (const std::string &content :
         {std::string(), std::string("short"),
          std::string(static_cast<size_t>(fs::file_size(path)), 'x')}) {
        fs::remove(path);
        write_file(path, content);
        ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
        EXPECT_THAT(reason_of(directory.path(), Access::view), HasSubstr("of this version"));
        EXPECT_EQ(reason_of(directory.path(), Access::record), "opened");
        EXPECT_EQ(reason_of(directory.path(), Access::view), "opened");
    }
}

TEST_F(HistoryTest, OnlyAWriterCreatesTheFile) {
    TemporaryDirectory other;
    EXPECT_THAT(reason_of(other.path(), Access::view), HasSubstr("No such file"));
    EXPECT_THAT(reason_of(other.path(), Access::control), HasSubstr("No such file"));
    EXPECT_FALSE(fs::exists(other / "event-history"));
}

TEST_F(HistoryTest, AMissingRunDirectoryIsNotCreated) {
    EXPECT_THAT(reason_of(directory / "nothing", Access::record), HasSubstr("No such file"));
    EXPECT_FALSE(fs::exists(directory / "nothing"));
}

TEST_F(HistoryTest, ProcessesThatCreateItAtTheSameTimeShareOneFile) {
    for (int round = 0; round < 20; round++) {
        TemporaryDirectory other;
        std::vector<pid_t> children;
        for (int i = 0; i < 6; i++) {
            const pid_t child = ::fork();
            if (child == 0) {
                EventHistory(other.path(), Access::record).append(trace_id, 101, "x");
                ::_exit(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            ASSERT_EQ(status, 0);
        }
        ASSERT_EQ(texts(EventHistory(other.path(), Access::view)).size(), 6u);
        ASSERT_EQ(std::distance(fs::directory_iterator(other.path()), fs::directory_iterator()), 1);
    }
}

// A text that tells of itself whether it is whole.
std::string sound_text(uint32_t seed) {
    const char letter = static_cast<char>('a' + seed % 26);
    return std::string(1 + seed % 500, letter) + "|" + letter + std::to_string(1 + seed % 500);
}

bool is_sound(const std::string &text) {
    const size_t bar = text.find('|');
    return bar != text.npos && bar > 0 &&
           text == std::string(bar, text[0]) + "|" + text[0] + std::to_string(bar);
}

TEST_F(HistoryTest, KilledWritersLeaveOnlyWholeRecordsAndHoldUpNobody) {
    uint32_t seen = 0;
    for (int round = 0; round < 40; round++) {
        std::vector<pid_t> children;
        const uint32_t start = history.next_ticket();
        for (uint32_t i = 0; i < 4; i++) {
            const pid_t child = ::fork();
            if (child == 0) {
                for (uint32_t n = i;; n += 7)
                    append(sound_text(n));
            }
            children.push_back(child);
        }
        // Well into the work of all of them, at a different point each time.
        const auto deadline = Clock::now() + patience;
        const auto enough = static_cast<uint32_t>(500 + 137 * round);
        while (history.next_ticket() - start < enough && Clock::now() < deadline)
            ::sched_yield();
        for (const pid_t child : children)
            ::kill(child, SIGKILL);
        for (const pid_t child : children)
            ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        ASSERT_GE(history.next_ticket() - start, enough);
        for (const std::string &text : texts(history)) {
            ASSERT_TRUE(is_sound(text)) << text;
            seen++;
        }
        const uint32_t ticket = history.next_ticket();
        append("a|a1");
        ASSERT_TRUE(history.read(ticket));
    }
    EXPECT_GT(seen, 10000u);
}

TEST_F(HistoryTest, AReaderAmongWritersSeesOnlyWholeRecords) {
    std::vector<pid_t> children;
    for (uint32_t i = 0; i < 2; i++) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (uint32_t n = 0; n < 100000; n++)
                append(sound_text(n * 7 + i));
            ::_exit(0);
        }
        children.push_back(child);
    }
    bool sound = true;
    while (history.next_ticket() < 200000 && sound) {
        for (const std::string &text : texts(history))
            sound = sound && is_sound(text);
        ::sched_yield();
    }
    for (const pid_t child : children)
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(sound);
    EXPECT_EQ(history.next_ticket(), 200000u);
}

// The C interface and ruma-trace look at the process's run directory, which is read once.
class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        directory = std::make_unique<TemporaryDirectory>();
        ASSERT_EQ(::setenv("RUMA_RUN_DIR", directory->path().c_str(), 1), 0);
        ASSERT_EQ(::setenv("TZ", "UTC", 1), 0);
        ::unsetenv("RUMA_DEBUG");
    }
    void TearDown() override { directory.reset(); }

    static inline std::unique_ptr<TemporaryDirectory> directory;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

class EvwrapTest : public testing::Test {
  protected:
    // Each test begins with an empty history and the switches as they are at first.
    void SetUp() override {
        evwrap_chk_int(101, 0, 0, 1); // opens it
        history = std::make_unique<EventHistory>(RunDirectory::directory->path(), Access::control);
        history->clear();
        history->set_filter(ruma::filter_all);
        history->set_debug(false);
    }

    static void record(const std::string &text, uint32_t subtype = 101) {
        std::string bytes(reinterpret_cast<const char *>(&subtype), sizeof(subtype));
        bytes += text;
        evwrap_hist_event(trace_id, bytes.c_str(), static_cast<uint32_t>(bytes.size() + 1));
    }

    __attribute__((format(printf, 3, 4))) static void print(int level, const char *module,
                                                            const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        dbgout(level, module, format, arguments);
        va_end(arguments);
    }

    std::unique_ptr<EventHistory> history;
};

TEST_F(EvwrapTest, BothSubtypesAreTakenAndDebugPrintingIsOffAtFirst) {
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 100), 0);
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), 0);
    EXPECT_EQ(evwrap_chk_int(100, 0, 0, 1), 0);
}

TEST_F(EvwrapTest, TheSwitchesDecide) {
    history->set_filter(ruma::filter_error);
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 100), 0);
    EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    history->set_debug(true);
    EXPECT_NE(evwrap_chk_int(101, 0, 0, 1), 0);
}

TEST_F(EvwrapTest, NothingIsTakenWhileThePlatformLooksByItself) {
    history->set_debug(true);
    {
        const ruma::QuietTracing outer;
        const ruma::QuietTracing inner;
    }
    {
        const ruma::QuietTracing quiet;
        EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 100), 0);
        EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101), 0);
        EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), 0);
    }
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 100), 0);
    EXPECT_NE(evwrap_hist_event_subtype_check(trace_id, 101), 0);
    EXPECT_NE(evwrap_chk_int(101, 0, 0, 1), 0);
}

TEST_F(EvwrapTest, ARecordIsASubtypeAndAText) {
    record("a message\n", 100);
    const auto event = history->read(history->next_ticket() - 1);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->text, "a message\n");
    EXPECT_EQ(event->subtype, 100u);
    EXPECT_EQ(event->trace_id, trace_id);
}

TEST_F(EvwrapTest, ARecordIsCopied) {
    char bytes[] = {101, 0, 0, 0, 'a', '\0'};
    evwrap_hist_event(trace_id, bytes, sizeof(bytes));
    bytes[4] = 'b';
    EXPECT_THAT(texts(*history), ElementsAre("a"));
}

TEST_F(EvwrapTest, ATextWithoutItsZeroEndsWithTheRecord) {
    const auto bytes = std::make_unique<char[]>(8); // its own allocation: an over-read is found
    std::memcpy(bytes.get(), "\x65\0\0\0text", 8);
    evwrap_hist_event(trace_id, bytes.get(), 8);
    EXPECT_THAT(texts(*history), ElementsAre("text"));
}

TEST_F(EvwrapTest, ATextEndsAtItsFirstZero) {
    evwrap_hist_event(trace_id, "\x65\0\0\0ab\0cd", 10);
    EXPECT_THAT(texts(*history), ElementsAre("ab"));
}

TEST_F(EvwrapTest, RecordsWithoutASubtypeAreDropped) {
    evwrap_hist_event(trace_id, "\x65\0\0", 3);
    evwrap_hist_event(trace_id, nullptr, 100);
    evwrap_hist_event(trace_id, "", 0);
    EXPECT_THAT(texts(*history), IsEmpty());
}

TEST_F(EvwrapTest, RecordingKeepsErrno) {
    errno = EXDEV;
    record("text");
    evwrap_hist_event_subtype_check(trace_id, 101);
    evwrap_chk_int(101, 0, 0, 1);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(EvwrapTest, TheModuleIsNamedFlash) { EXPECT_STREQ(evwrap_dbg_modname, "flash"); }

TEST_F(EvwrapTest, DbgoutPrintsOneLineWithTimeAndModule) {
    testing::internal::CaptureStderr();
    print(1, evwrap_dbg_modname, "row %d of %s\n", 7, "table");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{6} "
                                      "flash: row 7 of table\n"));
}

TEST_F(EvwrapTest, DbgoutKeepsAMessageOfSeveralLinesOnOne) {
    testing::internal::CaptureStderr();
    print(1, "flash", "a\nb\x1b");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), ContainsRegex("flash: a\\\\nb\\\\x1b\n$"));
}

TEST_F(EvwrapTest, DbgoutTakesLongMessages) {
    testing::internal::CaptureStderr();
    print(1, "flash", "%s|%s|%s", std::string(1000, 'a').c_str(), std::string(1000, 'b').c_str(),
          "end");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("b|end\n"));
}

TEST_F(EvwrapTest, DbgoutSurvivesMissingMemoryAndAClosedStandardError) {
    with_allocations(0, [] { print(1, "flash", "%0200d", 1); });
    EXPECT_EQ(in_child([] {
                  ::close(STDERR_FILENO);
                  errno = EXDEV;
                  print(1, nullptr, "text");
                  return errno == EXDEV ? 0 : 1;
              }),
              0);
}

TEST_F(EvwrapTest, AForkedWorkerRecordsWithItsOwnProcessId) {
    const pid_t child = ::fork();
    if (child == 0) {
        record("worker");
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const auto event = history->read(history->next_ticket() - 1);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->pid, static_cast<uint32_t>(child));
}

// Processes that have not traced yet.
class EvwrapStartTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(EvwrapStartTest, WithoutARunDirectoryTracingIsOffAndSaysSoOnce) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_RUN_DIR", "/nothing/here", 1);
            const bool off = evwrap_hist_event_subtype_check(trace_id, 100) == 0 &&
                             evwrap_hist_event_subtype_check(trace_id, 101) == 0 &&
                             evwrap_chk_int(101, 0, 0, 1) == 0;
            evwrap_hist_event(trace_id, "\x65\0\0\0x", 6);
            std::exit(off ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "^ruma: no event history: /nothing/here/event-history: No such file or directory\n$");
}

TEST_F(EvwrapStartTest, TheEnvironmentTurnsDebugPrintingOnForItsProcess) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_DEBUG", "1", 1);
            const bool on = evwrap_chk_int(101, 0, 0, 1) != 0;
            const EventHistory history(RunDirectory::directory->path(), Access::view);
            std::exit(on && !history.debug() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(EvwrapStartTest, OtherValuesInTheEnvironmentTurnNothingOn) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_DEBUG", "0", 1);
            std::exit(evwrap_chk_int(101, 0, 0, 1));
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(EvwrapStartTest, StartingKeepsErrno) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_RUN_DIR", "/nothing/here", 1);
            errno = EXDEV;
            evwrap_chk_int(101, 0, 0, 1);
            std::exit(errno == EXDEV ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

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
