#include "evwrap/history.h"

#include "base/unique_fd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ruma {
namespace {

constexpr uint32_t magic = 0x52554D48;
constexpr uint32_t version = 1;
constexpr const char *file_name = "event-history";

using Word = std::atomic<uint32_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 4, "words are shared by processes");

// Words of a record.
enum RecordWord : size_t {
    word_ticket,
    word_checksum,
    word_seconds_low,
    word_seconds_high,
    word_nanoseconds,
    word_pid,
    word_trace_id,
    word_subtype,
    word_length,
    word_text,
};

constexpr size_t text_words = history_text_capacity / sizeof(uint32_t);
constexpr size_t record_words = word_text + text_words;

using Record = std::array<uint32_t, record_words>;
using Slot = std::array<Word, record_words>;

// Words of a record whose text has this length.
constexpr size_t words_used(size_t length) {
    return word_text + (length + sizeof(uint32_t) - 1) / sizeof(uint32_t);
}

uint32_t checksum(const Record &record, size_t words) {
    uint32_t sum = 0x9E3779B9;
    for (size_t i = 0; i < words; i++) {
        if (i != word_checksum)
            sum = std::rotl((sum ^ record[i]) * 0x85EBCA6B, 13) + 0xC2B2AE35;
    }
    return sum;
}

} // namespace

struct HistoryFile {
    uint32_t magic;
    uint32_t version;
    uint32_t size; // of the whole file
    Word filter;
    Word debug;
    alignas(64) Word next_ticket;
    alignas(64) std::array<Slot, history_slots> slots;
};

// Tickets wrap at 2^32 and must go on with slot 0 then.
static_assert(std::has_single_bit(history_slots));

