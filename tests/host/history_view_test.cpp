// The event history as a viewer follows it.
#include "evwrap/view.h"

#include "evwrap_fixture.h"
#include "provoked.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using ruma::HistoryContent;
using ruma::HistoryEvent;
using ruma::HistoryNews;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = HistoryNews::Clock;

// A history in memory, as the parser gives it.
class NewsTest : public testing::Test {
  protected:
    void add(ruma::HistoryRing ring, uint32_t ticket, uint32_t repeats = 0) {
        HistoryEvent event{};
        event.ticket = ticket;
        event.sequence = content.next_sequence++;
        event.repeats = repeats;
        event.text = std::to_string(ticket);
        content.rings[ring].events.push_back(event);
        content.rings[ring].next_ticket = ticket + 1;
    }

    std::vector<std::string> take(Clock::duration after = 0ms) {
        std::vector<std::string> result;
        auto batch = news.take(content, start + after);
        lost = batch.lost;
        for (HistoryEvent &event : batch.events)
            result.push_back(std::move(event.text));
        return result;
    }

    HistoryContent content{};
    HistoryNews news;
    uint32_t lost = 0;
    const Clock::time_point start = Clock::now();
};

TEST_F(NewsTest, TheFirstLookIsAllOfIt) {
    add(ruma::ring_others, 10);
    add(ruma::ring_errors, 5);
    add(ruma::ring_others, 12);
    EXPECT_THAT(take(), ElementsAre("10", "5", "12"));
    EXPECT_EQ(lost, 0u);
    EXPECT_FALSE(news.waits());
}

TEST_F(NewsTest, EachRecordIsNewOnce) {
    add(ruma::ring_others, 0);
    take();
    EXPECT_THAT(take(), IsEmpty());
    add(ruma::ring_others, 1);
    add(ruma::ring_errors, 0);
    EXPECT_THAT(take(), ElementsAre("1", "0"));
    EXPECT_THAT(take(), IsEmpty());
}

TEST_F(NewsTest, ARepeatedErrorIsNewAgain) {
    add(ruma::ring_errors, 0);
    take();
    content.rings[ruma::ring_errors].events[0].repeats = 3;
    EXPECT_THAT(take(), ElementsAre("0"));
    EXPECT_THAT(take(), IsEmpty());
}

TEST_F(NewsTest, ARecordThatCameWithRepeatsIsNewOnce) {
    take();
    add(ruma::ring_errors, 0, 2);
    EXPECT_THAT(take(), ElementsAre("0"));
    EXPECT_THAT(take(), IsEmpty());
}

TEST_F(NewsTest, AnUnfinishedRecordHoldsUpThoseBehindIt) {
    add(ruma::ring_others, 0);
    take();
    add(ruma::ring_others, 2);
    EXPECT_THAT(take(), IsEmpty());
    EXPECT_TRUE(news.waits());
    EXPECT_THAT(take(499ms), IsEmpty());
    auto &events = content.rings[ruma::ring_others].events;
    events.push_back(events.back());
    events[1].ticket = 1;
    events[1].text = "1";
    EXPECT_THAT(take(499ms), ElementsAre("1", "2"));
    EXPECT_FALSE(news.waits());
}

TEST_F(NewsTest, AnUnfinishedRecordHoldsUpTheOtherRingNot) {
    take();
    add(ruma::ring_others, 1);
    add(ruma::ring_errors, 0);
    EXPECT_THAT(take(), ElementsAre("0"));
}

TEST_F(NewsTest, UnfinishedRecordsAreWaitedForTogetherAndNotForLong) {
    take();
    add(ruma::ring_others, 100);
    EXPECT_THAT(take(), IsEmpty());
    EXPECT_THAT(take(501ms), ElementsAre("100"));
    EXPECT_FALSE(news.waits());
}

TEST_F(NewsTest, ALaterUnfinishedRecordIsWaitedForAnew) {
    take();
    content.rings[ruma::ring_others].next_ticket = 1;
    EXPECT_THAT(take(), IsEmpty());
    content.rings[ruma::ring_others].next_ticket = 2;
    EXPECT_THAT(take(501ms), IsEmpty());
    add(ruma::ring_others, 1);
    EXPECT_THAT(take(502ms), ElementsAre("1"));
}

TEST_F(NewsTest, ARecordBeingWrittenAtTheFirstLookIsNotMissed) {
    add(ruma::ring_others, 0);
    content.rings[ruma::ring_others].next_ticket = 2;
    EXPECT_THAT(take(), ElementsAre("0"));
    add(ruma::ring_others, 1);
    EXPECT_THAT(take(), ElementsAre("1"));
}

