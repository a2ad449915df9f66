/* Device URIs: "scheme:path" names of files on the device's file systems. */
#ifndef RUMA_URI_H
#define RUMA_URI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* uriutil_stat's file type of a directory. */
enum { URIUTIL_TYPE_DIRECTORY = 32 };

/* What uriutil_stat_get finds out about a file. */
struct uriutil_stat {
    int32_t file_type; /* URIUTIL_TYPE_DIRECTORY, or another value */
    uint32_t mode;     /* permission bits */
    uint64_t size;     /* bytes */
    int64_t modified;  /* seconds since the epoch */
};

/* Resolves a device URI to a local path: a NUL-terminated path of less than `size` bytes in `path`.
 * The file need not exist; what exists and is neither a regular file nor a directory is refused.
 * The result never lies outside the directory of the URI's scheme, through whatever links. It
 * becomes part of command lines: but for A-Za-z0-9._+,=@%/- it holds no character that neither the
 * URI nor the directory's configured name holds, lest the name of a directory behind a link be run
 * by a shell. `flags` is 0. Returns 0, or a platform error code and leaves `path` alone. Looks at
 * the file system and blocks no longer than that does. */
int32_t uriutil_uri_to_path(const char *uri, char *path, size_t size, int flags);

/* Looks at the file that a device URI names. `flags` is 0. Returns 0 with `*stat` filled, or a
 * platform error code when the URI does not resolve, as above, or there is no such file. */
int32_t uriutil_stat_get(const char *uri, struct uriutil_stat *stat, int flags);

#ifdef __cplusplus
}
#endif

#endif
