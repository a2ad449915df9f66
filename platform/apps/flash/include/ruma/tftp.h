/* TFTP client of one process: one server, one transfer at a time, binary mode.
 *
 * Results are 0 for success and negative for an error: -errno for an error on this side,
 * -(100 + errno) for one that the server reported. The two do not overlap: of this side's errors
 * with an errno above 100, a quota that is used up is -ENOSPC, silence of the server is -ETIMEDOUT,
 * and every other one is -EIO.
 *
 * All of it is called in a worker forked from the agent, in which no descriptor opened before the
 * fork is left. */
#ifndef RUMA_TFTP_H
#define RUMA_TFTP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the time in seconds that a transfer waits for the server's answer before it gives up.
 * Negative result when `seconds` is not positive. */
int tftp_timeout_set(int seconds);

/* Names the server by its IPv4 address in dotted decimal; `port` -1 is the protocol's own. Sends
 * nothing. */
int tftp_connect(const char *server, int port);

/* Fetches the file `remote` into the local file `local`, which appears or changes only when all of
 * it has arrived. A new file has the mode 0600, one that is replaced keeps its mode. `flags` is 0.
 * Blocks until the transfer ends or the server is silent for the time set. */
int tftp_get2(const char *remote, const char *local, int flags);

/* Sends the local file `file`, under the same name to the server. `flags` is 0. Blocks as
 * tftp_get2. */
int tftp_put(const char *file, int flags);

/* Returns the text of a negative result; static, valid until the next call. */
const char *tftp_strerror(int result);

#ifdef __cplusplus
}
#endif

#endif
