#include "evwrap/format.h"

#include <bit>
#include <cstring>

namespace ruma {
namespace {

// Tickets wrap at 2^32 and must go on with slot 0 then.
static_assert(std::has_single_bit(ring_slots[ring_errors]) &&
              std::has_single_bit(ring_slots[ring_others]));

uint32_t word_at(std::span<const uint8_t> file, size_t position) {
    uint32_t word = 0;
    std::memcpy(&word, &file[position * sizeof word], sizeof word);
    return word;
}

std::optional<HistoryEvent> event_of(const HistoryRecord &record, HistoryRing ring,
                                     uint32_t ticket) {
    const size_t length = record[word_length];
    if (record[word_ticket] != ticket || length > history_text_capacity ||
        record[word_checksum] != checksum(record, words_used(length)))
        return {};
    HistoryEvent event{};
    event.ticket = ticket;
    event.sequence = record[word_sequence];
    event.seconds =
        static_cast<int64_t>(uint64_t{record[word_seconds_high]} << 32 | record[word_seconds_low]);
    event.nanoseconds = record[word_nanoseconds];
    event.boot = record[word_boot];
    event.uptime = record[word_uptime];
    event.pid = record[word_pid];
    event.trace_id = record[word_trace_id];
    event.subtype = record[word_subtype];
    if (record[word_table] == static_cast<uint32_t>(RowTable::copy) ||
        record[word_table] == static_cast<uint32_t>(RowTable::misc_op))
        event.row = {static_cast<RowTable>(record[word_table]), record[word_row]};
    const uint32_t repeats = record[word_repeats] & most_repeats;
    if (record[word_repeats] == packed_repeats(ring, ticket, repeats))
        event.repeats = repeats;
    event.last_seconds = event.repeats > 0 ? record[word_last_seconds] : event.seconds;
    event.last_uptime = event.repeats > 0 ? record[word_last_uptime] : event.uptime;
    event.text.resize(length);
    std::memcpy(event.text.data(), &record[word_text], length);
    return event;
}

RingContent parse_ring(std::span<const uint8_t> file, HistoryRing ring) {
    RingContent content{word_at(file, next_ticket_word(ring)), {}};
    const uint32_t slots = ring_slots[ring];
    for (uint32_t ticket = content.next_ticket - slots; ticket != content.next_ticket; ticket++) {
        HistoryRecord record;
        std::memcpy(record.data(), &file[slot_position(ring, ticket) * sizeof(uint32_t)],
                    sizeof record);
        if (auto event = event_of(record, ring, ticket))
            content.events.push_back(std::move(*event));
    }
    return content;
}

} // namespace

uint32_t checksum(const HistoryRecord &record, size_t words) {
    uint32_t sum = 0x9E3779B9;
    for (size_t i = word_ticket; i < words; i++)
        sum = std::rotl((sum ^ record[i]) * 0x85EBCA6B, 13) + 0xC2B2AE35;
    return sum;
}

std::optional<HistoryContent> parse_history(std::span<const uint8_t> file) {
    if (file.size() != history_size || word_at(file, header_magic) != history_magic ||
        word_at(file, header_version) != history_version ||
        word_at(file, header_size) != history_size)
        return {};
    return HistoryContent{word_at(file, header_switches),
                          word_at(file, header_written),
                          word_at(file, header_next_sequence),
                          {parse_ring(file, ring_errors), parse_ring(file, ring_others)}};
}

} // namespace ruma
