// The helper's front on the D-Bus session bus: one object with the eight
// operations of the helper's interface and, beside it, the versioned
// interface (bus_names.h: two constant properties and the WalkProgress signal).
//
// Two threads. The loop thread (the one calling run()) owns the connection:
// only it reads, replies, emits signals and registers, so sd-bus is used from
// one thread. It runs every short operation inline, in arrival order. The walk
// thread runs the walks, one at a time in arrival order, and hands each result
// back through a wake-up descriptor; the loop thread sends the reply.
//
// Callers (unique bus names):
//   - Another uid than the service's (read once per caller from the call's
//     credentials): org.freedesktop.DBus.Error.AccessDenied, nothing run.
//   - From a caller's walk until it ends, that caller's later calls are kept
//     aside and then run in arrival order (a later walk takes its turn in the
//     walk queue as it arrived); other callers' calls go on.
//   - What a caller has kept aside (a waiting walk and the calls behind its
//     walk) holds at most kQueuedLimit bytes of requests; a call past that is
//     answered org.freedesktop.DBus.Error.LimitsExceeded, nothing run.
//   - A caller that leaves the bus: its kept calls are dropped unanswered (a
//     waiting walk gives up its turn) and its running walk is asked to stop
//     (the walk's stop hook); it stops as after a timeout and rebuilds.
//   - A request whose markers are missing or out of order:
//     tazorex.printers.T48Q.Error.RangeException naming the marker; anything
//     else that stops an operation: org.freedesktop.DBus.Error.Failed.
//
// Leaving (idle exit, or `stop_fd` readable: SIGTERM): the front is idle only
// when no walk runs and nothing is kept aside. It releases the bus name and
// serves until the bus confirms the name has gone and nothing is pending,
// then returns. On a stop the running walk is asked to stop, and every walk
// that has not started is answered Failed ("the service is stopping") when
// its turn comes; the calls kept behind it still run.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include <sdbus-c++/sdbus-c++.h>

#include "service.h"

namespace tz::dbus {

// The service's version, as the build names it.
inline constexpr std::string_view kVersion = TZ_VERSION;

// The profile files' folder on Linux: system-wide, group lpadmin, mode 2775,
// so every printer administrator's walks can write it.
inline constexpr std::string_view kSystemPreferencesDir = "/var/lib/tzhelper/tazorex.printers.T48Q/";

// The requests one caller may have kept aside at once.
inline constexpr std::size_t kQueuedLimit = std::size_t{64} << 20;

struct FrontOptions {
    std::string preferences_dir = std::string(kSystemPreferencesDir);
    // No call for this long ends the process; zero never ends it.
    std::chrono::milliseconds idle_exit = std::chrono::seconds(60);
};

// One per process: it sets the walk's progress and stop hooks.
class Front {
public:
    // Registers the object and the watch on NameOwnerChanged on `bus` and
    // starts the walk thread; does not request the bus name (the caller
    // does, before run()). Throws sdbus::Error or std::system_error.
    Front(sdbus::IConnection& bus, FrontOptions options);
    // Stops a running walk and joins the walk thread.
    ~Front();
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    // Serves until idle exit or until `stop_fd` (a signalfd, or -1) becomes
    // readable, then leaves as described above. Returns 0 then, 1 when the
    // bus connection is lost (a line on stderr says why).
    int run(int stop_fd);

private:
    struct Call {
        sdbus::MethodCall message;
        Service::Operation op;
        std::string_view request;  // inside `message`
    };
    struct Caller {
        bool allowed = false;
        uid_t uid = 0;
        bool walking = false;  // a walk of it waits or runs
        std::deque<Call> kept;
        std::size_t kept_bytes = 0;
    };
    struct Answer {
        std::string error;  // a bus error name; empty: `text` is the reply
        std::string text;
    };

    void on_call(Service::Operation op, sdbus::MethodCall message);
    void on_name_owner_changed(sdbus::Message& signal);
    Answer perform(Service::Operation op, std::string_view request) const noexcept;
    void answer(const Call& call, const Answer& answer) noexcept;
    void run_kept(Caller& caller);
    void next_walk();
    void walk_ended();
    void emit_progress(int32_t variables) noexcept;
    bool pending() const { return running_.has_value() || kept_calls_ > 0; }
    void release_name();
    void wait(int stop_fd);
    void wake() noexcept;
    void walk_thread();
    static void progress_hook(int32_t variables);
    static bool stop_hook();

    sdbus::IConnection& bus_;
    const FrontOptions options_;
    const Service service_;
    const uid_t own_uid_;
    const std::string unique_name_;
    int wake_fd_ = -1;
    std::unique_ptr<sdbus::IObject> object_;
    sdbus::Slot name_watch_;

    // The loop thread's own.
    std::unordered_map<std::string, Caller> callers_;
    std::deque<std::string> walk_turns_;  // the caller of each waiting walk
    std::size_t kept_calls_ = 0;          // over all callers
    struct Running {
        std::string caller;
        Call call;
    };
    std::optional<Running> running_;
    std::chrono::steady_clock::time_point last_call_;
    bool stopping_ = false, releasing_ = false, name_gone_ = false;

    // Shared with the walk thread.
    std::mutex mutex_;
    std::condition_variable job_ready_;
    std::optional<std::string_view> job_;  // the running walk's request
    std::optional<Answer> done_;
    bool closing_ = false;
    std::atomic<bool> stop_walk_{false}, progress_due_{false};
    std::atomic<int32_t> variables_{0};
    std::chrono::steady_clock::time_point last_progress_;  // the walk thread's
    std::thread walker_;
};

}  // namespace tz::dbus