namespace {

[[noreturn]] void fail(const std::string &directory, const std::string &reason) {
    throw HistoryError(history_path(directory) + ": " + reason);
}

[[noreturn]] void fail(const std::string &directory, int error) {
    fail(directory, error == ELOOP ? "is a symbolic link" : std::generic_category().message(error));
}

HistoryFile *map(const std::string &directory, int fd, int protection) {
    void *memory = ::mmap(nullptr, sizeof(HistoryFile), protection, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        fail(directory, errno);
    return static_cast<HistoryFile *>(memory);
}

// Puts a new, empty history in place, unless another process was faster.
void create(const std::string &directory, int directory_fd) {
    const std::string temporary = std::string(file_name) + "." + std::to_string(::getpid());
    ::unlinkat(directory_fd, temporary.c_str(), 0); // left by a process of the same id
    const UniqueFd fd(::openat(directory_fd, temporary.c_str(),
                               O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd)
        fail(directory, errno);
    // All of its space at once: a full file system must not end a process that writes to the
    // mapping.
    int error = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(sizeof(HistoryFile)));
    if (error == 0) {
        HistoryFile *file = map(directory, fd.get(), PROT_READ | PROT_WRITE);
        file->magic = magic;
        file->version = version;
        file->size = static_cast<uint32_t>(sizeof(HistoryFile));
        file->filter = filter_all;
        ::munmap(file, sizeof(HistoryFile));
        if (::linkat(directory_fd, temporary.c_str(), directory_fd, file_name, 0) != 0 &&
            errno != EEXIST)
            error = errno;
    }
    ::unlinkat(directory_fd, temporary.c_str(), 0);
    if (error != 0)
        fail(directory, error);
}

// Refuses a file that others could have put there or could read.
void check_owner(const std::string &directory, const struct stat &status,
                 EventHistory::Access access) {
    if (!S_ISREG(status.st_mode))
        fail(directory, "is not a regular file");
    const bool root_looks_on = ::geteuid() == 0 && access != EventHistory::Access::record;
    if (status.st_uid != ::geteuid() && !root_looks_on)
        fail(directory, "belongs to another user");
    if ((status.st_mode & 077) != 0)
        fail(directory, "is open to other users");
}

// Whether the file is a history of this program's layout.
bool is_history(int fd, const struct stat &status) {
    uint32_t words[3];
    if (status.st_size != static_cast<off_t>(sizeof(HistoryFile)) ||
        ::pread(fd, words, sizeof(words), 0) != static_cast<ssize_t>(sizeof(words)))
        return false;
    return words[0] == magic && words[1] == version && words[2] == sizeof(HistoryFile);
}

HistoryFile *open_history(const std::string &directory, EventHistory::Access access) {
    const bool recording = access == EventHistory::Access::record;
    const bool writing = access != EventHistory::Access::view;
    const UniqueFd directory_fd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_fd)
        fail(directory, errno);
    // More than once only when other processes create or remove the file at the same time.
    for (int attempt = 0; attempt < 8; attempt++) {
        const UniqueFd fd(
            ::openat(directory_fd.get(), file_name,
                     (writing ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (!fd) {
            if (errno != ENOENT || !recording)
                fail(directory, errno);
            create(directory, directory_fd.get());
            continue;
        }
        struct stat status {};
        if (::fstat(fd.get(), &status) != 0)
            fail(directory, errno);
        check_owner(directory, status, access);
        if (is_history(fd.get(), status))
            return map(directory, fd.get(), writing ? PROT_READ | PROT_WRITE : PROT_READ);
        if (!recording)
            fail(directory, "is not an event history of this version");
        if (::unlinkat(directory_fd.get(), file_name, 0) != 0 && errno != ENOENT)
            fail(directory, errno);
    }
    fail(directory, "keeps changing");
}

} // namespace

EventHistory::EventHistory(const std::string &directory, Access access)
    : file_(open_history(directory, access)) {}

uint32_t EventHistory::filter() const noexcept {
    return file_->filter.load(std::memory_order_relaxed);
}

bool EventHistory::takes(uint32_t subtype) const noexcept {
    return (filter() & (subtype == trace_error ? filter_error : filter_debug)) != 0;
}

void EventHistory::set_filter(uint32_t filter) noexcept {
    file_->filter.store(filter, std::memory_order_relaxed);
}

bool EventHistory::debug() const noexcept {
    return file_->debug.load(std::memory_order_relaxed) != 0;
}

void EventHistory::set_debug(bool on) noexcept {
    file_->debug.store(on ? 1 : 0, std::memory_order_relaxed);
}

uint32_t EventHistory::next_ticket() const noexcept {
    return file_->next_ticket.load(std::memory_order_acquire);
}

void EventHistory::append(uint32_t trace_id, uint32_t subtype, std::string_view text) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto seconds = static_cast<uint64_t>(now.tv_sec);
    const size_t length = std::min(text.size(), history_text_capacity);
    const size_t words = words_used(length);

    Record record;
    record[words - 1] = 0; // the text need not fill its last word
    record[word_seconds_low] = static_cast<uint32_t>(seconds);
    record[word_seconds_high] = static_cast<uint32_t>(seconds >> 32);
    record[word_nanoseconds] = static_cast<uint32_t>(now.tv_nsec);
    record[word_pid] = static_cast<uint32_t>(::getpid());
    record[word_trace_id] = trace_id;
    record[word_subtype] = subtype;
    record[word_length] = static_cast<uint32_t>(length);
    std::memcpy(&record[word_text], text.data(), length);

    const uint32_t ticket = file_->next_ticket.fetch_add(1, std::memory_order_acq_rel);
    record[word_ticket] = ticket;
    record[word_checksum] = checksum(record, words);
    Slot &slot = file_->slots[ticket % history_slots];
    for (size_t i = 0; i < words; i++)
        slot[i].store(record[i], std::memory_order_relaxed);
}

std::optional<HistoryEvent> EventHistory::read(uint32_t ticket) const {
    const Slot &slot = file_->slots[ticket % history_slots];
    Record record;
    for (size_t i = 0; i < record_words; i++)
        record[i] = slot[i].load(std::memory_order_relaxed);
    const size_t length = record[word_length];
    if (record[word_ticket] != ticket || length > history_text_capacity ||
        record[word_checksum] != checksum(record, words_used(length)))
        return std::nullopt;
    HistoryEvent event{};
    event.seconds =
        static_cast<int64_t>(uint64_t{record[word_seconds_high]} << 32 | record[word_seconds_low]);
    event.nanoseconds = record[word_nanoseconds];
    event.pid = record[word_pid];
    event.trace_id = record[word_trace_id];
    event.subtype = record[word_subtype];
    event.text.resize(length);
    std::memcpy(event.text.data(), &record[word_text], length);
    return event;
}

void EventHistory::clear() noexcept {
    for (Slot &slot : file_->slots) {
        for (Word &word : slot)
            word.store(0, std::memory_order_relaxed);
    }
}

std::string history_path(const std::string &directory) { return directory + "/" + file_name; }

} // namespace ruma
