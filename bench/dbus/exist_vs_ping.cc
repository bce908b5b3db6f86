// Throughput and latency of the helper's exist request against the bus's own
// round trip (org.freedesktop.DBus.Peer.Ping, answered inside the service's
// event loop) from the same concurrent callers, side by side in one run.
//
// Usage: dbus_exist_vs_ping ADDRESS [CLIENTS [SECONDS_PER_PHASE [ROUNDS]]]
// Prints one line per kind: "<kind> calls=<n> per_s=<rate> p50_us=<..> p99_us=<..>".
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "methods.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Tally {
    uint64_t calls = 0;
    double seconds = 0;
    std::vector<double> latencies_us;
};

// Runs `clients` callers, each on its own connection, for `seconds`; each
// sends one call after the other.
void phase(const std::string& address, int clients, double seconds, bool ping, Tally& tally) {
    std::vector<std::unique_ptr<sdbus::IConnection>> connections;
    std::vector<std::unique_ptr<sdbus::IProxy>> proxies;
    for (int i = 0; i < clients; ++i) {
        connections.push_back(sdbus::createSessionBusConnectionWithAddress(address));
        proxies.push_back(sdbus::createProxy(*connections.back(), std::string(tz::bus::kBusName),
                                             std::string(tz::bus::kObjectPath)));
    }
    std::vector<std::vector<double>> latencies(clients);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            sdbus::IProxy& proxy = *proxies[i];
            std::string reply;
            while (!stop.load(std::memory_order_relaxed)) {
                const auto t0 = Clock::now();
                if (ping) {
                    proxy.callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
                } else {
                    proxy.callMethod(std::string(tz::protocol::kExist.name))
                        .onInterface(std::string(tz::bus::kInterface))
                        .withArguments(std::string("/etc/hostname"))
                        .storeResultsTo(reply);
                }
                latencies[i].push_back(
                    std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& t : threads) t.join();
    tally.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& l : latencies) {
        tally.calls += l.size();
        tally.latencies_us.insert(tally.latencies_us.end(), l.begin(), l.end());
    }
}

double percentile(std::vector<double>& values, double p) {
    if (values.empty()) return 0;
    const size_t at = std::min(values.size() - 1, static_cast<size_t>(p * values.size()));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[at];
}

void print(const char* kind, Tally& tally) {
    std::printf("%s calls=%llu per_s=%.0f p50_us=%.1f p99_us=%.1f\n", kind,
                static_cast<unsigned long long>(tally.calls), tally.calls / tally.seconds,
                percentile(tally.latencies_us, 0.50), percentile(tally.latencies_us, 0.99));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s ADDRESS [CLIENTS [SECONDS [ROUNDS]]]\n", argv[0]);
        return 2;
    }
    const std::string address = argv[1];
    const int clients = argc > 2 ? std::atoi(argv[2]) : 8;
    const double seconds = argc > 3 ? std::atof(argv[3]) : 1.0;
    const int rounds = argc > 4 ? std::atoi(argv[4]) : 3;
    try {
        Tally warm, ping, exist;
        phase(address, clients, 0.3, false, warm);  // starts the service
        // Alternating phases, so that drift on a shared machine hits both.
        for (int r = 0; r < rounds; ++r) {
            phase(address, clients, seconds, true, ping);
            phase(address, clients, seconds, false, exist);
        }
        print("ping", ping);
        print("exist", exist);
    } catch (const sdbus::Error& e) {
        std::fprintf(stderr, "%s: %s: %s\n", argv[0], e.getName().c_str(), e.getMessage().c_str());
        return 1;
    }
    return 0;
}
