// The trace facility: the event history, and debug messages on standard error.
#include "ruma/evwrap.h"

#include "base/peer.h"
#include "base/printable.h"
#include "config/config.h"
#include "evwrap/history.h"
#include "evwrap/quiet.h"
#include "evwrap/row.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <sys/time.h>
#include <unistd.h>

namespace {

using ruma::HistoryWord;

// Tracing must not disturb the error that is being traced.
class KeepErrno {
  public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;

  private:
    int saved_;
};

constexpr uint32_t undecided = 1u << 31; // no switch of a history

// What a process looks at before every message: at first a word that says nothing is known yet,
// then the switches of its history, or one that is off.
HistoryWord not_started{undecided};
HistoryWord off{0};
std::atomic<const HistoryWord *> switches{&not_started};
uint32_t own_switches; // on for this process alone
int quiet;             // while greater than 0, nobody wants to know
std::optional<ruma::EventHistory> history;

// Opens this process's tracing, or says once why there is none.
void start() {
    const KeepErrno keep;
    const char *debug = std::getenv("RUMA_DEBUG");
    if (debug != nullptr && std::strcmp(debug, "1") == 0)
        own_switches = ruma::switch_printing;
    const HistoryWord *opened = &off;
    try {
        const bool debug_too = ruma::config().trace_debug;
        history.emplace(ruma::run_dir(), ruma::HistoryAccess::record,
                        ruma::configured_user_number(ruma::config().agent_user));
        history->configure(debug_too ? ruma::switches_recording : uint32_t{ruma::switch_errors});
        opened = &history->switches();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ruma: no event history: %s\n", error.what());
    }
    switches.store(opened, std::memory_order_release);
}

// Whether one of the switches of `mask` is on. Costs no more than a few loads.
bool on(uint32_t mask) {
    uint32_t now = switches.load(std::memory_order_acquire)->load(std::memory_order_relaxed);
    if (__builtin_expect((now & undecided) != 0, 0)) {
        static std::once_flag started;
        std::call_once(started, start);
        now = switches.load(std::memory_order_acquire)->load(std::memory_order_relaxed);
    }
    return ((now | own_switches) & mask) != 0 && quiet == 0;
}

void print_line(const char *module, const char *message) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[64];
    const size_t length = std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + length, sizeof(stamp) - length, ".%06ld ",
                  static_cast<long>(now.tv_usec));
    const std::string line = stamp + ruma::printable(module == nullptr ? "?" : module) + ": " +
                             ruma::printable(message) + "\n";
    // In one piece, so that lines of several processes do not mix. Where standard error cannot be
    // written there is nobody to tell.
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0)
        return;
}

} // namespace

namespace ruma {

QuietTracing::QuietTracing() { ++quiet; }

QuietTracing::~QuietTracing() { --quiet; }

} // namespace ruma

extern "C" {

const char *const evwrap_dbg_modname = "flash";

int evwrap_hist_event_subtype_check(uint32_t, uint32_t subtype) {
    return on(subtype == ruma::trace_error ? ruma::switch_errors : ruma::switch_debug) ? 1 : 0;
}

void evwrap_hist_event(uint32_t trace_id, const void *record, uint32_t length) {
    uint32_t subtype = 0;
    on(0); // starts
    if (!history || record == nullptr || length < sizeof(subtype))
        return;
    const KeepErrno keep;
    std::memcpy(&subtype, record, sizeof(subtype));
    const char *text = static_cast<const char *>(record) + sizeof(subtype);
    history->append(trace_id, subtype, ruma::traced_row(),
                    {text, ::strnlen(text, length - sizeof(subtype))});
}

int evwrap_chk_int(int, int, int, int) { return on(ruma::switch_printing) ? 1 : 0; }

void dbgout(int, const char *module, const char *format, va_list arguments) {
    const KeepErrno keep;
    char message[4096]; // longer than anything that a name or a path can make of a message
    if (std::vsnprintf(message, sizeof(message), format, arguments) < 0)
        return;
    try {
        print_line(module, message);
    } catch (const std::bad_alloc &) {
        // A debug message is not worth more than this.
    }
}

} // extern "C"
