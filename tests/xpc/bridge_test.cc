// The C bridge of the macOS front: routing, range outcome, the length bounding a request, UTF-16 to UTF-8; walks
// from two threads at once take turns in the core.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "folder_text.h"
#include "request.h"
#include "service.h"
#include "snmp_agent.h"
#include "stderr_capture.h"
#include "tz_service_bridge.h"

namespace tz::test {
namespace {

using Bridge = TZBridgeResult (*)(const char*, size_t);

std::string outcome(const TZBridgeResult& r) {
    return std::string(r.outcome == TZ_BRIDGE_REPLY ? ""
                       : r.outcome == TZ_BRIDGE_RANGE_EXCEPTION ? "range: " : "none: ") + r.text;
}

std::string utf8(const std::u16string& text) {
    const std::vector<unsigned short> units(text.begin(), text.end());
    std::string out(3 * units.size(), '\0');
    out.resize(TZBridge_UTF8FromUTF16(units.data(), units.size(), out.data()));
    return out;
}

TEST(Bridge, EachFunctionReachesItsOwnOperation) {
    const std::string nul("a\0b", 3), range = "range: request: missing marker before \":AddURL:END\"";
    const auto W =
        [](const std::string& n, const std::string& t) { return protocol::write_request("file://@" + n, t); };
    // Each row's reply or folder after tells its operation from the others.
    const struct { Bridge bridge; std::string before, request, reply, after; } rows[] = {
        {TZBridge_tzPListIsAdminProfile_XPC, "", "@new", "TRUE", ""},
        {TZBridge_tzPListExistProfile_XPC, "d/", "@d", "TRUE", "d/"},
        {TZBridge_tzPListRemove_XPC, "d/", "@d", "TRUE", ""},
        {TZBridge_tzPListSwapProfile_XPC, "c=cur;p=old", protocol::swap_request(2, "@c", "@p"), "TRUE", "c=cur;p=cur"},
        {TZBridge_writeDictionaryToPlistFile_XPC, "", W("t", nul), "TRUE", "t=" + nul},
        {TZBridge_writeDataToPlistFile_XPC, "t.dummy=AB", W("t", "CD"), "TRUE", "t.dummy=ABCD"},
        {TZBridge_writeDataToPlistFileRename_XPC, "t.dummy=AB", "file://@t", "TRUE", "t=AB"},
        {TZBridge_writeDataToPlistFileRename_XPC, "", "not a url", "FALSE", ""},
        {TZBridge_writeDictionaryToPlistFile_XPC, "t=kept", "file://@t<plist/>", range, "t=kept"},
        {TZBridge_writeDataToPlistFile_XPC, "", "file://@t<plist/>", range, ""},
        // More arguments than the walk takes: refused before any SNMP work.
        {TZBridge_mibwalk_XPC, "", protocol::walk_request("M", "u", std::vector<std::string>(512, "-v")),
         "iRet=-1", ""},
    };
    for (const auto& row : rows) {
        TempDir dir;
        build(dir, row.before);
        const std::string request = at_folder(row.request, dir);
        EXPECT_EQ(outcome(row.bridge(request.data(), request.size())), row.reply) << request;
        EXPECT_EQ(listing(dir), row.after) << request;
    }
    TempDir dir;
    build(dir, "short=");
    const std::string longer = dir.file("shorter");  // only "short" belongs to the request
    EXPECT_EQ(outcome(TZBridge_tzPListRemove_XPC(longer.data(), longer.size() - 2)), "TRUE");
    EXPECT_EQ(outcome(TZBridge_tzPListExistProfile_XPC(nullptr, 0)), "FALSE");
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
    const struct { std::u16string units; std::string bytes; } rows[] = {
        {u"", ""},
        {u"\x7F\x80\x7FF\x800\xFFFF", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {u"\xD83D", "\xED\xA0\xBD"},                        // high at the end
        {u"\xDC00\xDC00", "\xED\xB0\x80\xED\xB0\x80"},      // low without a high
        {u"\xD7FF\xDC00", "\xED\x9F\xBF\xED\xB0\x80"},      // just below the highs
        {u"\xD800\xE000", "\xED\xA0\x80\xEE\x80\x80"},      // just above the lows
        {u"\xD83D\xD83D\xDE00!", "\xED\xA0\xBD\xF0\x9F\x98\x80!"},  // a high before a pair
    };
    for (const auto& row : rows) EXPECT_EQ(utf8(row.units), row.bytes)
        << ::testing::PrintToString(std::vector<int>(row.units.begin(), row.units.end()));
    EXPECT_EQ(TZBridge_UTF8FromUTF16(nullptr, 0, nullptr), 0u);
    const unsigned short pair[] = {0xD83D, 0xDE00};  // a high at the end of the count, a low past it: not read
    char three[6];
    EXPECT_EQ(TZBridge_UTF8FromUTF16(pair, 1, three), 3u);
}

}  // namespace
}  // namespace tz::test
