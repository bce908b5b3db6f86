// The operations on real files as {folder before, operation, request, reply, folder after}, each called through the
// C face the macOS front calls (so the rows also pin its routing), that face's UTF-16 conversion, and the walk request.
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "folder_text.h"
#include "plist_codec.h"
#include "private_folder.h"
#include "request.h"
#include "scripted_agent.h"
#include "service_call.h"
#include "snmp_agent.h"
#include "tz_service_bridge.h"
#include "tz_writes.h"

namespace tz::test {
namespace {

namespace fs = std::filesystem;

using Bridge = TZBridgeResult (*)(const char*, size_t);
const Bridge kProbe = TZBridge_tzPListIsAdminProfile_XPC, kSwap = TZBridge_tzPListSwapProfile_XPC,
             kExist = TZBridge_tzPListExistProfile_XPC, kRemove = TZBridge_tzPListRemove_XPC,
             kPlist = TZBridge_writeDictionaryToPlistFile_XPC, kPiece = TZBridge_writeDataToPlistFile_XPC,
             kFinish = TZBridge_writeDataToPlistFileRename_XPC, kWalk = TZBridge_mibwalk_XPC;

// The reply, or the range exception's message after "range: "; the last `cut` bytes are not passed.
std::string run(Bridge bridge, const std::string& request, std::size_t cut = 0) {
    const TZBridgeResult r = bridge(request.data(), request.size() - cut);
    return (r.outcome == TZ_BRIDGE_REPLY ? "" : r.outcome == TZ_BRIDGE_RANGE_EXCEPTION ? "range: " : "none: ") +
           std::string(r.text);
}
std::string S(int t, const char* c = "@cur", const char* p = "@prev") { return protocol::swap_request(t, c, p); }
std::string W(const std::string& n, const std::string& t) { return protocol::write_request("file://@" + n, t); }

// '@' in a request stands for the folder and its '/'; as_nobody runs it in a folder of mode 0755 as nobody.
struct Row {
    std::string what; std::string before; Bridge operation; std::string request; std::string reply;
    std::string after; bool as_nobody = false; std::size_t cut = 0;
};

TEST(Service, FileOperationsAnswerAndLeaveTheFolderAsExpected) {
    std::string big;  // several copy blocks, a zero byte in the second
    for (int i = 0; big.size() < 200000; ++i) big += "line " + std::to_string(i) + ",";
    big[70000] = '\0';
    const std::string range = "range: request: missing marker before \":USErName:END\"";
    ::umask(022);  // the first row's probe sets 002 for good: the files the later rows make are 0664
    std::vector<Row> rows = {
        {"probe of a new file sets the umask and leaves nothing", "", kProbe, "@f", "TRUE", ""},
        {"probe keeps a file", "f=keep me", kProbe, "@f", "TRUE", "f=keep me"},
        {"probe of a path without UTF-8 form", "", kProbe, "@bad\xff", "FALSE", ""},
        {"probe of a read-only file", "f(444)=ro", kProbe, "@f", "FALSE", "f(444)=ro", true},
        {"exist of a read-only file", "f(444)=ro", kExist, "@f", "TRUE", "f(444)=ro", true},
        {"remove reads only its length", "short=", kRemove, "@shorter", "TRUE", "", false, 2},
        {"swap 2 copies in blocks", "cur=" + big + ";prev=old", kSwap, S(2), "TRUE", "cur=" + big + ";prev=" + big},
        {"swap 2 of a link copies nothing", "cur->s;prev=old;s=secret", kSwap, S(2), "TRUE", "cur->s;prev=;s=secret"},
        {"swap 0 makes the previous copy current", "cur=c;prev=p", kSwap, S(0), "TRUE", "cur=p"},
        {"swap 0 without a previous copy", "cur=c", kSwap, S(0), "TRUE", ""},
        {"swap of an unknown type", "cur=c;prev=p", kSwap, S(3), "TRUE", "cur=c;prev=p"},
        {"swap 1 drops the previous, any current", "cur=c;prev=p", kSwap, S(1, "@no\xff"), "TRUE", "cur=c"},
        {"write to localhost", "", kPlist, "FILE://localhost@b:AddURL:ENDy", "TRUE", "b=y"},
        {"write to a URL without authority", "", kPlist, "file:@c:AddURL:ENDz", "TRUE", "c=z"},
        {"write drops a trailing slash", "", kPlist, W("t.plist/", "x"), "TRUE", "t.plist=x"},
        {"write of a text without UTF-8 form", "", kPlist, W("t", "\xc3"), "FALSE", ""},
        {"write to another host", "c=kept", kPlist, "file://otherhost@c:AddURL:ENDz", "FALSE", "c=kept"},
        {"old pieces not in UTF-8 are dropped", "t.dummy=\xff\xfe", kPiece, W("t", "new"), "TRUE", "t.dummy=new"},
        {"a piece without UTF-8 form", "t.dummy=AB", kPiece, W("t", "\xc3"), "FALSE", "t.dummy=AB"},
        {"a link is not followed", "k/;k/p=AB;t.dummy->k/p", kPiece, W("t", "CD"), "FALSE", "k/;k/p=AB;t.dummy->k/p"},
        {"finish without pieces deletes the target", "t=old", kFinish, "file://@t", "TRUE", ""},
        {"a walk without its user marker", "", kWalk, "M:ModelName:ENDu", range, ""},
    };
    // A FIFO or a socket at each path an operation opens is refused at once (a FIFO would block a plain open).
    for (const char* kind : {"|fifo", "|socket"})
        for (Row row : {Row{"probe", "f", kProbe, "@f", "FALSE", ""}, Row{"exist", "f", kExist, "@f", "FALSE", ""},
                        Row{"write", "f", kPlist, W("f", "x"), "FALSE", ""}, Row{"swap", "f", kSwap, S(2, "@f"), "TRUE",
                        ";prev="}, Row{"piece", "f.dummy", kPiece, W("f", "x"), "FALSE", ""}})
            rows.push_back({row.what + kind, row.before + kind, row.operation, row.request, row.reply,
                            row.before + kind + row.after});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TempDir dir;
        build(dir, row.before);
        const std::string request = at_folder(row.request, dir);
        std::string got = "not that, as nobody";
        const auto replies = [&] { return (got = run(row.operation, request, row.cut)) == row.reply ? 0 : 1; };
        if (row.as_nobody) fs::permissions(dir.path(), fs::perms{0755});
        EXPECT_EQ(row.as_nobody ? run_unprivileged(replies) : replies(), 0) << got << ", expected " << row.reply;
        EXPECT_EQ(listing(dir), row.after);
    }
    EXPECT_STREQ(kExist(nullptr, 0).text, "FALSE");
}

// The UTF-8 form of the first `count` units of `text` (all when not given).
std::string utf8(const std::u16string& text, std::size_t count = std::u16string::npos) {
    const std::vector<unsigned short> units(text.begin(), text.end());
    std::string out(3 * units.size(), '\0');
    out.resize(TZBridge_UTF8FromUTF16(units.data(), std::min(count, units.size()), out.data()));
    return out;
}

TEST(Bridge, UTF16EachUnitBecomesUTF8AndALoneSurrogateKeepsItsThreeBytes) {
    const struct { std::u16string units; std::string bytes; std::size_t count = std::u16string::npos; } rows[] = {
        {u"\x7F\x80\x7FF\x800\xFFFF", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {u"\xD83D\xDE00", "\xED\xA0\xBD", 1},                // high at the end of the count, a low past it
        {u"\xDC00\xDC00", "\xED\xB0\x80\xED\xB0\x80"},      // low without a high
        {u"\xD7FF\xDC00", "\xED\x9F\xBF\xED\xB0\x80"},      // just below the highs
        {u"\xD800\xE000", "\xED\xA0\x80\xEE\x80\x80"},      // just above the lows
        {u"\xD83D\xD83D\xDE00!", "\xED\xA0\xBD\xF0\x9F\x98\x80!"},  // a high before a pair
    };
    for (const auto& row : rows) EXPECT_EQ(utf8(row.units, row.count), row.bytes)
        << ::testing::PrintToString(std::vector<int>(row.units.begin(), row.units.end()));
}

// A link planted again and again at the previous file while swaps run: its target is never written.
TEST(Service, TheSwapNeverWritesThroughALinkPlantedBetweenItsUnlinkAndItsCreate) {
    TempDir dir;
    build(dir, "cur=mine;s=secret");
    std::atomic<bool> done{false};
    std::thread planter([&] { while (!done) ::symlink(dir.file("s").c_str(), dir.file("prev").c_str()); });
    for (int i = 0; i < 500; ++i) run(kSwap, at_folder(S(2), dir));
    done = true;
    planter.join();
    EXPECT_EQ(read_file(dir.file("s")), "secret");
}

// A temporary file past the plist size limit, or a piece that would take it past, is refused unread.
TEST(Service, PiecesPastThePlistSizeLimitAreRefusedAndTheExportedWriteTakesAnyBytes) {
    TempDir dir;
    for (const std::size_t size : {plist::kMaxFileBytes + 1, plist::kMaxFileBytes}) {
        fs::resize_file((write_file(dir.file("t.dummy"), ""), dir.file("t.dummy")), size);  // sparse
        EXPECT_EQ(run(kPiece, at_folder(W("t", "x"), dir)), "FALSE");
        EXPECT_EQ(fs::file_size(dir.file("t.dummy")), size);
    }
    EXPECT_EQ(run(kPiece, at_folder(W("t", ""), dir)), "TRUE");  // at the limit an empty piece still goes on
    // The exported function writes any bytes.
    const std::string bytes("bin\0\xff", 5), url = "file://" + dir.file("t");
    EXPECT_EQ(writeDictionaryToPlistFile_XPC(url.c_str(), bytes.data(), bytes.size()), 1);
    EXPECT_EQ(read_file(dir.file("t")), bytes);
    EXPECT_EQ(writeDictionaryToPlistFile_XPC(nullptr, "x", 1) + writeDictionaryToPlistFile_XPC(url.c_str(), nullptr, 1),
              0);
    EXPECT_TRUE(writeDictionaryToPlistFile_XPC(url.c_str(), nullptr, 0) == 1 && read_file(dir.file("t")).empty());
}

std::string walk(const Service& service, const std::string& user, const std::vector<std::string>& arguments) {
    return call(&Service::mibwalk_XPC, protocol::walk_request("ModelX", user, arguments), service);
}

// As two dialogs on macOS would (a service object each), two threads walk two printers whose tables differ, many
// times, and each leaves a lone walk's file. 511 arguments are the most a walk takes; the folder's name is no format.
TEST(WalkRequest, WalksFromTwoThreadsTakeTurnsAndTakeAtMost511ArgumentsAndTheirPathsLiterally) {
    const ScriptedAgent printers[2] = {ScriptedAgent(R"("rows": 9)"),
                                       ScriptedAgent(R"("rows": 14, "file": "D%d.ICM")")};
    const TempDir parent;
    const std::string folder = parent.file("100%s%n%d") + "/", users[2] = {"alice", "bob"};
    fs::create_directory(folder);
    std::vector<std::string> arguments[2];
    for (int i = 0; i < 2; ++i)
        arguments[i] = {"snmpwalk", "-v1", "-c", "public", "-r", "0", printers[i].peer(), kProfileTable};
    arguments[0].insert(arguments[0].begin() + 1, 511 - arguments[0].size(), "-v1");
    const auto walk_of = [&](int i) {  // from no file of this user's; the reply and the file, if any
        const std::string file = folder + users[i] + "-ModelX-profile";
        for (const char* suffix : {".plist", ".prev.plist", ".spool.plist"}) fs::remove(file + suffix);
        const std::string reply = walk(Service(folder), users[i], arguments[i]);
        return exists(file + ".plist") ? reply + read_file(file + ".plist") : reply;
    };
    testing::internal::CaptureStdout();  // the walks print their variables
    const std::string alone[2] = {walk_of(0), walk_of(1)};
    EXPECT_TRUE(alone[0].starts_with("iRet=0<") && alone[1].starts_with("iRet=0<")) << alone[0] << alone[1];
    for (int round = 0; round < 10; ++round) {
        std::string both[2];
        std::thread other([&] { both[1] = walk_of(1); });
        both[0] = walk_of(0);
        other.join();
        for (int i = 0; i < 2; ++i) EXPECT_EQ(both[i], alone[i]) << "printer " << i << ", round " << round;
    }
    arguments[0].insert(arguments[0].begin() + 1, "-v1");
    EXPECT_EQ(walk_of(0), "iRet=-1") << "512 arguments: no walk, no file";
    testing::internal::GetCapturedStdout();
}

// Before each walk a private folder is made (0700) when missing, then taken only as a folder of this user that neither
// group nor others may write; anything else gets a log line naming it, no walk (no file) and "iRet=1". The reply
// comes before the one line that logs it. A user name without a UTF-8 form names the files "(null)", as printf would.
TEST(WalkRequest, APrivateFolderIsCheckedBeforeEachWalkAndTheReplyComesBeforeItsLogLine) {
    // `said`: what the log line says about the folder; empty when the walk runs (and its parser refuses: -1).
    struct Case { const char* what, *layout; unsigned mode; uid_t owner; const char* said; };
    const Case cases[] = {
        {"missing: made 0700", "", 0, 0, ""},
        {"the group may read", "u/", 0750, ::geteuid(), ""},
        {"a link to a folder", "d/;u->d", 0, 0, "is a symbolic link owned by "},
        {"a file", "u=x", 0, 0, "is a file owned by "},
        {"the group may write", "u/", 0770, ::geteuid(), "that its group or others may write (mode 0770)"},
        {"another's folder", "u/", 0700, unprivileged_uid(), ::geteuid() == 0 ? "is a folder owned by no" : ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        build(dir, c.layout);
        const std::string folder = dir.file("u"), said = c.said, result = said.empty() ? "iRet=-1" : "iRet=1";
        if (c.mode != 0 && (::chmod(folder.c_str(), c.mode) | ::chown(folder.c_str(), c.owner, -1)) != 0) FAIL();
        ::openlog("walk-request-test", LOG_PERROR, LOG_USER);  // log lines to stderr too, in order
        testing::internal::CaptureStderr();
        Service(folder + "/", Service::Folder::private_to_user)
            .mibwalk_XPC(protocol::walk_request("ModelX", "\xfe", {"snmpwalk"}),
                         [](const std::string& reply) { std::fprintf(stderr, "<%s>", reply.c_str()); });
        const std::string got = testing::internal::GetCapturedStderr();
        ::closelog();
        const std::size_t folder_at = got.find("folder " + folder + "/ "), said_at = got.find(said, folder_at),
                          reply_at = got.find("<" + result + ">"), log_at = got.find("mibwalk_XPC - " + result);
        EXPECT_TRUE((said.empty() ? folder_at == std::string::npos : said_at < reply_at) && reply_at < log_at &&
                    log_at != std::string::npos && got.find("iRet", got.find('\n', log_at)) == std::string::npos)
            << got;
        EXPECT_EQ(exists(folder + "/(null)-ModelX-profile.plist"), said.empty());
        EXPECT_TRUE(c.mode != 0 || !said.empty() || fs::status(folder).permissions() == fs::perms::owner_all);
    }
    EXPECT_EQ(private_folder_problem("/").value_or("").find("cannot"), std::string::npos) << "\"/\" keeps its '/'";
}

// A user name that makes the spool path (6 longer than the current one) longer than 255 bytes ends the process.
TEST(WalkRequestDeathTest, AUserNameThatMakesAPathTooLongEndsTheProcess) {
    TempDir folder;
    const Service service(folder.prefix());
    const std::size_t fixed = folder.prefix().size() + sizeof "-ModelX-profile.spool.plist" - 1;
    EXPECT_DEATH(walk(service, std::string(256 - fixed, 'u'), {"snmpwalk"}), "");
    EXPECT_EQ(walk(service, std::string(255 - fixed, 'u'), {"snmpwalk"}), "iRet=-1");
}

}  // namespace
}  // namespace tz::test
