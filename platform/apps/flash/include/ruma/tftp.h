/* TFTP client of one process: one server, one transfer at a time, binary mode.
 *
 * Results are 0 for success and negative for an error: -errno for an error on this side,
 * -(100 + errno) for one that the server reported. The two do not overlap: of this side's errors
 * with an errno above 100, a quota that is used up is -ENOSPC, silence of the server and a transfer
 * that takes too long are -ETIMEDOUT, and every other one is -EIO. A server that breaks the
 * protocol is -EPROTO.
 *
 * A transfer is held with one peer: packets of other addresses than the server's, and of other
 * ports than the one from which it answered the request, are neither taken for its content nor end
 * it.
 *
 * All of it is called in a worker forked from the agent, in which no descriptor opened before the
 * fork is left. */
#ifndef RUMA_TFTP_H
#define RUMA_TFTP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the time in seconds that a transfer waits for progress before it gives up. Negative result
 * when `seconds` is not positive. Beside it, no transfer takes longer than 3000 seconds in all. */
int tftp_timeout_set(int seconds);

/* Names the server by its IPv4 address in dotted decimal; `port` -1 is the protocol's own. Sends
 * nothing. */
int tftp_connect(const char *server, int port);

/* Fetches the file `remote` into the local file `local`, which appears or changes only when all of
 * it has arrived and, where the server announces a size, is of that size. Meanwhile the content can
 * be read by its owner alone; then a new file has the mode 0600, and one that is replaced hands its
 * permission bits on. The directory of `local` is opened once, no symbolic link on its path is
 * followed (-ELOOP), and the file appears in that very directory whatever stands at its path by
 * then; a link at `local` itself is replaced. (The host platform also removes from that
 * directory what its own transfers of processes that are no more have left, ".tftp-" files.)
 * `flags` is 0. Blocks until the transfer ends or one
 * of the limits of time is reached. */
int tftp_get2(const char *remote, const char *local, int flags);

/* Sends the local file `file`, under the same name to the server, with the size that it has at the
 * beginning. What is no regular file is an error and is not waited for. `flags` is 0. Blocks as
 * tftp_get2. */
int tftp_put(const char *file, int flags);

/* Returns the text of a negative result; for that of the last transfer, with what the server said
 * about it, printable and cut. Static, valid until the next call of this header. */
const char *tftp_strerror(int result);

#ifdef __cplusplus
}
#endif

#endif
