// "Since when", as ruma-trace is told it.
#include "evwrap/since.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

using ruma::HistoryEvent;
using ruma::Moment;
using ruma::Since;

// 2026-11-21 17:30:00 UTC, ten days after the machine's start.
constexpr Moment now{1795282200, 77, 864000};

class SinceTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::setenv("TZ", "UTC", 1), 0);
        ::tzset();
    }

    // A record of that time, by a clock that was right.
    static HistoryEvent at(int64_t seconds) {
        HistoryEvent event{};
        event.seconds = event.last_seconds = seconds;
        event.boot = now.boot;
        event.uptime = event.last_uptime =
            static_cast<uint32_t>(now.uptime + (seconds - now.seconds));
        return event;
    }

    // The first time that `text` takes is `first`.
    static void expect_first(const std::string &text, int64_t first) {
        const auto since = Since::parse(text, now);
        ASSERT_TRUE(since) << text;
        EXPECT_TRUE(since->takes(at(first))) << text;
        EXPECT_FALSE(since->takes(at(first - 1))) << text;
    }
};

TEST_F(SinceTest, RefusesATimeBeyondTheClocks) {
    EXPECT_EQ(Since::parse("2100-01-01", now).has_value(), sizeof(time_t) > 4);
}

TEST_F(SinceTest, ASpanIsOfDaysHoursMinutesAndSeconds) {
    expect_first("90s", now.seconds - 90);
    expect_first("10m", now.seconds - 600);
    expect_first("1h", now.seconds - 3600);
    expect_first("1h30s", now.seconds - 3630);
    expect_first("0s", now.seconds);
}

TEST_F(SinceTest, ATimeIsADateATimeOfTheDayOrBoth) {
    expect_first("2026-11-21", now.seconds - 17 * 3600 - 1800);
    expect_first("2026-11-21 17:00", now.seconds - 1800);
    expect_first("2026-11-21 17:00:01", now.seconds - 1799);
    expect_first("2026-11-21T17:00", now.seconds - 1800);
    expect_first("2026-11-21T17:00:01", now.seconds - 1799);
    expect_first("17:29", now.seconds - 60);
    expect_first("17:29:30", now.seconds - 30);
}

TEST_F(SinceTest, ATimeIsLocal) {
    ::setenv("TZ", "XYZ-2", 1);
    ::tzset();
    expect_first("19:29", now.seconds - 60);
}

TEST_F(SinceTest, OtherTextsAreRefused) {
    for (const char *text :
         {"", "10", "m", "-10m", "10x", "10m ", "1h-1m", "1234567890s", "noon", "2026-11",
          "2026-13-01", "2026-02-30", "2026-11-21x", "25:00", "17:00 2026-11-21", "2026-11-21 17"})
        EXPECT_FALSE(Since::parse(text, now)) << text;
}

TEST_F(SinceTest, AClockThatWasSetMakesNoDifferenceToASpan) {
    const auto since = Since::parse("10m", now);
    HistoryEvent event = at(now.seconds - 300);
    event.seconds = event.last_seconds = now.seconds - 86400; // set forward since
    EXPECT_TRUE(since->takes(event));
    event = at(now.seconds - 900);
    event.seconds = event.last_seconds = now.seconds + 86400; // set back since
    EXPECT_FALSE(since->takes(event));
}

TEST_F(SinceTest, RecordsOfAnotherBootAreToldByTheClock) {
    const auto since = Since::parse("10m", now);
    HistoryEvent event = at(now.seconds - 300);
    event.boot = 78;
    event.last_uptime = 0;
    EXPECT_TRUE(since->takes(event));
    event.last_seconds = now.seconds - 700;
    EXPECT_FALSE(since->takes(event));
}

TEST_F(SinceTest, WhereTheBootIsNotKnownTheClockTells) {
    const auto since = Since::parse("10m", {now.seconds, 0, 0});
    HistoryEvent event = at(now.seconds - 300);
    event.boot = 0;
    event.last_uptime = 0;
    EXPECT_TRUE(since->takes(event));
}

TEST_F(SinceTest, ARepeatedErrorIsOfItsLastTime) {
    HistoryEvent event = at(now.seconds - 3000);
    event.repeats = 1;
    event.last_seconds = now.seconds - 10;
    event.last_uptime = now.uptime - 10;
    EXPECT_TRUE(Since::parse("10m", now)->takes(event));
    EXPECT_TRUE(Since::parse("17:29", now)->takes(event));
}

TEST_F(SinceTest, ASpanLongerThanTheBootTakesAllOfTheBoot) {
    const auto since = Since::parse("30d", now);
    EXPECT_TRUE(since->takes(at(now.seconds - 864000)));
}

} // namespace
