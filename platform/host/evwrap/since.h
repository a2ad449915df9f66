// "Since when", as somebody who looks for a record says it.
#ifndef RUMA_HOST_HISTORY_SINCE_H
#define RUMA_HOST_HISTORY_SINCE_H

#include "evwrap/format.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ruma {

// The time of looking.
struct Moment {
    int64_t seconds; // since the epoch
    uint32_t boot;
    uint32_t uptime;
};
Moment this_moment();

// A point in time: a span before a moment, or a time of the day or date as the clock was set.
class Since {
  public:
    // Reads a span, numbers with the units d, h, m and s ("90s", "1h30m"); or a local time,
    // "YYYY-MM-DD", "HH:MM" of the day of `now`, or both with a blank or "T" between them, seconds
    // where wanted. Nothing for any other text.
    static std::optional<Since> parse(const std::string &text, const Moment &now);

    // Whether the record, or its last repetition, is from then or later. Spans are told by the time
    // since the machine's boot where the record is of the same boot, so that a clock that was set
    // meanwhile makes no difference.
    bool takes(const HistoryEvent &event) const;

  private:
    int64_t seconds_ = 0;
    bool span_ = false;
    uint32_t boot_ = 0;
    int64_t uptime_ = 0;
};

} // namespace ruma

#endif
