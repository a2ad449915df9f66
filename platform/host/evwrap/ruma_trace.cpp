// ruma-trace: shows the event history and sets the trace switches.
#include "base/printable.h"
#include "config/config.h"
#include "evwrap/history.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <string>
#include <system_error>
#include <thread>

namespace {

using ruma::EventHistory;
using Clock = std::chrono::steady_clock;

constexpr auto poll_interval = std::chrono::milliseconds(50);
// How long a record that has its ticket may take to appear before it counts as lost.
constexpr auto patience = std::chrono::milliseconds(500);

const std::map<std::string, uint32_t> filters = {{"none", ruma::filter_none},
                                                 {"error", ruma::filter_error},
                                                 {"debug", ruma::filter_debug},
                                                 {"all", ruma::filter_all}};
const std::map<std::string, bool> switches = {{"off", false}, {"on", true}};

struct Options {
    bool follow = false;
    bool errors = false;
    std::string debug;
    std::string filter;
};

EventHistory open(EventHistory::Access access) { return {ruma::run_dir(), access}; }

std::string level_name(uint32_t subtype) {
    switch (subtype) {
    case ruma::trace_error:
        return "error";
    case ruma::trace_debug:
        return "debug";
    default:
        return std::to_string(subtype);
    }
}

void print(const ruma::HistoryEvent &event) {
    const auto seconds = static_cast<time_t>(event.seconds);
    tm local{};
    char stamp[64] = "?";
    if (::localtime_r(&seconds, &local) != nullptr)
        std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::printf("%s.%06" PRIu32 " %" PRIu32 " 0x%06" PRIx32 " %s %s\n", stamp,
                event.nanoseconds / 1000, event.pid, event.trace_id,
                level_name(event.subtype).c_str(), ruma::printable(event.text).c_str());
}

void show(const EventHistory &history, const Options &options, uint32_t ticket) {
    const auto event = history.read(ticket);
    if (event && (!options.errors || event->subtype == ruma::trace_error))
        print(*event);
}

// Shows records as they come, until the program is ended.
[[noreturn]] void follow(const EventHistory &history, const Options &options, uint32_t ticket) {
    auto missing_since = Clock::time_point::max();
    for (;;) {
        const uint32_t waiting = history.next_ticket() - ticket;
        if (waiting > ruma::history_slots) {
            std::printf("-- %" PRIu32 " records lost --\n", waiting - ruma::history_slots);
            ticket += waiting - ruma::history_slots;
        } else if (waiting == 0) {
            std::fflush(stdout);
            std::this_thread::sleep_for(poll_interval);
        } else if (history.read(ticket) || Clock::now() - patience > missing_since) {
            show(history, options, ticket++);
            missing_since = Clock::time_point::max();
        } else {
            missing_since = std::min(missing_since, Clock::now());
            std::this_thread::sleep_for(poll_interval);
        }
    }
}

void show_history(const Options &options) {
    const EventHistory history = open(EventHistory::Access::view);
    const uint32_t end = history.next_ticket();
    for (uint32_t i = ruma::history_slots; i > 0; i--)
        show(history, options, end - i);
    if (options.follow)
        follow(history, options, end);
}

void set_debug(const Options &options) {
    if (!options.debug.empty())
        open(EventHistory::Access::control).set_debug(switches.at(options.debug));
    const bool on = open(EventHistory::Access::view).debug();
    std::printf("debug %s\n", on ? "on" : "off");
}

void set_filter(const Options &options) {
    if (!options.filter.empty())
        open(EventHistory::Access::control).set_filter(filters.at(options.filter));
    const uint32_t current = open(EventHistory::Access::view).filter() & ruma::filter_all;
    for (const auto &[name, value] : filters) {
        if (value == current)
            std::printf("filter %s\n", name.c_str());
    }
}

int run(int argc, char **argv) {
    CLI::App app("Shows the event history of the platform, oldest record first: time, process, "
                 "trace id, level, text. RUMA_RUN_DIR names another run directory.");
    Options options;
    app.add_flag("-f,--follow", options.follow, "Go on with records as they come");
    app.add_flag("-e,--errors", options.errors, "Errors only");
    CLI::App *debug = app.add_subcommand("debug", "Show or set the printing of debug messages on "
                                                  "the agent's standard error");
    debug->add_option("state", options.debug, "on or off")->check(CLI::IsMember(switches));
    CLI::App *filter = app.add_subcommand("filter", "Show or set what the history takes");
    filter->add_option("what", options.filter, "debug, error, all or none")
        ->check(CLI::IsMember(filters));
    CLI::App *clear = app.add_subcommand("clear", "Wipe the history out");
    app.require_subcommand(0, 1);
    CLI11_PARSE(app, argc, argv);

    if (*debug)
        set_debug(options);
    else if (*filter)
        set_filter(options);
    else if (*clear)
        open(EventHistory::Access::control).clear();
    else
        show_history(options);
    if (std::fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "standard output");
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ruma-trace: %s\n", error.what());
    } catch (...) {
        std::fputs("ruma-trace: unknown error\n", stderr);
    }
    return EXIT_FAILURE;
}
