// Sixteen callers at once on a private bus, each its own connection and
// thread, each with a window of calls in flight: every reply must be the one
// for its request and arrive in the caller's order, every caller's files must
// end as that caller wrote them, and the service must stay the same process.
//
// The requests of one caller touch only its own folder, so a model of that
// folder, advanced request by request in sending order, says what each reply
// must be. Exist answers depend on the swaps, renames and writes before them,
// so a reordered or misrouted call shows up as a wrong reply.
//
// TZ_LOAD_REQUESTS sets the number of requests per caller (default 10,000).
#include <poll.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <latch>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "bus_names.h"
#include "methods.h"
#include "helper_client.h"
#include "private_bus.h"
#include "temp_dir.h"

namespace {

using tz::test::PrivateBus;

constexpr int kCallers = 16;
constexpr std::size_t kWindow = 48;  // calls in flight per caller

int requests_per_caller() {
    const char* text = std::getenv("TZ_LOAD_REQUESTS");
    const int n = text != nullptr ? std::atoi(text) : 0;
    return n > 0 ? n : 10'000;
}

struct Request {
    std::string_view method;
    std::string text;
    std::string expected;
};

// One caller's folder as the service must leave it: the one-shot target, its
// previous copy (swaps), the piecewise target and its temporary file. No
// value means no file.
class CallerFiles {
public:
    CallerFiles(std::string folder, int caller) : folder_(std::move(folder)), caller_(caller) {}

    Request next(std::mt19937& rng, int serial) {
        const int pick = static_cast<int>(rng() % 100);
        const std::string tag = "c" + std::to_string(caller_) + "#" + std::to_string(serial);
        if (pick < 20) {
            const int which = static_cast<int>(rng() % 4);
            const std::string path = which == 0 ? oneshot_path() : which == 1 ? previous_path()
                                   : which == 2 ? pieces_path() : pieces_path() + ".dummy";
            const std::optional<std::string>& state = which == 0 ? oneshot_ : which == 1 ? previous_
                                                    : which == 2 ? pieces_ : dummy_;
            return {tz::protocol::kExist.name, path, state ? "TRUE" : "FALSE"};
        }
        if (pick < 28) {
            // A probe of a file leaves it as it was; one in a missing folder fails.
            if (rng() % 2 == 0) return {tz::protocol::kIsAdmin.name, oneshot_path(), "TRUE"};
            return {tz::protocol::kIsAdmin.name, folder_ + "missing/" + tag, "FALSE"};
        }
        if (pick < 63) {
            const std::string piece = tag + ";";
            dummy_ = dummy_.value_or("") + piece;
            return {tz::protocol::kWriteData.name, tz::client::write_request(url(pieces_path()), piece), "TRUE"};
        }
        if (pick < 68) {
            // The target goes first; without a temporary file nothing takes its place.
            pieces_ = std::move(dummy_);
            dummy_.reset();
            return {tz::protocol::kWriteDataRename.name, url(pieces_path()), "TRUE"};
        }
        if (pick < 85) {
            oneshot_ = "<plist>" + tag + "</plist>";
            return {tz::protocol::kWriteDictionary.name, tz::client::write_request(url(oneshot_path()), *oneshot_),
                    "TRUE"};
        }
        int type = 2;
        if (pick >= 91) type = pick < 96 ? 1 : 0;
        if (type == 2) {
            // A missing current file still leaves an empty previous one: the
            // open that creates it succeeds.
            previous_ = oneshot_.value_or("");
        } else if (type == 1) {
            previous_.reset();
        } else {
            oneshot_ = std::move(previous_);
            previous_.reset();
        }
        return {tz::protocol::kSwap.name, tz::client::swap_request(type, oneshot_path(), previous_path()), "TRUE"};
    }

    // Differences between the folder on disk and the model, "" when none.
    std::string compare_with_disk() const {
        std::string differences;
        const auto check = [&](const std::string& path, const std::optional<std::string>& want) {
            const bool there = tz::test::exists(path);
            if (there != want.has_value()) {
                differences += path + (there ? " exists\n" : " is missing\n");
            } else if (there && tz::test::read_file(path) != *want) {
                differences += path + " holds other content\n";
            }
        };
        check(oneshot_path(), oneshot_);
        check(previous_path(), previous_);
        check(pieces_path(), pieces_);
        check(pieces_path() + ".dummy", dummy_);
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder_)) ++files;
        const std::size_t expected = oneshot_.has_value() + previous_.has_value() +
                                     pieces_.has_value() + dummy_.has_value();
        if (files != expected)
            differences += folder_ + " holds " + std::to_string(files) + " files, not " +
                           std::to_string(expected) + "\n";
        return differences;
    }

