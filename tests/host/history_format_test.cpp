// The parser of the event history, over bytes that no history has written.
#include "evwrap/format.h"

#include "evwrap_fixture.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using ruma::HistoryRing;

class FormatTest : public testing::Test {
  protected:
    void SetUp() override {
        EventHistory history(directory.path(), HistoryAccess::record);
        history.append(trace_id, ruma::trace_error, {ruma::RowTable::copy, 7}, "error");
        history.append(trace_id, ruma::trace_debug, {}, "debug");
        const std::string content = read_file(directory / "event-history");
        file.assign(content.begin(), content.end());
        ASSERT_EQ(file.size(), ruma::history_size);
    }

    void set_word(size_t position, uint32_t value) {
        std::memcpy(&file[position * sizeof value], &value, sizeof value);
    }

    uint32_t word(size_t position) const {
        uint32_t value = 0;
        std::memcpy(&value, &file[position * sizeof value], sizeof value);
        return value;
    }

    // Sets a word of the record of ticket 0, and its checksum to what then fits.
    void set_and_sign(HistoryRing ring, size_t at, uint32_t value) {
        const size_t slot = ruma::slot_position(ring, 0);
        set_word(slot + at, value);
        ruma::HistoryRecord record;
        std::memcpy(record.data(), &file[slot * sizeof(uint32_t)], sizeof record);
        const size_t length = std::min<size_t>(record[ruma::word_length], 540);
        set_word(slot + ruma::word_checksum, ruma::checksum(record, ruma::words_used(length)));
    }

    // What is parsed of a copy of its own allocation, so that an over-read is found.
    static std::optional<ruma::HistoryContent> parse(const Bytes &bytes) {
        const auto copy = std::make_unique<uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), copy.get());
        return ruma::parse_history({copy.get(), bytes.size()});
    }

    std::vector<ruma::HistoryEvent> events() const {
        auto content = parse(file);
        EXPECT_TRUE(content);
        return in_order(std::move(*content));
    }

    TemporaryDirectory directory;
    Bytes file;
};

TEST_F(FormatTest, AFileOfTheseBytesIsRead) {
    const auto kept = events();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].text, "error");
    EXPECT_EQ(kept[1].text, "debug");
}

TEST_F(FormatTest, AFileOfAnotherSizeIsNone) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{255}, size_t{256}, file.size() - 1}) {
        EXPECT_FALSE(parse(Bytes(file.begin(), file.begin() + static_cast<ptrdiff_t>(size))));
    }
    file.push_back(0);
    EXPECT_FALSE(parse(file));
}

TEST_F(FormatTest, AFileWithAnotherBeginningIsNone) {
    for (const size_t position : {ruma::header_magic, ruma::header_version, ruma::header_size}) {
        const uint32_t before = word(position);
        set_word(position, before + 1);
        EXPECT_FALSE(parse(file)) << position;
        set_word(position, before);
    }
    EXPECT_TRUE(parse(file));
}

TEST_F(FormatTest, TheFirstLayoutIsNone) {
    set_word(ruma::header_version, 1);
    EXPECT_FALSE(parse(file));
}

TEST_F(FormatTest, ALengthBeyondTheTextIsNoRecord) {
    for (const uint32_t length : {541u, 544u, 65536u, 0xFFFFFFFFu}) {
        set_and_sign(ruma::ring_errors, ruma::word_length, length);
        EXPECT_EQ(events().size(), 1u) << length;
    }
    set_and_sign(ruma::ring_errors, ruma::word_length, 540);
    EXPECT_EQ(events().size(), 2u);
}

TEST_F(FormatTest, ATicketOfAnotherSlotOrRoundIsNoRecord) {
    for (const uint32_t ticket : {1u, 1024u, 0xFFFFFC00u}) {
        set_and_sign(ruma::ring_errors, ruma::word_ticket, ticket);
        EXPECT_EQ(events().size(), 1u) << ticket;
    }
}

TEST_F(FormatTest, ATableThatThereIsNotIsNoRow) {
    EXPECT_EQ(events()[0].row, (ruma::TracedRow{ruma::RowTable::copy, 7}));
    set_and_sign(ruma::ring_errors, ruma::word_table, 3);
    EXPECT_EQ(events()[0].row, ruma::TracedRow{});
}

TEST_F(FormatTest, RepeatsOfAnotherRecordAreNone) {
    const size_t at = ruma::slot_position(ruma::ring_errors, 0) + ruma::word_repeats;
    set_word(at, 5);
    EXPECT_EQ(events()[0].repeats, 5u);
    set_word(at, 1u << 24 | 5);
    EXPECT_EQ(events()[0].repeats, 0u);
}

TEST_F(FormatTest, TicketsGoOnWithTheFirstSlotWhenTheyWrap) {
    TemporaryDirectory other;
    EventHistory history(other.path(), HistoryAccess::record);
    {
        std::fstream stream(other / "event-history",
                            std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp((ruma::header_next_ticket + 1) * sizeof(uint32_t));
        stream.write("\xfe\xff\xff\xff", 4);
        stream.seekp(ruma::header_next_sequence * sizeof(uint32_t));
        stream.write("\xfe\xff\xff\xff", 4);
    }
    for (const char *text : {"a", "b", "c", "d"})
        history.append(trace_id, ruma::trace_debug, {}, text);
    EXPECT_THAT(texts_in(other.path()), testing::ElementsAre("a", "b", "c", "d"));
}

TEST_F(FormatTest, RandomBytesBehindTheBeginningDoNoHarm) {
    std::mt19937 random(730000);
    for (int round = 0; round < 20; round++) {
        for (size_t position = ruma::header_switches; position < ruma::history_words; position++)
            set_word(position, static_cast<uint32_t>(random()));
        const auto content = parse(file);
        ASSERT_TRUE(content);
        EXPECT_EQ(in_order(*content).size(), 0u);
    }
}

} // namespace
