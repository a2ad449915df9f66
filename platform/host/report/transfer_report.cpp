#include "report/transfer_report.h"

#include "base/unique_fd.h"
#include "config/config.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace ruma {
namespace {

constexpr mode_t directory_mode = 0700;
constexpr mode_t page_mode = 0600;

std::string own_page; // of this process; empty without one
pid_t owner;          // whose own_page is: a process forked later is not it

// The directory, if it is this user's alone.
UniqueFd open_directory() {
    UniqueFd directory(
        open(transfer_report_directory().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0 || status.st_uid != geteuid() ||
        (status.st_mode & 0077) != 0)
        return {};
    return directory;
}

TransferPage empty_page() {
    TransferPage page{};
    std::memcpy(page.magic, transfer_page_magic.data(), sizeof page.magic);
    page.size = sizeof page;
    return page;
}

template <std::size_t size>
void put(char (&field)[size], const std::string &text) {
    std::memcpy(field, text.data(), std::min(text.size(), size));
}

template <std::size_t size>
std::string get(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

bool write_page(int file, const TransferPage &page) {
    return pwrite(file, &page, sizeof page, 0) == static_cast<ssize_t>(sizeof page);
}

bool make_page(const std::string &name) {
    // Made for the user that the agent has by the time of its first copy, not for the one that it
    // starts as. What is there already is looked at next.
    mkdir(transfer_report_directory().c_str(), directory_mode);
    const UniqueFd directory = open_directory();
    if (!directory)
        return false;
    // A former worker's of that process id.
    unlinkat(directory.get(), name.c_str(), 0);
    const UniqueFd file(openat(directory.get(), name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, page_mode));
    return file && write_page(file.get(), empty_page());
}

bool is_known(uint32_t kind) { return kind <= static_cast<uint32_t>(CauseKind::verdict); }

TransferCause read_page(int directory, const std::string &name) {
    const UniqueFd file(
        openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    TransferPage page{};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != geteuid() ||
        pread(file.get(), &page, sizeof page, 0) != static_cast<ssize_t>(sizeof page) ||
        std::string_view(page.magic, sizeof page.magic) != transfer_page_magic ||
        page.size < sizeof page || !is_known(page.kind))
        return {};
    return {static_cast<CauseKind>(page.kind), page.number, get(page.verdict), get(page.words)};
}

// The process that a page's name names; 0 for any other name.
pid_t worker_of(std::string_view name) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    return error == std::errc() && end == name.data() + name.size() && pid > 0 ? pid : 0;
}

} // namespace

std::string transfer_report_directory() { return run_dir() + "/transfer"; }

void begin_transfer_report() {
    unsetenv(transfer_report_variable);
    try {
        own_page.clear();
        owner = getpid();
        const std::string name = std::to_string(owner);
        if (!make_page(name))
            return;
        own_page = transfer_report_directory() + "/" + name;
        setenv(transfer_report_variable, own_page.c_str(), 1);
    } catch (const std::bad_alloc &) {
    }
}

void report_cause(const TransferCause &cause) noexcept {
    if (own_page.empty() || owner != getpid())
        return;
    TransferPage page = empty_page();
    page.kind = static_cast<uint32_t>(cause.kind);
    page.number = cause.number;
    put(page.verdict, cause.verdict);
    put(page.words, cause.words);
    const UniqueFd file(open(own_page.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file)
        static_cast<void>(write_page(file.get(), page));
}

TransferCause take_transfer_report(pid_t worker) {
    const std::string name = std::to_string(worker);
    const UniqueFd directory(
        open(transfer_report_directory().c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (worker <= 0 || !directory)
        return {};
    TransferCause cause = read_page(directory.get(), name);
    unlinkat(directory.get(), name.c_str(), 0);
    return cause;
}

void remove_leftover_reports() {
    UniqueFd directory = open_directory();
    const std::unique_ptr<DIR, int (*)(DIR *)> pages(
        directory ? fdopendir(directory.get()) : nullptr, closedir);
    if (pages)
        directory.release(); // closed with the stream
    while (const dirent *entry = pages ? readdir(pages.get()) : nullptr) {
        const pid_t worker = worker_of(entry->d_name);
        if (worker != 0 && kill(worker, 0) != 0 && errno == ESRCH)
            unlinkat(dirfd(pages.get()), entry->d_name, 0);
    }
}

} // namespace ruma
