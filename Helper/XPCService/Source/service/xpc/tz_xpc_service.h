/*
 * The service's public face on macOS: the protocol a client names when it
 * builds its side of the connection, the exported class that implements it,
 * the listener's delegate, and the one C function offered to other code in
 * the same process.
 *
 * Every method takes one request string and calls its reply block exactly
 * once, after all its work, with "TRUE", "FALSE" or "iRet=%d". A request whose
 * markers are missing or out of order raises NSRangeException instead, and is
 * never answered. The names and the method order are part of the interface.
 */
#ifndef TZ_XPC_SERVICE_H
#define TZ_XPC_SERVICE_H

#include "tz_xpc_platform.h"

@protocol TZ_XPC_Protocol5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18
- (void)tzPListIsAdminProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)tzPListSwapProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)tzPListExistProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)tzPListRemove_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)writeDictionaryToPlistFile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)writeDataToPlistFile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)writeDataToPlistFileRename_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
- (void)mibwalk_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply;
@end

/* The exported object: one per connection, stateless (no instance variables,
 * no properties); each request runs on a service object of its own. */
@interface TZmacServiceXPC5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 : NSObject <TZ_XPC_Protocol5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18>
@end

/* Accepts every connection and gives it a fresh exported object. */
@interface TZmacXPCServiceDelegate5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 : NSObject <NSXPCListenerDelegate>
@end

#ifdef __cplusplus
extern "C" {
#endif

/* Writes `data` to the file `url` with CFURLWriteDataAndPropertiesToResource,
 * creating or replacing it; no properties are written and the error code is
 * dropped. Returns 1 when written, 0 otherwise. Both arguments are borrowed.
 * On Linux the core offers the same name with a file URL string and a byte
 * count instead (service/tz_writes.h); only one of the two is ever built. */
Boolean writeDictionaryToPlistFile_XPC(CFURLRef url, CFDataRef data);

#ifdef __cplusplus
}
#endif

#endif /* TZ_XPC_SERVICE_H */
