// A private session bus (any user may connect; its and its services' stderr in daemon.err) on which TZHELPERD_PATH
// is activatable; commands run for output; a walk request of the profile table.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "helper_client.h"
#include "snmp_agent.h"
#include "temp_dir.h"

namespace tz::test {

struct CommandResult {
    int status = -1;  // exit status, or -1 when it did not exit normally
    std::string out, err;
};

inline CommandResult run_command(const std::vector<std::string>& argv) {
    const TempDir dir;
    const int status = wait_status(spawn(argv, dir.file("out"), dir.file("err")));
    return {status, read_file(dir.file("out")), read_file(dir.file("err"))};
}

// Waits until process `pid` (not only a child) has ended; false after `limit`.
inline bool wait_for_exit(pid_t pid, std::chrono::milliseconds limit) {
    return wait_until([pid] { return ::kill(pid, 0) != 0; }, limit);
}

class PrivateBus {
public:
    // `policy`: rules added to the bus's default policy, after those that allow everything.
    explicit PrivateBus(int idle_exit_seconds = 1, const std::string& policy = "") {
        for (const char* sub : {"services", "prefs"}) std::filesystem::create_directory(dir_.path() / sub);
        for (const std::string& folder : {dir_.path().string(), prefs()}) ::chmod(folder.c_str(), 0755);
        std::string config = read_file(TZ_SESSION_BUS_CONF);
        for (std::size_t at; (at = config.find("@DIR@")) != std::string::npos;)
            config.replace(at, 5, dir_.path().string());
        config.insert(config.find("</policy>"), policy);
        write_file(dir_.file("bus.conf"), config);
        write_file(dir_.file("services/tazorex.printers.T48Q.Helper.service"),
                   "[D-BUS Service]\nName=tazorex.printers.T48Q.Helper\nExec=" TZHELPERD_PATH " --idle-exit " +
                       std::to_string(idle_exit_seconds) + " --preferences-dir " + prefs() + "\n");
        daemon_ = spawn({"dbus-daemon", "--nofork", "--config-file=" + dir_.file("bus.conf")}, dir_.file("daemon.out"),
                        dir_.file("daemon.err"));
        const auto answers = [&] { return service_pid("org.freedesktop.DBus") > 0; };  // the daemon's own name
        if (!wait_until(answers, std::chrono::seconds(30))) stop(), throw std::runtime_error("no dbus-daemon");
    }
    ~PrivateBus() { stop(); }

    const std::string& address() const { return address_; }
    // The service's preferences folder, with a trailing '/'.
    std::string prefs() const { return dir_.file("prefs") + "/"; }
    const TempDir& dir() const { return dir_; }

    // The pid of the process that owns bus name `name` (by default the helper's) now, 0 if none.
    pid_t service_pid(std::string_view name = tz::bus::kBusName) const {
        const auto got = run_command({"busctl", "--address=" + address_, "call", "org.freedesktop.DBus",
                                      "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                      "s", std::string(name)});
        return got.status == 0 && got.out.starts_with("u ") ? std::atoi(got.out.c_str() + 2) : 0;
    }

    void stop() {  // the daemon, and the service it started; then what they wrote to stderr goes to ours
        if (daemon_ <= 0) return;
        const pid_t service = service_pid();
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
        daemon_ = -1;
        if (service > 0) wait_for_exit(service, std::chrono::seconds(30));
        if (exists(dir_.file("daemon.err"))) std::fputs(read_file(dir_.file("daemon.err")).c_str(), stderr);
    }

private:
    TempDir dir_;
    pid_t daemon_ = -1;
    std::string address_ = "unix:path=" + dir_.file("bus");  // the config's <listen>
};

// A client on `bus`; throws (failing the test) when it cannot be made.
inline std::unique_ptr<tz::client::HelperClient> connect(const PrivateBus& bus) {
    auto client = tz::client::HelperClient::connect(bus.address(), nullptr);
    if (!client) throw std::runtime_error("cannot connect to " + bus.address());
    return client;
}

// A walk request for the profile table at `peer` that waits `seconds` for each answer.
inline std::string walk_of(const std::string& model, const std::string& user, const std::string& peer,
                           const std::string& seconds = "20") {
    return tz::client::walk_request(
        model, user, {"snmpwalk", "-v", "1", "-c", "public", "-t", seconds, "-r", "0", peer, kProfileTable});
}

// The reply, or "error <name>: <message>".
inline std::string reply_of(const tz::client::Outcome& outcome) {
    return outcome.ok() ? outcome.reply : "error " + outcome.error->name + ": " + outcome.error->message;
}

}  // namespace tz::test
