#include "fakes/system.h"

#include "fakes/platform.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdlib>
#include <set>
#include <unistd.h>

extern "C" {
pid_t __real_fork(void);
[[noreturn]] void __real__exit(int code);
__attribute__((weak)) void __gcov_dump(void);
pid_t __real_waitpid(pid_t pid, int *status, int options);
int __real_kill(pid_t pid, int signal);
int __real_system(const char *command);
int __real_chmod(const char *path, mode_t mode);
int __real_unlink(const char *path);
int __real_pipe(int *descriptors);
int __real_pipe2(int *descriptors, int flags);
FILE *__real_fdopen(int descriptor, const char *mode);
time_t __real_time(time_t *result);
int __real_gettimeofday(timeval *result, void *zone);
unsigned int __real_sleep(unsigned int seconds);
int __real_setpgid(pid_t pid, pid_t group);
int __real_close(int descriptor);
void __real_closefrom(int first);
void __real_closelog(void);
int __real_close_range(unsigned int first, unsigned int last, int flags);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
}

namespace fakes {

namespace {

// Plain data: the allocation procedures run before any constructor.
bool watching = false;
int until_failure = 0;
bool in_child = false;
jmp_buf child_end;
int child_code = 0;

std::set<void *> &watched_responses() {
    static auto &all = *new std::set<void *>;
    return all;
}
std::set<void *> &watched_by_test() {
    static auto &all = *new std::set<void *>;
    return all;
}
bool responses_watched = false;

bool this_one_fails() { return until_failure > 0 && --until_failure == 0; }

void *handed_out(void *memory) {
    if (watching && memory != nullptr)
        watched_by_test().insert(memory);
    return memory;
}

} // namespace

System::System()
    : fork([] { return pid_t{4242}; }, [] { return __real_fork(); }),
      waitpid([](pid_t pid, int *, int) { return pid; }, __real_waitpid),
      kill([](pid_t, int) { return 0; }, __real_kill),
      system([](const char *) { return 0; }, __real_system),
      chmod([](const char *, mode_t) { return 0; }, __real_chmod), unlink(__real_unlink),
      pipe(__real_pipe), fdopen(__real_fdopen), time([] { return __real_time(nullptr); }),
      gettimeofday([](timeval *now) { return __real_gettimeofday(now, nullptr); }),
      sleep([](unsigned int) { return 0U; }, __real_sleep), close_range(__real_close_range),
      child_close_range([](unsigned int, unsigned int, int) { return 0; }), setpgid(__real_setpgid),
      timeval_uptime([](const timeval *at) {
          return static_cast<u_long>(at->tv_sec) * 100 + static_cast<u_long>(at->tv_usec) / 10000;
      }),
      register_mib([](const Registration &) { return MIB_REGISTERED_OK; }),
      unregister_mib([](const std::vector<oid> &) { return MIB_UNREGISTERED_OK; }),
      unregister_mib_context([](const std::vector<oid> &) { return MIB_UNREGISTERED_OK; }),
      snmp_register_callback([](int, int, SNMPCallback *, void *) { return SNMPERR_SUCCESS; }),
      snmp_alarm_register(
          [](const Alarm &) { return static_cast<unsigned int>(os().alarms.size()); }),
      snmp_get_do_debugging([] { return 0; }) {}

System &os() {
    static auto &instance = *new System;
    return instance;
}

void set_time(time_t seconds, int microseconds) {
    os().time.does([seconds] { return seconds; });
    os().gettimeofday.does([seconds, microseconds](timeval *now) {
        now->tv_sec = seconds;
        now->tv_usec = microseconds;
        return 0;
    });
}

void fail_allocation(int nth) { until_failure = nth; }

void watch_allocations() {
    watched_by_test().clear();
    watching = true;
}

std::size_t outstanding_allocations() { return watched_by_test().size(); }

std::optional<int> run_as_child(const std::function<void()> &body) {
    const auto saved = os().fork;
    os().fork.always(0);
    in_child = true;
    // Set outside the branches, so that no variable changes between setjmp and longjmp.
    const bool ended = setjmp(child_end) != 0;
    if (!ended)
        body();
    in_child = false;
    os().fork = saved;
    return ended ? std::optional<int>(child_code) : std::nullopt;
}

namespace {

// A standard stream and what stands in for it while its output is recorded.
struct Output {
    FILE **stream;
    const char *name;
    int descriptor;
    FILE *former = nullptr;
    FILE *recording = nullptr;
};

ssize_t record_and_write(void *cookie, const char *bytes, size_t length) {
    const auto *output = static_cast<const Output *>(cookie);
    record_output(output->name, {bytes, length});
    size_t written = 0;
    while (written < length) {
        const ssize_t count = write(output->descriptor, bytes + written, length - written);
        if (count < 0)
            break;
        written += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(length);
}

} // namespace

void record_outputs(bool on) {
    static Output outputs[] = {{&stdout, "stdout", STDOUT_FILENO},
                               {&stderr, "stderr", STDERR_FILENO}};
    for (Output &output : outputs) {
        if (output.recording == nullptr) {
            output.former = *output.stream;
            output.recording =
                fopencookie(&output, "w", {nullptr, record_and_write, nullptr, nullptr});
            std::setvbuf(output.recording, nullptr, _IONBF, 0);
        }
        std::fflush(*output.stream);
        *output.stream = on ? output.recording : output.former;
    }
}

Capture::Capture(int descriptor) : descriptor_(descriptor), file_(std::tmpfile()) {
    std::fflush(nullptr);
    saved_ = dup(descriptor_);
    dup2(fileno(file_), descriptor_);
}

Capture::~Capture() {
    std::fflush(nullptr);
    dup2(saved_, descriptor_);
    __real_close(saved_);
    std::fclose(file_);
}

std::string Capture::text() {
    std::fflush(nullptr);
    std::string result;
    char buffer[4096];
    for (off_t at = 0;;) {
        const ssize_t count = pread(fileno(file_), buffer, sizeof buffer, at);
        if (count <= 0)
            return result;
        result.append(buffer, static_cast<size_t>(count));
        at += count;
    }
}

void reset_system() {
    os() = System();
    watching = false;
    until_failure = 0;
    watched_by_test().clear();
    watched_responses().clear();
    responses_watched = false;
}

void forget_system() {
    os().registrations.clear();
    os().callbacks.clear();
    os().alarms.clear();
    os().agent_log.clear();
}

void *watched_copy(const void *bytes, std::size_t length) {
    void *memory = __real_malloc(length);
    if (memory != nullptr) {
        if (length > 0)
            std::memcpy(memory, bytes, length);
        watched_responses().insert(memory);
        responses_watched = true;
    }
    return memory;
}

std::size_t watched_allocations() { return watched_responses().size(); }

std::ostream &operator<<(std::ostream &out, const AgentLogLine &line) {
    return out << "{" << line.priority << ", \"" << line.text << "\"}";
}

} // namespace fakes

using fakes::Kind;
using fakes::os;
using fakes::record;

namespace {

std::string formatted(const char *format, va_list arguments) {
    char text[4096];
    std::vsnprintf(text, sizeof text, format, arguments);
    return text;
}

} // namespace

extern "C" {

pid_t __wrap_fork(void) {
    record(Kind::call, "fork");
    return os().fork();
}

[[noreturn]] void __wrap__exit(int code) {
    if (!fakes::in_child) {
        // A measured child leaves its counts behind.
        if (__gcov_dump != nullptr)
            __gcov_dump();
        __real__exit(code);
    }
    record(Kind::call, "_exit code=%d", code);
    fakes::child_code = code;
    longjmp(fakes::child_end, 1);
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    record(Kind::call, "waitpid pid=%d status=%s options=%d", pid,
           status == nullptr ? "null" : "given", options);
    return os().waitpid(pid, status, options);
}

int __wrap_kill(pid_t pid, int signal) {
    record(Kind::call, "kill pid=%d signal=%d", pid, signal);
    return os().kill(pid, signal);
}

int __wrap_system(const char *command) {
    record(Kind::call, "system command=%s", command);
    return os().system(command);
}

int __wrap_chmod(const char *path, mode_t mode) {
    record(Kind::call, "chmod path=%s mode=%04o", path, mode);
    return os().chmod(path, mode);
}

int __wrap_unlink(const char *path) {
    record(Kind::call, "unlink path=%s", path);
    return os().unlink(path);
}

int __wrap_pipe(int *descriptors) {
    record(Kind::call, "pipe");
    return os().pipe(descriptors);
}

int __wrap_pipe2(int *descriptors, int flags) {
    record(Kind::call, "pipe2 flags=%d", flags);
    return os().pipe(descriptors);
}

FILE *__wrap_fdopen(int descriptor, const char *mode) {
    record(Kind::call, "fdopen descriptor=%d mode=%s", descriptor, mode);
    return os().fdopen(descriptor, mode);
}

time_t __wrap_time(time_t *result) {
    const time_t now = os().time();
    if (result != nullptr)
        *result = now;
    return now;
}

int __wrap_gettimeofday(timeval *result, void *) { return os().gettimeofday(result); }

unsigned int __wrap_sleep(unsigned int seconds) {
    record(Kind::call, "sleep seconds=%u", seconds);
    return os().sleep(seconds);
}

int __wrap_setpgid(pid_t pid, pid_t group) {
    if (!fakes::in_child)
        return os().setpgid(pid, group);
    record(Kind::call, "setpgid pid=%d group=%d", pid, group);
    return 0;
}

int __wrap_close(int descriptor) {
    if (!fakes::in_child)
        return __real_close(descriptor);
    record(Kind::call, "close descriptor=%d", descriptor);
    return 0;
}

void __wrap_closefrom(int first) {
    if (!fakes::in_child) {
        __real_closefrom(first);
        return;
    }
    record(Kind::call, "closefrom first=%d", first);
}

void __wrap_closelog(void) {
    if (fakes::in_child)
        record(Kind::call, "closelog");
    else
        __real_closelog();
}

int __wrap_close_range(unsigned int first, unsigned int last, int flags) {
    if (!fakes::in_child)
        return os().close_range(first, last, flags);
    record(Kind::call, "close_range first=%u last=%u flags=%d", first, last, flags);
    return os().child_close_range(first, last, flags);
}

void *__wrap_malloc(size_t size) {
    if (fakes::this_one_fails())
        return nullptr;
    void *memory = __real_malloc(size);
    if (memory != nullptr)
        std::memset(memory, 0xa5, size);
    return fakes::handed_out(memory);
}

void *__wrap_calloc(size_t count, size_t size) {
    if (fakes::this_one_fails())
        return nullptr;
    return fakes::handed_out(__real_calloc(count, size));
}

void __wrap_free(void *memory) {
    if (fakes::watching)
        fakes::watched_by_test().erase(memory);
    if (fakes::responses_watched)
        fakes::watched_responses().erase(memory);
    __real_free(memory);
}

int __wrap_register_mib(const char *name, const struct variable *rows, size_t row_size,
                        size_t row_count, const oid *root, size_t root_length) {
    record(Kind::call, "register_mib name=%s row_size=%zu rows=%zu root=%s length=%zu", name,
           row_size, row_count, fakes::oid_text(root, root_length).c_str(), root_length);
    const fakes::Registration registration{name, rows, row_size, row_count,
                                           std::vector<oid>(root, root + root_length)};
    os().registrations.push_back(registration);
    return os().register_mib(registration);
}

int __wrap_unregister_mib(oid *name, size_t length) {
    record(Kind::call, "unregister_mib name=%s length=%zu", fakes::oid_text(name, length).c_str(),
           length);
    return os().unregister_mib(std::vector<oid>(name, name + length));
}

int __wrap_unregister_mib_context(oid *name, size_t length, int priority, int range_subid,
                                  oid range_ubound, const char *context) {
    record(Kind::call, "unregister_mib_context name=%s length=%zu priority=%d %d %lu context=%s",
           fakes::oid_text(name, length).c_str(), length, priority, range_subid,
           static_cast<unsigned long>(range_ubound), context == nullptr ? "null" : context);
    return os().unregister_mib_context(std::vector<oid>(name, name + length));
}

int __wrap_snmp_register_callback(int major, int minor, SNMPCallback *callback, void *client) {
    record(Kind::call, "snmp_register_callback major=%d minor=%d client=%s", major, minor,
           client == nullptr ? "null" : "given");
    os().callbacks.push_back({major, minor, callback, client});
    return os().snmp_register_callback(major, minor, callback, client);
}

unsigned int __wrap_snmp_alarm_register(unsigned int seconds, unsigned int flags,
                                        SNMPAlarmCallback *callback, void *client) {
    record(Kind::call, "snmp_alarm_register seconds=%u flags=%u client=%s", seconds, flags,
           client == nullptr ? "null" : "given");
    const fakes::Alarm alarm{seconds, flags, callback, client};
    os().alarms.push_back(alarm);
    return os().snmp_alarm_register(alarm);
}

void __wrap_snmp_set_detail(const char *detail) {
    record(Kind::call, "snmp_set_detail text=%s", detail);
}

int __wrap_snmp_log(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = formatted(format, arguments);
    va_end(arguments);
    record(Kind::call, "snmp_log priority=%d text=%s", priority, text.c_str());
    os().agent_log.push_back({priority, text});
    return 0;
}

u_long __wrap_netsnmp_timeval_uptime(struct timeval *at) { return os().timeval_uptime(at); }

int __wrap_snmp_get_do_debugging(void) { return os().snmp_get_do_debugging(); }

void __wrap_debugmsgtoken(const char *token, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(Kind::call, "debugmsgtoken token=%s text=%s", token,
           formatted(format, arguments).c_str());
    va_end(arguments);
}

void __wrap_debugmsg(const char *token, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(Kind::call, "debugmsg token=%s text=%s", token, formatted(format, arguments).c_str());
    va_end(arguments);
}

} // extern "C"
