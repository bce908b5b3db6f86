// Debian's snmpd on a free UDP port of 127.0.0.1, community "public" plus the given lines; ready once it answers a GET.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "temp_dir.h"

namespace tz::test {

inline std::string override_integer(std::string_view oid,
                                    long n) { return "override " + std::string(oid) + " integer " + std::to_string(n); }
inline std::string override_string(std::string_view oid, std::string_view text) {  // no quotation mark, no line break
    return "override " + std::string(oid) + " octet_str \"" + std::string(text) + "\"";
}

inline const std::string kProfileTable = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1";
inline std::string cell(int column,
                        int row) { return kProfileTable + "." + std::to_string(column) + ".1." + std::to_string(row); }

// Columns 1 to 5 and 7 (available) of one row of the printer's table.
inline std::vector<std::string> printer_row(int row, int source, const std::string& file, int cls) {
    return {override_integer(cell(1, row), row), override_integer(cell(2, row), source),
            override_string(cell(3, row), "Profile " + std::to_string(row)), override_string(cell(4, row), file),
            override_integer(cell(5, row), cls), override_integer(cell(7, row), 1)};
}

// Rows 1 to `rows`: file PRF<r>.ICC, source 5 or 4, class 1, 2, 3 in turn (as sample-printer, scripted_agent.py).
inline std::vector<std::string> printer_table(int rows) {
    std::vector<std::string> lines;
    for (int r = 1; r <= rows; ++r)
        for (auto& line :
             printer_row(r, 4 + r % 2, "PRF" + std::to_string(100000 + r).substr(1) + ".ICC", (r - 1) % 3 + 1))
            lines.push_back(line);
    return lines;
}

// Rows 0 to 500 with every third missing outside the runs 0-40, 100-140 and 495-500, and row 777; column 5 missing
// from every seventh row.
inline std::vector<std::string> gapped_printer_table() {
    std::vector<std::string> lines;
    const auto in_run = [](int r) { return r <= 40 || (r >= 100 && r <= 140) || (r >= 495 && r <= 500) || r == 777; };
    for (int r = 0; r <= 777; r += r < 500 ? 1 : 277)
        for (auto& line : printer_row(r, 4 + r % 2, "G" + std::to_string(r) + ".ICC", 1))
            if ((in_run(r) || r % 3 != 0) && (r % 7 != 0 || line.find(cell(5, r)) == std::string::npos))
                lines.push_back(line);
    return lines;
}

// A switch's interface table as one came from a device: 18 columns (1-10, 13-20), 59 rows with the indexes 1, 60, 70,
// 5185-5187, 11001-11048, 11101-11104, 14501; columns 9 and 14 lack two rows each.
inline const std::string kSwitchTable = "1.3.6.1.4.1.99991.2.2.1";
inline std::vector<std::string> switch_table() {
    std::vector<int> rows = {1, 60, 70, 5185, 5186, 5187, 14501};
    for (int r = 11001; r <= 11048; ++r) rows.push_back(r);
    for (int r = 11101; r <= 11104; ++r) rows.push_back(r);
    std::vector<std::string> lines;
    for (int c = 1; c <= 20; ++c)
        for (const int r : rows)
            if (c != 11 && c != 12 && !((c == 9 || c == 14) && (r == 70 || r == 11020)))
                lines.push_back(override_integer(kSwitchTable + "." + std::to_string(c) + "." + std::to_string(r),
                                                 c * 100000L + r));
    return lines;
}

// A UDP port on 127.0.0.1 that was free a moment ago.
inline uint16_t free_udp_port() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
                    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    ::close(fd);
    return ok ? ntohs(addr.sin_port) : throw std::runtime_error("no free UDP port");
}

class SnmpAgent {
public:
    explicit SnmpAgent(const std::vector<std::string>& config_lines = {}) {
        std::string config = "rocommunity public 127.0.0.1\ndontLogTCPWrappersConnects yes\n";
        for (const auto& line : config_lines) config += line + "\n";
        write_file(dir_.file("snmpd.conf"), config);
        for (int attempt = 0; attempt < 3 && pid_ < 0; ++attempt) start(free_udp_port());  // port taken: another
        if (pid_ < 0) throw std::runtime_error("snmpd did not answer; its log:\n" + log());
    }
    ~SnmpAgent() { if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0) ::waitpid(pid_, nullptr, 0); }
    SnmpAgent(const SnmpAgent&) = delete;
    uint16_t port() const { return port_; }
    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string log() const { return exists(dir_.file("snmpd.log")) ? read_file(dir_.file("snmpd.log")) : "(none)"; }
    std::vector<std::string> client_environment() const { return environment(dir_.file("client"),
                                                                              dir_.file("client")); }
    // The value of `oid` (a GET of 0.2 s, no retry), or nothing when none came.
    std::optional<std::string> get(const std::string& oid) const {
        const pid_t pid = spawn({"/usr/bin/snmpget", "-v1", "-c", "public", "-t", "0.2", "-r", "0", "-Oqv", peer(),
                                 oid}, dir_.file("got"), "/dev/null", client_environment());
        return wait_status(pid) == 0 ? std::optional(read_file(dir_.file("got"))) : std::nullopt;
    }

private:
    std::vector<std::string> environment(const std::string& config, const std::string& state) const {
        return {"MIBS=", "SNMPCONFPATH=" + config, "SNMP_PERSISTENT_DIR=" + state, "HOME=" + dir_.path().string()};
    }
    // Leaves pid_ at -1 when snmpd exits (port taken) or does not answer 150 GETs of 0.2 s.
    void start(uint16_t port) {
        port_ = port;
        const pid_t pid = spawn({"/usr/sbin/snmpd", "-f", "-C", "-c", dir_.file("snmpd.conf"), "-Lf",
                                 dir_.file("snmpd.log"), "udp:" + peer()},
                                "/dev/null", "/dev/null", environment(dir_.path().string(), dir_.file("persist")));
        for (int i = 0; pid > 0 && i < 150; ++i) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) return;  // it gave up
            if (get("1.3.6.1.2.1.1.1.0")) return void(pid_ = pid);
        }
        if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }

    TempDir dir_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace tz::test
