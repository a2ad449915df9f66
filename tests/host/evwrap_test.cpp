// The trace facility as the module calls it, and debug printing.
#include "ruma/evwrap.h"

#include "evwrap/history.h"
#include "evwrap/quiet.h"
#include "evwrap_fixture.h"
#include "failing_allocations.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(EvwrapTest, TheSwitchesDecideAtOnce) {
    for (const bool errors : {false, true}) {
        for (const bool debug : {false, true}) {
            history->set_switches(ruma::switch_errors, errors);
            history->set_switches(ruma::switch_debug, debug);
            EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 100), errors);
            EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 101), debug);
            EXPECT_EQ(evwrap_hist_event_subtype_check(trace_id, 7), debug);
            EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), 0);
        }
    }
    history->set_switches(ruma::switch_printing, true);
    EXPECT_NE(evwrap_chk_int(101, 0, 0, 1), 0);
    EXPECT_NE(evwrap_chk_int(100, 0, 0, 1), 0);
}

TEST_F(EvwrapTest, TheSwitchesReachARunningWorkerAtOnce) {
    int looked[2];
    int turned[2];
    ASSERT_EQ(::pipe(looked), 0);
    ASSERT_EQ(::pipe(turned), 0);
    history->set_switches(ruma::switch_debug, false);
    const pid_t child = ::fork();
    if (child == 0) {
        char byte = 0;
        const bool before = evwrap_hist_event_subtype_check(trace_id, 101) != 0;
        const bool told = ::write(looked[1], &byte, 1) == 1 && ::read(turned[0], &byte, 1) == 1;
        ::_exit(!before && told && evwrap_hist_event_subtype_check(trace_id, 101) != 0 ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(::read(looked[0], &byte, 1), 1);
    history->set_switches(ruma::switch_debug, true);
    ASSERT_EQ(::write(turned[1], &byte, 1), 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    for (const int end : {looked[0], looked[1], turned[0], turned[1]})
        ::close(end);
}

TEST_F(EvwrapTest, NothingIsTakenWhileThePlatformLooksByItself) {
    history->set_switches(ruma::switch_printing, true);
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
    const auto kept = events();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].text, "a message\n");
    EXPECT_EQ(kept[0].subtype, 100u);
    EXPECT_EQ(kept[0].trace_id, trace_id);
}

TEST_F(EvwrapTest, ARecordIsCopied) {
    char bytes[] = {101, 0, 0, 0, 'a', '\0'};
    evwrap_hist_event(trace_id, bytes, sizeof(bytes));
    bytes[4] = 'b';
    EXPECT_THAT(texts(), ElementsAre("a"));
}

TEST_F(EvwrapTest, ATextWithoutItsZeroEndsWithTheRecord) {
    const auto bytes = std::make_unique<char[]>(8); // its own allocation: an over-read is found
    std::memcpy(bytes.get(), "\x65\0\0\0text", 8);
    evwrap_hist_event(trace_id, bytes.get(), 8);
    EXPECT_THAT(texts(), ElementsAre("text"));
}

TEST_F(EvwrapTest, ATextEndsAtItsFirstZero) {
    evwrap_hist_event(trace_id, "\x65\0\0\0ab\0cd", 10);
    EXPECT_THAT(texts(), ElementsAre("ab"));
}

TEST_F(EvwrapTest, RecordsWithoutASubtypeAreDropped) {
    evwrap_hist_event(trace_id, "\x65\0\0", 3);
    evwrap_hist_event(trace_id, nullptr, 100);
    evwrap_hist_event(trace_id, "", 0);
    EXPECT_THAT(texts(), IsEmpty());
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
    const auto kept = events();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].pid, static_cast<uint32_t>(child));
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

TEST_F(EvwrapStartTest, AProcessBeginsWithErrorsAloneWhateverWasTurnedOnBefore) {
    EventHistory(RunDirectory::directory->path(), HistoryAccess::record)
        .set_switches(ruma::switch_debug | ruma::switch_printing, true);
    EXPECT_EXIT(std::exit(evwrap_hist_event_subtype_check(trace_id, 100) != 0 &&
                                  evwrap_hist_event_subtype_check(trace_id, 101) == 0 &&
                                  evwrap_chk_int(101, 0, 0, 1) == 0
                              ? 0
                              : 1),
                testing::ExitedWithCode(0), "^$");
}

TEST_F(EvwrapStartTest, TheConfigurationTurnsDebugRecordingOn) {
    EXPECT_EXIT(
        {
            write_file(std::getenv("RUMA_CONFIG"), "[trace]\ndebug = true\n");
            const bool on = evwrap_hist_event_subtype_check(trace_id, 101) != 0;
            std::filesystem::remove(std::getenv("RUMA_CONFIG"));
            std::exit(on && evwrap_hist_event_subtype_check(trace_id, 100) != 0 &&
                              evwrap_chk_int(101, 0, 0, 1) == 0
                          ? 0
                          : 1);
        },
        testing::ExitedWithCode(0), "^$");
}

TEST_F(EvwrapStartTest, TheEnvironmentTurnsDebugPrintingOnForItsProcess) {
    EXPECT_EXIT(
        {
            ::setenv("RUMA_DEBUG", "1", 1);
            const bool on = evwrap_chk_int(101, 0, 0, 1) != 0;
            const uint32_t shared =
                ruma::HistoryView(RunDirectory::directory->path()).read().switches;
            std::exit(on && (shared & ruma::switch_printing) == 0 ? 0 : 1);
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

} // namespace
