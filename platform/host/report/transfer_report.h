// What a transfer knows about itself beyond its status, told by its worker to the agent: a page in
// the run directory, "transfer/" and the worker's process id, that only the agent's user can read.
// The worker's TFTP client writes into it, and so do the transfer scripts, which find its name in
// their environment.
#ifndef RUMA_HOST_REPORT_TRANSFER_REPORT_H
#define RUMA_HOST_REPORT_TRANSFER_REPORT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace ruma {

// Who gave the reason for a failure.
enum class CauseKind : uint32_t {
    none = 0,
    local = 1,   // this side's system: an errno, or its text, about a file
    server = 2,  // the server, in its own words
    client = 3,  // the program that a script ran, in its own words
    verdict = 4, // the transfer itself
};

// The page, in host byte order. Fields are appended, never changed: whoever reads it takes the ones
// that `size` covers. Texts are bytes that anybody may have chosen, with a terminator unless they
// fill their field.
struct TransferPage {
    char magic[8];  // transfer_page_magic
    uint32_t size;  // of the page as whoever made it knows it
    uint32_t kind;  // a CauseKind
    int32_t number; // local: an errno; server: its code; 0 or less: none
    uint32_t reserved;
    char verdict[120]; // what the transfer makes of it, a sentence without an end; may be empty
    char words[256];   // local: the path; server and client: what it said, never with a password
};
static_assert(sizeof(TransferPage) == 400);

constexpr std::string_view transfer_page_magic{"RUMAXFR\1", 8};

// The variable in whose value the scripts find the page.
constexpr const char *transfer_report_variable = "RUMA_TRANSFER_REPORT";

// Why a transfer failed. As untrusted as the page: see printable().
struct TransferCause {
    CauseKind kind = CauseKind::none;
    int number = 0;
    std::string verdict;
    std::string words;
};

// The directory of the pages.
std::string transfer_report_directory();

// --- In the worker

// Makes the page of this process and names it in the environment. Called once, right after the
// fork. Without a page, which costs a transfer nothing but its reasons, nothing is named.
void begin_transfer_report();

// Enters the cause into this process's page, in place of an earlier one; texts are cut. Nothing
// without a page. A bad_alloc does not leave it.
void report_cause(const TransferCause &cause) noexcept;

// --- In the agent

// Reads and removes the page of a worker. No cause when there is none, or nothing to be trusted: a
// page of somebody else's, no regular file, of another form. Throws std::bad_alloc.
TransferCause take_transfer_report(pid_t worker);

// Removes the pages of workers that are no more. To be called once the agent has its user: only a
// directory of that user's own is looked at. Throws std::bad_alloc.
void remove_leftover_reports();

} // namespace ruma

#endif
