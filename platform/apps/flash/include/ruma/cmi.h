/* Request and response: one question to a daemon of the platform, one answer. */
#ifndef RUMA_CMI_H
#define RUMA_CMI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a look-up asks for. */
enum {
    CMI_EXACT = 1, /* the record with the key sent */
    CMI_NEXT = 2   /* the first record whose key is greater than the one sent */
};

/* Sends `*length` bytes of `request` to the daemon that serves `opcode` and waits for its answer.
 *
 * `client` names the caller for diagnosis; `flags`, `timeout` and `options` are 0, 102 and 4 in
 * every use; `response_queue` is the caller's pmb_response_q.
 *
 * Returns 0 with `*response` holding the answer record and `*length` its size in bytes; any other
 * result is failure: no such record, no daemon, no answer in time, an answer of the wrong size or
 * kind. Whatever `*response` is on return, NULL or not, the caller releases it with free().
 *
 * Blocks for a bounded time. The host platform waits 300 ms at most, and after one unanswered
 * request fails at once until the daemon answers again. */
int cmi_req_resp(uint32_t opcode, uint32_t message_type, const void *request, void **response,
                 uint32_t *length, const char *client, int flags, int timeout, int response_queue,
                 int options);

#ifdef __cplusplus
}
#endif

#endif
