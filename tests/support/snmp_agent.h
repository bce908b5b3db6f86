// A real SNMP agent for tests: Debian's snmpd (/usr/sbin/snmpd) on 127.0.0.1,
// on a free UDP port, with a generated configuration in a temporary folder.
//
//   tz::test::SnmpAgent agent({tz::test::override_integer("1.3.6.1.4.1.9.1.0", 7)});
//   ... walk or get "127.0.0.1:" + std::to_string(agent.port()), community "public" ...
//
// - The agent reads no system configuration (-C) and keeps its persistent
//   state in its own folder; it serves the community "public" to 127.0.0.1
//   for reading, and every `override` line given to it (fixed values at fixed
//   OIDs, how a test serves a private table). It runs as whoever runs the
//   tests, root included.
// - The constructor returns once the agent answers a real SNMP GET (of
//   sysDescr.0, through net-snmp's snmpget command, in bounded attempts); it
//   throws std::runtime_error with the agent's log when it never does. A port
//   taken between choosing and binding is retried with another.
// - stop() (and the destructor) ends the agent with SIGTERM and waits for
//   it; a walk after stop() gets no answer.
// - Header-only; needs nothing but POSIX, the snmpd and snmp packages and
//   temp_dir.h beside it. It does not touch net-snmp's library state in the
//   test process, so tests of code that starts the library see it untouched.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "temp_dir.h"

extern char** environ;

namespace tz::test {

// "override OID integer VALUE": the agent answers VALUE (INTEGER) at OID.
inline std::string override_integer(std::string_view oid, long value) {
    return "override " + std::string(oid) + " integer " + std::to_string(value);
}

// "override OID octet_str "TEXT"": the agent answers TEXT (OCTET STRING).
// TEXT must not hold a quotation mark or a line break.
inline std::string override_string(std::string_view oid, std::string_view text) {
    return "override " + std::string(oid) + " octet_str \"" + std::string(text) + "\"";
}

// The printer's profile table and the OID of one cell of it.
inline const std::string kProfileTable = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1";
inline std::string cell(int column, int row) {
    return kProfileTable + "." + std::to_string(column) + ".1." + std::to_string(row);
}

// One row of the printer's table: columns 1 to 5 and 7 (available).
inline std::vector<std::string> printer_row(int row, int source, const std::string& file, int cls) {
    return {override_integer(cell(1, row), row), override_integer(cell(2, row), source),
            override_string(cell(3, row), "Profile " + std::to_string(row)),
            override_string(cell(4, row), file), override_integer(cell(5, row), cls),
            override_integer(cell(7, row), 1)};
}

// Rows 1 to `rows`: file PRF<r>.ICC, source 5 or 4, class 1, 2, 3 in turn.
inline std::vector<std::string> printer_table(int rows) {
    std::vector<std::string> lines;
    for (int r = 1; r <= rows; ++r) {
        char file[32];
        std::snprintf(file, sizeof file, "PRF%05d.ICC", r);
        for (auto& line : printer_row(r, 4 + r % 2, file, (r - 1) % 3 + 1)) lines.push_back(line);
    }
    return lines;
}

// Runs `argv` with `env`, stdout and stderr to /dev/null; returns the child's
// pid or -1.
inline pid_t spawn_quiet(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    std::vector<char*> args, vars;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    for (const auto& v : env) vars.push_back(const_cast<char*>(v.c_str()));
    vars.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), vars.data());
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

// A UDP port on 127.0.0.1 that was free a moment ago.
inline uint16_t free_udp_port() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    ::close(fd);
    if (!ok) throw std::runtime_error("no free UDP port");
    return ntohs(addr.sin_port);
}

class SnmpAgent {
public:
    explicit SnmpAgent(const std::vector<std::string>& config_lines = {}) {
        std::string config = "rocommunity public 127.0.0.1\n"
                             "dontLogTCPWrappersConnects yes\n";
        for (const auto& line : config_lines) config += line + "\n";
        write_file(dir_.file("snmpd.conf"), config);
        for (int attempt = 0; attempt < 3 && pid_ < 0; ++attempt) start(free_udp_port());
        if (pid_ < 0) throw std::runtime_error("snmpd did not answer; its log:\n" + log());
    }
    ~SnmpAgent() { stop(); }
    SnmpAgent(const SnmpAgent&) = delete;
    SnmpAgent& operator=(const SnmpAgent&) = delete;

    uint16_t port() const { return port_; }
    // "127.0.0.1:PORT", the agent as the SNMP command-line tools name it.
    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }
    bool running() const { return pid_ > 0; }

    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    std::string log() const {
        try {
            return read_file(dir_.file("snmpd.log"));
        } catch (const std::exception&) {
            return "(no log)";
        }
    }

    // The environment for net-snmp's commands pointed at this agent: no MIB
    // loading, no user configuration, state kept in the agent's folder.
    std::vector<std::string> client_environment() const {
        return {"MIBS=", "SNMPCONFPATH=" + dir_.file("client"),
                "SNMP_PERSISTENT_DIR=" + dir_.file("client"), "HOME=" + dir_.path().string()};
    }

private:
    // Starts snmpd on `port` and waits until it answers; leaves pid_ at -1
    // when it exits (port taken) or never answers.
    void start(uint16_t port) {
        const std::vector<std::string> env = {"MIBS=", "SNMPCONFPATH=" + dir_.path().string(),
                                              "SNMP_PERSISTENT_DIR=" + dir_.file("persist"),
                                              "HOME=" + dir_.path().string()};
        const pid_t pid = spawn_quiet({"/usr/sbin/snmpd", "-f", "-C", "-c", dir_.file("snmpd.conf"),
                                       "-Lf", dir_.file("snmpd.log"),
                                       "udp:127.0.0.1:" + std::to_string(port)},
                                      env);
        if (pid < 0) return;
        constexpr int kAttempts = 150;  // each waits at most 0.2 s for an answer
        for (int i = 0; i < kAttempts; ++i) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) return;  // it gave up
            port_ = port;
            if (answers_get()) {
                pid_ = pid;
                return;
            }
        }
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
    }

    bool answers_get() const {
        const pid_t pid = spawn_quiet({"/usr/bin/snmpget", "-v1", "-c", "public", "-t", "0.2", "-r",
                                       "0", peer(), "1.3.6.1.2.1.1.1.0"},
                                      client_environment());
        int status = 0;
        if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return false;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    TempDir dir_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace tz::test
