// The layout of the event history's file, and its parser.
//
// The file is a header and two rings of slots, all of it 32-bit words in host byte order. Errors
// have a ring of their own, so that nothing else pushes them out. A record carries its ticket, its
// number within its ring, and a checksum: what a killed or overtaken writer left behind is
// recognised.
//
// The parser reads bytes and nothing else, and believes none of them.
#ifndef RUMA_HOST_HISTORY_FORMAT_H
#define RUMA_HOST_HISTORY_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ruma {

// Subtypes of trace records; there can be others.
enum TraceLevel : uint32_t { trace_error = 100, trace_debug = 101 };

enum class RowTable : uint32_t { none, copy, misc_op };

// A row of a writable table; of no table when none is known.
struct TracedRow {
    RowTable table = RowTable::none;
    uint32_t index = 0;

    bool operator==(const TracedRow &) const = default;
};

// The rings.
enum HistoryRing : size_t { ring_errors, ring_others, ring_count };
constexpr std::array<uint32_t, ring_count> ring_slots = {1024, 2048};

constexpr size_t history_text_capacity = 540; // bytes of a record's text; longer ones are cut

// Words of the header.
enum HeaderWord : size_t {
    header_magic,
    header_version,
    header_size, // of the file, in bytes
    header_switches,
    header_configured,    // the switches as the agent's configuration has them
    header_written,       // counts finished records; who follows the history waits on it
    header_next_sequence, // of both rings together
    header_next_ticket,   // one word for each ring
    header_words = 64,
};
constexpr uint32_t history_magic = 0x52554D48;
constexpr uint32_t history_version = 2;

// Words of a record. Those before the ticket change when the same is recorded again, and are not in
// the checksum.
enum RecordWord : size_t {
    word_checksum,
    word_repeats, // see packed_repeats
    word_last_seconds,
    word_last_uptime,
    word_ticket,
    word_sequence,
    word_seconds_low,
    word_seconds_high,
    word_nanoseconds,
    word_boot,
    word_uptime,
    word_pid,
    word_trace_id,
    word_subtype,
    word_table,
    word_row,
    word_length,
    word_text,
};
constexpr size_t record_words = word_text + history_text_capacity / sizeof(uint32_t);
using HistoryRecord = std::array<uint32_t, record_words>;

constexpr size_t history_words =
    header_words + record_words * (ring_slots[ring_errors] + ring_slots[ring_others]);
constexpr size_t history_size = history_words * sizeof(uint32_t);

// Words of a record whose text has this length, which is within the capacity.
constexpr size_t words_used(size_t length) {
    return word_text + (length + sizeof(uint32_t) - 1) / sizeof(uint32_t);
}

// The header's word that counts a ring's tickets: it holds the next one.
constexpr size_t next_ticket_word(HistoryRing ring) { return size_t{header_next_ticket} + ring; }

// Where a ticket's slot begins, in words.
constexpr size_t slot_position(HistoryRing ring, uint32_t ticket) {
    return header_words + record_words * (ring == ring_errors ? 0 : ring_slots[ring_errors]) +
           record_words * (ticket % ring_slots[ring]);
}

// The checksum of a record's first `words` words.
uint32_t checksum(const HistoryRecord &record, size_t words);

// How often a record was recorded again, in one word that tells for which user of its slot: the low
// 24 bits count, the rest is the ticket's.
constexpr uint32_t most_repeats = 0xFFFFFF;
constexpr uint32_t packed_repeats(HistoryRing ring, uint32_t ticket, uint32_t repeats) {
    return (ticket / ring_slots[ring]) << 24 | repeats;
}

// One record as read back.
struct HistoryEvent {
    uint32_t ticket;
    uint32_t sequence; // the order of all records; wraps at 2^32
    int64_t seconds;   // since the epoch, by the clock as it was set then
    uint32_t nanoseconds;
    uint32_t boot;   // tells boots of the machine apart; 0 when that was not known
    uint32_t uptime; // seconds since that boot
    uint32_t pid;
    uint32_t trace_id;
    uint32_t subtype;
    TracedRow row;
    uint32_t repeats; // how often the same was recorded again
    int64_t
        last_seconds; // as seconds and uptime, of the last time; the first when there is no other
    uint32_t last_uptime;
    std::string text;
};

struct RingContent {
    uint32_t next_ticket;
    std::vector<HistoryEvent> events; // by ticket; those that are overwritten or unfinished lack
};

struct HistoryContent {
    uint32_t switches;
    uint32_t written;
    uint32_t next_sequence;
    std::array<RingContent, ring_count> rings;
};

// What a file holds; nothing when it is no event history of this layout.
std::optional<HistoryContent> parse_history(std::span<const uint8_t> file);

} // namespace ruma

#endif
