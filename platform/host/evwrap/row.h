// Which row the process is at work for, so that the event history can say it of each record. Only
// what is known exactly counts; nobody guesses from texts.
#ifndef RUMA_HOST_HISTORY_ROW_H
#define RUMA_HOST_HISTORY_ROW_H

#include "evwrap/format.h"

namespace ruma {

// The row of this moment: that of a scope, else that of the process, else what the source says.
// For the agent's one thread and its workers.
TracedRow traced_row();

// Says that all of this process is for one row: a worker's.
void set_process_row(TracedRow row);

// Names who can tell the row when nobody else has: called at each record, must not trace.
void set_row_source(TracedRow (*source)());

// While one exists, records are about its row.
class RowScope {
  public:
    explicit RowScope(TracedRow row);
    ~RowScope();
    RowScope(const RowScope &) = delete;
    RowScope &operator=(const RowScope &) = delete;

  private:
    TracedRow before_;
};

} // namespace ruma

#endif
