// Calls one operation of tz::Service and returns its reply: "no reply" when it gives none, its replies joined by
// " then " when it gives several, so that a comparison with the one expected reply fails.
#pragma once

#include <optional>

#include "service.h"

namespace tz::test {

inline std::string call(Service::Operation operation, std::string_view request, const Service& service = Service()) {
    std::optional<std::string> reply;
    (service.*operation)(request, [&](const std::string& text) { reply = reply ? *reply + " then " + text : text; });
    return reply.value_or("no reply");
}

}  // namespace tz::test