private:
    static std::string url(const std::string& path) { return tz::client::file_url(path); }
    std::string oneshot_path() const { return folder_ + "profile.plist"; }
    std::string previous_path() const { return folder_ + "profile.prev.plist"; }
    std::string pieces_path() const { return folder_ + "pieces.plist"; }

    std::string folder_;
    int caller_;
    std::optional<std::string> oneshot_, previous_, pieces_, dummy_;
};

struct CallerResult {
    std::string unique_name;
    int wrong_replies = 0;
    int out_of_order = 0;
    std::string first_wrong;
    std::string stalled;  // why the caller gave up, if it did
};

// Sends `requests` with up to kWindow calls in flight and checks every reply
// as it arrives.
void run_caller(const std::string& address, const std::vector<Request>& requests, std::latch& ready,
                std::latch& go, CallerResult& result) {
    auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    auto proxy = sdbus::createProxy(*connection, std::string(tz::bus::kBusName),
                                    std::string(tz::bus::kObjectPath));
    result.unique_name = connection->getUniqueName();
    const std::string interface(tz::bus::kInterface);
    std::size_t sent = 0;
    std::size_t answered = 0;
    ready.count_down();
    go.wait();
    while (answered < requests.size()) {
        while (sent < requests.size() && sent - answered < kWindow) {
            const std::size_t serial = sent++;
            proxy->callMethodAsync(std::string(requests[serial].method))
                .onInterface(interface)
                .withArguments(requests[serial].text)
                .uponReplyInvoke([&, serial](const sdbus::Error* error, std::string reply) {
                    if (serial != answered) ++result.out_of_order;
                    const std::string got = error != nullptr ? error->getName() : reply;
                    if (got != requests[serial].expected && result.wrong_replies++ == 0)
                        result.first_wrong = "call " + std::to_string(serial) + " " +
                                             std::string(requests[serial].method) + "(" +
                                             requests[serial].text + ") answered " + got;
                    ++answered;
                });
        }
        if (connection->processPendingRequest()) continue;
        const auto data = connection->getEventLoopPollData();
        pollfd entry{data.fd, data.events, 0};
        if (::poll(&entry, 1, 120'000) < 1) {
            result.stalled = "no reply for 120 s after " + std::to_string(answered) + " replies";
            return;
        }
    }
}

TEST(Load, SixteenCallersOfMixedRequestsEachGetTheirOwnRepliesInOrder) {
    PrivateBus bus(0);  // no idle exit: the pid must stay the same throughout
    const int per_caller = requests_per_caller();

    std::vector<CallerFiles> files;
    std::vector<std::vector<Request>> requests(kCallers);
    for (int c = 0; c < kCallers; ++c) {
        const std::string folder = bus.prefs() + "c" + std::to_string(c) + "/";
        std::filesystem::create_directory(folder);
        files.emplace_back(folder, c);
        std::mt19937 rng(1000 + c);
        for (int i = 0; i < per_caller; ++i) requests[c].push_back(files[c].next(rng, i));
    }

    tz::client::BusError error;
    auto probe = tz::client::HelperClient::connect(bus.address(), &error);
    ASSERT_TRUE(probe) << error.message;
    ASSERT_EQ(probe->exist("/").reply, "TRUE");  // activates the service
    const pid_t service = bus.service_pid();
    ASSERT_GT(service, 0);

    std::vector<CallerResult> results(kCallers);
    std::latch ready(kCallers);
    std::latch go(1);
    std::vector<std::thread> threads;
    for (int c = 0; c < kCallers; ++c)
        threads.emplace_back(run_caller, bus.address(), std::cref(requests[c]), std::ref(ready),
                             std::ref(go), std::ref(results[c]));
    ready.wait();
    const auto start = std::chrono::steady_clock::now();
    go.count_down();
    for (auto& t : threads) t.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    const long total = static_cast<long>(kCallers) * per_caller;
    std::cout << "[ load ] " << total << " requests from " << kCallers << " callers in " << seconds
              << " s: " << static_cast<long>(total / seconds) << " requests/s\n";
    RecordProperty("requests_per_second", static_cast<int>(total / seconds));

    std::set<std::string> names;
    for (int c = 0; c < kCallers; ++c) {
        const CallerResult& r = results[c];
        names.insert(r.unique_name);
        EXPECT_EQ(r.stalled, "") << "caller " << c;
        EXPECT_EQ(r.wrong_replies, 0) << "caller " << c << ", first: " << r.first_wrong;
        EXPECT_EQ(r.out_of_order, 0) << "caller " << c;
        EXPECT_EQ(files[c].compare_with_disk(), "") << "caller " << c;
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kCallers)) << "one bus name per caller";

    EXPECT_EQ(bus.service_pid(), service) << "the service was restarted under load";
    auto after = tz::client::HelperClient::connect(bus.address(), &error);
    ASSERT_TRUE(after) << error.message;
    EXPECT_EQ(after->exist(bus.prefs()).reply, "TRUE");
    EXPECT_EQ(probe->exist("/").reply, "TRUE") << "an early caller is still served";
}

}  // namespace
