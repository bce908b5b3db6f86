/*
 * The one-shot plist write offered to other code in the same process, with
 * C linkage, on every platform but Apple.
 */
#ifndef TZ_WRITES_H
#define TZ_WRITES_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* On Apple the name belongs to the CoreFoundation-typed form of the XPC front
 * (xpc/tz_xpc_service.h); this form is built everywhere else. */
#if !defined(__APPLE__)

/* Writes `length` bytes to the file named by the zero-terminated file URL
 * string `file_url`, creating or replacing it. Returns 1 when written, 0 when
 * the URL names no file or the write failed. `bytes` may be null only when
 * `length` is 0. */
int writeDictionaryToPlistFile_XPC(const char *file_url, const void *bytes, size_t length);

#endif /* !__APPLE__ */

#ifdef __cplusplus
}
#endif

#endif /* TZ_WRITES_H */
