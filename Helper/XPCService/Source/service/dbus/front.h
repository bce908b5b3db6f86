// The helper's front on the D-Bus session bus: one object with the eight
// operations of the helper's interface and the versioned interface beside it
// (bus_names.h: two constant properties and the WalkProgress signal).
//
// Two threads. The loop thread (the one in run()) owns the connection: only
// it reads, replies and emits, so sd-bus is used from one thread. It runs the
// short operations inline, in arrival order. The walk thread runs the walks,
// one at a time in arrival order, and hands each answer back through a
// wake-up descriptor for the loop thread to send.
//
// Callers (unique bus names):
//   - of another uid (read once from a call's credentials): AccessDenied;
//   - from a caller's walk until it ends, its later calls are kept aside, then
//     run in arrival order (a later walk queues as it arrived); other callers'
//     calls go on. What a caller keeps aside (a waiting walk included) holds at
//     most kQueuedLimit bytes of requests; past that a call gets LimitsExceeded;
//   - one that leaves the bus: its kept calls are dropped (a waiting walk gives
//     up its turn), its running walk is asked to stop (the walk's stop hook)
//     and ends as after a timeout, the file rebuilt;
//   - markers missing or out of order: RangeException naming the marker;
//     anything else that stops an operation: Failed.
//
// Leaving (idle: no walk runs or waits; or `stop_fd` readable: SIGTERM): the
// front releases the bus name and serves until the bus confirms it has gone
// and nothing is pending. On a stop the running walk is asked to stop, and
// each walk not yet started is answered Failed ("the service is stopping")
// when its turn comes; the calls kept behind it still run.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "service.h"

namespace tz::dbus {

inline constexpr std::string_view kVersion = TZ_VERSION;
// The profile files' folder on Linux: system-wide, group lpadmin, mode 2775.
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
