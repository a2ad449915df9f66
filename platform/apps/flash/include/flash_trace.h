// The module's trace: every diagnostic message goes through flash_trace.
#ifndef FLASH_TRACE_H
#define FLASH_TRACE_H

#include <cstdint>

namespace flash {

enum TraceSubtype : int32_t { traceError = 100, traceDebug = 101 };

// Traces a message: into the event history when its filter takes the subtype, cut to 511
// characters; to the debug printer, whole, when debug printing is on. Formats nothing when both are
// off. Keeps errno.
__attribute__((format(printf, 2, 3))) void flash_trace(TraceSubtype subtype, const char *format,
                                                       ...);

} // namespace flash

#endif
