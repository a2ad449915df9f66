#include "evwrap/row.h"

namespace ruma {
namespace {

TracedRow scope_row;
TracedRow process_row;
TracedRow (*row_source)();

} // namespace

TracedRow traced_row() {
    if (scope_row.table != RowTable::none)
        return scope_row;
    if (process_row.table != RowTable::none || row_source == nullptr)
        return process_row;
    return row_source();
}

void set_process_row(TracedRow row) { process_row = row; }

void set_row_source(TracedRow (*source)()) { row_source = source; }

RowScope::RowScope(TracedRow row) : before_(scope_row) { scope_row = row; }

RowScope::~RowScope() { scope_row = before_; }

} // namespace ruma
