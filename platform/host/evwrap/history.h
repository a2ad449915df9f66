// The event history: a ring of trace records in a file that every process of the agent maps.
//
// Writers take a ticket each and never wait for one another, so that a writer that is killed holds
// up nobody. A record carries its ticket and a checksum: what a killed or overtaken writer left
// behind is recognised and not shown.
#ifndef RUMA_HOST_HISTORY_H
#define RUMA_HOST_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ruma {

// Subtypes of trace records.
enum TraceLevel : uint32_t { trace_error = 100, trace_debug = 101 };

// What the history takes; every subtype other than trace_error counts as debug.
enum HistoryFilter : uint32_t {
    filter_none = 0,
    filter_error = 1,
    filter_debug = 2,
    filter_all = 3
};

constexpr uint32_t history_slots = 2048;      // records that the history holds
constexpr size_t history_text_capacity = 540; // bytes of a record's text; longer ones are cut

// One record as read back.
struct HistoryEvent {
    int64_t seconds; // since the epoch
    uint32_t nanoseconds;
    uint32_t pid;
    uint32_t trace_id;
    uint32_t subtype;
    std::string text;
};

// A history that cannot be used; what() says why.
class HistoryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct HistoryFile;

// A mapped history. Copies share the mapping, which lasts as long as the process.
class EventHistory {
  public:
    enum class Access {
        record,  // create the file when there is none, write records and switches
        control, // existing file, write switches
        view,    // existing file, read
    };

    // Maps the history of a run directory. The file must be a regular one, of this process's user
    // and closed to others; root may also look at those of other users. Throws HistoryError.
    EventHistory(const std::string &directory, Access access);

    bool takes(uint32_t subtype) const noexcept;
    uint32_t filter() const noexcept;
    void set_filter(uint32_t filter) noexcept;
    bool debug() const noexcept;
    void set_debug(bool on) noexcept;

    // Adds a record, stamped with the time and the process id.
    void append(uint32_t trace_id, uint32_t subtype, std::string_view text) noexcept;

    // The ticket that the next record will get. Tickets count up and wrap at 2^32.
    uint32_t next_ticket() const noexcept;

    // The record with this ticket, unless it was overwritten, cleared or never finished.
    std::optional<HistoryEvent> read(uint32_t ticket) const;

    // Wipes all records out.
    void clear() noexcept;

  private:
    HistoryFile *file_;
};

// The path of a run directory's history.
std::string history_path(const std::string &directory);

} // namespace ruma

#endif
