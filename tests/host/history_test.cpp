// The file of the event history: records, switches, who may open it, processes that end anywhere.
#include "evwrap/history.h"

#include "evwrap_fixture.h"
#include "provoked.h"
#include "temporary_directory.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr uid_t nobody = 65534;

std::string reason_of(const std::string &directory, HistoryAccess access) {
    try {
        open_history(directory, access);
    } catch (const ruma::HistoryError &error) {
        return error.what();
    }
    return "opened";
}

class HistoryTest : public testing::Test {
  protected:
    void append(const std::string &text, uint32_t subtype = ruma::trace_debug) {
        history.append(trace_id, subtype, {}, text);
    }

    std::vector<ruma::HistoryEvent> events() const { return events_in(directory.path()); }

    std::vector<std::string> texts() const { return texts_in(directory.path()); }

    // How many records have been written to the ring of debug messages.
    uint32_t others_written() const {
        return ruma::HistoryView(directory.path()).read().rings[ruma::ring_others].next_ticket;
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
    EventHistory history{directory.path(), HistoryAccess::record};
};

TEST_F(HistoryTest, ANewHistoryIsEmptyAndAllSwitchesAreOff) {
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(history.switches(), 0u);
}

TEST_F(HistoryTest, RootMakesTheFileForTheUserThatTheAgentIsGoingToHave) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    TemporaryDirectory other;
    open_history(other.path(), HistoryAccess::record, nobody);
    struct stat status {};
    ASSERT_EQ(::stat((other / "event-history").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(HistoryTest, RootRecordsInTheFileOfTheAgentsUserAndOfNoOther) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    append("kept");
    ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0);
    EXPECT_NO_THROW(open_history(directory.path(), HistoryAccess::record, nobody));
    EXPECT_THROW(open_history(directory.path(), HistoryAccess::record, nobody - 1),
                 ruma::HistoryError);
    EXPECT_THAT(texts(), ElementsAre("kept"));
}

TEST_F(HistoryTest, TheFileIsRegularBoundedAndReadableByItsOwnerOnly) {
    TemporaryDirectory other;
    const mode_t before = ::umask(0);
    EventHistory(other.path(), HistoryAccess::record);
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
    EventHistory again(directory.path(), HistoryAccess::record);
    ruma::HistoryView(directory.path());
    EXPECT_EQ(count(), before);
}

TEST_F(HistoryTest, ARecordKeepsEverything) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    history.append(trace_id, 100, {ruma::RowTable::copy, 4294967295}, "hello\nworld\n");
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    const auto kept = events();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].text, "hello\nworld\n");
    EXPECT_EQ(kept[0].subtype, 100u);
    EXPECT_EQ(kept[0].trace_id, trace_id);
    EXPECT_EQ(kept[0].pid, static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(kept[0].row, (ruma::TracedRow{ruma::RowTable::copy, 4294967295}));
    EXPECT_EQ(kept[0].boot, ruma::this_boot());
    EXPECT_LE(ruma::uptime() - kept[0].uptime, 1u);
    const auto time =
        std::chrono::seconds(kept[0].seconds) + std::chrono::nanoseconds(kept[0].nanoseconds);
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
}

TEST_F(HistoryTest, TextsOfEveryLengthAreKept) {
    for (size_t length = 0; length <= ruma::history_text_capacity; length++) {
        const std::string text(length, static_cast<char>('a' + length % 26));
        history.clear();
        append(text);
        ASSERT_THAT(texts(), ElementsAre(text));
    }
}

TEST_F(HistoryTest, TheLongestMessageOfAModuleFits) {
    append(std::string(511, 'x'));
    EXPECT_THAT(texts(), ElementsAre(std::string(511, 'x')));
}

TEST_F(HistoryTest, LongerTextsAreCut) {
    append(std::string(100000, 'x'));
    EXPECT_THAT(texts(), ElementsAre(std::string(ruma::history_text_capacity, 'x')));
}

TEST_F(HistoryTest, EachRingKeepsItsNewestRecords) {
    for (const auto &[subtype, slots] : {std::pair(100u, ruma::ring_slots[ruma::ring_errors]),
                                         std::pair(101u, ruma::ring_slots[ruma::ring_others])}) {
        const uint32_t count = 3 * slots + 5;
        history.clear();
        for (uint32_t i = 0; i < count; i++)
            append(std::to_string(i), subtype);
        const auto kept = texts();
        ASSERT_EQ(kept.size(), slots);
        for (uint32_t i = 0; i < slots; i++)
            ASSERT_EQ(kept[i], std::to_string(count - slots + i));
    }
}

TEST_F(HistoryTest, TheRecordsOfAnEarlierProcessAreStillThere) {
    append("before");
    EventHistory again(directory.path(), HistoryAccess::record);
    again.append(trace_id, ruma::trace_debug, {}, "after");
    EXPECT_THAT(texts(), ElementsAre("before", "after"));
}

TEST_F(HistoryTest, AForkedWriterWritesWithItsOwnProcessId) {
    pid_t child = ::fork();
    if (child == 0) {
        append("from the child");
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const auto kept = events();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].pid, static_cast<uint32_t>(child));
    EXPECT_EQ(kept[0].text, "from the child");
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
    EXPECT_THAT(texts(), ElementsAre("as another user"));
}

TEST_F(HistoryTest, AnAlteredRecordIsNotShown) {
    append("first message");
    append("second message");
    append("third message");
    tamper("second message", "secOnd message");
    EXPECT_THAT(texts(), ElementsAre("first message", "third message"));
}

TEST_F(HistoryTest, ARecordMixedFromTwoIsNotShown) {
    append(std::string(200, 'a'));
    append("intact");
    tamper(std::string(100, 'a'), std::string(100, 'b'));
    EXPECT_THAT(texts(), ElementsAre("intact"));
}

