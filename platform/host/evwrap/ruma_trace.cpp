// ruma-trace: shows the event history and sets the trace switches.
#include "base/printable.h"
#include "config/config.h"
#include "evwrap/history.h"
#include "evwrap/since.h"
#include "evwrap/view.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>

namespace {

using ruma::EventHistory;
using ruma::HistoryAccess;
using ruma::HistoryEvent;
using ruma::HistoryView;
using ruma::RowTable;
using std::chrono::milliseconds;
using Json = nlohmann::ordered_json;

// How long to wait for records before looking whether the file is still the same, and while one is
// being written.
constexpr milliseconds idle(500);
constexpr milliseconds unfinished(20);

const std::map<std::string, uint32_t> filters = {{"none", 0},
                                                 {"error", ruma::switch_errors},
                                                 {"debug", ruma::switch_debug},
                                                 {"all", ruma::switches_recording}};
const std::map<std::string, bool> on_or_off = {{"off", false}, {"on", true}};

struct Options {
    bool follow = false;
    bool errors = false;
    bool json = false;
    std::string since;
    uint32_t row = 0; // every one
    std::string recording;
    std::string printing;
    std::string filter;
};

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

// A time broken down by `convert`, in `format`; "?" when it cannot be.
std::string stamp(int64_t seconds, tm *(*convert)(const time_t *, tm *), const char *format) {
    const auto time = static_cast<time_t>(seconds);
    tm broken_down{};
    char text[64];
    if (convert(&time, &broken_down) == nullptr ||
        std::strftime(text, sizeof text, format, &broken_down) == 0)
        return "?";
    return text;
}

std::string local_time(int64_t seconds) {
    return stamp(seconds, ::localtime_r, "%Y-%m-%d %H:%M:%S");
}

std::string utc(int64_t seconds) { return stamp(seconds, ::gmtime_r, "%Y-%m-%dT%H:%M:%S"); }

void print_text(const HistoryEvent &event) {
    std::printf("%s.%06" PRIu32 " %" PRIu32 " 0x%06" PRIx32 " %s %s",
                local_time(event.seconds).c_str(), event.nanoseconds / 1000, event.pid,
                event.trace_id, level_name(event.subtype).c_str(),
                ruma::printable(event.text).c_str());
    if (event.repeats > 0)
        std::printf(" (%" PRIu32 " more, last %s)", event.repeats,
                    local_time(event.last_seconds).c_str());
    std::putchar('\n');
}

void print_json(const Json &object) {
    // Texts are what somebody traced: bytes that are no UTF-8 become U+FFFD.
    std::puts(object.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

void print_json(const HistoryEvent &event) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06" PRIu32 "Z", event.nanoseconds / 1000);
    Json object;
    object["sequence"] = event.sequence;
    object["time"] = utc(event.seconds) + fraction;
    object["pid"] = event.pid;
    object["trace_id"] = event.trace_id;
    object["subtype"] = event.subtype;
    object["level"] = level_name(event.subtype);
    object["table"] = nullptr;
    object["row"] = nullptr;
    if (event.row.table != RowTable::none) {
        object["table"] = event.row.table == RowTable::copy ? "copy" : "miscOp";
        object["row"] = event.row.index;
    }
    object["text"] = event.text;
    object["repeats"] = event.repeats;
    object["last_time"] = utc(event.last_seconds) + "Z";
    print_json(object);
}

// What was asked for, of what a history holds.
class Output {
  public:
    Output(const Options &options, std::optional<ruma::Since> since)
        : options_(options), since_(since) {}

    void show(const std::vector<HistoryEvent> &events) const {
        for (const HistoryEvent &event : events) {
            if (!wanted(event))
                continue;
            if (options_.json)
                print_json(event);
            else
                print_text(event);
        }
    }

    void show(const ruma::HistoryNews::Batch &news) const {
        if (news.lost > 0 && options_.json)
            print_json(Json{{"lost", news.lost}});
        else if (news.lost > 0)
            std::printf("-- %" PRIu32 " records lost --\n", news.lost);
        show(news.events);
    }

  private:
    bool wanted(const HistoryEvent &event) const {
        if (options_.errors && event.subtype != ruma::trace_error)
            return false;
        if (options_.row != 0 &&
            (event.row.table == RowTable::none || event.row.index != options_.row))
            return false;
        return !since_ || since_->takes(event);
    }

    const Options &options_;
    std::optional<ruma::Since> since_;
};

void flush() {
    if (std::fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "standard output");
}

// The history that has taken the place of another; null while there is none.
std::unique_ptr<HistoryView> successor() {
    if (::access(ruma::history_path(ruma::run_dir()).c_str(), F_OK) != 0 && errno == ENOENT)
        return nullptr;
    return std::make_unique<HistoryView>(ruma::run_dir());
}

// Shows records as they come, until the program is ended.
[[noreturn]] void follow(const Output &output, std::unique_ptr<HistoryView> view) {
    ruma::HistoryNews news;
    for (;;) {
        // Asked first: what the file holds by now is then all of it.
        const bool current = view->current();
        const ruma::HistoryContent content = view->read();
        output.show(news.take(content, ruma::HistoryNews::Clock::now()));
        flush();
        if (!current) {
            if (auto next = successor()) {
                view = std::move(next);
                news = {};
                continue;
            }
        }
        view->wait(content, news.waits() ? unfinished : idle);
    }
}

void show_history(const Options &options, std::optional<ruma::Since> since) {
    const Output output(options, since);
    auto view = std::make_unique<HistoryView>(ruma::run_dir());
    if (options.follow)
        follow(output, std::move(view));
    output.show(in_order(view->read()));
}

// --- The switches

EventHistory control() { return {ruma::run_dir(), HistoryAccess::control}; }

uint32_t switches_now() {
    const HistoryView view(ruma::run_dir());
    return view.read().switches;
}

const char *name_of(bool on) { return on ? "on" : "off"; }

void set_recording(const Options &options) {
    if (options.recording == "default")
        control().reset_switches(ruma::switch_debug);
    else
        control().set_switches(ruma::switch_debug, on_or_off.at(options.recording));
}

void set_printing(const Options &options) {
    if (!options.printing.empty())
        control().set_switches(ruma::switch_printing, on_or_off.at(options.printing));
    std::printf("debug %s\n", name_of((switches_now() & ruma::switch_printing) != 0));
}

void set_filter(const Options &options) {
    if (!options.filter.empty()) {
        const uint32_t wanted = filters.at(options.filter);
        EventHistory history = control();
        history.set_switches(wanted, true);
        history.set_switches(ruma::switches_recording & ~wanted, false);
    }
    const uint32_t current = switches_now() & ruma::switches_recording;
    for (const auto &[name, value] : filters) {
        if (value == current)
            std::printf("filter %s\n", name.c_str());
    }
}

int run(int argc, char **argv) {
    CLI::App app("Shows the event history of the platform, oldest record first: time, process, "
                 "trace id, level, text. RUMA_RUN_DIR names another run directory.");
    Options options;
    std::optional<ruma::Since> since;
    app.add_flag("-f,--follow", options.follow, "Go on with records as they come, until Ctrl-C");
    app.add_flag("-e,--errors", options.errors, "Errors only");
    app.add_option("-s,--since", options.since,
                   "Records from then on: a span such as 10m or 1h30m, \"YYYY-MM-DD HH:MM:SS\", "
                   "YYYY-MM-DD or HH:MM")
        ->check([&since](const std::string &text) {
            since = ruma::Since::parse(text, ruma::this_moment());
            return since ? std::string() : "neither a span nor a time: " + text;
        });
    app.add_option("-r,--row", options.row, "Records known to be about this row")
        ->type_name("INDEX")
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX).description(""));
    app.add_flag("-j,--json", options.json, "One JSON object a line");
    app.add_option("-d,--debug", options.recording,
                   "Record debug messages (on), or not (off), or as configured (default), until an "
                   "agent starts; shows records with --follow only")
        ->type_name("STATE")
        ->check(CLI::IsMember({"on", "off", "default"}).description(""));
    CLI::App *debug = app.add_subcommand("debug", "Show or set the printing of debug messages on "
                                                  "the agent's standard error");
    debug->add_option("state", options.printing, "on or off")->check(CLI::IsMember(on_or_off));
    CLI::App *filter = app.add_subcommand("filter", "Show or set what the history takes");
    filter->add_option("what", options.filter, "debug, error, all or none")
        ->check(CLI::IsMember(filters));
    CLI::App *clear = app.add_subcommand("clear", "Wipe the history out");
    app.require_subcommand(0, 1);
    CLI11_PARSE(app, argc, argv);

    if (!options.recording.empty())
        set_recording(options);
    if (*debug)
        set_printing(options);
    else if (*filter)
        set_filter(options);
    else if (*clear)
        control().clear();
    else if (options.recording.empty() || options.follow)
        show_history(options, since);
    else
        std::printf("recording of debug messages %s\n",
                    name_of((switches_now() & ruma::switch_debug) != 0));
    flush();
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
