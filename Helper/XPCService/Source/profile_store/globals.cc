// The profile store's process-wide data: the path globals that a walk request
// points at its own buffers, and the modifiable key texts of the file.
#include "tz_profile_store.h"

extern "C" {

const char* TZ_PLIST_PROFILE_PATH = nullptr;
const char* TZ_PLIST_PROFILE_PREV_PATH = nullptr;
const char* TZ_PLIST_PROFILE_SPOOL_PATH = nullptr;

char cIndexOnDeviceKey[32] = "IndexOnDevice";
char cInMenuKey[32] = "InMenu";
char cProfileClassKey[32] = "ProfileClass";
char cFileNameKey[32] = "FileName";
char cProfileNameKey[32] = "ProfileName";
char cLocationKey[32] = "Location";
char cDriverAvailKey[32] = "DriverAvail";
char cPlistVersionKey[32] = "PlistVersion";

ProfileTable PlistCurrentForDataBrowser;

}  // extern "C"
