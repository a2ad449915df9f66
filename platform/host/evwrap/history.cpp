#include "evwrap/history.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace ruma {
namespace {

HistoryWord *map(const std::string &directory, HistoryAccess access, std::optional<uid_t> user) {
    const UniqueFd fd = open_history(directory, access, user);
    void *memory = ::mmap(nullptr, history_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED)
        throw HistoryError(history_path(directory) + ": " + std::generic_category().message(errno));
    return static_cast<HistoryWord *>(memory);
}

} // namespace

EventHistory::EventHistory(const std::string &directory, HistoryAccess access,
                           std::optional<uid_t> user)
    : words_(map(directory, access, user)), boot_(this_boot()), opened_(uptime()) {}

void EventHistory::configure(uint32_t switches) noexcept {
    words_[header_configured].store(switches, std::memory_order_relaxed);
    words_[header_switches].store(switches, std::memory_order_relaxed);
}

void EventHistory::set_switches(uint32_t mask, bool on) noexcept {
    if (on)
        words_[header_switches].fetch_or(mask, std::memory_order_relaxed);
    else
        words_[header_switches].fetch_and(~mask, std::memory_order_relaxed);
}

void EventHistory::reset_switches(uint32_t mask) noexcept {
    const uint32_t configured = words_[header_configured].load(std::memory_order_relaxed);
    set_switches(mask & configured, true);
    set_switches(mask & ~configured, false);
}

void EventHistory::append(uint32_t trace_id, uint32_t subtype, TracedRow row,
                          std::string_view text) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto seconds = static_cast<uint64_t>(now.tv_sec);
    const size_t length = std::min(text.size(), history_text_capacity);
    const size_t words = words_used(length);

    HistoryRecord record;
    record[words - 1] = 0; // the text need not fill its last word
    record[word_seconds_low] = static_cast<uint32_t>(seconds);
    record[word_seconds_high] = static_cast<uint32_t>(seconds >> 32);
    record[word_nanoseconds] = static_cast<uint32_t>(now.tv_nsec);
    record[word_boot] = boot_;
    record[word_uptime] = uptime();
    record[word_pid] = static_cast<uint32_t>(::getpid());
    record[word_trace_id] = trace_id;
    record[word_subtype] = subtype;
    record[word_table] = static_cast<uint32_t>(row.table);
    record[word_row] = row.index;
    record[word_length] = static_cast<uint32_t>(length);
    std::memcpy(&record[word_text], text.data(), length);

    const HistoryRing ring = subtype == trace_error ? ring_errors : ring_others;
    if (ring != ring_errors || !repeats(record, words)) {
        const uint32_t ticket =
            words_[next_ticket_word(ring)].fetch_add(1, std::memory_order_acq_rel);
        record[word_ticket] = ticket;
        record[word_sequence] =
            words_[header_next_sequence].fetch_add(1, std::memory_order_relaxed);
        record[word_repeats] = packed_repeats(ring, ticket, 0);
        record[word_last_seconds] = record[word_seconds_low];
        record[word_last_uptime] = record[word_uptime];
        record[word_checksum] = checksum(record, words);
        HistoryWord *slot = words_ + slot_position(ring, ticket);
        for (size_t i = 0; i < words; i++)
            slot[i].store(record[i], std::memory_order_relaxed);
    }
    words_[header_written].fetch_add(1, std::memory_order_release);
    ::syscall(SYS_futex, &words_[header_written], FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Counts the record where the same stands already; tells whether there is such a place.
bool EventHistory::repeats(const HistoryRecord &record, size_t words) noexcept {
    const uint32_t next = words_[next_ticket_word(ring_errors)].load(std::memory_order_relaxed);
    for (uint32_t ticket = next - 1; ticket != next - 1 - repeat_window; ticket--) {
        HistoryWord *slot = words_ + slot_position(ring_errors, ticket);
        const auto there = [slot](size_t word) {
            return slot[word].load(std::memory_order_relaxed);
        };
        // Recorded by this very process, and so in full: others have another id, or have ended
        // before this one began.
        if (there(word_ticket) != ticket || there(word_boot) != boot_ ||
            there(word_uptime) < opened_)
            continue;
        bool same = true;
        for (size_t word = word_pid; word < words && same; word++)
            same = there(word) == record[word];
        if (!same)
            continue;
        uint32_t before = there(word_repeats);
        const uint32_t repeats = before & most_repeats;
        if (before != packed_repeats(ring_errors, ticket, repeats))
            continue;
        if (repeats == most_repeats)
            return true;
        slot[word_last_seconds].store(record[word_seconds_low], std::memory_order_relaxed);
        slot[word_last_uptime].store(record[word_uptime], std::memory_order_relaxed);
        // Fails only when the slot is another record's by now.
        return slot[word_repeats].compare_exchange_strong(before, before + 1,
                                                          std::memory_order_relaxed);
    }
    return false;
}

void EventHistory::clear() noexcept {
    std::for_each(words_ + header_words, words_ + history_words,
                  [](HistoryWord &word) { word.store(0, std::memory_order_relaxed); });
}

} // namespace ruma
