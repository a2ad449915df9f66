/* Platform message service: short messages between processes of the platform, addressed by node
 * and service access point, told apart by opcode.
 *
 * The service delivers a message only when the kernel vouches that its sender runs as the
 * receiver's own user; anything else is dropped and counted. */
#ifndef RUMA_PMB_H
#define RUMA_PMB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A received message; its layout is the service's. */
struct pmb_message;

/* Attributes of a queue, in the order in which the service takes them. */
struct pmb_queue_attributes {
    int32_t kind;
    int16_t flags;
    int32_t depth; /* messages */
    int32_t reserved1;
    int32_t reserved2;
    int32_t priority;
};

/* Options of one send; all zero but the first word, which is 1, for a plain send. */
struct pmb_send_options {
    uint32_t word[13];
};

/* The sending procedures are also called in a worker forked from the agent, in which no descriptor
 * opened before the fork is left. */

/* Opens a sending queue named `name` (for diagnosis; two processes may bind one name at the same
 * time and do not disturb each other). `kind` is 1, `sap` -1 for a sender without an access point
 * of its own. Returns a handle of zero or more, or a negative value with errno set. The handle is
 * closed at exec. Does not block. */
int pmb_bind(int kind, int sap, const struct pmb_queue_attributes *attributes, const char *name);

/* Sends `length` bytes of `payload` to the access point `sap` of `node`. Returns 0 when the message
 * is in the receiver's queue, non-zero with errno set otherwise. May block while the receiver's
 * queue is full, for a bounded time (the host platform: two seconds). */
int pmb_send(int handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
             uint32_t length, const struct pmb_send_options *options);

/* Closes a handle; a negative one is ignored. `flags` is 0. Returns 0. */
int pmb_unbind(int handle, int flags);

/* Returns the payload of a received message and its length in bytes; the payload belongs to the
 * message and is aligned for 32-bit words. */
const void *pmb_payload_get(const struct pmb_message *message, uint32_t *length);

/* The calling process's response queue, on which answers to its requests arrive. */
extern int pmb_response_q;

#ifdef __cplusplus
}
#endif

#endif
