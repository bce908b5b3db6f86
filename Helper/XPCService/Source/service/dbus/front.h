// The helper's front on the D-Bus session bus.
//
// One object carries the eight operations of the helper's interface and the
// versioned interface beside it (bus_names.h): two constant properties and the
// WalkProgress signal, sent from the walking thread. Each
// caller (a unique bus name) gets its own tz::Service and its own strand of a
// worker pool (worker_pool.h), made at its first call and dropped when the bus
// reports that the name has gone. Calls of one caller run one after another in
// arrival order; calls of different callers run on the pool's threads and
// never wait long behind each other. Nothing locks around the operations: the
// walk's process-wide state relies on callers not walking at the same time, as
// it always has.
//
// The event loop is itself a strand of the pool: each turn reads what the bus
// has (sender and uid of each call), hands the calls to their callers'
// strands with their sdbus::Result, and queues the next turn behind them. A
// pool thread that is awake thus reads a call, runs it and answers it without
// waking another thread, which on a small machine is most of the cost of a
// short call. When a call takes long (a walk on an agent that does not
// answer), the next turn waits like any job and another thread takes it up.
// run() starts the loop and waits for it to end.
//
// Every call gets exactly one reply or one named error:
//   - a request whose markers are missing or out of order:
//     tazorex.printers.T48Q.Error.RangeException, message naming the marker;
//   - a caller of another uid than the service's:
//     org.freedesktop.DBus.Error.AccessDenied, nothing run;
//   - anything else that stops an operation: org.freedesktop.DBus.Error.Failed.
//
// Idle exit never loses a call: the front is idle only when no call is
// pending; then it releases the bus name and keeps serving until the bus
// confirms the name has gone, answers what was still delivered to it, and
// returns. The next call to the name activates a fresh process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "service.h"
#include "worker_pool.h"

namespace tz::dbus {

// The service's version, as the build names it.
inline constexpr std::string_view kVersion = TZHELPER_VERSION;

struct FrontOptions {
    std::string preferences_dir = std::string(kDefaultPreferencesDir);
    // No call for this long ends the process; zero never ends it.
    std::chrono::milliseconds idle_exit = std::chrono::seconds(60);
};

class Front {
public:
    // Registers the object and the watch on NameOwnerChanged on `bus`; does
    // not request the bus name (the caller does, before run()).
    // Throws sdbus::Error when the bus refuses a registration.
    Front(sdbus::IConnection& bus, FrontOptions options);
    // Runs the calls already handed to the pool (their replies are sent),
    // then joins its threads.
    ~Front();
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    // Serves until idle exit or until `stop_fd` (a signalfd, or -1 for none)
    // becomes readable, then leaves as on idle: name released, confirmed
    // gone, pending calls answered. Returns 0 then, 1 when the bus
    // connection is lost (a line on stderr says why).
    int run(int stop_fd);

private:
    struct Client {
        uid_t uid = 0;
        bool allowed = false;
        // Each queued call holds the service too: a caller that leaves with
        // calls queued keeps its service until they have run.
        std::shared_ptr<Service> service;
        std::shared_ptr<WorkerPool::Strand> strand;
    };
    class WalkProgress;
    struct Handoff {
        std::shared_ptr<WorkerPool::Strand> strand;
        WorkerPool::Job job;
    };

    void register_interfaces();
    void emit_walk_progress(const std::string& caller, int32_t variables) noexcept;
    void on_call(Service::Operation op, sdbus::Result<std::string>&& result, std::string request);
    Client* client_for(const std::string& sender);
    void on_name_owner_changed(sdbus::Message& signal);
    void finish_call();
    void post_turn();
    void turn();
    void wait_for_bus();
    void end_run(int status);
    void wake();
    bool reply_queued() const;
    bool idle_expired() const;
    std::chrono::steady_clock::time_point idle_since() const;
    int poll_timeout_ms(int bus_timeout) const;
    void release_name();

    sdbus::IConnection& bus_;
    FrontOptions options_;
    uid_t own_uid_;
    std::string unique_name_;
    int wake_fd_ = -1;

    std::unique_ptr<sdbus::IObject> object_;
    std::unique_ptr<sdbus::IProxy> bus_daemon_;
    sdbus::Slot name_watch_;

    std::unique_ptr<WorkerPool> pool_;
    std::shared_ptr<WorkerPool::Strand> loop_strand_;

    // Only the loop's turns touch these (one turn at a time, on any thread).
    std::unordered_map<std::string, std::unique_ptr<Client>> clients_;
    std::vector<Handoff> handoffs_;  // this turn's calls, posted at its end
    int stop_fd_ = -1;
    std::chrono::steady_clock::time_point last_call_;
    bool name_gone_ = false;

    // Shared with the calls on the pool.
    std::atomic<int64_t> pending_{0};
    std::atomic<int64_t> last_done_ns_{0};  // steady_clock
    std::atomic<bool> releasing_{false};

    // run() waits here for the loop's last turn.
    std::mutex run_mutex_;
    std::condition_variable run_done_;
    std::optional<int> run_status_;
};

}  // namespace tz::dbus
