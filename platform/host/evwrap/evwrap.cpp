// The trace facility: the event history, and debug messages on standard error.
#include "ruma/evwrap.h"

#include "base/printable.h"
#include "config/config.h"
#include "evwrap/history.h"
#include "evwrap/quiet.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>
#include <sys/time.h>
#include <unistd.h>

namespace {

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

struct Tracing {
    std::optional<ruma::EventHistory> history;
    bool debug = false; // whatever the history's switch says
};

// Opens this process's tracing, or says once why there is none.
Tracing start() {
    const KeepErrno keep;
    Tracing tracing;
    const char *debug = std::getenv("RUMA_DEBUG");
    tracing.debug = debug != nullptr && std::strcmp(debug, "1") == 0;
    try {
        tracing.history.emplace(ruma::run_dir(), ruma::EventHistory::Access::record);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ruma: no event history: %s\n", error.what());
    }
    return tracing;
}

int quiet; // while greater than 0, nobody wants to know

Tracing &tracing() {
    static Tracing instance = start();
    return instance;
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
    const auto &history = tracing().history;
    return quiet == 0 && history && history->takes(subtype) ? 1 : 0;
}

void evwrap_hist_event(uint32_t trace_id, const void *record, uint32_t length) {
    auto &history = tracing().history;
    uint32_t subtype = 0;
    if (!history || record == nullptr || length < sizeof(subtype))
        return;
    const KeepErrno keep;
    std::memcpy(&subtype, record, sizeof(subtype));
    const char *text = static_cast<const char *>(record) + sizeof(subtype);
    history->append(trace_id, subtype, {text, ::strnlen(text, length - sizeof(subtype))});
}

int evwrap_chk_int(int, int, int, int) {
    if (quiet > 0)
        return 0;
    const Tracing &current = tracing();
    return current.debug || (current.history && current.history->debug()) ? 1 : 0;
}

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
