// The event history as its writers have it: a file of rings that every process of the agent maps.
//
// Writers take a ticket each and never wait for one another, so that a writer that is killed holds
// up nobody.
#ifndef RUMA_HOST_HISTORY_H
#define RUMA_HOST_HISTORY_H

#include "evwrap/file.h"
#include "evwrap/format.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace ruma {

// What is done with a message. A subtype other than trace_error counts as debug.
enum HistorySwitch : uint32_t {
    switch_errors = 1,  // errors are recorded
    switch_debug = 2,   // debug messages are recorded
    switch_printing = 4 // debug messages are printed on standard error
};
constexpr uint32_t switches_recording = switch_errors | switch_debug;

using HistoryWord = std::atomic<uint32_t>;
static_assert(HistoryWord::is_always_lock_free && sizeof(HistoryWord) == 4,
              "words are shared by processes");

// An error is counted, not recorded once more, when it is among this many errors before it, of the
// same process, about the same row and with the same text: what is traced at every poll of a
// station does not push out what happened once.
constexpr uint32_t repeat_window = 16;

// A mapped history. Copies share the mapping, which lasts as long as the process.
class EventHistory {
  public:
    // Maps the history of a run directory for HistoryAccess::record or control, as open_history has
    // it. Throws HistoryError.
    EventHistory(const std::string &directory, HistoryAccess access,
                 std::optional<uid_t> user = {});

    // Sets the switches as the configuration has them: what an agent that starts begins with.
    void configure(uint32_t switches) noexcept;

    // The word that holds the switches, for who looks at it before every message.
    const HistoryWord &switches() const noexcept { return words_[header_switches]; }

    // Turns the switches of `mask` on or off.
    void set_switches(uint32_t mask, bool on) noexcept;

    // Turns the switches of `mask` to what the agent began with.
    void reset_switches(uint32_t mask) noexcept;

    // Adds a record, stamped with the time and the process id. Makes two system calls.
    void append(uint32_t trace_id, uint32_t subtype, TracedRow row, std::string_view text) noexcept;

    // Wipes all records out.
    void clear() noexcept;

  private:
    bool repeats(const HistoryRecord &record, size_t words) noexcept;

    HistoryWord *words_;
    uint32_t boot_;
    uint32_t opened_; // uptime
};

} // namespace ruma

#endif
