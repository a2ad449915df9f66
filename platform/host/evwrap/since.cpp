#include "evwrap/since.h"

#include "evwrap/file.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace ruma {
namespace {

constexpr size_t max_digits = 9;

// Takes a number from the beginning of `text`.
std::optional<int64_t> take_number(std::string_view &text) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > max_digits)
        return {};
    int64_t number = 0;
    for (const char digit : text.substr(0, digits))
        number = number * 10 + (digit - '0');
    text.remove_prefix(digits);
    return number;
}

int64_t unit(char letter) {
    switch (letter) {
    case 'd':
        return 86400;
    case 'h':
        return 3600;
    case 'm':
        return 60;
    case 's':
        return 1;
    default:
        return 0;
    }
}

// A span in seconds.
std::optional<int64_t> span_of(std::string_view text) {
    int64_t span = 0;
    do {
        const auto number = take_number(text);
        if (!number || text.empty() || unit(text[0]) == 0)
            return {};
        span += *number * unit(text[0]);
        text.remove_prefix(1);
    } while (!text.empty());
    return span;
}

// A time in one of the forms of `Since::parse`, in seconds since the epoch.
std::optional<int64_t> time_of(const std::string &text, int64_t now) {
    const auto today = static_cast<time_t>(now);
    for (const char *form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M:%S",
                             "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        tm time{};
        if (::localtime_r(&today, &time) == nullptr)
            return {};
        time.tm_hour = time.tm_min = time.tm_sec = 0;
        const char *end = ::strptime(text.c_str(), form, &time);
        if (end == nullptr || *end != '\0')
            continue;
        const tm wanted = time;
        time.tm_isdst = -1;
        time.tm_wday = -1;
        const time_t seconds = ::mktime(&time);
        // mktime enters the day of the week, unless its time_t does not reach that far, and makes
        // another day of one that does not exist.
        if (time.tm_wday >= 0 && time.tm_mday == wanted.tm_mday && time.tm_mon == wanted.tm_mon)
            return seconds;
    }
    return {};
}

} // namespace

Moment this_moment() { return {::time(nullptr), this_boot(), uptime()}; }

std::optional<Since> Since::parse(const std::string &text, const Moment &now) {
    Since since;
    if (const auto span = span_of(text)) {
        since.span_ = true;
        since.seconds_ = now.seconds - *span;
        since.boot_ = now.boot;
        since.uptime_ = int64_t{now.uptime} - *span;
        return since;
    }
    const auto time = time_of(text, now.seconds);
    if (!time)
        return {};
    since.seconds_ = *time;
    return since;
}

bool Since::takes(const HistoryEvent &event) const {
    if (span_ && boot_ != 0 && event.boot == boot_)
        return event.last_uptime >= uptime_;
    return event.last_seconds >= seconds_;
}

} // namespace ruma
