// The C bridge of the macOS front: UTF-16 to UTF-8. Its routing, outcomes and request length are pinned by the
// service's rows, which call the operations through it; its walks' turns by the service's walk tests.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tz_service_bridge.h"

namespace tz::test {
namespace {

// The UTF-8 form of the first `count` units of `text` (all when not given).
std::string utf8(const std::u16string& text, std::size_t count = std::u16string::npos) {
    const std::vector<unsigned short> units(text.begin(), text.end());
    std::string out(3 * units.size(), '\0');
    out.resize(TZBridge_UTF8FromUTF16(units.data(), std::min(count, units.size()), out.data()));
    return out;
}

TEST(Bridge, UTF16EachUnitBecomesUTF8AndALoneSurrogateKeepsItsThreeBytes) {
    const struct { std::u16string units; std::string bytes; std::size_t count = std::u16string::npos; } rows[] = {
        {u"", ""},
        {u"\x7F\x80\x7FF\x800\xFFFF", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {u"\xD83D", "\xED\xA0\xBD"},                        // high at the end
        {u"\xD83D\xDE00", "\xED\xA0\xBD", 1},                // high at the end of the count, a low past it
        {u"\xDC00\xDC00", "\xED\xB0\x80\xED\xB0\x80"},      // low without a high
        {u"\xD7FF\xDC00", "\xED\x9F\xBF\xED\xB0\x80"},      // just below the highs
        {u"\xD800\xE000", "\xED\xA0\x80\xEE\x80\x80"},      // just above the lows
        {u"\xD83D\xD83D\xDE00!", "\xED\xA0\xBD\xF0\x9F\x98\x80!"},  // a high before a pair
    };
    for (const auto& row : rows) EXPECT_EQ(utf8(row.units, row.count), row.bytes)
        << ::testing::PrintToString(std::vector<int>(row.units.begin(), row.units.end()));
    EXPECT_EQ(TZBridge_UTF8FromUTF16(nullptr, 0, nullptr), 0u);
}

}  // namespace
}  // namespace tz::test
