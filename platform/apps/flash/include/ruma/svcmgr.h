/* The system manager, as far as it names files: core files of the platform's services. */
#ifndef RUMA_SVCMGR_H
#define RUMA_SVCMGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A path handed back by the system manager, NUL-terminated. */
struct svcmgr_path {
    char text[1024];
};

/* Resolves a core-file URI to a local path, of which the same holds as of uriutil_uri_to_path's
 * (uri.h). `response_queue` is the caller's pmb_response_q, on which the system manager answers.
 * Returns 0, or 0x401E0059 when another service of the platform resolved it: both are success, with
 * `*path` filled. Any other result is a platform error code, with `*path` untouched. */
int32_t svcmgrcmi_core_uri_to_path(int response_queue, const char *uri, struct svcmgr_path *path);

#ifdef __cplusplus
}
#endif

#endif
