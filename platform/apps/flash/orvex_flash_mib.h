// Module frame: entry points, the object table, the scalar, the agent error record.
#ifndef ORVEX_FLASH_MIB_H
#define ORVEX_FLASH_MIB_H

#include "flash_agent.h"
#include "flash_export.h"
#include "ruma/agent.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The handler contract. Every get_ handler of the module takes
//   vp            the object's row of orvex_flash_mib_variables as the agent presents it, with its
//                 full OID
//   name, length  the requested OID and its arcs; on success the full instance OID is written back
//                 (name has room for MAX_OID_LEN arcs)
//   exact         non-zero for GET and every phase of SET, zero for GETNEXT
//   var_len       where the value's length in bytes goes
//   write_method  where the object's SET handler goes
// and returns the address of the value, in static storage and valid until the next request, or null
// when there is no such instance. An unserved magic is answered with an empty snmp_set_detail and
// null. Agent thread only.

constexpr std::size_t orvexFlashRootLength = 9;
constexpr std::size_t orvexFlashObjects = 50;

// The module root, and the objects below it in ascending order of their suffixes.
FLASH_API oid orvex_flash_mib_variables_oid[orvexFlashRootLength];
FLASH_API struct variable7 orvex_flash_mib_variables[orvexFlashObjects];

// The pipe of the older completion path: read end, write end; its state (flash::PipeState, 0 before
// the start); and the streams on it. Inherited by every worker, written by nobody in the module.
FLASH_API int32_t mypipe[2];
FLASH_API int32_t pipe_status;
FLASH_API std::FILE *write_stream;
FLASH_API std::FILE *read_stream;

// Starts the module: registers the object table and the copy-status callback, creates the pipe and
// its streams. A failed registration or pipe is reported and does not stop the steps that follow. A
// stream that cannot be opened is traced and ends the start: read_stream stays null when
// write_stream failed, and what was opened before stays open. The agent calls it at load, and again
// after a reload of its configuration.
FLASH_API void init_orvex_flash_mib(void);

// Stops the module: unregisters the objects. Rows, pipe, alarms and callback stay.
FLASH_API void deinit_orvex_flash_mib(void);

// Answers the scalar (handler contract above): always 1.
FLASH_API u_char *get_orvex_flash_mib(struct variable *vp, oid *name, size_t *length, int exact,
                                      size_t *var_len, WriteMethod **write_method);

// Enters a platform error code with its text, cut at 200 characters, into the agent's error log and
// returns the log's result.
FLASH_API int flash_log_snmp_error(int32_t code);

namespace flash {

enum class ErrorRecord { keep, clear };

// Puts a platform error code and its text, cut at 200 characters, into the module's error record,
// clearing the record first or writing over what it holds. Returns the record, ready for
// log_snmp_error.
const snmp_error_record &fill_error_record(int32_t code, ErrorRecord before);

} // namespace flash

#endif
