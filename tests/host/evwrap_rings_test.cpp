// What the event history keeps: errors apart from everything else, and repeated ones counted.
#include "evwrap_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using ruma::HistoryEvent;
using ruma::RowTable;
using ruma::TracedRow;
using testing::ElementsAre;

constexpr TracedRow row_7{RowTable::copy, 7};

class RingsTest : public testing::Test {
  protected:
    void error(const std::string &text, TracedRow row = {}) {
        history.append(trace_id, ruma::trace_error, row, text);
    }

    void debug(const std::string &text) { history.append(trace_id, ruma::trace_debug, {}, text); }

    std::vector<HistoryEvent> events() const { return events_in(directory.path()); }

    std::vector<std::string> texts() const { return texts_in(directory.path()); }

    // How often the only record of the history was repeated.
    uint32_t repeats() const {
        const auto kept = events();
        EXPECT_EQ(kept.size(), 1u);
        return kept.front().repeats;
    }

    TemporaryDirectory directory;
    EventHistory history{directory.path(), HistoryAccess::record};
};

TEST_F(RingsTest, DebugMessagesNeverPushOutAnError) {
    error("the transfer failed");
    for (uint32_t i = 0; i < 5 * ruma::ring_slots[ruma::ring_others]; i++)
        debug("walking");
    EXPECT_EQ(texts().front(), "the transfer failed");
}

TEST_F(RingsTest, OtherSubtypesNeverPushOutAnError) {
    error("the transfer failed");
    for (uint32_t i = 0; i < 2 * ruma::ring_slots[ruma::ring_others]; i++)
        history.append(trace_id, 7, {}, "something");
    EXPECT_EQ(texts().front(), "the transfer failed");
}

TEST_F(RingsTest, ErrorsNeverPushOutADebugMessage) {
    debug("how it began");
    for (uint32_t i = 0; i < 2 * ruma::ring_slots[ruma::ring_errors]; i++)
        error(std::to_string(i));
    EXPECT_EQ(texts().front(), "how it began");
}

TEST_F(RingsTest, RecordsOfBothRingsAreShownInTheOrderInWhichTheyWereMade) {
    for (const char *text : {"1", "3", "5"}) {
        error(text);
        debug(std::to_string(std::stoi(text) + 1));
    }
    EXPECT_THAT(texts(), ElementsAre("1", "2", "3", "4", "5", "6"));
    const auto kept = events();
    for (size_t i = 1; i < kept.size(); i++)
        EXPECT_EQ(kept[i].sequence, kept[i - 1].sequence + 1);
}

TEST_F(RingsTest, ARepeatedErrorIsCountedAtItsFirstRecord) {
    for (int i = 0; i < 5; i++)
        error("no such row");
    EXPECT_EQ(repeats(), 4u);
}

TEST_F(RingsTest, ARepeatedErrorTellsWhenItWasTheLastTime) {
    error("no such row");
    const auto first = events().front();
    EXPECT_EQ(first.last_seconds, first.seconds);
    EXPECT_EQ(first.last_uptime, first.uptime);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (ruma::uptime() == first.uptime && std::chrono::steady_clock::now() < deadline) {
    }
    error("no such row");
    const auto last = events().front();
    EXPECT_EQ(last.seconds, first.seconds);
    EXPECT_GE(last.last_uptime, first.uptime + 1);
    EXPECT_GE(last.last_seconds, first.seconds + 1);
}

TEST_F(RingsTest, WhatAPollTracesDoesNotPushOutAnEarlierFailure) {
    error("the transfer failed", row_7);
    for (uint32_t i = 0; i < 3 * ruma::ring_slots[ruma::ring_errors]; i++)
        error("from header_flashCopyEntry : returning ERROR=1078525954 \n");
    EXPECT_THAT(texts(), ElementsAre("the transfer failed",
                                     "from header_flashCopyEntry : returning ERROR=1078525954 \n"));
}

TEST_F(RingsTest, ErrorsThatTakeTurnsAreCountedToo) {
    for (int i = 0; i < 100; i++) {
        for (uint32_t n = 0; n < ruma::repeat_window; n++)
            error(std::to_string(n));
    }
    const auto kept = events();
    ASSERT_EQ(kept.size(), ruma::repeat_window);
    for (const HistoryEvent &event : kept)
        EXPECT_EQ(event.repeats, 99u);
}

TEST_F(RingsTest, AnErrorBeyondTheWindowIsRecordedOnceMore) {
    for (uint32_t n = 0; n <= ruma::repeat_window; n++)
        error(std::to_string(n));
    error("0");
    EXPECT_EQ(texts().size(), ruma::repeat_window + 2);
    EXPECT_EQ(texts().back(), "0");
}

TEST_F(RingsTest, ErrorsThatDifferInAnythingAreRecordedEach) {
    error("text");
    error("texT");
    error("text ");
    error("tex");
    error("text", row_7);
    error("text", {RowTable::misc_op, 7});
    error("text", {RowTable::copy, 8});
    history.append(trace_id + 1, ruma::trace_error, {}, "text");
    const pid_t child = ::fork();
    if (child == 0) {
        error("text");
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const auto kept = events();
    EXPECT_EQ(kept.size(), 9u);
    for (const HistoryEvent &event : kept)
        EXPECT_EQ(event.repeats, 0u);
}

TEST_F(RingsTest, DebugMessagesAreRecordedEachTime) {
    debug("text");
    debug("text");
    EXPECT_THAT(texts(), ElementsAre("text", "text"));
}

TEST_F(RingsTest, AnErrorOfAnEarlierProcessOfTheSameIdIsNotCounted) {
    error("text");
    const uint32_t before = ruma::uptime();
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (ruma::uptime() == before && std::chrono::steady_clock::now() < deadline) {
    }
    EventHistory later(directory.path(), HistoryAccess::record);
    later.append(trace_id, ruma::trace_error, {}, "text");
    EXPECT_THAT(texts(), ElementsAre("text", "text"));
}

TEST_F(RingsTest, ARecordInAUsedSlotBeginsWithoutRepeats) {
    error("repeated");
    error("repeated");
    for (uint32_t i = 1; i < 256 * ruma::ring_slots[ruma::ring_errors] + 1; i++)
        error(std::to_string(i));
    for (const HistoryEvent &event : events())
        ASSERT_EQ(event.repeats, 0u) << event.text;
}

TEST_F(RingsTest, ClearForgetsWhatWasRepeated) {
    error("text");
    error("text");
    history.clear();
    error("text");
    EXPECT_EQ(repeats(), 0u);
}

} // namespace
