/* Texts of the platform's error codes. */
#ifndef RUMA_SYSERR_H
#define RUMA_SYSERR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the short text of a code, never NULL; static, valid until the next call. */
const char *syserr2str(int32_t code);

/* Returns a sentence for an operator about a code, never NULL; static, valid until the next call.
 */
const char *syserr_format(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
