// The workers of copies, from their fork to their end: which start of which row each is for, and
// which of them have ended without a status message.
#ifndef RUMA_HOST_AGENT_WORKERS_H
#define RUMA_HOST_AGENT_WORKERS_H

#include "agent/copy_status.h"
#include "base/unique_fd.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace ruma {

// A copy that no status message will end any more.
struct LostCopy {
    CopyStart start;
    pid_t worker; // its process group is gone, but itself it is not waited for; -1: the fork failed
};

// How a child has ended, without reaping it: si_pid is 0 while it runs. Nothing when it is no child
// any more.
std::optional<siginfo_t> end_of(pid_t pid);

// The watched workers of this process. Nothing here blocks, or reaps a worker. Procedures that
// allocate throw std::bad_alloc; a start that could not be noted is then not watched.
class CopyWorkers {
  public:
    // Makes the descriptor. Returns 0 or an errno.
    int open();

    // Does without it, before the first worker.
    void close() { watched_ = {}; }

    // Becomes readable when a worker ends; -1 while not open.
    int descriptor() const { return watched_.get(); }

    // To be called before every fork of the process. Returns the start whose worker this one is
    // for, and notes it; nothing when it is for something else. The module stores a row as in
    // progress, with the time of its start, right before it forks: a row that is newly in progress
    // is the one, exactly, however many copies one request starts.
    std::optional<CopyStart> before_fork(const CopyModule &module);

    // Learns the process id of the start noted last. To be called after its fork, at the latest
    // when the request is over: the module has its id then, which it keeps until the next fork.
    void settle(const CopyModule &module);

    // Ends, by SIGTERM, what a worker has left running that sends its status message: its transfer
    // is over, but a shell of it that somebody else ended takes nothing with it. To be called
    // before the message is delivered, while the worker keeps its id; nothing follows later.
    void end_group(pid_t worker);

    // The start that a worker is for; nothing for a process that is no watched worker.
    std::optional<CopyStart> start_of_worker(pid_t worker) const;

    // Keeps a worker's status message until the worker has ended: delivered before, it would have
    // the module wait for a worker that may have been stopped. False for a second message, and for
    // a process that is no watched worker.
    bool keep(const pmb_message &message);

    // Takes the messages of workers that were noted as ended.
    std::vector<pmb_message> take_reports();

    // Forgets a worker whose status message was delivered: it is not lost, whatever it said.
    void reported(pid_t worker);

    // Notes which workers have ended by now. Their messages have been sent, so that they are lost
    // if the receiver's queue has been emptied since and they are still not reported.
    void note_ended();

    // Takes the workers that were noted as ended for lost ones: ends their process groups, first by
    // SIGTERM, unless the worker has died of that itself and so passed it on, and a second later by
    // SIGKILL, while the unreaped worker keeps the id from being another group's. Returns those
    // whose group is gone.
    std::vector<LostCopy> take_lost();

    // When to look again although no descriptor says so; nothing when that is not needed.
    std::optional<std::chrono::milliseconds> next_look() const;

  private:
    using Clock = std::chrono::steady_clock;

    enum class Stage { running, ended, terminating };

    struct Worker {
        CopyStart start;
        pid_t pid;           // 0 or less: the fork failed
        UniqueFd descriptor; // none: looked after by and by
        Stage stage;
        Clock::time_point terminated; // when its group got SIGTERM
        std::unique_ptr<pmb_message> report{};
    };

    std::vector<Worker>::iterator find(pid_t pid);
    void watch(Worker &worker);
    void unwatch(Worker &worker);
    bool group_gone(Worker &worker, bool alive) const;

    UniqueFd watched_; // epoll, over the workers' descriptors
    std::size_t descriptors_ = 0;
    std::vector<Worker> workers_;
    std::vector<CopyStart> in_progress_; // by row as an unsigned number, as seen at the last fork
    std::optional<CopyStart> unsettled_;
};

} // namespace ruma

#endif
