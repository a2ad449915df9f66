// The libc and net-snmp calls that the module makes and a test must control, intercepted at link
// time (--wrap). fakes::os() scripts them as platform() does the platform; recorded calls appear in
// fakes::calls(), in one order with the platform's:
//
//     os().fork               no process is made; the result is 4242. run_as_child() below runs the
//                             child's side; passes_through() really forks
//     os().kill, .system, .chmod
//                             nothing happens; 0. passes_through() does it
//     os().waitpid            the process id asked for
//     os().sleep              returns 0 at once
//     os().unlink, .pipe, .fdopen
//                             the real ones. `pipe` stands for pipe2 too
//     os().time, .gettimeofday
//                             the real ones, or the time of set_time(). Not recorded
//     os().timeval_uptime     seconds * 100 + microseconds / 10000. Not recorded
//     os().register_mib, .unregister_mib, .unregister_mib_context, .snmp_register_callback
//                             0, nothing is registered
//     os().snmp_alarm_register
//                             1, 2, 3, ...; no alarm is set. os().alarms has the callbacks
//     os().snmp_get_do_debugging
//                             0. Not recorded
//     snmp_set_detail, snmp_log, debugmsgtoken, debugmsg
//                             recorded as a line and otherwise without effect; os().agent_log has
//                             snmp_log's {priority, text}
//     os().close_range, .setpgid
//                             the real ones; in run_as_child() recorded and without effect
//     os().child_close_range  close_range in run_as_child(): 0
//     close, closefrom, closelog
//                             likewise, but not scripted
//     stdout, stderr          recorded while record_outputs() is on, in everything() only, and
//                             written all the same
//     malloc, calloc, free    the real ones; malloc's memory is filled with 0xa5. fail_allocation()
//                             makes one fail. Only calls of the code linked into the test program
//                             are seen, so neither C++'s own nor net-snmp's
//
// Lines are `name argument=value ...`; pointers are left out.
#ifndef FAKES_SYSTEM_H
#define FAKES_SYSTEM_H

#include "fakes/call.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <sys/time.h>
#include <sys/types.h>
#include <vector>

namespace fakes {

struct AgentLogLine {
    int priority;
    std::string text;
    bool operator==(const AgentLogLine &) const = default;
};
std::ostream &operator<<(std::ostream &out, const AgentLogLine &line);

struct Registration { // of register_mib
    std::string name;
    const variable *rows;
    std::size_t row_size;
    std::size_t row_count;
    std::vector<oid> root;
};

struct CallbackRegistration {
    int major;
    int minor;
    SNMPCallback *callback;
    void *client;
};

struct Alarm {
    unsigned int seconds;
    unsigned int flags;
    SNMPAlarmCallback *callback;
    void *client;
};

struct System {
    Call<pid_t()> fork;
    Call<pid_t(pid_t, int *, int)> waitpid;
    Call<int(pid_t, int)> kill;
    Call<int(const char *)> system;
    Call<int(const char *, mode_t)> chmod;
    Call<int(const char *)> unlink;
    Call<int(int *)> pipe;
    Call<FILE *(int, const char *)> fdopen;
    Call<time_t()> time;
    Call<int(timeval *)> gettimeofday;
    Call<unsigned int(unsigned int)> sleep;
    Call<int(unsigned int, unsigned int, int)> close_range;
    Call<int(unsigned int, unsigned int, int)> child_close_range;
    Call<int(pid_t, pid_t)> setpgid;
    Call<u_long(const timeval *)> timeval_uptime;
    Call<int(const Registration &)> register_mib;
    Call<int(const std::vector<oid> &)> unregister_mib;
    Call<int(const std::vector<oid> &)> unregister_mib_context;
    Call<int(int, int, SNMPCallback *, void *)> snmp_register_callback;
    Call<unsigned int(const Alarm &)> snmp_alarm_register;
    Call<int()> snmp_get_do_debugging;

    std::vector<Registration> registrations;
    std::vector<CallbackRegistration> callbacks;
    std::vector<Alarm> alarms;
    std::vector<AgentLogLine> agent_log;

    System();
};

System &os();

// The wall clock from now on, until the next reset.
void set_time(time_t seconds, int microseconds = 0);

// Makes the nth allocation from now (malloc or calloc) return null, once.
void fail_allocation(int nth);

// Watches what malloc and calloc hand out from now on; outstanding_allocations() is how many of
// those have not been released.
void watch_allocations();
std::size_t outstanding_allocations();

// Runs `body` as the child of a fork in this very process: fork returns 0, and _exit ends `body`
// and gives the result. Nothing when `body` returned.
std::optional<int> run_as_child(const std::function<void()> &body);

// Has what is written to stdout and stderr recorded, or no more.
void record_outputs(bool on);

// Takes what is written to a descriptor while it lives: Capture errors(STDERR_FILENO).
class Capture {
  public:
    explicit Capture(int descriptor);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // What has been written so far.
    std::string text();

  private:
    int descriptor_;
    int saved_;
    std::FILE *file_;
};

// For the fakes themselves.
void reset_system();
void forget_system();
void *watched_copy(const void *bytes, std::size_t length);
std::size_t watched_allocations();

} // namespace fakes

#endif
