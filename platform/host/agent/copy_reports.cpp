#include "agent/copy_reports.h"

#include "agent/error_log.h"
#include "agent/workers.h"
#include "base/system_error.h"
#include "flash_codes.h"
#include "report/explain.h"
#include "report/sentence.h"
#include "report/transfer_report.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string_view>
#include <utility>

namespace ruma {
namespace {

void tell(int priority, ReportCode code, const std::string &sentence) {
    snmp_log(priority, "ruma_agent: %s\n", sentence.c_str());
    append_to_error_log(code, sentence);
}

void tell_failure(ReportCode code, const std::string &what, const std::string &status,
                  const std::string &cause) {
    constexpr const char *unknown = "the cause is not known";
    tell(LOG_WARNING, code, what + " failed: " + status + ": " + (cause.empty() ? unknown : cause));
}

// What a worker told, or what shows when one looks again.
std::string cause_of(const flashCopyEntry &row, pid_t worker) {
    const TransferCause told = take_transfer_report(worker);
    // Of a file that could not be staged the client says only that it is missing.
    const bool staged = row.protocol == flash::protocolTftp && told.kind == CauseKind::local;
    std::string cause;
    if (told.kind == CauseKind::none || staged)
        cause = explain_transfer(row);
    if (cause.empty())
        cause = describe(told);
    if (cause.empty() && row.protocol != flash::protocolTftp)
        cause = "its script has ended without a verdict";
    return cause;
}

std::string end_in_words(pid_t worker) {
    const auto end = end_of(worker);
    if (!end)
        return {};
    const std::string number = std::to_string(end->si_status);
    if (end->si_code == CLD_EXITED)
        return ": exit code " + number;
    const char *name = strsignal(end->si_status);
    return ": killed by signal " + number + (name == nullptr ? "" : " (" + std::string(name) + ")");
}

} // namespace

void CopyReports::started(const flashCopyEntry &row, const std::string &user) {
    copies_.push_back({row, user, {}});
    Copy &copy = copies_.back();
    std::memset(copy.row.password, 0, sizeof copy.row.password);
}

void CopyReports::aborted(const CopyStart &start, const std::string &user) {
    for (Copy &copy : copies_) {
        if (start_of(copy.row) == start)
            copy.aborter = user.empty() ? "a station" : "user " + quoted(user);
    }
}

CopyReports::Copy CopyReports::take(const CopyStart &start) {
    const auto found = std::find_if(copies_.begin(), copies_.end(),
                                    [&](const Copy &copy) { return start_of(copy.row) == start; });
    Copy copy{};
    copy.row.index = start.row; // all that is known of one whose start could not be noted
    if (found != copies_.end()) {
        copy = std::move(*found);
        copies_.erase(found);
    }
    return copy;
}

void CopyReports::ended(const CopyStart &start, pid_t worker, int32_t status) {
    const Copy copy = take(start);
    const std::string cause = status == flash::copySuccess ? "" : cause_of(copy.row, worker);
    take_transfer_report(worker); // whatever it holds
    const std::string what = describe(copy.row, copy.user);
    if (!copy.aborter.empty())
        tell(LOG_NOTICE, report_copy_aborted,
             what + " was aborted by " + copy.aborter + " and ended with " +
                 copy_status_name(status) + (cause.empty() ? "" : ": " + cause));
    else if (status != flash::copySuccess)
        tell_failure(report_copy_failed, what, copy_status_name(status), cause);
}

void CopyReports::lost(const CopyStart &start, pid_t worker, int fork_error, int32_t status) {
    const Copy copy = take(start);
    take_transfer_report(worker);
    const std::string what = describe(copy.row, copy.user);
    if (!copy.aborter.empty())
        tell(LOG_NOTICE, report_copy_aborted, what + " was aborted by " + copy.aborter);
    else if (worker > 0)
        tell_failure(report_copy_failed, what, copy_status_name(status),
                     "its worker has ended without a report" + end_in_words(worker));
    else
        tell_failure(report_copy_failed, what, copy_status_name(status),
                     "its worker could not be forked: " + system_error_text(fork_error, {}));
}

void report_refused_copy(const flashCopyEntry &row, const std::string &user) {
    tell_failure(report_copy_failed, describe(row, user), copy_status_name(row.copyStatus),
                 explain_refusal(row));
}

void report_busy(const flashCopyEntry &row, const std::string &user) {
    tell_failure(report_copy_failed, describe(row, user), copy_status_name(row.copyStatus),
                 "another copy is in progress");
}

void report_failed_delete(const flashMiscOpEntry &row, const std::string &user) {
    tell_failure(report_delete_failed, describe(row, user), delete_status_name(row.operationStatus),
                 explain_delete(row));
}

} // namespace ruma
