// A bus connection that records the messages matching one rule, for tests
// that wait for a signal (a name that comes or goes, the walk's progress)
// instead of sleeping.
//
//   BusWatch watch(bus.address(), "type='signal',member='NameOwnerChanged'",
//                  [](sdbus::Message& m) { std::string n, o, w; m >> n >> o >> w; return n + " " + w; });
//   ... something that makes the bus send it ...
//   ASSERT_TRUE(watch.wait_until([](const auto& seen) { return !seen.empty(); }));
//
// The match is in place when the constructor returns. Each message is kept as
// the text `decode` makes of it. Use from one thread.
#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

namespace tz::test {

class BusWatch {
public:
    using Decode = std::function<std::string(sdbus::Message&)>;

    BusWatch(const std::string& address, const std::string& rule, Decode decode)
        : connection_(sdbus::createSessionBusConnectionWithAddress(address)), decode_(std::move(decode)) {
        slot_ = connection_->addMatch(rule, [this](sdbus::Message& message) {
            try {
                seen_.push_back(decode_(message));
            } catch (const sdbus::Error& e) {
                seen_.push_back("undecodable: " + e.getMessage());
            }
        });
    }

    // Reads what the bus delivers until `done(seen)` holds. False when it
    // still does not after `limit`, a bound for a hung test only.
    template <typename Done>
    bool wait_until(Done done, std::chrono::seconds limit = std::chrono::seconds(60)) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done(seen_)) {
            if (connection_->processPendingRequest()) continue;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            const auto data = connection_->getEventLoopPollData();
            pollfd entry{data.fd, data.events, 0};
            ::poll(&entry, 1, static_cast<int>(left.count()));
        }
        return true;
    }

    const std::vector<std::string>& seen() const { return seen_; }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    Decode decode_;
    sdbus::Slot slot_;
    std::vector<std::string> seen_;
};

}  // namespace tz::test
