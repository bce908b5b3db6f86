// Sixteen callers with windows of calls in flight (TZ_LOAD_REQUESTS each): replies in order, folders as modelled.
#include <poll.h>

#include <latch>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "methods.h"
#include "private_bus.h"

namespace {

constexpr int kCallers = 16;
constexpr std::size_t kWindow = 48;  // calls in flight per caller

struct Request { std::string_view method; std::string text, expected; };

// One caller's folder: the piecewise target and its temporary file; no value: no file.
struct CallerFiles {
    std::string folder;
    std::optional<std::string> pieces, dummy;

    Request next(std::mt19937& rng, const std::string& tag) {
        namespace p = tz::protocol;
        const std::string url = tz::client::file_url(folder + "pieces.plist");
        switch (rng() % 6) {
            case 0: return {p::kExist.name, folder + "pieces.plist", pieces ? "TRUE" : "FALSE"};
            case 1: return {p::kExist.name, folder + "pieces.plist.dummy", dummy ? "TRUE" : "FALSE"};
            case 2:  // the target goes first; without a temporary file nothing takes its place
                pieces = std::exchange(dummy, std::nullopt);
                return {p::kWriteDataRename.name, url, "TRUE"};
            case 3: return {p::kWriteData.name, url + tag, std::string(tz::bus::kRangeError)};
            default:
                dummy = dummy.value_or("") + tag + ";";
                return {p::kWriteData.name, tz::client::write_request(url, tag + ";"), "TRUE"};
        }
    }
    // Differences between the folder on disk and the model, "" when none.
    std::string compare_with_disk() const {
        std::string differences;
        for (const auto& [name, want] : {std::pair{"pieces.plist", &pieces}, {"pieces.plist.dummy", &dummy}})
            if (tz::test::exists(folder + name) != want->has_value() ||
                (want->has_value() && tz::test::read_file(folder + name) != **want))
                differences += folder + name + " is not as written\n";
        const auto files = std::distance(std::filesystem::directory_iterator(folder), {});
        return differences + (files == pieces.has_value() + dummy.has_value() ? "" : "other files\n");
    }
};

// Sends `requests` with up to kWindow calls in flight; `problem` says what went wrong first.
void run_caller(const std::string& address, const std::vector<Request>& requests, std::latch& ready,
                std::string& problem) {
    auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    auto proxy = sdbus::createProxy(*connection, std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath));
    std::size_t sent = 0, answered = 0;
    ready.arrive_and_wait();
    while (answered < requests.size() && problem.empty()) {
        for (; sent < requests.size() && sent - answered < kWindow; ++sent)
            proxy->callMethodAsync(std::string(requests[sent].method))
                .onInterface(std::string(tz::bus::kInterface))
                .withArguments(requests[sent].text)
                .uponReplyInvoke([&, serial = sent](const sdbus::Error* error, std::string reply) {
                    const std::string got = error != nullptr ? error->getName() : reply;
                    if (problem.empty() && (serial != answered || got != requests[serial].expected))
                        problem = "reply " + std::to_string(answered) + " for call " + std::to_string(serial) + " " +
                                  requests[serial].text + ": " + got;
                    ++answered;
                });
        if (connection->processPendingRequest()) continue;
        const auto data = connection->getEventLoopPollData();
        pollfd entry{data.fd, data.events, 0};
        if (::poll(&entry, 1, 120'000) < 1) problem = "no reply for 120 s after " + std::to_string(answered);
    }
}

TEST(Load, SixteenCallersOfMixedRequestsEachGetTheirOwnRepliesInOrder) {
    tz::test::PrivateBus bus(0);  // no idle exit: a restart would lose calls in flight
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
    ASSERT_EQ(tz::test::reply_of(probe->exist("/")), "TRUE");  // activates the service

    std::vector<std::string> problems(kCallers);
    std::latch ready(kCallers);
    std::vector<std::thread> threads;
    for (int c = 0; c < kCallers; ++c)
        threads.emplace_back(run_caller, bus.address(), std::cref(requests[c]), std::ref(ready), std::ref(problems[c]));
    for (auto& t : threads) t.join();
    for (int c = 0; c < kCallers; ++c) EXPECT_EQ(problems[c] + files[c].compare_with_disk(), "") << "caller " << c;
    EXPECT_EQ(tz::test::reply_of(probe->exist("/")), "TRUE") << "an early caller is still served";
}

}  // namespace
