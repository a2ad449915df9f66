#include "evwrap/view.h"

#include <algorithm>
#include <cerrno>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <system_error>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace ruma {
namespace {

constexpr auto patience = std::chrono::milliseconds(500);
constexpr uint32_t most_writers = 8; // processes that are in the middle of a record
constexpr auto never = HistoryNews::Clock::time_point::max();

void sort_by_sequence(std::vector<HistoryEvent> &events, uint32_t next_sequence) {
    std::sort(events.begin(), events.end(),
              [next_sequence](const HistoryEvent &a, const HistoryEvent &b) {
                  return next_sequence - a.sequence > next_sequence - b.sequence;
              });
}

} // namespace

HistoryView::HistoryView(std::string directory)
    : directory_(std::move(directory)), file_(open_history(directory_, HistoryAccess::view)) {
    constexpr size_t header_size = header_words * sizeof(uint32_t);
    header_ = ::mmap(nullptr, header_size, PROT_READ, MAP_SHARED, file_.get(), 0);
    if (header_ == MAP_FAILED)
        header_ = nullptr;
}

HistoryView::~HistoryView() {
    if (header_ != nullptr)
        ::munmap(header_, header_words * sizeof(uint32_t));
}

HistoryContent HistoryView::read() const {
    std::vector<uint8_t> bytes(history_size);
    size_t size = 0;
    while (size < bytes.size()) {
        const ssize_t got =
            ::pread(file_.get(), &bytes[size], bytes.size() - size, static_cast<off_t>(size));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw HistoryError(history_path(directory_) + ": " +
                               std::generic_category().message(errno));
        if (got == 0)
            break;
        size += static_cast<size_t>(got);
    }
    bytes.resize(size);
    auto content = parse_history(bytes);
    if (!content)
        throw HistoryError(history_path(directory_) + ": is no event history any more");
    return std::move(*content);
}

void HistoryView::wait(const HistoryContent &content, std::chrono::milliseconds limit) const {
    // As the kernel has it in this system call, on every machine.
    const long time[2] = {static_cast<long>(limit.count() / 1000),
                          static_cast<long>(limit.count() % 1000 * 1000000)};
    const uint32_t *written =
        header_ == nullptr ? nullptr : static_cast<const uint32_t *>(header_) + header_written;
    if (written == nullptr ||
        (::syscall(SYS_futex, written, FUTEX_WAIT, content.written, time, nullptr, 0) != 0 &&
         errno != EAGAIN && errno != ETIMEDOUT && errno != EINTR)) {
        // Cannot be waited on: the file has shrunk, for example.
        const timespec pause{time[0], time[1]};
        ::nanosleep(&pause, nullptr);
    }
}

std::vector<HistoryEvent> in_order(HistoryContent content) {
    std::vector<HistoryEvent> events;
    for (RingContent &ring : content.rings)
        std::move(ring.events.begin(), ring.events.end(), std::back_inserter(events));
    sort_by_sequence(events, content.next_sequence);
    return events;
}

HistoryNews::Batch HistoryNews::take(const HistoryContent &content, Clock::time_point now) {
    Batch batch;
    take_repeats(content.rings[ring_errors], batch);
    for (const HistoryRing ring : {ring_errors, ring_others})
        take_ring(ring, content.rings[ring], now, batch);
    sort_by_sequence(batch.events, content.next_sequence);
    return batch;
}

void HistoryNews::take_ring(HistoryRing ring, const RingContent &content, Clock::time_point now,
                            Batch &batch) {
    Ring &seen = rings_[ring];
    const uint32_t oldest = content.next_ticket - ring_slots[ring];
    if (!seen.begun) {
        // What is missing of the past is nothing to wait for, but what is being written is.
        seen.begun = true;
        seen.next = content.events.empty()
                        ? content.next_ticket - std::min(content.next_ticket, most_writers)
                        : content.events.back().ticket + 1;
        batch.events.insert(batch.events.end(), content.events.begin(), content.events.end());
        return;
    }
    const uint32_t waiting = content.next_ticket - seen.next;
    if (waiting > ring_slots[ring]) {
        batch.lost += waiting - ring_slots[ring];
        seen.next = oldest;
        seen.missing_since = never;
    }
    const auto before = [oldest](const HistoryEvent &event, uint32_t ticket) {
        return event.ticket - oldest < ticket - oldest;
    };
    auto event = std::lower_bound(content.events.begin(), content.events.end(), seen.next, before);
    while (seen.next != content.next_ticket) {
        if (event != content.events.end() && event->ticket == seen.next) {
            batch.events.push_back(*event++);
            seen.next++;
            seen.missing_since = never;
        } else if (seen.missing_since == never || seen.next == seen.missing_until) {
            seen.missing_since = now;
            seen.missing_until = content.next_ticket;
        } else if (now - seen.missing_since > patience) {
            seen.next++;
        } else {
            return;
        }
    }
    seen.missing_since = never;
}

// Before the ring itself: what is new in it is no repetition.
void HistoryNews::take_repeats(const RingContent &content, Batch &batch) {
    const Ring &seen = rings_[ring_errors];
    for (const HistoryEvent &event : content.events) {
        uint32_t &repeats = repeats_[event.ticket % ring_slots[ring_errors]];
        const bool known =
            seen.begun && event.ticket - seen.next >= content.next_ticket - seen.next;
        if (known && event.repeats != repeats)
            batch.events.push_back(event);
        repeats = event.repeats;
    }
}

bool HistoryNews::waits() const {
    return std::any_of(rings_.begin(), rings_.end(),
                       [](const Ring &ring) { return ring.missing_since != never; });
}

} // namespace ruma
