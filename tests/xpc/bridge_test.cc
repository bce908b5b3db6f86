// The C bridge of the macOS front: UTF-16 to UTF-8, and walks from two threads at once take turns in the core. Its
// routing, outcomes and request length are pinned by the service's rows, which call the operations through it.
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "request.h"
#include "service.h"
#include "snmp_agent.h"
#include "stderr_capture.h"
#include "temp_dir.h"
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

// As two dialogs on macOS would: two threads walk two printers whose tables differ in every column, many times.
TEST(Bridge, WalksFromTwoThreadsTakeTurnsAndEachLeavesTheFileOfALoneWalk) {
    std::vector<std::string> second;
    for (int r = 1; r <= 14; ++r)
        for (auto& line : printer_row(r, 5, "DST" + std::to_string(r) + ".ICM", 3)) second.push_back(line);
    const SnmpAgent printers[2] = {SnmpAgent(printer_table(9)), SnmpAgent(second)};
    const TempDir dir;
    const Service service(dir.prefix());  // the bridge's own folder does not exist here
    const auto walk = [&](int i) {
        std::string reply, user = i == 0 ? "alice" : "bob";
        service.mibwalk_XPC(protocol::walk_request("T48Q", user, {"snmpwalk", "-v", "1", "-c", "public", "-r", "0",
                                                                  printers[i].peer(), kProfileTable}),
                            [&](const std::string& r) { reply = r; });
        return reply + read_file(dir.file(user + "-T48Q-profile.plist"));
    };
    const StderrCapture quiet(STDOUT_FILENO);  // the walks print their variables
    std::string alone[2], both[2];
    for (int round = -1; round < 10; ++round) {
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) std::filesystem::remove(entry);
        if (round < 0) {
            for (int i = 0; i < 2; ++i) alone[i] = walk(i);
            continue;
        }
        std::thread other([&] { both[1] = walk(1); });
        both[0] = walk(0);
        other.join();
        for (int i = 0; i < 2; ++i) EXPECT_EQ(both[i], alone[i]) << "printer " << i << ", round " << round;
    }
    EXPECT_EQ(alone[0].substr(0, 7), "iRet=0<");
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
