// Process entry and connection acceptance of the XPC front.
//
// main installs the delegate on the process's service listener and resumes
// it; on the platform that call hands the main thread to the XPC runtime and
// does not return. The delegate accepts every connection: it makes no check of
// the peer, sets no handlers and keeps no reference to the connection, and
// gives each connection an exported object of its own.
#include "tz_xpc_service.h"

@implementation TZmacXPCServiceDelegate5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18

- (BOOL)listener:(NSXPCListener *)listener shouldAcceptNewConnection:(NSXPCConnection *)newConnection {
    (void)listener;
    newConnection.exportedInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(TZ_XPC_Protocol5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18)];
    TZmacServiceXPC5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 *exported =
        [TZmacServiceXPC5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 new];
    if (exported != nil) newConnection.exportedObject = exported;
    [newConnection resume];
    return YES;
}

@end

int main(int argc, const char *argv[]) {
    (void)argc, (void)argv;
    @autoreleasepool {
        // The listener holds its delegate weakly: this local keeps it alive
        // for as long as the listener serves.
        TZmacXPCServiceDelegate5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 *delegate =
            [TZmacXPCServiceDelegate5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18 new];
        NSXPCListener *listener = [NSXPCListener serviceListener];
        if (delegate == nil || listener == nil) return 0;
        listener.delegate = delegate;
        [listener resume];
    }
    return 0;
}
