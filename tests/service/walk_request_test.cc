// The walk request end to end: the paths made from the request, the walk
// against a real snmpd, the rebuilt file, the reply and the log line.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "service_call.h"
#include "profile_tables.h"
#include "request.h"
#include "service.h"
#include "snmp_agent.h"
#include "stderr_capture.h"

namespace tz::test {
namespace {

std::string walk_request(const std::string& user, const std::vector<std::string>& arguments) {
    return protocol::walk_request("ModelX", user, arguments);
}

std::vector<std::string> v1_walk(const std::string& peer) {
    return {"snmpwalk", "-v1", "-c", "public", "-t", "0.2", "-r", "0", peer, kProfileTable};
}

// The slots in use as Python's plistlib reads the file: per category
// "iNum FileName/InMenu ...".
std::string plistlib_view(const std::string& path) {
    return run_python(
        "import plistlib,sys\n"
        "p=plistlib.load(open(sys.argv[1],'rb'))\n"
        "for c in ('RGB','SIM','DST'):\n"
        "  d=p[c]; s=[(d['FileName']['FileName%04d'%i],d['InMenu']['InMenu%04d'%i]) for i in range(500)]\n"
        "  print(c,d['iNum'],' '.join('%s/%d'%x for x in s if x[1]))\n",
        "'" + path + "'");
}

TEST(WalkRequest, RewritesTheProfilePlistFromTheDevice) {
    const ProfilePaths paths;
    const Service service(paths.dir.prefix());
    Tables before;
    Tables::add(before.rgb, entry(1, 1, "PRF00001.ICC", 5));
    Tables::add(before.rgb, entry(9, 1, "BAD NAME.ICC"));
    Tables::add(before.sim, entry(2, 6, "OWN.ICC", 4, 3));
    ASSERT_EQ(before.write(), 0);

    SnmpAgent agent(printer_table(3));
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", v1_walk(agent.peer())), service), "iRet=0");
    EXPECT_EQ(plistlib_view(paths.current),
              "RGB 2 PRF00001.ICC/2 PRF00002.ICC/2\n"
              "SIM 2 OWN.ICC/6 PRF00003.ICC/2\n"
              "DST 1 PRF00003.ICC/2\n");
    paths.point();
    Tables after;
    ASSERT_EQ(after.read(), 0);
    EXPECT_EQ(after.dst.Entry[0].IndexOnDevice, 3);
    EXPECT_STREQ(after.dst.Entry[0].ProfileName, "Profile 3");
}

TEST(WalkRequest, At511ArgumentsWalksAndAbove511AnswersWithoutAWalk) {
    TempDir folder;
    const Service service(folder.prefix());
    const std::string plist = folder.file("alice-ModelX-profile.plist");
    SnmpAgent agent(printer_table(1));
    std::vector<std::string> arguments = v1_walk(agent.peer());
    arguments.insert(arguments.begin() + 1, 511 - arguments.size(), "-v1");
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", arguments), service), "iRet=0");
    EXPECT_EQ(plistlib_view(plist), "RGB 1 PRF00001.ICC/2\nSIM 0 \nDST 0 \n");

    ASSERT_EQ(::unlink(plist.c_str()), 0);
    arguments.insert(arguments.begin() + 1, "-v1");
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", arguments), service), "iRet=-1");
    EXPECT_FALSE(exists(plist));  // no walk, no rebuild
}

TEST(WalkRequest, RepliesThenLogsOneLine) {
    TempDir folder;
    const Service service(folder.prefix());
    // LOG_PERROR copies each log line to stderr, in order with the reply's.
    ::openlog("walk-request-test", LOG_PERROR, LOG_USER);
    StderrCapture capture;
    int replies = 0;
    service.mibwalk_XPC(walk_request("alice", {"snmpwalk", "-V"}), [&](const std::string& reply) {
        ++replies;
        std::fprintf(stderr, "reply %s\n", reply.c_str());
    });
    const std::string got = capture.finish();
    ::closelog();
    EXPECT_EQ(replies, 1);
    const std::string line = "xpc - mibwalk_XPC - iRet=-2";
    const std::size_t reply_at = got.find("reply iRet=-2\n"), log_at = got.find(line);
    ASSERT_NE(reply_at, std::string::npos) << got;
    ASSERT_NE(log_at, std::string::npos) << got;
    EXPECT_LT(reply_at, log_at);
    EXPECT_EQ(got.find(line, log_at + 1), std::string::npos) << "one line only";
}

TEST(WalkRequestDeathTest, PathsAreTakenLiterallyAndEndTheProcessWhenTooLong) {
    TempDir parent;
    const std::string odd = parent.file("100%s%n%d") + "/";
    std::filesystem::create_directory(odd);
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", {"snmpwalk"}), Service(odd)), "iRet=-1");
    EXPECT_TRUE(exists(odd + "alice-ModelX-profile.plist"));

    TempDir folder;
    const Service service(folder.prefix());
    // The current path fits in 255 characters; the spool path, 6 longer, not.
    const std::size_t fixed = folder.prefix().size() + std::strlen("-ModelX-profile.plist");
    const std::string too_long = walk_request(std::string(255 - fixed - 3, 'u'), {"snmpwalk"});
    EXPECT_DEATH(service.mibwalk_XPC(too_long, [](const std::string&) {}), "");
    const std::string fits = walk_request(std::string(255 - fixed - 6, 'u'), {"snmpwalk"});
    EXPECT_EQ(call(&Service::mibwalk_XPC, fits, service), "iRet=-1");
}

}  // namespace
}  // namespace tz::test
