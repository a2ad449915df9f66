// The agent's sentences about copies and deletes that fail: who asked for what, how it ended, why.
#ifndef RUMA_HOST_AGENT_COPY_REPORTS_H
#define RUMA_HOST_AGENT_COPY_REPORTS_H

#include "agent/copy_status.h"

#include <flash_records.h>

#include <string>
#include <sys/types.h>
#include <vector>

namespace ruma {

// Second fields of the error log's lines about copies and deletes.
enum ReportCode : int32_t {
    report_copy_failed = 0x4A030001,
    report_copy_aborted = 0x4A030002,
    report_delete_failed = 0x4A030003,
};

// The copies that have been started and have not ended. Each failure gives one line in the agent's
// log, of the level of a warning, and in the error log; an abort is only a notice. Nothing blocks
// but on these files. All may throw std::bad_alloc; a line is then missing.
class CopyReports {
  public:
    // A copy is about to be forked, asked for by `user`, who may be nobody.
    void started(const flashCopyEntry &row, const std::string &user);

    // A request of `user` takes a row away, which ends the copy of this start.
    void aborted(const CopyStart &start, const std::string &user);

    // A copy's worker has reported a status. `pid` is still the worker's own.
    void ended(const CopyStart &start, pid_t worker, int32_t status);

    // A copy's worker is lost, or could not be forked, by an errno. The row then has the status.
    void lost(const CopyStart &start, pid_t worker, int fork_error, int32_t status);

  private:
    struct Copy {
        flashCopyEntry row; // as it was at the start, without the password
        std::string user;
        std::string aborter; // a sentence's end, or empty
    };

    Copy take(const CopyStart &start);

    std::vector<Copy> copies_;
};

// A row that was to be activated was refused. The row is as the module has left it.
void report_refused_copy(const flashCopyEntry &row, const std::string &user);

// A row could not be activated since another copy is in progress.
void report_busy(const flashCopyEntry &row, const std::string &user);

// A delete failed, or was refused. The row is as the module has left it.
void report_failed_delete(const flashMiscOpEntry &row, const std::string &user);

} // namespace ruma

#endif