TEST_F(NewsTest, TheVeryFirstRecordIsNotMissedWhileItIsBeingWritten) {
    content.rings[ruma::ring_others].next_ticket = 1;
    EXPECT_THAT(take(), IsEmpty());
    add(ruma::ring_others, 0);
    EXPECT_THAT(take(), ElementsAre("0"));
}

TEST_F(NewsTest, AClearedHistoryIsNotWaitedForLong) {
    content.rings[ruma::ring_others].next_ticket = 5000;
    EXPECT_THAT(take(), IsEmpty());
    add(ruma::ring_others, 5000);
    EXPECT_THAT(take(), IsEmpty());
    EXPECT_THAT(take(501ms), ElementsAre("5000"));
}

TEST_F(NewsTest, OverwrittenRecordsAreCounted) {
    add(ruma::ring_others, 0);
    take();
    content.rings[ruma::ring_others].events.clear();
    for (uint32_t ticket = 11; ticket < 11 + ruma::ring_slots[ruma::ring_others]; ticket++)
        add(ruma::ring_others, ticket);
    const auto shown = take();
    EXPECT_EQ(lost, 10u);
    EXPECT_EQ(shown.size(), ruma::ring_slots[ruma::ring_others]);
    EXPECT_EQ(shown.front(), "11");
}

TEST_F(NewsTest, TicketsWrap) {
    content.next_sequence = 0xFFFFFFFD;
    add(ruma::ring_others, 0xFFFFFFFD);
    take();
    for (const uint32_t ticket : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u})
        add(ruma::ring_others, ticket);
    EXPECT_THAT(take(), ElementsAre("4294967294", "4294967295", "0", "1"));
}

class ViewTest : public testing::Test {
  protected:
    TemporaryDirectory directory;
    EventHistory history{directory.path(), HistoryAccess::record};
    ruma::HistoryView view{directory.path()};
};

TEST_F(ViewTest, WaitingEndsWithARecord) {
    const auto content = view.read();
    std::thread writer([this] { history.append(trace_id, ruma::trace_debug, {}, "text"); });
    view.wait(content, std::chrono::duration_cast<std::chrono::milliseconds>(patience));
    EXPECT_NE(view.read().written, content.written);
    writer.join();
}

TEST_F(ViewTest, WaitingEndsWithARepeatedError) {
    history.append(trace_id, ruma::trace_error, {}, "text");
    const auto content = view.read();
    std::thread writer([this] { history.append(trace_id, ruma::trace_error, {}, "text"); });
    view.wait(content, std::chrono::duration_cast<std::chrono::milliseconds>(patience));
    EXPECT_NE(view.read().written, content.written);
    writer.join();
}

TEST_F(ViewTest, WaitingEndsAtItsLimit) {
    const auto content = view.read();
    const auto began = Clock::now();
    view.wait(content, 50ms);
    EXPECT_GE(Clock::now() - began, 50ms);
}

TEST_F(ViewTest, NothingIsWaitedForThatHasHappened) {
    const auto content = view.read();
    history.append(trace_id, ruma::trace_debug, {}, "text");
    const auto began = Clock::now();
    view.wait(content, std::chrono::duration_cast<std::chrono::milliseconds>(patience));
    EXPECT_LT(Clock::now() - began, patience / 2);
}

TEST_F(ViewTest, AFileThatShrinksIsAnErrorAndNoCrash) {
    const auto content = view.read();
    std::filesystem::resize_file(directory / "event-history", 0);
    const auto began = Clock::now();
    view.wait(content, 20ms);
    EXPECT_GE(Clock::now() - began, 20ms);
    try {
        view.read();
        ADD_FAILURE() << "read";
    } catch (const ruma::HistoryError &error) {
        EXPECT_PROVOKED(error.what(), "…: is no event history any more");
    }
    // What the writer has mapped must be there when it ends.
    std::filesystem::resize_file(directory / "event-history", ruma::history_size);
}

TEST_F(ViewTest, AnotherFileInItsPlaceIsNoticed) {
    EXPECT_TRUE(view.current());
    std::filesystem::rename(directory / "event-history", directory / "old");
    EXPECT_FALSE(view.current());
    EventHistory(directory.path(), HistoryAccess::record);
    EXPECT_FALSE(view.current());
    EXPECT_TRUE(ruma::HistoryView(directory.path()).current());
}

} // namespace
