/* The system log, as far as it can be written out to a file. */
#ifndef RUMA_SYSLOG_H
#define RUMA_SYSLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The only kind of dump that is asked for: the log file as it stands. */
enum { SYSLOG_DUMP_PLAIN = 5 };

/* Who asks for a dump, and for which. */
struct syslog_dump_request {
    char user[64];
    int32_t session;
    int32_t kind; /* SYSLOG_DUMP_PLAIN */
    int32_t reserved[6];
};

/* Writes the log file `log` out into the file `output`, which is replaced as a whole. `first`,
 * `last` and `flags` are 0: all of it, but of a log above the platform's limit (the host platform:
 * 64 MiB) only the end, as many whole lines as the limit holds. Returns 0, or a platform error code
 * and leaves `output` as it was. Blocks for the time of the copy, which the limit bounds. */
int32_t syslog_disp_logfile(const struct syslog_dump_request *request, const char *log,
                            const char *output, int first, int last, int flags);

#ifdef __cplusplus
}
#endif

#endif
