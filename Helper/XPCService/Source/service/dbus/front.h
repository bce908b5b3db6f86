// The helper's front on the D-Bus session bus.
//
// One object carries the eight operations of the helper's interface. Each
// caller (a unique bus name) gets its own tz::Service and its own serial
// queue, made at its first call and dropped when the bus reports that the
// name has gone. A call is read on the event-loop thread (sender, uid),
// handed to the caller's queue with its sdbus::Result, and answered from the
// queue's thread: calls of one caller run one after another in arrival order,
// calls of different callers run at the same time. Nothing locks around the
// operations: the walk's process-wide state relies on callers not walking at
// the same time, as it always has.
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
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "serial_queue.h"
#include "service.h"

namespace tz::dbus {

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
    // Joins every worker; replies still queued are sent first.
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
        std::unique_ptr<Service> service;
        std::unique_ptr<SerialQueue> queue;  // after service: ends first
    };
    using Operation = void (*)(Service&, std::string_view, const Service::Reply&);

    void register_methods();
    void on_call(Operation op, sdbus::Result<std::string>&& result, std::string request);
    Client* client_for(const std::string& sender);
    void on_name_owner_changed(sdbus::Message& signal);
    void finish_call();
    void wake();
    void reap_retired();
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

    // Only the event-loop thread touches the clients.
    std::unordered_map<std::string, std::unique_ptr<Client>> clients_;
    std::vector<std::unique_ptr<Client>> retired_;

    std::atomic<int64_t> pending_{0};
    std::chrono::steady_clock::time_point last_call_;
    std::atomic<int64_t> last_done_ns_{0};  // steady_clock, set by the workers

    bool releasing_ = false;
    bool name_gone_ = false;
};

}  // namespace tz::dbus
