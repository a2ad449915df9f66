// What the tests of the event history share: looking at one, and a process with a run directory of
// its own.
#ifndef EVWRAP_FIXTURE_H
#define EVWRAP_FIXTURE_H

#include "evwrap/history.h"
#include "evwrap/view.h"
#include "ruma/evwrap.h"
#include "temporary_directory.h"

#include <chrono>
#include <cstdarg>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using ruma::EventHistory;
using ruma::HistoryAccess;

constexpr uint32_t trace_id = 0x730000;
constexpr auto patience = std::chrono::seconds(20);

// All records of a run directory's history, in order.
inline std::vector<ruma::HistoryEvent> events_in(const std::string &directory) {
    return in_order(ruma::HistoryView(directory).read());
}

// Their texts.
inline std::vector<std::string> texts_in(const std::string &directory) {
    std::vector<std::string> result;
    for (ruma::HistoryEvent &event : events_in(directory))
        result.push_back(std::move(event.text));
    return result;
}

// Runs `body` in a child process and returns the child's wait status.
inline int in_child(const std::function<int()> &body) {
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

// The C interface and ruma-trace look at the process's run directory, which is read once.
class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        directory = std::make_unique<TemporaryDirectory>();
        ASSERT_EQ(::setenv("RUMA_RUN_DIR", directory->path().c_str(), 1), 0);
        ASSERT_EQ(::setenv("RUMA_CONFIG", (*directory / "platform.toml").c_str(), 1), 0);
        ASSERT_EQ(::setenv("TZ", "UTC", 1), 0);
        ::unsetenv("RUMA_DEBUG");
    }
    void TearDown() override { directory.reset(); }

    static inline std::unique_ptr<TemporaryDirectory> directory;
};

const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

class EvwrapTest : public testing::Test {
  protected:
    // Each test begins with an empty history that takes everything and prints nothing.
    void SetUp() override {
        evwrap_chk_int(101, 0, 0, 1); // opens it
        history = std::make_unique<EventHistory>(directory(), HistoryAccess::control);
        history->clear();
        history->set_switches(ruma::switches_recording, true);
        history->set_switches(ruma::switch_printing, false);
    }

    static std::string directory() { return RunDirectory::directory->path(); }

    static std::vector<ruma::HistoryEvent> events() { return events_in(directory()); }

    static std::vector<std::string> texts() { return texts_in(directory()); }

    static void record(const std::string &text, uint32_t subtype = 101) {
        std::string bytes(reinterpret_cast<const char *>(&subtype), sizeof(subtype));
        bytes += text;
        evwrap_hist_event(trace_id, bytes.c_str(), static_cast<uint32_t>(bytes.size() + 1));
    }

    __attribute__((format(printf, 3, 4))) static void print(int level, const char *module,
                                                            const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        dbgout(level, module, format, arguments);
        va_end(arguments);
    }

    std::unique_ptr<EventHistory> history;
};

} // namespace

#endif
