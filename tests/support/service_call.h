// Calls one operation of tz::Service and returns its reply; the test fails unless it replies exactly once.
#pragma once

#include <gtest/gtest.h>

#include "service.h"

namespace tz::test {

inline std::string call(Service::Operation operation, std::string_view request, const Service& service = Service()) {
    int replies = 0;
    std::string reply;
    (service.*operation)(request, [&](const std::string& text) { reply = text, ++replies; });
    EXPECT_EQ(replies, 1) << "for request " << request;
    return reply;
}

}  // namespace tz::test
