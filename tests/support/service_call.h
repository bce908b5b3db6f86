// Calls one operation of tz::Service and returns its single reply; the test
// fails when the operation replies more or less than once.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "service.h"

namespace tz::test {

using Operation = void (Service::*)(std::string_view, const Service::Reply&) const;

inline std::string call(Operation operation, std::string_view request, const Service& service = Service()) {
    int replies = 0;
    std::string reply;
    (service.*operation)(request, [&](const std::string& text) {
        ++replies;
        reply = text;
    });
    EXPECT_EQ(replies, 1) << "for request " << request;
    return reply;
}

}  // namespace tz::test
