// A bus connection that records, as the text `decode` makes of each, the
// messages matching one rule, so that a test waits for a signal instead of
// sleeping. The match is in place when the constructor returns. One thread.
#pragma once

#include <poll.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

namespace tz::test {

class BusWatch {
public:
    BusWatch(const std::string& address, const std::string& rule, std::function<std::string(sdbus::Message&)> decode)
        : connection_(sdbus::createSessionBusConnectionWithAddress(address)) {
        slot_ = connection_->addMatch(rule, [this, decode](sdbus::Message& m) { seen_.push_back(decode(m)); });
    }

    // Reads what the bus delivers until `done(seen)` holds; false after `limit`.
    template <typename Done>
    bool wait_until(Done done, std::chrono::seconds limit = std::chrono::seconds(60)) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done(seen_)) {
            if (connection_->processPendingRequest()) continue;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
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
    sdbus::Slot slot_;
    std::vector<std::string> seen_;
};

}  // namespace tz::test
