// Sixteen callers at once, each with a window of calls in flight: every reply
// must be the one for its request, in the caller's order, every caller's files
// must end as a model of its folder says, and the service must stay the same
// process. Exist answers depend on the writes and renames before them, so a
// reordered or misrouted call shows up as a wrong reply.
// TZ_LOAD_REQUESTS sets the number of requests per caller (default 10,000).
#include <poll.h>

#include <iostream>
#include <latch>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "methods.h"
#include "private_bus.h"

namespace {

constexpr int kCallers = 16;
constexpr std::size_t kWindow = 48;  // calls in flight per caller

struct Request {
    std::string_view method;
    std::string text, expected;
};

// One caller's folder: the one-shot target, the piecewise target and its
// temporary file; no value means no file.
struct CallerFiles {
    std::string folder;
    std::optional<std::string> oneshot, pieces, dummy;

    Request next(std::mt19937& rng, const std::string& tag) {
        namespace p = tz::protocol;
        const std::string url = tz::client::file_url(folder + "pieces.plist");
        switch (rng() % 8) {
            case 0: return {p::kExist.name, folder + "pieces.plist", pieces ? "TRUE" : "FALSE"};
            case 1: return {p::kExist.name, folder + "pieces.plist.dummy", dummy ? "TRUE" : "FALSE"};
            case 2: return {p::kExist.name, folder + "one.plist", oneshot ? "TRUE" : "FALSE"};
            case 3:  // the target goes first; without a temporary file nothing takes its place
                pieces = std::exchange(dummy, std::nullopt);
                return {p::kWriteDataRename.name, url, "TRUE"};
            case 4:
                oneshot = tag;
                return {p::kWriteDictionary.name, tz::client::write_request(tz::client::file_url(folder + "one.plist"), tag), "TRUE"};
            case 5: return {p::kWriteData.name, url + tag, std::string(tz::bus::kRangeError)};
            default:
                dummy = dummy.value_or("") + tag + ";";
                return {p::kWriteData.name, tz::client::write_request(url, tag + ";"), "TRUE"};
        }
    }
    // Differences between the folder on disk and the model, "" when none.
    std::string compare_with_disk() const {
        std::string differences;
        std::size_t files = 0, expected = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++files;
        for (const auto& [name, want] : {std::pair{"one.plist", &oneshot}, {"pieces.plist", &pieces},
                                         {"pieces.plist.dummy", &dummy}}) {
            expected += want->has_value();
            if (tz::test::exists(folder + name) != want->has_value() ||
                (want->has_value() && tz::test::read_file(folder + name) != **want))
                differences += folder + name + " is not as written\n";
        }
        if (files != expected) differences += folder + " holds " + std::to_string(files) + " files\n";
        return differences;
    }
};

struct CallerResult {
    std::string unique_name, first_wrong, stalled;
    int wrong_replies = 0, out_of_order = 0;
};

void run_caller(const std::string& address, const std::vector<Request>& requests, std::latch& ready,
                CallerResult& result) {
    auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    auto proxy = sdbus::createProxy(*connection, std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath));
    result.unique_name = connection->getUniqueName();
    std::size_t sent = 0, answered = 0;
    ready.arrive_and_wait();
    while (answered < requests.size()) {
        for (; sent < requests.size() && sent - answered < kWindow; ++sent)
            proxy->callMethodAsync(std::string(requests[sent].method))
                .onInterface(std::string(tz::bus::kInterface))
                .withArguments(requests[sent].text)
                .uponReplyInvoke([&, serial = sent](const sdbus::Error* error, std::string reply) {
                    if (serial != answered++) ++result.out_of_order;
                    const std::string got = error != nullptr ? error->getName() : reply;
                    if (got != requests[serial].expected && result.wrong_replies++ == 0)
                        result.first_wrong = "call " + std::to_string(serial) + " " + requests[serial].text + ": " + got;
                });
        if (connection->processPendingRequest()) continue;
        const auto data = connection->getEventLoopPollData();
        pollfd entry{data.fd, data.events, 0};
        if (::poll(&entry, 1, 120'000) < 1) {
            result.stalled = "no reply for 120 s after " + std::to_string(answered);
            return;
        }
    }
}

TEST(Load, SixteenCallersOfMixedRequestsEachGetTheirOwnRepliesInOrder) {
    tz::test::PrivateBus bus(0);  // no idle exit: the pid must stay the same throughout
    const char* env = std::getenv("TZ_LOAD_REQUESTS");
    const int per_caller = env != nullptr && std::atoi(env) > 0 ? std::atoi(env) : 10'000;
    std::vector<CallerFiles> files(kCallers);
    std::vector<std::vector<Request>> requests(kCallers);
    for (int c = 0; c < kCallers; ++c) {
        files[c].folder = bus.prefs() + "c" + std::to_string(c) + "/";
        std::filesystem::create_directory(files[c].folder);
        std::mt19937 rng(1000 + c);
        for (int i = 0; i < per_caller; ++i)
            requests[c].push_back(files[c].next(rng, "c" + std::to_string(c) + "#" + std::to_string(i)));
    }
    auto probe = tz::test::connect(bus);
    ASSERT_TRUE(probe);
    ASSERT_EQ(tz::test::reply_of(probe->exist("/")), "TRUE");  // activates the service
    const pid_t service = bus.service_pid();

    std::vector<CallerResult> results(kCallers);
    std::latch ready(kCallers + 1);
    std::vector<std::thread> threads;
    for (int c = 0; c < kCallers; ++c)
        threads.emplace_back(run_caller, bus.address(), std::cref(requests[c]), std::ref(ready), std::ref(results[c]));
    ready.arrive_and_wait();
    const auto start = std::chrono::steady_clock::now();
    for (auto& t : threads) t.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::cout << "[ load ] " << kCallers * per_caller << " requests in " << seconds << " s\n";
    RecordProperty("requests_per_second", static_cast<int>(kCallers * per_caller / seconds));

    std::set<std::string> names;
    for (int c = 0; c < kCallers; ++c) {
        SCOPED_TRACE("caller " + std::to_string(c));
        names.insert(results[c].unique_name);
        EXPECT_EQ(results[c].stalled, "");
        EXPECT_EQ(results[c].wrong_replies, 0) << "first: " << results[c].first_wrong;
        EXPECT_EQ(results[c].out_of_order, 0);
        EXPECT_EQ(files[c].compare_with_disk(), "");
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kCallers)) << "one bus name per caller";
    EXPECT_EQ(bus.service_pid(), service) << "the service was restarted under load";
    EXPECT_EQ(tz::test::reply_of(probe->exist("/")), "TRUE") << "an early caller is still served";
}

}  // namespace
