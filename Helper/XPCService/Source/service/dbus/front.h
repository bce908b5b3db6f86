// The helper's front on the D-Bus session bus: one object with the eight
// operations and the versioned interface (bus_names.h). Two threads: the loop
// thread (the one in run()) owns the connection, so sd-bus is used from one
// thread only: it alone reads, replies and emits. It runs the short operations
// inline in arrival order. The walk thread runs the walks one at a time in
// arrival order and hands each answer back through a wake-up descriptor.
//
// Callers (unique bus names): another uid (read once, from a call's
// credentials) gets AccessDenied. From a caller's walk until it ends, its later
// calls are kept aside, then run in arrival order; other callers' calls go on.
// What a caller keeps aside (a waiting walk included) holds at most
// kQueuedLimit bytes of requests; past that a call gets LimitsExceeded. When a
// caller leaves the bus its kept calls are dropped (a waiting walk gives up its
// turn) and its running walk is stopped (the walk's stop hook: it ends as after
// a timeout, the file rebuilt). Markers out of order: RangeException; anything
// else that stops an operation: Failed.
//
// Leaving (idle: no walk runs or waits; or `stop_fd` readable: SIGTERM): the
// name is released and calls are served until the bus confirms it has gone and
// nothing is pending. On a stop the running walk is stopped, and each walk not
// yet started gets Failed ("the service is stopping") when its turn comes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "service.h"

namespace tz::dbus {

inline constexpr std::string_view kVersion = TZ_VERSION;
// The package's folder on Linux (root:lpadmin 1775); each user's files are in
// its own folder inside (private_folder.h).
inline constexpr std::string_view kSystemPreferencesDir = "/var/lib/tzhelper/tazorex.printers.T48Q/";
// The requests one caller may have kept aside at once.
inline constexpr std::size_t kQueuedLimit = std::size_t{64} << 20;

struct FrontOptions {
    std::string preferences_dir = std::string(kSystemPreferencesDir);
    std::chrono::milliseconds idle_exit = std::chrono::seconds(60);  // zero: never
};

// One per process: it sets the walk's progress and stop hooks.
class Front {
public:
    // Registers the object and a watch on NameOwnerChanged and starts the walk
    // thread; the caller requests the bus name before run(). Throws on failure.
    Front(sdbus::IConnection& bus, FrontOptions options);
    ~Front();  // asks a running walk to stop, then joins the walk thread
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    // Serves until idle or `stop_fd` (a signalfd, or -1) is readable, and leaves
    // as above: returns 0; 1 when the bus connection is lost (said on stderr).
    int run(int stop_fd);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tz::dbus
