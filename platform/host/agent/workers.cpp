#include "agent/workers.h"

#include "evwrap/quiet.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <sys/pidfd.h> // which does not say so itself
}

namespace ruma {
namespace {

constexpr std::size_t max_descriptors = 64; // of workers; the agent needs some for itself
constexpr std::chrono::milliseconds unwatched_interval(1000);
constexpr std::chrono::milliseconds ending_interval(50);
constexpr std::chrono::seconds grace(1); // between SIGTERM and SIGKILL

uint32_t number(const CopyStart &start) { return static_cast<uint32_t>(start.row); }

// All copies in progress, by row.
std::vector<CopyStart> copies_in_progress(const CopyModule &module) {
    const QuietTracing quiet;
    std::vector<CopyStart> found;
    flashCopyEntry row{};
    uint32_t last = 0;
    while (module.get_next_row(&row) == 0 && static_cast<uint32_t>(row.index) > last) {
        last = static_cast<uint32_t>(row.index);
        if (row.copyStatus == copy_in_progress)
            found.push_back(start_of(row));
    }
    return found;
}

bool holds(const std::vector<CopyStart> &starts, const CopyStart &start) {
    const auto at =
        std::lower_bound(starts.begin(), starts.end(), start,
                         [](const auto &a, const auto &b) { return number(a) < number(b); });
    return at != starts.end() && *at == start;
}

bool has_ended(pid_t pid) {
    const auto end = end_of(pid);
    return !end || end->si_pid == pid;
}

// The process group of the process under a name in /proc; 0 for a zombie, for the leader of its
// group, and for one that is gone.
pid_t group_of_member(int processes, const char *name) {
    const UniqueFd file(
        openat(processes, (std::string(name) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    char text[512];
    const ssize_t size = file ? read(file.get(), text, sizeof text - 1) : -1;
    if (size <= 0)
        return 0;
    text[size] = '\0';
    // "PID (NAME) STATE PARENT GROUP ..."; the name can hold anything.
    const char *end = std::strrchr(text, ')');
    if (end == nullptr || std::strlen(end) < 4 || end[2] == 'Z' || end[2] == 'X')
        return 0;
    char *parent_end = nullptr;
    std::strtol(end + 3, &parent_end, 10);
    const long group = std::strtol(parent_end, nullptr, 10);
    return group == std::strtol(name, nullptr, 10) ? 0 : static_cast<pid_t>(group);
}

// The process groups in which somebody lives beside their leader.
class LiveGroups {
  public:
    LiveGroups() {
        const std::unique_ptr<DIR, int (*)(DIR *)> processes(opendir("/proc"), closedir);
        known_ = processes != nullptr;
        while (const dirent *entry = known_ ? readdir(processes.get()) : nullptr)
            if (entry->d_name[0] >= '1' && entry->d_name[0] <= '9')
                groups_.push_back(group_of_member(dirfd(processes.get()), entry->d_name));
        std::sort(groups_.begin(), groups_.end());
    }

    // Also true when nobody knows, but for a worker that ended before it had a group of its own.
    bool hold(pid_t group) const {
        return known_ ? std::binary_search(groups_.begin(), groups_.end(), group)
                      : kill(-group, 0) == 0 || errno != ESRCH;
    }

  private:
    bool known_ = false;
    std::vector<pid_t> groups_;
};

} // namespace

std::optional<siginfo_t> end_of(pid_t pid) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
        errno == ECHILD)
        return {};
    return info;
}

int CopyWorkers::open() {
    watched_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    return watched_ ? 0 : errno;
}

std::optional<CopyStart> CopyWorkers::before_fork(const CopyModule &module) {
    if (module.get_next_row == nullptr || module.last_worker == nullptr)
        return {};
    std::vector<CopyStart> now = copies_in_progress(module);
    std::vector<CopyStart> fresh;
    for (const CopyStart &start : now)
        if (!holds(in_progress_, start))
            fresh.push_back(start);
    in_progress_ = std::move(now);
    // More than one there is only after memory was missing; then nobody knows which it is.
    if (fresh.size() != 1)
        return {};
    settle(module);
    unsettled_ = fresh.front();
    return unsettled_;
}

void CopyWorkers::settle(const CopyModule &module) {
    if (!unsettled_ || module.last_worker == nullptr)
        return;
    const CopyStart start = *unsettled_;
    unsettled_.reset();
    const pid_t pid = *module.last_worker;
    workers_.push_back({start, pid, {}, pid > 0 ? Stage::running : Stage::ended, {}});
    if (pid > 0)
        watch(workers_.back());
}

// A worker without a descriptor is looked after once a second: there may be too many, or a kernel
// without such descriptors.
void CopyWorkers::watch(Worker &worker) {
    if (!watched_ || descriptors_ == max_descriptors)
        return;
    UniqueFd opened(pidfd_open(worker.pid, 0));
    epoll_event event{};
    event.events = EPOLLIN;
    if (!opened || epoll_ctl(watched_.get(), EPOLL_CTL_ADD, opened.get(), &event) != 0)
        return;
    worker.descriptor = std::move(opened);
    ++descriptors_;
}

void CopyWorkers::unwatch(Worker &worker) {
    if (!worker.descriptor)
        return;
    // A worker forked meanwhile may still hold it: closed here alone, it would stay in the set.
    epoll_ctl(watched_.get(), EPOLL_CTL_DEL, worker.descriptor.get(), nullptr);
    worker.descriptor.close();
    --descriptors_;
}

std::vector<CopyWorkers::Worker>::iterator CopyWorkers::find(pid_t pid) {
    return std::find_if(workers_.begin(), workers_.end(),
                        [pid](const Worker &each) { return each.pid == pid; });
}

void CopyWorkers::end_group(pid_t pid) {
    if (find(pid) != workers_.end() && LiveGroups().hold(pid))
        kill(-pid, SIGTERM);
}

std::optional<CopyStart> CopyWorkers::start_of_worker(pid_t pid) const {
    for (const Worker &worker : workers_) {
        if (worker.pid == pid)
            return worker.start;
    }
    return {};
}

bool CopyWorkers::keep(const pmb_message &message) {
    const auto worker = find(message.sender_pid);
    if (worker == workers_.end() || worker->report != nullptr)
        return false;
    worker->report = std::make_unique<pmb_message>(message);
    return true;
}

std::vector<pmb_message> CopyWorkers::take_reports() {
    std::vector<pmb_message> messages;
    for (Worker &worker : workers_) {
        if (worker.stage == Stage::running || worker.report == nullptr)
            continue;
        messages.push_back(*worker.report);
        worker.report.reset();
    }
    return messages;
}

void CopyWorkers::reported(pid_t pid) {
    const auto worker = find(pid);
    if (worker == workers_.end())
        return;
    unwatch(*worker);
    workers_.erase(worker);
}

void CopyWorkers::note_ended() {
    for (Worker &worker : workers_) {
        if (worker.stage == Stage::running && has_ended(worker.pid)) {
            unwatch(worker);
            worker.stage = Stage::ended;
        }
    }
}

// Signals go only while the worker is unreaped: its id may be another's afterwards.
bool CopyWorkers::group_gone(Worker &worker, bool alive) const {
    if (worker.pid <= 0)
        return true;
    const auto end = end_of(worker.pid);
    if (!end || !alive)
        return true;
    const Clock::time_point now = Clock::now();
    if (worker.stage == Stage::ended) {
        // One that SIGTERM ended has passed it on.
        if (end->si_code != CLD_KILLED || end->si_status != SIGTERM)
            kill(-worker.pid, SIGTERM);
        worker.stage = Stage::terminating;
        worker.terminated = now;
        return false;
    }
    if (now - worker.terminated < grace)
        return false;
    kill(-worker.pid, SIGKILL);
    return true;
}

std::vector<LostCopy> CopyWorkers::take_lost() {
    std::vector<LostCopy> lost;
    lost.reserve(workers_.size());
    // Looked for once, however many have ended at a time.
    std::optional<LiveGroups> groups;
    const auto gone = [this, &lost, &groups](Worker &worker) {
        if (worker.stage == Stage::running)
            return false;
        if (!groups)
            groups.emplace();
        if (!group_gone(worker, groups->hold(worker.pid)))
            return false;
        lost.push_back({worker.start, worker.pid});
        return true;
    };
    workers_.erase(std::remove_if(workers_.begin(), workers_.end(), gone), workers_.end());
    return lost;
}

std::optional<std::chrono::milliseconds> CopyWorkers::next_look() const {
    std::optional<std::chrono::milliseconds> next;
    for (const Worker &worker : workers_) {
        if (worker.stage != Stage::running)
            return ending_interval;
        if (!worker.descriptor) {
            if (worker.report != nullptr)
                return ending_interval;
            next = unwatched_interval;
        }
    }
    return next;
}

} // namespace ruma
