/*
 * The service's eight operations callable from C, for the macOS front: its
 * Objective-C++ files include only this header and so never see C++.
 *
 * Conventions
 *  - A request is `length` bytes of the request text in UTF-8 form; it may hold
 *    NUL bytes and need not end with one. `request` may be null only when
 *    `length` is 0. The bytes are read during the call only.
 *  - Each operation builds a fresh service object for the default preferences
 *    folder, runs the request on it and drops it before returning. The object
 *    holds nothing but that folder name, so the front's exported instances need
 *    no state of their own and one call per request is all the plumbing.
 *  - The result is a plain value (nothing to free):
 *      TZ_BRIDGE_REPLY            `text` is the reply: "TRUE", "FALSE" or "iRet=%d".
 *      TZ_BRIDGE_RANGE_EXCEPTION  the request's markers are missing or out of
 *                                 order; the request must not be answered;
 *                                 `text` is the message naming the marker.
 *      TZ_BRIDGE_NO_REPLY         the operation returned without answering;
 *                                 `text` is empty. The operations always answer,
 *                                 so a front seeing this sends nothing either.
 *    `text` is zero-terminated; a message of more than 255 bytes is cut there
 *    (replies are at most 16 bytes and never cut).
 *  - No function throws or prints. Running out of memory inside an operation
 *    ends the process.
 *  - Threads: any function may be called from any thread at any time. Walk
 *    requests take turns in arrival order (the walk's state is process-wide):
 *    TZBridge_mibwalk_XPC waits until the walks asked before it have ended.
 */
#ifndef TZ_SERVICE_BRIDGE_H
#define TZ_SERVICE_BRIDGE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { TZ_BRIDGE_TEXT = 256 };

typedef enum TZBridgeOutcome {
    TZ_BRIDGE_REPLY = 0,
    TZ_BRIDGE_RANGE_EXCEPTION = 1,
    TZ_BRIDGE_NO_REPLY = 2
} TZBridgeOutcome;

typedef struct TZBridgeResult {
    TZBridgeOutcome outcome;
    char text[TZ_BRIDGE_TEXT];
} TZBridgeResult;

/* Writes the UTF-8 form of `count` UTF-16 code units to `out` and returns the
 * number of bytes written (no terminator is added). A surrogate pair gives one
 * 4-byte sequence. A lone surrogate keeps its 3-byte form (0xED ...), which is
 * not UTF-8: a request field holding it has no UTF-8 form and so gives no path,
 * while the rest of the request is unaffected and every marker keeps its place.
 * `units` may be null only when `count` is 0. Cannot fail.
 * REQUIRES: `out` has room for 3 * count bytes. */
size_t TZBridge_UTF8FromUTF16(const unsigned short *units, size_t count, char *out);

/* The eight operations, in the protocol's order. Requests and replies are
 * those of the service's protocol. */
TZBridgeResult TZBridge_tzPListIsAdminProfile_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_tzPListSwapProfile_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_tzPListExistProfile_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_tzPListRemove_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_writeDictionaryToPlistFile_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_writeDataToPlistFile_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_writeDataToPlistFileRename_XPC(const char *request, size_t length);
TZBridgeResult TZBridge_mibwalk_XPC(const char *request, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* TZ_SERVICE_BRIDGE_H */
