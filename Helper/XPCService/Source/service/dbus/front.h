// The helper's front on the D-Bus session bus: one object with the eight
// operations and the versioned interface (bus_names.h). The loop thread (the
// one in run()) owns the connection and alone reads, replies and emits. It runs
// exist checks inline; other calls go to lanes, threads that each run their
// calls in order (a caller's short calls on one of four, walks on a fifth) and
// hand back only answers. A caller's calls are answered in arrival order; from
// its walk until that ends, its later calls are kept aside; other callers' calls
// go on. Who is served, what waits, what a departure or SIGTERM stops and the
// bus errors: the README's "Threads" and "Decisions", and tzhelperd(8).
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
// The bytes of requests one caller may have waiting at once.
inline constexpr std::size_t kQueuedLimit = std::size_t{64} << 20;

struct FrontOptions {
    std::string preferences_dir = std::string(kSystemPreferencesDir);
    std::chrono::milliseconds idle_exit = std::chrono::seconds(60);  // zero: never
};

// One per process: it sets the walk's progress and stop hooks.
class Front {
public:
    // Registers the object and a watch on NameOwnerChanged and starts the
    // lanes; the caller requests the bus name before run(). Throws on failure.
    Front(sdbus::IConnection& bus, FrontOptions options);
    ~Front();  // asks a running walk to stop, then joins the lanes
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    // Serves until idle or `stop_fd` (a signalfd, or -1) is readable, then
    // releases the name and serves until the bus confirms it has gone and
    // nothing is pending: returns 0; 1 when the bus connection is lost (said on
    // stderr).
    int run(int stop_fd);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tz::dbus
