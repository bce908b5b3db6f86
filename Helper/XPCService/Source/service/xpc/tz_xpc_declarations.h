/*
 * The few Foundation and CoreFoundation declarations the XPC front uses,
 * written out by hand so that its Objective-C++ sources can be compiled for a
 * macOS target on a machine without the platform's SDK. The object files made
 * this way carry the same Objective-C metadata (class, protocol and method
 * type records) as a build against the SDK, which is what the metadata check
 * in tests/xpc reads; they are never linked.
 *
 * Only what the front names is declared, with the SDK's types, so that the
 * method type strings the compiler derives are the ones of a real build.
 * Builds on Apple define nothing and get the SDK headers instead (see
 * tz_xpc_platform.h).
 */
#ifndef TZ_XPC_DECLARATIONS_H
#define TZ_XPC_DECLARATIONS_H

/* ---- CoreFoundation ---- */

typedef unsigned char Boolean;
typedef int SInt32;
typedef const struct __CFURL *CFURLRef;
typedef const struct __CFData *CFDataRef;
typedef const struct __CFDictionary *CFDictionaryRef;

extern "C" Boolean CFURLWriteDataAndPropertiesToResource(CFURLRef url, CFDataRef dataToWrite,
                                                         CFDictionaryRef propertiesToWrite,
                                                         SInt32 *errorCode);

/* ---- Objective-C runtime and Foundation ---- */

typedef signed char BOOL;   /* x86_64: a signed char, encoded "c" */
#define YES ((BOOL)1)
#define NO ((BOOL)0)
#define nil nullptr

typedef unsigned long NSUInteger;
typedef unsigned short unichar;
typedef NSUInteger NSStringEncoding;
enum { NSUTF8StringEncoding = 4 };

typedef struct _NSRange {
    NSUInteger location;
    NSUInteger length;
} NSRange;

static inline NSRange NSMakeRange(NSUInteger location, NSUInteger length) {
    NSRange range = {location, length};
    return range;
}

@class NSString, NSDictionary, Protocol;

@protocol NSObject
@end

/* The root class: the isa field and the allocation messages ARC relies on. */
__attribute__((objc_root_class))
@interface NSObject <NSObject> {
    Class isa;
}
+ (instancetype)alloc;
+ (instancetype)new;
- (instancetype)init;
@end

@interface NSString : NSObject
@property (readonly) NSUInteger length;
- (void)getCharacters:(unichar *)buffer range:(NSRange)range;
- (instancetype)initWithUTF8String:(const char *)nullTerminatedCString;
@end

@interface NSData : NSObject
@property (readonly) NSUInteger length;
@property (readonly) const void *bytes;
@end

@interface NSMutableData : NSData
+ (instancetype)dataWithLength:(NSUInteger)length;
@property (readonly) void *mutableBytes;
@end

typedef NSString *NSExceptionName;
extern "C" NSExceptionName const NSRangeException;

@interface NSException : NSObject
+ (NSException *)exceptionWithName:(NSExceptionName)name
                            reason:(NSString *)reason
                          userInfo:(NSDictionary *)userInfo;
@end

@class NSXPCListener, NSXPCConnection;

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener *)listener shouldAcceptNewConnection:(NSXPCConnection *)newConnection;
@end

@interface NSXPCInterface : NSObject
+ (NSXPCInterface *)interfaceWithProtocol:(Protocol *)protocol;
@end

@interface NSXPCListener : NSObject
+ (NSXPCListener *)serviceListener;
@property (weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end

@interface NSXPCConnection : NSObject
@property (retain) NSXPCInterface *exportedInterface;
@property (retain) id exportedObject;
- (void)resume;
@end

#endif /* TZ_XPC_DECLARATIONS_H */
