// The row statuses of both writable tables, watched as they are set: the agent sees which rows a
// request activates and which it takes away, and what has become of them.
#ifndef RUMA_HOST_AGENT_ROW_WATCH_H
#define RUMA_HOST_AGENT_ROW_WATCH_H

#include "agent/copy_reports.h"
#include "agent/workers.h"

namespace ruma {

// Puts a handler of this module before the module's own whenever the module registers one of the
// two columns; refusals, aborts and failed deletes then go to `reports`; which copy an abort ends,
// `workers` knows. Both outlive all requests. Called once, before the module is loaded. Returns
// false when it cannot.
bool watch_rows(CopyReports &reports, CopyWorkers &workers);

} // namespace ruma

#endif
