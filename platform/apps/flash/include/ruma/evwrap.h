/* Trace facility: an event history that is always there, and a debug printer for when somebody
 * looks. Both are off or on by the platform's own switches.
 *
 * All of it is also called in workers forked from the agent, in which no descriptor opened before
 * the fork is left. */
#ifndef RUMA_EVWRAP_H
#define RUMA_EVWRAP_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns non-zero when the event history takes records of `subtype` of the trace `trace_id`. Cheap
 * enough to be asked before every message. */
int evwrap_hist_event_subtype_check(uint32_t trace_id, uint32_t subtype);

/* Stores a record of `length` bytes in the event history: a 32-bit subtype in host byte order, then
 * a text and its terminating zero. The record is copied. */
void evwrap_hist_event(uint32_t trace_id, const void *record, uint32_t length);

/* Returns non-zero when debug messages of `subtype` are to be printed. The further arguments are 0,
 * 0 and 1 in every use. */
int evwrap_chk_int(int subtype, int instance, int flags, int level);

/* The name under which this module's debug messages are printed. */
extern const char *const evwrap_dbg_modname;

/* Prints a debug message of `level` for `module`. */
#if defined(__GNUC__)
__attribute__((format(printf, 3, 0)))
#endif
void dbgout(int level, const char *module, const char *format, va_list arguments);

#ifdef __cplusplus
}
#endif

#endif
