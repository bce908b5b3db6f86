// The walk against net-snmp's own walkers, side by side in one run, on
// several table shapes (device_table.h): the 500-profile printer, the same
// with gaps, a switch's interface table, 12 profiles and snmpd's MIB-2 tree.
//  - Over delay_relay.py (a fixed delay each way on 127.0.0.1): mib_walk at
//    the default window against `snmpbulkwalk -v2c -Cr50` (window 1 too on
//    the MIB-2 tree), and the requests the agent received against the
//    sequential count (variables + 1).
//  - On plain loopback: the default window against window 1, interleaved.
// Prints the medians and the ratios against their goals.
//
// Usage: [TZ_BENCH_SHAPES=part-of-a-name] slow_link_bench [DELAY_MS_EACH_WAY [REPETITIONS [LOOPBACK_REPETITIONS]]]
//        (defaults 10, 5 and 21; a delay of 0 runs the loopback part only)
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

struct Shape {
    const char* name;
    std::string root;  // "": the walk's default, MIB-2
    std::vector<std::string> lines;
    double bulk_goal;  // over the relay, against snmpbulkwalk; 0: against window 1 instead
};

int32_t variables = 0;  // of the last walk

bool mib_walk_at(const std::string& peer, const std::string& root, int32_t window) {
    TZSetWalkWindow(window);
    std::vector<std::string> args = {"snmpwalk", "-v1", "-c", "public", "-t", "1", "-r", "1", peer};
    if (!root.empty()) args.push_back(root);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int32_t before = numprinted;
    const bool ok = mib_walk(static_cast<int32_t>(args.size()), argv.data()) == 0;
    variables = numprinted - before;
    return ok && variables > 0;
}

bool run_tool(const tz::test::SnmpAgent& agent, std::vector<std::string> argv) {
    return tz::test::wait_status(tz::test::spawn(argv, "/dev/null", "/dev/null", agent.client_environment())) == 0;
}

// The agent's count of packets received (snmpInPkts), -1 when it does not answer.
long packets_in(const tz::test::SnmpAgent& agent) {
    const auto count = agent.get("1.3.6.1.2.1.11.1.0");
    return count ? std::stol(*count) : -1;
}

// Whether `shape` is measured: all, or those whose name contains $TZ_BENCH_SHAPES.
bool chosen(const Shape& shape) {
    const char* only = std::getenv("TZ_BENCH_SHAPES");
    return only == nullptr || std::strstr(shape.name, only) != nullptr;
}

void ratio(const char* label, double value, const char* goal, bool met) {
    std::printf("  %-46s %8.2f   (goal %s) %s\n", label, value, goal, met ? "ok" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
    const int delay_ms = argc > 1 ? std::atoi(argv[1]) : 10;
    const int repetitions = std::max(1, argc > 2 ? std::atoi(argv[2]) : 5);
    const int loopback_repetitions = std::max(1, argc > 3 ? std::atoi(argv[3]) : 21);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int32_t default_window = TZGetWalkWindow();
    tz::test::TempDir folder;
    const std::string plist = folder.file("bench-profile.plist");
    TZ_PLIST_PROFILE_PATH = plist.c_str();
    char label[96];

    const std::vector<Shape> slow = {
        {"500 profiles", tz::bench::kTable, tz::bench::device_table(500), 1.5},
        {"500 profiles with gaps", tz::bench::kTable, tz::test::gapped_printer_table(), 1.5},
        {"switch interface table", tz::test::kSwitchTable, tz::test::switch_table(), 1.5},
        {"12 profiles", tz::bench::kTable, tz::bench::device_table(12), 2.0},
        {"MIB-2 of snmpd", "", {}, 0.0},
    };
    std::printf("over %d ms each way (median of %d): pipelined v1 | snmpbulkwalk -Cr50 or window 1 | requests\n",
                delay_ms, repetitions);
    for (const Shape& shape : slow) {
        if (delay_ms <= 0) break;  // the loopback part only
        if (!chosen(shape)) continue;
        tz::test::SnmpAgent agent(shape.lines);
        DelayRelay relay(agent, delay_ms);
        mib_walk_at(agent.peer(), shape.root, default_window);  // starts the library, warms snmpd
        const long before = packets_in(agent);
        const double pipelined = median([&] { return mib_walk_at(relay.peer(), shape.root, default_window); },
                                        repetitions);
        const double requests = static_cast<double>(packets_in(agent) - before - 1) / repetitions;
        const double sequential = variables + 1.0;
        double other = 0.0;
        if (shape.bulk_goal > 0.0) {
            std::vector<std::string> bulk = {"/usr/bin/snmpbulkwalk", "-v2c", "-c", "public", "-Cr50", "-On",
                                             relay.peer()};
            if (!shape.root.empty()) bulk.push_back(shape.root);
            other = median([&] { return run_tool(agent, bulk); }, repetitions);
        } else {
            other = median([&] { return mib_walk_at(relay.peer(), shape.root, 1); }, 1);
        }
        std::printf("%s: %d variables, %.3f s | %.3f s | %.0f sent, %.0f sequential\n", shape.name, variables,
                    pipelined, other, requests, sequential);
        if (shape.bulk_goal > 0.0) {
            std::snprintf(label, sizeof label, "  pipelined / snmpbulkwalk");
            ratio(label, pipelined / other, shape.bulk_goal > 1.5 ? "<= 2.0" : "<= 1.5",
                  pipelined <= shape.bulk_goal * other);
        } else {
            ratio("  pipelined / window 1", pipelined / other, "<= 1.0", pipelined <= other);
        }
        ratio("  requests / sequential", requests / sequential, "<= 1.25", requests <= 1.25 * sequential);
    }

    std::printf("plain loopback, default window / window 1 (medians of %d, interleaved)\n", loopback_repetitions);
    const std::vector<Shape> near = {
        {"1 profile", tz::bench::kTable, tz::bench::device_table(1), 0},
        {"12 profiles", tz::bench::kTable, tz::bench::device_table(12), 0},
        {"40 profiles", tz::bench::kTable, tz::bench::device_table(40), 0},
        {"150 profiles", tz::bench::kTable, tz::bench::device_table(150), 0},
        {"500 profiles", tz::bench::kTable, tz::bench::device_table(500), 0},
        {"switch interface table", tz::test::kSwitchTable, tz::test::switch_table(), 0},
    };
    for (const Shape& shape : near) {
        if (!chosen(shape)) continue;
        tz::test::SnmpAgent agent(shape.lines);
        mib_walk_at(agent.peer(), shape.root, default_window);
        std::vector<double> at_one, at_default;  // interleaved, so drift hits both
        for (int i = 0; i < loopback_repetitions; ++i) {
            at_one.push_back(seconds([&] { return mib_walk_at(agent.peer(), shape.root, 1); }));
            at_default.push_back(seconds([&] { return mib_walk_at(agent.peer(), shape.root, default_window); }));
        }
        std::sort(at_one.begin(), at_one.end());
        std::sort(at_default.begin(), at_default.end());
        const double one = at_one[at_one.size() / 2], many = at_default[at_default.size() / 2];
        std::snprintf(label, sizeof label, "%s (%.2f ms / %.2f ms)", shape.name, many * 1e3, one * 1e3);
        ratio(label, many / one, "<= 1.0", many <= one);
    }
    TZSetWalkWindow(default_window);
    TZ_PLIST_PROFILE_PATH = nullptr;
}
