// Client library of the printer helper on the D-Bus session bus: what a print
// dialog links to ask the helper for file work and device walks.
//
// Every call sends one request string and gives back the helper's reply
// string ("TRUE", "FALSE", "iRet=<n>"), or the bus error that came instead
// (its D-Bus name and message): the helper's own errors are
// tazorex.printers.T48Q.Error.RangeException (a request marker missing or out
// of order) and org.freedesktop.DBus.Error.AccessDenied (another user's
// helper); the bus adds its own (no such service, no reply, timeout).
// Nothing here throws.
//
// A HelperClient is one bus connection, and so one caller to the helper: its
// calls run in the helper one after another, in the order they are made.
// Use one object from one thread at a time; use several objects to run calls
// at the same time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace tz::client {

struct BusError {
    std::string name;     // e.g. "org.freedesktop.DBus.Error.ServiceUnknown"
    std::string message;  // the bus's or the helper's explanation
};

// The reply, or the error that came instead of it.
struct Outcome {
    std::string reply;
    std::optional<BusError> error;
    bool ok() const { return !error.has_value(); }
};

class HelperClient {
public:
    // Connects to `address`, or to the session bus when it is empty
    // (DBUS_SESSION_BUS_ADDRESS). Null, with *error filled, when the bus
    // cannot be reached. The helper itself is started by the bus on the
    // first call, not here.
    static std::unique_ptr<HelperClient> connect(const std::string& address, BusError* error);

    ~HelperClient();
    HelperClient(const HelperClient&) = delete;
    HelperClient& operator=(const HelperClient&) = delete;

    // Sends `request` to the helper's method `method` (one of the eight) as it
    // stands. The walk waits walk_timeout(), any other method timeout().
    Outcome call(std::string_view method, const std::string& request);

    Outcome is_admin(const std::string& path);
    Outcome swap(const std::string& request);
    Outcome exist(const std::string& path);
    Outcome remove(const std::string& path);
    Outcome write_dictionary(const std::string& request);
    Outcome write_data(const std::string& request);
    Outcome write_data_rename(const std::string& url);
    // A walk waits for the device: it uses walk_timeout() instead of timeout().
    Outcome mib_walk(const std::string& request);
    // The same walk, calling `on_progress` with the count of variables walked
    // so far each time the helper reports progress on this connection's walk
    // (WalkProgress signals naming another caller are ignored). The callback
    // runs on the calling thread, inside this call; it must not throw.
    Outcome mib_walk(const std::string& request, const std::function<void(uint32_t)>& on_progress);

    // A string property of the helper's versioned interface
    // (tazorex.printers.T48Q.Helper1): the value in `reply`, or the error that
    // came instead (org.freedesktop.DBus.Error.UnknownProperty,
    // UnknownInterface from a helper without it, or the bus's own). A value
    // that is not a string gives org.freedesktop.DBus.Error.InvalidSignature.
    // Waits at most timeout().
    Outcome property(std::string_view name);
    // The helper's version, e.g. "1.0".
    Outcome version();
    // The folder of the profile files, ending in '/'.
    Outcome preferences_directory();

    // How long a call waits for its reply (default 25 s; a walk 10 min).
    void set_timeout(std::chrono::microseconds timeout) { timeout_ = timeout; }
    void set_walk_timeout(std::chrono::microseconds timeout) { walk_timeout_ = timeout; }
    std::chrono::microseconds timeout() const { return timeout_; }
    std::chrono::microseconds walk_timeout() const { return walk_timeout_; }

    // This connection's unique bus name (":1.42").
    std::string unique_name() const;

private:
    explicit HelperClient(std::unique_ptr<sdbus::IConnection> connection);
    Outcome call_with(std::string_view method, const std::string& request,
                      std::chrono::microseconds timeout);

    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;  // borrows connection_
    std::chrono::microseconds timeout_ = std::chrono::seconds(25);
    std::chrono::microseconds walk_timeout_ = std::chrono::minutes(10);
};

// ---- Request strings ------------------------------------------------------

// "<type>:ARG_iSwapType<current>:ARG_cFooCurrentString<previous>:ARG_cFooPrevString";
// a path with no value is sent as "NULL".
std::string swap_request(int32_t type, std::string_view current, std::string_view previous);

// "<url>:AddURL:END<text>", for write_dictionary and write_data.
std::string write_request(std::string_view url, std::string_view text);

// "<model>:ModelName:END<user>:USErName:END" and every argument followed by
// ":arg:". The first argument stands where a command line has the program's
// name ("snmpwalk").
std::string walk_request(std::string_view model, std::string_view user,
                         const std::vector<std::string>& arguments);

// The file URL of an absolute path, percent-escaping every byte outside the
// unreserved set and '/' ("/tmp/a b" gives "file:///tmp/a%20b").
std::string file_url(std::string_view absolute_path);

}  // namespace tz::client
