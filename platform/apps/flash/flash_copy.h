// Copy engine: the worker process, the transfers, the status message, completion, abort, age-out.
#ifndef FLASH_COPY_H
#define FLASH_COPY_H

#include "flash_agent.h"
#include "flash_export.h"
#include "flash_records.h"

#include <cstdint>
#include <sys/types.h>

struct pmb_message;

// Process id of the worker forked last: 0 before the first, -1 when the fork failed; never cleared.
FLASH_API int32_t flash_copy_pid;

// Forks the worker that carries out the copy of `entry` and returns at once, in the agent only: 0
// when the row's copy status is 2, else the copy status. A failed fork is not reported: the row
// stays in progress.
FLASH_API int32_t start_flash_copy(flashCopyEntry *entry);

// The worker's job: carries out the transfer that the row's command asks for and sends its status.
// Worker process only; blocks for the transfer.
FLASH_API void flash_copy_function(flashCopyEntry *entry);

// Moves one file in a flash::Direction by the row's protocol. Returns flash::success, or
// flash::failure with the row's copy status set. `directory` is ignored. Worker process only;
// blocks for the transfer.
FLASH_API int32_t do_flash_upload_download(int32_t direction, const char *directory,
                                           flashCopyEntry *entry);

// Sends the status message of the row to the agent. `descriptor` is ignored. Worker process only;
// blocks up to six seconds when the message service does not answer.
FLASH_API void write_to_pipe(int descriptor, int32_t status, int32_t row);

// Library callback that receives the status message. Returns -1 when there is no message or it is
// too short, else 0.
FLASH_API int handle_flash_copy_status(int major, int minor, void *message, void *client);

// Records the outcome of a copy in its row and reaps its worker. Blocks until the worker exits,
// which follows its message at once.
FLASH_API void handle_flash_copy_done(int32_t status, int32_t row, int32_t worker);

// When the row is in progress, sends SIGTERM to the worker that was forked last, whichever row it
// serves, unless it has been reaped. Returns 0.
FLASH_API int32_t handle_flash_abort(const flashCopyEntry *entry);

// Alarm that deletes every copy row that ended, or was created and never started, more than 305
// seconds ago.
FLASH_API void flash_ageouttimerhandler(unsigned int registration, void *client);

// Builds the completion notification of a message whose payload begins with the copy status in
// network byte order: the notification's OID into `id` (room for 13 arcs), its arcs into
// `id_length`, and whether to send it into `send`. Returns the bindings, which the caller releases
// with snmp_free_varbind, or null.
FLASH_API netsnmp_variable_list *handle_notifications(const struct pmb_message *message, oid *id,
                                                      size_t *id_length, int *send);

// A line of the pipe.
struct flashPipeLine {
    int32_t status;
    int32_t row;
};

// Reads a line "status:row" from read_stream. Returns its status, 0 at the end of the stream, 17
// when it is not such a line; `line` is filled only from such a line. `descriptor` is ignored.
// Blocks until there is a line.
FLASH_API int32_t read_from_pipe(int descriptor, flashPipeLine *line);

// Completes a copy from the pipe instead of from a message. Blocks as read_from_pipe does.
FLASH_API void handle_flash_copy_over(void);

#endif
