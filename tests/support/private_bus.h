// A private session bus for the front's tests: dbus-daemon with a generated
// configuration in a temporary folder, on which tzhelperd is activatable.
//
//   tz::test::PrivateBus bus;            // idle exit after 1 s
//   ... connect to bus.address() ...      // the first call starts tzhelperd
//
// - The folder holds the configuration (tests/fixtures/session-bus.conf,
//   TZ_SESSION_BUS_CONF), the socket ("bus"), the service
//   folder with an activation file whose Exec is the built tzhelperd
//   (TZHELPERD_PATH) with --preferences-dir prefs/ and --idle-exit, and the
//   daemon's stdout (the walk prints what it receives there). The folder is
//   world-searchable and every user may connect (auth EXTERNAL), so a test can
//   call as nobody.
// - The constructor returns once the daemon has printed its address; the
//   destructor stops the daemon and waits for the service it started to end.
// - Also here: running a command and collecting its output, waiting for a
//   process that is not our child to end.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "temp_dir.h"

extern char** environ;

namespace tz::test {

struct CommandResult {
    int status = -1;  // exit status, or -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Runs `argv` (argv[0] looked up in PATH) and collects its output.
inline CommandResult run_command(const std::vector<std::string>& argv) {
    int out_pipe[2], err_pipe[2];
    if (::pipe2(out_pipe, O_CLOEXEC) != 0 || ::pipe2(err_pipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);
    CommandResult result;
    if (rc == 0) {
        pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
        std::string* sinks[2] = {&result.out, &result.err};
        int open = 2;
        while (open > 0 && ::poll(fds, 2, -1) >= 0) {
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || fds[i].revents == 0) continue;
                char buffer[4096];
                const ssize_t got = ::read(fds[i].fd, buffer, sizeof buffer);
                if (got > 0) {
                    sinks[i]->append(buffer, static_cast<size_t>(got));
                } else {
                    fds[i].fd = -1;
                    --open;
                }
            }
        }
        int status = 0;
        if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.status = WEXITSTATUS(status);
    }
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    return result;
}

// Waits until process `pid` (any process, not only a child) has ended.
// False when it still runs after `limit`, a bound for a hung test only.
inline bool wait_for_exit(pid_t pid, std::chrono::milliseconds limit) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return errno == ESRCH;  // already gone
    pollfd entry{fd, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(limit.count()));
    ::close(fd);
    return ready == 1;
}

class PrivateBus {
public:
    explicit PrivateBus(int idle_exit_seconds = 1) {
        ::chmod(dir_.path().c_str(), 0755);
        std::filesystem::create_directory(dir_.path() / "services");
        std::filesystem::create_directory(dir_.path() / "prefs");
        ::chmod(prefs().c_str(), 0755);
        // The one bus configuration of tests, benchmarks and demo, with its
        // folder filled in.
        std::string config = read_file(TZ_SESSION_BUS_CONF);
        for (std::size_t at; (at = config.find("@DIR@")) != std::string::npos;)
            config.replace(at, 5, dir_.path().string());
        write_file(dir_.file("bus.conf"), config);
        write_file(dir_.file("services/tazorex.printers.T48Q.Helper.service"),
                   "[D-BUS Service]\n"
                   "Name=tazorex.printers.T48Q.Helper\n"
                   "Exec=" TZHELPERD_PATH " --idle-exit " + std::to_string(idle_exit_seconds) +
                       " --preferences-dir " + prefs() + "\n");
        start();
    }
    ~PrivateBus() { stop(); }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return address_; }
    // The service's preferences folder, with a trailing '/'.
    std::string prefs() const { return dir_.file("prefs") + "/"; }
    const TempDir& dir() const { return dir_; }

    // The pid of the process that owns the helper's name now, 0 if none.
    pid_t service_pid() const {
        auto connection = sdbus::createSessionBusConnectionWithAddress(address_);
        auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        uint32_t pid = 0;
        try {
            daemon->callMethod("GetConnectionUnixProcessID")
                .onInterface("org.freedesktop.DBus")
                .withArguments(std::string(tz::bus::kBusName))
                .storeResultsTo(pid);
        } catch (const sdbus::Error&) {
            return 0;
        }
        return static_cast<pid_t>(pid);
    }

    // Stops the daemon, and waits for the service it started to notice.
    void stop() {
        if (daemon_ <= 0) return;
        const pid_t service = service_pid();
        ::kill(daemon_, SIGTERM);
        int status = 0;
        ::waitpid(daemon_, &status, 0);
        daemon_ = -1;
        if (service > 0) wait_for_exit(service, std::chrono::seconds(30));
    }

private:
    void start() {
        int address_pipe[2];
        if (::pipe2(address_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        const std::string config = "--config-file=" + dir_.file("bus.conf");
        const std::string log = dir_.file("daemon.out");
        const char* argv[] = {"dbus-daemon", "--nofork", config.c_str(), "--print-address=3", nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, address_pipe[1], 3);
        const int rc = posix_spawnp(&daemon_, argv[0], &actions, nullptr,
                                    const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(address_pipe[1]);
        if (rc != 0) {
            ::close(address_pipe[0]);
            daemon_ = -1;
            throw std::runtime_error("cannot start dbus-daemon");
        }
        // The daemon prints its address once it listens.
        char c = 0;
        while (::read(address_pipe[0], &c, 1) == 1 && c != '\n') address_ += c;
        ::close(address_pipe[0]);
        if (address_.empty()) {
            stop();
            throw std::runtime_error("dbus-daemon printed no address");
        }
    }

    TempDir dir_;
    pid_t daemon_ = -1;
    std::string address_;
};

}  // namespace tz::test