TEST_F(HistoryTest, ClearWipesTheTextsOut) {
    append("password");
    history.clear();
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(read_file(path).find("password"), std::string::npos);
    append("after");
    EXPECT_THAT(texts(), ElementsAre("after"));
}

TEST_F(HistoryTest, ClearKeepsTheSwitches) {
    history.set_switches(ruma::switch_debug, true);
    history.clear();
    EXPECT_EQ(history.switches(), ruma::switch_debug);
}

TEST_F(HistoryTest, SwitchesReachEveryProcessThatHasTheHistoryOpen) {
    EventHistory other(directory.path(), HistoryAccess::control);
    other.set_switches(ruma::switch_debug | ruma::switch_printing, true);
    EXPECT_EQ(history.switches(), ruma::switch_debug | ruma::switch_printing);
    other.set_switches(ruma::switch_debug, false);
    EXPECT_EQ(history.switches(), ruma::switch_printing);
}

TEST_F(HistoryTest, ResetSwitchesAreThoseOfTheConfiguration) {
    history.configure(ruma::switch_errors);
    EXPECT_EQ(history.switches(), ruma::switch_errors);
    EventHistory other(directory.path(), HistoryAccess::control);
    other.set_switches(ruma::switch_debug | ruma::switch_printing, true);
    other.set_switches(ruma::switch_errors, false);
    other.reset_switches(ruma::switch_debug);
    EXPECT_EQ(history.switches(), ruma::switch_printing);
    other.reset_switches(ruma::switches_recording);
    EXPECT_EQ(history.switches(), ruma::switch_errors | ruma::switch_printing);
}

TEST_F(HistoryTest, ALinkIsNotFollowed) {
    TemporaryDirectory other;
    fs::create_symlink(path, other / "event-history");
    for (const HistoryAccess access :
         {HistoryAccess::record, HistoryAccess::control, HistoryAccess::view})
        EXPECT_PROVOKED(reason_of(other.path(), access), "…: is a symbolic link");
    EXPECT_TRUE(fs::is_symlink(other / "event-history"));
}

TEST_F(HistoryTest, AFifoIsRefusedWithoutWaiting) {
    TemporaryDirectory other;
    ASSERT_EQ(::mkfifo((other / "event-history").c_str(), 0600), 0);
    EXPECT_PROVOKED(reason_of(other.path(), HistoryAccess::record), "…: is not a regular file");
}

TEST_F(HistoryTest, AFileThatIsNotPrivatelyOursIsRefused) {
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_PROVOKED(reason_of(directory.path(), HistoryAccess::record),
                    "…: is open to other users");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    if (::chown(path.c_str(), nobody, nobody) == 0) { // what only root can arrange
        EXPECT_PROVOKED(reason_of(directory.path(), HistoryAccess::record),
                        "…: belongs to another user");
        EXPECT_EQ(reason_of(directory.path(), HistoryAccess::view), "opened");
    }
}

TEST_F(HistoryTest, AFileOfAnotherLayoutIsReplacedByAWriterAndRefusedByAViewer) {
    for (const std::string &content :
         {std::string(), std::string("short"),
          std::string(static_cast<size_t>(fs::file_size(path)), 'x')}) {
        fs::remove(path);
        write_file(path, content);
        ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
        EXPECT_PROVOKED(reason_of(directory.path(), HistoryAccess::view),
                        "…: is not an event history of this version");
        EXPECT_EQ(reason_of(directory.path(), HistoryAccess::record), "opened");
        EXPECT_EQ(reason_of(directory.path(), HistoryAccess::view), "opened");
    }
}

TEST_F(HistoryTest, OnlyAWriterCreatesTheFile) {
    TemporaryDirectory other;
    EXPECT_THAT(reason_of(other.path(), HistoryAccess::view), HasSubstr("No such file"));
    EXPECT_THAT(reason_of(other.path(), HistoryAccess::control), HasSubstr("No such file"));
    EXPECT_FALSE(fs::exists(other / "event-history"));
}

TEST_F(HistoryTest, AMissingRunDirectoryIsNotCreated) {
    EXPECT_THAT(reason_of(directory / "nothing", HistoryAccess::record), HasSubstr("No such file"));
    EXPECT_FALSE(fs::exists(directory / "nothing"));
}

TEST_F(HistoryTest, ProcessesThatCreateItAtTheSameTimeShareOneFile) {
    for (int round = 0; round < 20; round++) {
        TemporaryDirectory other;
        std::vector<pid_t> children;
        for (int i = 0; i < 6; i++) {
            const pid_t child = ::fork();
            if (child == 0) {
                EventHistory(other.path(), HistoryAccess::record).append(trace_id, 101, {}, "x");
                ::_exit(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            ASSERT_EQ(status, 0);
        }
        ASSERT_EQ(texts_in(other.path()).size(), 6u);
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
        const uint32_t start = others_written();
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
        while (others_written() - start < enough && Clock::now() < deadline)
            ::sched_yield();
        for (const pid_t child : children)
            ::kill(child, SIGKILL);
        for (const pid_t child : children)
            ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        ASSERT_GE(others_written() - start, enough);
        for (const std::string &text : texts()) {
            ASSERT_TRUE(is_sound(text)) << text;
            seen++;
        }
        append("a|a1");
        ASSERT_EQ(texts().back(), "a|a1");
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
    while (others_written() < 200000 && sound) {
        for (const std::string &text : texts())
            sound = sound && is_sound(text);
        ::sched_yield();
    }
    for (const pid_t child : children)
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(sound);
    EXPECT_EQ(others_written(), 200000u);
}

} // namespace
