// The C bridge the macOS front calls: every operation reaches the right core
// operation and answers as it does, a request with a missing marker comes
// back as the range outcome naming the marker, the request's length (not a
// terminator) bounds it, and the UTF-16 conversion keeps fields apart.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "request.h"
#include "temp_dir.h"
#include "tz_service_bridge.h"

namespace tz::test {
namespace {

using Operation = TZBridgeResult (*)(const char*, size_t);
using tz::protocol::swap_request;
using tz::protocol::walk_request;
using tz::protocol::write_request;

TZBridgeResult call(Operation operation, const std::string& request) {
    return operation(request.data(), request.size());
}

// The reply of a request that must be answered.
std::string reply(Operation operation, const std::string& request) {
    const TZBridgeResult result = call(operation, request);
    EXPECT_EQ(result.outcome, TZ_BRIDGE_REPLY) << request << ": " << result.text;
    return result.text;
}

std::string utf8(const std::u16string& text) {
    const std::vector<unsigned short> units(text.begin(), text.end());
    std::string out(3 * units.size(), '\0');
    out.resize(TZBridge_UTF8FromUTF16(units.data(), units.size(), out.data()));
    return out;
}

class Bridge : public ::testing::Test {
protected:
    std::string url(const std::string& name) const { return "file://" + dir.file(name); }
    TempDir dir;
};

TEST_F(Bridge, FileOperationsReachTheirOwnCoreOperation) {
    // A folder opens for reading but not for writing, and only an empty one
    // can be removed: the three path operations answer differently on it.
    std::filesystem::create_directory(dir.file("full"));
    write_file(dir.file("full/inside"), "x");
    std::filesystem::create_directory(dir.file("empty"));

    EXPECT_EQ(reply(TZBridge_tzPListIsAdminProfile_XPC, dir.file("full")), "FALSE");
    EXPECT_EQ(reply(TZBridge_tzPListExistProfile_XPC, dir.file("full")), "TRUE");
    EXPECT_EQ(reply(TZBridge_tzPListRemove_XPC, dir.file("full")), "FALSE");
    EXPECT_EQ(reply(TZBridge_tzPListIsAdminProfile_XPC, dir.file("empty")), "FALSE");
    EXPECT_EQ(reply(TZBridge_tzPListExistProfile_XPC, dir.file("empty")), "TRUE");
    EXPECT_TRUE(exists(dir.file("empty")));
    EXPECT_EQ(reply(TZBridge_tzPListRemove_XPC, dir.file("empty")), "TRUE");
    EXPECT_FALSE(exists(dir.file("empty")));

    // The probe of a new path answers TRUE and leaves nothing behind.
    EXPECT_EQ(reply(TZBridge_tzPListIsAdminProfile_XPC, dir.file("new")), "TRUE");
    EXPECT_FALSE(exists(dir.file("new")));
    EXPECT_EQ(reply(TZBridge_tzPListExistProfile_XPC, dir.file("new")), "FALSE");

    // Swap type 2 saves the current file as the previous copy.
    write_file(dir.file("current"), "current profile");
    write_file(dir.file("previous"), "old");
    EXPECT_EQ(reply(TZBridge_tzPListSwapProfile_XPC, swap_request(2, dir.file("current"), dir.file("previous"))),
              "TRUE");
    EXPECT_EQ(read_file(dir.file("previous")), "current profile");
}

TEST_F(Bridge, WritesReachTheirOwnCoreOperation) {
    EXPECT_EQ(reply(TZBridge_writeDictionaryToPlistFile_XPC, write_request(url("one.plist"), "<plist/>")), "TRUE");
    EXPECT_EQ(read_file(dir.file("one.plist")), "<plist/>");
    EXPECT_FALSE(exists(dir.file("one.plist.dummy")));

    EXPECT_EQ(reply(TZBridge_writeDataToPlistFile_XPC, write_request(url("two.plist"), "AB")), "TRUE");
    EXPECT_EQ(reply(TZBridge_writeDataToPlistFile_XPC, write_request(url("two.plist"), "CD")), "TRUE");
    EXPECT_FALSE(exists(dir.file("two.plist")));
    EXPECT_EQ(reply(TZBridge_writeDataToPlistFileRename_XPC, url("two.plist")), "TRUE");
    EXPECT_EQ(read_file(dir.file("two.plist")), "ABCD");
    EXPECT_FALSE(exists(dir.file("two.plist.dummy")));

    EXPECT_EQ(reply(TZBridge_writeDataToPlistFileRename_XPC, "not a url"), "FALSE");
}

TEST_F(Bridge, MissingMarkerGivesTheRangeOutcomeNamingItAndTouchesNothing) {
    write_file(dir.file("a.plist"), "kept");
    for (const Operation op : {TZBridge_writeDictionaryToPlistFile_XPC, TZBridge_writeDataToPlistFile_XPC}) {
        const TZBridgeResult result = call(op, url("a.plist") + "<plist/>");
        EXPECT_EQ(result.outcome, TZ_BRIDGE_RANGE_EXCEPTION);
        EXPECT_NE(std::string(result.text).find(":AddURL:END"), std::string::npos) << result.text;
    }
    EXPECT_EQ(read_file(dir.file("a.plist")), "kept");
    EXPECT_FALSE(exists(dir.file("a.plist.dummy")));
}

TEST_F(Bridge, TooManyWalkArgumentsAreRefusedWithoutAWalk) {
    // More arguments than the walk takes: refused before any SNMP work, with
    // the parser's "refused" result.
    const std::string request = walk_request("ModelX", "alice", std::vector<std::string>(512, "-v"));
    EXPECT_EQ(reply(TZBridge_mibwalk_XPC, request), "iRet=-1");
}

TEST_F(Bridge, RequestIsBoundedByItsLengthNotByATerminator) {
    write_file(dir.file("short"), "");
    // Only the first bytes belong to the request: "short", not "shorter".
    const std::string longer = dir.file("shorter");
    EXPECT_EQ(TZBridge_tzPListRemove_XPC(longer.data(), longer.size() - 2).outcome, TZ_BRIDGE_REPLY);
    EXPECT_FALSE(exists(dir.file("short")));

    // A NUL inside the text is written like any other byte.
    const std::string text("a\0b", 3);
    EXPECT_EQ(reply(TZBridge_writeDictionaryToPlistFile_XPC, write_request(url("nul"), text)), "TRUE");
    EXPECT_EQ(read_file(dir.file("nul")), text);

    // No request at all is an empty path.
    const TZBridgeResult none = TZBridge_tzPListExistProfile_XPC(nullptr, 0);
    EXPECT_EQ(none.outcome, TZ_BRIDGE_REPLY);
    EXPECT_STREQ(none.text, "FALSE");
}

TEST(BridgeUTF16, EncodesEachUnitAsUTF8) {
    EXPECT_EQ(utf8(u"A/\u00e9\u20ac"), "A/\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(utf8(u"\U0001F600!"), "\xF0\x9F\x98\x80!");   // a surrogate pair
    EXPECT_EQ(utf8(u"\uFFFF\u0800\u07FF\u0080\u007F"), "\xEF\xBF\xBF\xE0\xA0\x80\xDF\xBF\xC2\x80\x7F");
    EXPECT_EQ(utf8(u""), "");
    EXPECT_EQ(TZBridge_UTF8FromUTF16(nullptr, 0, nullptr), 0u);
}

TEST(BridgeUTF16, LoneSurrogatesKeepTheirThreeByteForm) {
    const auto lone = [](std::vector<unsigned short> units) {
        std::string out(3 * units.size(), '\0');
        out.resize(TZBridge_UTF8FromUTF16(units.data(), units.size(), out.data()));
        return out;
    };
    EXPECT_EQ(lone({0xD83D}), "\xED\xA0\xBD");                 // high at the end
    EXPECT_EQ(lone({0xDE00, 'x'}), "\xED\xB8\x80x");           // low without a high
    EXPECT_EQ(lone({0xD83D, 'x'}), "\xED\xA0\xBDx");           // high not followed by a low
    EXPECT_EQ(lone({0xD83D, 0xD83D, 0xDE00}), "\xED\xA0\xBD\xF0\x9F\x98\x80");
    // The worst case fills exactly 3 bytes a unit (the buffer is sized so).
    EXPECT_EQ(lone({0xDC00, 0xDC00, 0xDC00, 0xDC00}).size(), 12u);
}

TEST_F(Bridge, LoneSurrogateSpoilsOnlyTheFieldThatHoldsIt) {
    // Swap type 1 drops the previous copy; the current path is not needed, so
    // a current path without a UTF-8 form must not stop it.
    const std::string prefix = dir.prefix();   // ASCII: a temporary folder
    const std::u16string folder(prefix.begin(), prefix.end());
    const std::string previous = dir.file("pr\u00e9c\u00e9dent");
    write_file(previous, "old");
    const std::u16string request = u"1:ARG_iSwapType" + folder + u"no\xD800where" +
                                   u":ARG_cFooCurrentString" + folder + u"pr\u00e9c\u00e9dent" +
                                   u":ARG_cFooPrevString";
    EXPECT_EQ(reply(TZBridge_tzPListSwapProfile_XPC, utf8(request)), "TRUE");
    EXPECT_FALSE(exists(previous));

    // A path that holds one has no UTF-8 form: no file is probed.
    const std::u16string spoiled = folder + u"new\xDFFF";
    EXPECT_EQ(reply(TZBridge_tzPListIsAdminProfile_XPC, utf8(spoiled)), "FALSE");
}

}  // namespace
}  // namespace tz::test
