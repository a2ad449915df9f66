// The event history as its viewers have it: snapshots of a file that others write.
#ifndef RUMA_HOST_HISTORY_VIEW_H
#define RUMA_HOST_HISTORY_VIEW_H

#include "evwrap/file.h"
#include "evwrap/format.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace ruma {

class HistoryView {
  public:
    // Opens the history of a run directory. Throws HistoryError.
    explicit HistoryView(std::string directory);
    ~HistoryView();
    HistoryView(const HistoryView &) = delete;
    HistoryView &operator=(const HistoryView &) = delete;

    // What the file holds now. Reads a copy: a file that changes or shrinks meanwhile does no harm.
    // Throws HistoryError when it is no history any more.
    HistoryContent read() const;

    // Waits until a record has been finished since `content` was read; up to `limit`, and not
    // beyond a signal.
    void wait(const HistoryContent &content, std::chrono::milliseconds limit) const;

    // Whether the run directory's history is this file still.
    bool current() const noexcept { return is_history_of(directory_, file_); }

  private:
    std::string directory_;
    UniqueFd file_;
    void *header_; // for the kernel to wait on, never read here; null where it cannot be mapped
};

// Records of both rings, in the order in which they were made.
std::vector<HistoryEvent> in_order(HistoryContent content);

// What is new in a history since the last look at it.
class HistoryNews {
  public:
    struct Batch {
        uint32_t lost = 0; // records that were overwritten before they could be looked at
        std::vector<HistoryEvent> events; // in order
    };

    using Clock = std::chrono::steady_clock;

    // Nothing has been seen of the history yet.
    HistoryNews() = default;

    // The records that `content` holds beyond those of the calls before, and errors that have been
    // repeated since. A record that is not finished yet holds up those behind it in its ring, for
    // half a second; then it counts as lost with its writer.
    Batch take(const HistoryContent &content, Clock::time_point now);

    // Whether a record that is not finished is waited for.
    bool waits() const;

  private:
    struct Ring {
        bool begun = false;
        uint32_t next = 0; // ticket
        // Since when a record is waited for, and the ticket before which none is waited for longer.
        Clock::time_point missing_since = Clock::time_point::max();
        uint32_t missing_until = 0;
    };

    void take_ring(HistoryRing ring, const RingContent &content, Clock::time_point now,
                   Batch &batch);
    void take_repeats(const RingContent &content, Batch &batch);

    std::array<Ring, ring_count> rings_;
    std::array<uint32_t, ring_slots[ring_errors]> repeats_{}; // as seen, by slot
};

} // namespace ruma

#endif
