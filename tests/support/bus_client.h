// The client library on a private bus: a connection that fails the test when
// it cannot be made, and a call's outcome as one comparable string.
#pragma once

#include <gtest/gtest.h>

#include "helper_client.h"
#include "private_bus.h"

namespace tz::test {

inline std::unique_ptr<tz::client::HelperClient> connect(const PrivateBus& bus) {
    tz::client::BusError error;
    auto client = tz::client::HelperClient::connect(bus.address(), &error);
    if (!client) ADD_FAILURE() << error.name << ": " << error.message;
    return client;
}

// The reply, or "error <name>: <message>".
inline std::string reply_of(const tz::client::Outcome& outcome) {
    return outcome.ok() ? outcome.reply : "error " + outcome.error->name + ": " + outcome.error->message;
}

}  // namespace tz::test
