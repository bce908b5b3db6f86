/*
 * The platform headers of the XPC front: the SDK's Foundation on Apple, or,
 * when TZ_XPC_DECLARATIONS_ONLY is defined (the metadata check builds on
 * machines without the SDK), the project's own few declarations.
 */
#ifndef TZ_XPC_PLATFORM_H
#define TZ_XPC_PLATFORM_H

#if defined(TZ_XPC_DECLARATIONS_ONLY)
#include "tz_xpc_declarations.h"
#else
#import <CoreFoundation/CoreFoundation.h>
#import <Foundation/Foundation.h>
#endif

#endif /* TZ_XPC_PLATFORM_H */
