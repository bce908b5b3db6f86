// The helper's front on the D-Bus session bus.
//
// One object carries the eight operations of the helper's interface and the
// versioned interface beside it (bus_names.h): two constant properties and the
// WalkProgress signal, sent from the walking thread. Each caller (a unique bus
// name) gets its own tz::Service and its own strand of a worker pool
// (worker_pool.h), made at its first call and dropped when the bus reports
// that the name has gone. Calls of one caller run one after another in
// arrival order; calls of different callers run on the pool's threads and
// never wait long behind each other.
//
// Walks, one at a time: the walk's state is process-wide, so the front, not
// the client, keeps walks apart. At most one walk holds the turn; a walk that
// arrives while the turn is taken waits in a queue, in arrival order, and so
// do the caller's own calls that arrived after it (they stay behind their
// walk). A waiting walk holds no thread: it and the calls behind it are kept
// aside, not posted, and go to the caller's strand together when its turn
// comes. So sixty-four waiting walks cost sixty-four small queue entries, and
// every other caller's calls keep the pool's threads. The turn is held from
// the moment the walk is posted (its caller's earlier calls may still run
// ahead of it) until the walk has answered. The other operations never wait
// for a walk, except a caller's own calls behind its own walk.
//
// A caller that leaves the bus: a call of it that has started runs to its
// end (a walk included); a call that has not started is dropped without
// running, and a waiting walk of it gives up its place in the queue.
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
// Every call gets exactly one reply or one named error (a dropped call of a
// caller that has left gets neither: nobody is there to read it):
//   - a request whose markers are missing or out of order:
//     tazorex.printers.T48Q.Error.RangeException, message naming the marker;
//   - a caller of another uid than the service's:
//     org.freedesktop.DBus.Error.AccessDenied, nothing run;
//   - anything else that stops an operation: org.freedesktop.DBus.Error.Failed.
//
// Idle exit never loses a call: the front is idle only when no call is
// pending (waiting walks and the calls behind them are pending); then it
// releases the bus name and keeps serving until the bus confirms the name
// has gone, answers what was still delivered to it, and returns. The next
// call to the name activates a fresh process.
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
#include <unordered_map>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "service.h"
#include "worker_pool.h"

namespace tz::dbus {

// The service's version, as the build names it.
inline constexpr std::string_view kVersion = TZ_VERSION;

// The profile files' folder on Linux: system-wide, group lpadmin, mode 2775,
// so every printer administrator's walks can write it.
inline constexpr std::string_view kSystemPreferencesDir = "/var/lib/tzhelper/tazorex.printers.T48Q/";

struct FrontOptions {
    std::string preferences_dir = std::string(kSystemPreferencesDir);
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
    // What the calls of one caller share; held by its queued calls too.
    struct Caller {
        Caller(std::string bus_name, const std::string& preferences_dir)
            : name(std::move(bus_name)), service(preferences_dir, tz::Service::Folder::private_to_user) {}
        const std::string name;
        const Service service;
        const std::shared_ptr<WorkerPool::Strand> strand = std::make_shared<WorkerPool::Strand>();
        // Set by the loop when the bus reports the caller gone.
        std::atomic<bool> gone{false};
    };
    struct Client {
        uid_t uid = 0;
        bool allowed = false;
        std::shared_ptr<Caller> caller;  // null when not allowed
    };
    // One call on its way to its caller's strand.
    struct Call {
        std::shared_ptr<Caller> caller;
        bool walk = false;
        WorkerPool::Job run;  // runs the operation and answers the call
    };
    class WalkProgress;

    void register_interfaces();
    void emit_walk_progress(const std::string& caller, int32_t variables) noexcept;
    void on_call(Service::Operation op, sdbus::Result<std::string>&& result, std::string request);
    Client* client_for(const std::string& sender);
    void on_name_owner_changed(sdbus::Message& signal);
    void route_locked(Call call, std::vector<Call>& dropped);
    void post_locked(Call call);
    void end_walk();
    void pass_walk_turn(std::vector<Call>& dropped);
    void drop_backlog_locked(const Caller& caller, std::vector<Call>& dropped);
    void drop(std::vector<Call>& calls);
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
    std::vector<Call> handoffs_;  // this turn's calls, routed at its end
    // Callers that left during this turn; their kept-aside calls are dropped
    // at its end.
    std::vector<std::shared_ptr<Caller>> departed_;
    int stop_fd_ = -1;
    std::chrono::steady_clock::time_point last_call_;
    bool name_gone_ = false;

    // Shared with the calls on the pool.
    std::atomic<int64_t> pending_{0};
    std::atomic<int64_t> last_done_ns_{0};  // steady_clock
    std::atomic<bool> releasing_{false};

    // The walk turn. The loop routes calls and a walk's end passes the turn
    // on; both post to the pool under this mutex, so a caller's calls reach
    // its strand in the order they were routed.
    std::mutex walks_mutex_;
    bool walk_turn_taken_ = false;  // a walk is posted or running
    bool closing_ = false;          // the destructor has begun: no more posts
    // One entry per waiting walk, in arrival order; an entry whose caller
    // has gone is skipped.
    std::deque<std::shared_ptr<Caller>> walk_queue_;
    // Each caller's calls kept aside: a walk waiting for its turn, then the
    // calls that arrived after it (among them, maybe, its next walk). Keyed
    // by the caller the calls hold, so an entry never outlives it.
    std::unordered_map<const Caller*, std::deque<Call>> backlogs_;

    // run() waits here for the loop's last turn.
    std::mutex run_mutex_;
    std::condition_variable run_done_;
    std::optional<int> run_status_;
};

}  // namespace tz::dbus
