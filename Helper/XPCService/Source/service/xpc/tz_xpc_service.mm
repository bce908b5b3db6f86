// The exported object of the XPC front and the CoreFoundation write.
//
// The class only carries strings: each method hands its request, in UTF-8
// form, to the core through the C bridge (the front never sees C++) and turns
// the outcome into one call of the reply block, or into NSRangeException for
// a request whose markers are missing or out of order, which is what the
// platform's own substring call raises for such a request. The class has no
// state: the bridge runs every request on a service object of its own.
#include "tz_xpc_service.h"

#include "tz_service_bridge.h"

typedef TZBridgeResult (*TZBridgeOperation)(const char *request, size_t length);

// Runs `request` through `operation` and answers it. The request is converted
// code unit by code unit, so NUL characters are kept and a lone surrogate
// spoils only the field that holds it. A nil request is served as an empty one.
static void TZServeRequest(TZBridgeOperation operation, NSString *request,
                           void (^reply)(NSString *reply)) {
    const NSUInteger units = request.length;
    NSMutableData *utf16 = [NSMutableData dataWithLength:units * sizeof(unichar)];
    [request getCharacters:(unichar *)utf16.mutableBytes range:NSMakeRange(0, units)];
    NSMutableData *utf8 = [NSMutableData dataWithLength:units * 3];
    const size_t bytes = TZBridge_UTF8FromUTF16((const unsigned short *)utf16.bytes, units,
                                                (char *)utf8.mutableBytes);

    const TZBridgeResult result = operation((const char *)utf8.bytes, bytes);
    if (result.outcome == TZ_BRIDGE_NO_REPLY) return;
    NSString *text = [[NSString alloc] initWithUTF8String:result.text];
    if (result.outcome == TZ_BRIDGE_RANGE_EXCEPTION) {
        @throw [NSException exceptionWithName:NSRangeException reason:text userInfo:nil];
    }
    reply(text);
}

@implementation TZmacServiceXPC5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18

- (void)tzPListIsAdminProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_tzPListIsAdminProfile_XPC, request, reply);
}

- (void)tzPListSwapProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_tzPListSwapProfile_XPC, request, reply);
}

- (void)tzPListExistProfile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_tzPListExistProfile_XPC, request, reply);
}

- (void)tzPListRemove_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_tzPListRemove_XPC, request, reply);
}

- (void)writeDictionaryToPlistFile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_writeDictionaryToPlistFile_XPC, request, reply);
}

- (void)writeDataToPlistFile_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_writeDataToPlistFile_XPC, request, reply);
}

- (void)writeDataToPlistFileRename_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_writeDataToPlistFileRename_XPC, request, reply);
}

- (void)mibwalk_XPC:(NSString *)request reply:(void (^)(NSString *reply))reply {
    TZServeRequest(TZBridge_mibwalk_XPC, request, reply);
}

@end

extern "C" Boolean writeDictionaryToPlistFile_XPC(CFURLRef url, CFDataRef data) {
    return CFURLWriteDataAndPropertiesToResource(url, data, nullptr, nullptr) ? 1 : 0;
}
