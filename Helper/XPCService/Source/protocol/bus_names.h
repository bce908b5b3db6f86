// The helper's names on the D-Bus session bus: well-known name, object, its two
// interfaces (the eight methods, named in methods.h; the versioned one) and the
// errors a caller can receive. The client library and the service take them
// from here; packaging/tazorex.printers.T48Q.Helper.xml documents them.
#pragma once

#include <string_view>

namespace tz::bus {

inline constexpr std::string_view kBusName = "tazorex.printers.T48Q.Helper";
inline constexpr std::string_view kObjectPath = "/tazorex/printers/T48Q/Helper";
// The eight methods; each takes one string ("request"), returns one ("reply").
inline constexpr std::string_view kInterface =
    "tazorex.printers.T48Q.TZ_XPC_Protocol5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18";

// A request whose markers are missing or out of order; the message names the marker.
inline constexpr std::string_view kRangeError = "tazorex.printers.T48Q.Error.RangeException";
// A caller running as another user than the service.
inline constexpr std::string_view kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
// A caller's requests waiting behind its walk would pass their limit (the message names it).
inline constexpr std::string_view kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
// Anything else that stopped an operation before it could reply.
inline constexpr std::string_view kFailed = "org.freedesktop.DBus.Error.Failed";

// The versioned interface: a change that is not backwards compatible gets a new number.
inline constexpr std::string_view kInterface1 = "tazorex.printers.T48Q.Helper1";
// Read-only, constant for the process: the service's version ("1.0").
inline constexpr std::string_view kVersionProperty = "Version";
// Read-only, constant: the folder a walk writes the profile files to, ending in '/'.
inline constexpr std::string_view kPreferencesDirectoryProperty = "PreferencesDirectory";
// WalkProgress(s caller, u variables): the unique bus name whose walk runs and
// the variables it has accepted so far; at most ten a second while the walk
// runs, and once more with the final count just before the walk's reply.
inline constexpr std::string_view kWalkProgressSignal = "WalkProgress";

}  // namespace tz::bus
