// The walk over a slow link, side by side with net-snmp's own walkers, in one
// run: the 500-profile printer (3,500 variables) on snmpd behind
// delay_relay.py (a fixed delay each way on 127.0.0.1), walked by
//   - mib_walk at window 1 (one request at a time),
//   - mib_walk at the default window,
//   - `snmpwalk -v1` and `snmpbulkwalk -v2c -Cr50` processes;
// then mib_walk at both windows straight to snmpd (plain loopback).
// Prints the median wall time of each and the ratios against their goals.
//
// Usage: slow_link_bench [DELAY_MS_EACH_WAY [REPETITIONS [WINDOW1_REPETITIONS]]]
//        (defaults 10, 5 and 1: a window-1 walk over 20 ms takes over a minute)
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device_table.h"
#include "snmp_agent.h"
#include "temp_dir.h"
#include "tz_discovery.h"

namespace {

using Clock = std::chrono::steady_clock;

// delay_relay.py in a child process, between the walkers and `agent`.
class DelayRelay {
public:
    DelayRelay(const tz::test::SnmpAgent& agent, int delay_ms)
        : out_(::popen(("exec /usr/bin/python3 " TZ_DELAY_RELAY " " + std::to_string(agent.port()) +
                        " " + std::to_string(delay_ms))
                           .c_str(),
                       "r")) {
        char port[16] = {};
        if (out_ == nullptr || std::fgets(port, sizeof port, out_) == nullptr)
            throw std::runtime_error("the delay relay did not start");
        peer_ = "127.0.0.1:" + std::string(port, std::strlen(port) - 1);
    }
    ~DelayRelay() { ::pclose(out_); }
    const std::string& peer() const { return peer_; }

private:
    std::FILE* out_;
    std::string peer_;
};

double seconds(const std::function<bool()>& run) {
    const auto start = Clock::now();
    if (!run()) throw std::runtime_error("a measured walk failed");
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(const std::function<bool()>& run, int repetitions) {
    std::vector<double> times;
    for (int i = 0; i < repetitions; ++i) times.push_back(seconds(run));
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

bool mib_walk_at(const std::string& peer, int32_t window) {
    TZSetWalkWindow(window);
    std::vector<std::string> args = {"snmpwalk", "-v1", "-c", "public", "-t", "1", "-r", "1",
                                     peer, tz::bench::kTable};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int32_t before = numprinted;
    return mib_walk(static_cast<int32_t>(args.size()), argv.data()) == 0 &&
           numprinted - before == 3500;
}

bool run_tool(const tz::test::SnmpAgent& agent, std::vector<std::string> argv) {
    const pid_t pid = tz::test::spawn_quiet(argv, agent.client_environment());
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

void line(const char* label, double value) { std::printf("  %-44s %8.3f s\n", label, value); }

void ratio(const char* label, double value, const char* goal, bool met) {
    std::printf("  %-44s %8.2f   (goal %s) %s\n", label, value, goal, met ? "ok" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
    const int delay_ms = argc > 1 ? std::atoi(argv[1]) : 10;
    const int repetitions = std::max(1, argc > 2 ? std::atoi(argv[2]) : 5);
    const int window1_repetitions = std::max(1, argc > 3 ? std::atoi(argv[3]) : 1);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int32_t default_window = TZGetWalkWindow();

    tz::test::TempDir folder;
    const std::string plist = folder.file("bench-profile.plist");
    TZ_PLIST_PROFILE_PATH = plist.c_str();
    tz::test::SnmpAgent agent(tz::bench::device_table(500));
    DelayRelay relay(agent, delay_ms);
    const std::string& slow = relay.peer();
    mib_walk_at(agent.peer(), default_window);  // starts the library, warms snmpd

    std::printf("walk of 3,500 variables, %d ms each way (median of %d; window 1: %d)\n", delay_ms,
                repetitions, window1_repetitions);
    const double pipelined = median([&] { return mib_walk_at(slow, default_window); }, repetitions);
    const double bulk = median(
        [&] {
            return run_tool(agent, {"/usr/bin/snmpbulkwalk", "-v2c", "-c", "public", "-Cr50", "-On",
                                    slow, tz::bench::kTable});
        },
        repetitions);
    const double tool = median(
        [&] {
            return run_tool(agent, {"/usr/bin/snmpwalk", "-v1", "-c", "public", "-On", slow,
                                    tz::bench::kTable});
        },
        window1_repetitions);
    const double one = median([&] { return mib_walk_at(slow, 1); }, window1_repetitions);
    line("mib_walk, window 1", one);
    char label[64];
    std::snprintf(label, sizeof label, "mib_walk, window %d (default)", default_window);
    line(label, pipelined);
    line("snmpwalk -v1", tool);
    line("snmpbulkwalk -v2c -Cr50", bulk);
    ratio("pipelined / snmpbulkwalk", pipelined / bulk, "<= 1.5", pipelined <= 1.5 * bulk);
    ratio("window 1 / pipelined", one / pipelined, ">= 20", one >= 20 * pipelined);

    const int loopback_repetitions = 4 * repetitions + 1;
    std::printf("the same walk on plain loopback (median of %d)\n", loopback_repetitions);
    std::vector<double> at_one, at_default;  // interleaved, so drift hits both
    for (int i = 0; i < loopback_repetitions; ++i) {
        at_one.push_back(seconds([&] { return mib_walk_at(agent.peer(), 1); }));
        at_default.push_back(seconds([&] { return mib_walk_at(agent.peer(), default_window); }));
    }
    std::sort(at_one.begin(), at_one.end());
    std::sort(at_default.begin(), at_default.end());
    const double loop_one = at_one[at_one.size() / 2];
    const double loop_default = at_default[at_default.size() / 2];
    line("mib_walk, window 1", loop_one);
    line(label, loop_default);
    ratio("default window / window 1", loop_default / loop_one, "<= 1.05",
          loop_default <= 1.05 * loop_one);
    TZSetWalkWindow(default_window);
    TZ_PLIST_PROFILE_PATH = nullptr;
}
