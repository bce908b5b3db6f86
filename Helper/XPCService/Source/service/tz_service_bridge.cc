// The C face of tz::Service for the macOS front (see tz_service_bridge.h).
// Each call runs one request on a service object of its own and turns the
// outcome into a plain value: the reply, or the range exception's message.
#include "tz_service_bridge.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "service.h"

static_assert(sizeof(unsigned short) == 2, "UTF-16 code units are 16 bits");

namespace {

TZBridgeResult make_result(TZBridgeOutcome outcome, std::string_view text) {
    TZBridgeResult result{};
    result.outcome = outcome;
    const std::size_t n = std::min(text.size(), sizeof result.text - 1);
    std::memcpy(result.text, text.data(), n);
    return result;
}

// noexcept: the only exception the operations raise is the range exception;
// anything else (memory exhausted) ends the process here rather than
// unwinding into C or Objective-C frames.
TZBridgeResult run(tz::Service::Operation operation, const char* request, std::size_t length) noexcept {
    const std::string_view text = length == 0 ? std::string_view() : std::string_view(request, length);
    const tz::Service service;
    std::optional<std::string> reply;
    try {
        (service.*operation)(text, [&reply](const std::string& answer) { reply = answer; });
    } catch (const std::out_of_range& range) {
        return make_result(TZ_BRIDGE_RANGE_EXCEPTION, range.what());
    }
    if (!reply) return make_result(TZ_BRIDGE_NO_REPLY, {});
    return make_result(TZ_BRIDGE_REPLY, *reply);
}

void put(char*& out, unsigned value) { *out++ = static_cast<char>(value); }

}  // namespace

extern "C" {

size_t TZBridge_UTF8FromUTF16(const unsigned short* units, size_t count, char* out) {
    char* const start = out;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned unit = units[i];
        if (unit < 0x80) {
            put(out, unit);
        } else if (unit < 0x800) {
            put(out, 0xC0 | (unit >> 6));
            put(out, 0x80 | (unit & 0x3F));
        } else if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < count && units[i + 1] >= 0xDC00 &&
                   units[i + 1] < 0xE000) {
            const unsigned point = 0x10000 + ((unit - 0xD800) << 10) + (units[i + 1] - 0xDC00);
            ++i;
            put(out, 0xF0 | (point >> 18));
            put(out, 0x80 | ((point >> 12) & 0x3F));
            put(out, 0x80 | ((point >> 6) & 0x3F));
            put(out, 0x80 | (point & 0x3F));
        } else {
            // Every other unit, a lone surrogate included, takes three bytes.
            put(out, 0xE0 | (unit >> 12));
            put(out, 0x80 | ((unit >> 6) & 0x3F));
            put(out, 0x80 | (unit & 0x3F));
        }
    }
    return static_cast<std::size_t>(out - start);
}

// Each function runs the service's operation of the same name, which the
// service holds to the protocol's table.
#define TZ_BRIDGE(method)                                                   \
    TZBridgeResult TZBridge_##method(const char* request, size_t length) { \
        return run(&tz::Service::method, request, length);                  \
    }

TZ_BRIDGE(tzPListIsAdminProfile_XPC)
TZ_BRIDGE(tzPListSwapProfile_XPC)
TZ_BRIDGE(tzPListExistProfile_XPC)
TZ_BRIDGE(tzPListRemove_XPC)
TZ_BRIDGE(writeDictionaryToPlistFile_XPC)
TZ_BRIDGE(writeDataToPlistFile_XPC)
TZ_BRIDGE(writeDataToPlistFileRename_XPC)
TZ_BRIDGE(mibwalk_XPC)

#undef TZ_BRIDGE

}  // extern "C"
