#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "call.h"
#include "service.h"
#include "snmp_agent.h"
#include "temp_dir.h"
#include "tz_profile_store.h"

namespace {

using tz::Service;
using tz::test::call;
using tz::test::SnmpAgent;
using tz::test::TempDir;

const std::string kTable = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1";

std::string cell(int column, int row) {
    return kTable + "." + std::to_string(column) + ".1." + std::to_string(row);
}

std::vector<std::string> row_lines(int row, int source, const std::string& file, int cls) {
    return {tz::test::override_integer(cell(1, row), row),
            tz::test::override_integer(cell(2, row), source),
            tz::test::override_string(cell(3, row), "Device " + file),
            tz::test::override_string(cell(4, row), file),
            tz::test::override_integer(cell(5, row), cls),
            tz::test::override_integer(cell(7, row), 1)};
}

// "<model>:ModelName:END<user>:USErName:END" and the arguments, each followed
// by ":arg:".
std::string walk_request(const std::string& user, const std::vector<std::string>& arguments) {
    std::string request = "ModelX:ModelName:END" + user + ":USErName:END";
    for (const auto& a : arguments) request += a + ":arg:";
    return request;
}

std::vector<std::string> v1_walk(const std::string& peer) {
    return {"snmpwalk", "-v1", "-c", "public", "-t", "0.2", "-r", "0", peer, kTable};
}

ProfileEntry entry(int in_menu, int index, int cls, const char* file, int location) {
    ProfileEntry e;
    std::memset(&e, 0, sizeof e);
    e.IndexOnDevice = index;
    e.InMenu = in_menu;
    e.ProfileClass = cls;
    std::strncpy(e.FileName, file, sizeof e.FileName - 1);
    e.Location = location;
    return e;
}

struct Tables {
    ProfileTable t[3];
    Tables() { std::memset(t, 0, sizeof t); }
    void add(int category, const ProfileEntry& e) { t[category].Entry[t[category].iNum++] = e; }
};

// Reads or writes `path` with the store, pointing its path global there
// only for the call.
int32_t write_tables(const std::string& path, const Tables& tables) {
    TZ_PLIST_PROFILE_PATH = path.c_str();
    const int32_t result = TZPListWriteProfile_All(&tables.t[0], &tables.t[1], &tables.t[2]);
    TZ_PLIST_PROFILE_PATH = nullptr;
    return result;
}
Tables read_tables(const std::string& path) {
    Tables tables;
    TZ_PLIST_PROFILE_PATH = path.c_str();
    EXPECT_EQ(TZPListReadProfile_All(&tables.t[0], &tables.t[1], &tables.t[2]), 0) << path;
    TZ_PLIST_PROFILE_PATH = nullptr;
    return tables;
}

// The slots in use as Python's plistlib reads the file: per category
// "iNum: FileName/InMenu ...".
std::string plistlib_view(const std::string& path) {
    const std::string script =
        "import plistlib,sys\n"
        "p=plistlib.load(open(sys.argv[1],'rb'))\n"
        "for c in ('RGB','SIM','DST'):\n"
        "  d=p[c]; s=[(d['FileName']['FileName%04d'%i],d['InMenu']['InMenu%04d'%i]) for i in range(500)]\n"
        "  print(c,d['iNum'],' '.join('%s/%d'%x for x in s if x[1]))\n";
    TempDir dir;
    tz::test::write_file(dir.file("view.py"), script);
    FILE* out = ::popen(("/usr/bin/python3 " + dir.file("view.py") + " '" + path + "'").c_str(), "r");
    if (out == nullptr) return "";
    std::string text;
    for (int c; (c = std::fgetc(out)) != EOF;) text += static_cast<char>(c);
    ::pclose(out);
    return text;
}

TEST(WalkRequest, RewritesTheProfilePlistFromTheDeviceAndAfterAFailedWalk) {
    TempDir folder;
    const Service service(folder.prefix());
    const std::string plist = folder.file("alice-ModelX-profile.plist");
    Tables before;
    before.add(0, entry(1, 1, 1, "ABC.ICM", 4));
    before.add(0, entry(1, 9, 1, "BAD NAME.ICC", 4));
    before.add(1, entry(6, 2, 3, "SIMDST.ICC", 5));
    ASSERT_EQ(write_tables(plist, before), 0);

    // Rows 1, 2 and 5: a count of 3, so the rebuild reads rows 1 to 3 and
    // never sees row 5.
    std::vector<std::string> lines = row_lines(1, 4, "ABC.ICM", 1);
    for (const auto& l : row_lines(2, 5, "SIMDST.ICC", 3)) lines.push_back(l);
    for (const auto& l : row_lines(5, 4, "ROW5.ICC", 1)) lines.push_back(l);
    SnmpAgent agent(lines);
    const std::string request = walk_request("alice", v1_walk(agent.peer()));

    EXPECT_EQ(call(&Service::mibwalk_XPC, request, service), "iRet=0");
    EXPECT_EQ(plistlib_view(plist),
              "RGB 1 ABC.ICM/2\n"
              "SIM 1 SIMDST.ICC/4\n"
              "DST 1 SIMDST.ICC/2\n");
    const Tables after = read_tables(plist);
    EXPECT_EQ(after.t[2].Entry[0].IndexOnDevice, 2);
    EXPECT_STREQ(after.t[2].Entry[0].ProfileName, "Device SIMDST.ICC");

    agent.stop();
    EXPECT_EQ(call(&Service::mibwalk_XPC, request, service), "iRet=1");
    // Marks 1 and 2 became free slots, 4 became 6. The counts are written as
    // they were (freeing a slot does not recount); the store's reader
    // recounts.
    EXPECT_EQ(plistlib_view(plist),
              "RGB 1 \n"
              "SIM 1 SIMDST.ICC/6\n"
              "DST 1 \n");
    const Tables failed = read_tables(plist);
    EXPECT_EQ(failed.t[0].iNum, 0);
    EXPECT_EQ(failed.t[2].iNum, 0);
}

TEST(WalkRequest, ArgumentListEndsAtTheLastMarker) {
    TempDir folder;
    const Service service(folder.prefix());
    SnmpAgent agent(row_lines(1, 4, "ABC.ICM", 1));
    std::vector<std::string> arguments = v1_walk(agent.peer());
    arguments.resize(arguments.size() - 2);
    const std::string request = walk_request("alice", arguments);
    // Without its own ":arg:" the agent is dropped: the parser finds no agent.
    EXPECT_EQ(call(&Service::mibwalk_XPC, request + agent.peer(), service), "iRet=-1");
    EXPECT_EQ(call(&Service::mibwalk_XPC, request + agent.peer() + ":arg:", service), "iRet=0");
}

TEST(WalkRequest, At511ArgumentsWalksAndAbove511AnswersWithoutAWalk) {
    TempDir folder;
    const Service service(folder.prefix());
    const std::string plist = folder.file("alice-ModelX-profile.plist");
    SnmpAgent agent(row_lines(1, 4, "ABC.ICM", 1));
    std::vector<std::string> arguments = v1_walk(agent.peer());
    arguments.insert(arguments.begin() + 1, 511 - arguments.size(), "-v1");
    ASSERT_EQ(arguments.size(), 511u);
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", arguments), service), "iRet=0");
    EXPECT_EQ(plistlib_view(plist), "RGB 1 ABC.ICM/2\nSIM 0 \nDST 0 \n");

    ASSERT_EQ(::unlink(plist.c_str()), 0);
    arguments.insert(arguments.begin() + 1, "-v1");
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", arguments), service), "iRet=-1");
    EXPECT_FALSE(tz::test::exists(plist));  // no walk, no rebuild
}

TEST(WalkRequest, RepliesThenLogsOneLine) {
    TempDir folder;
    const Service service(folder.prefix());
    // LOG_PERROR makes the system log copy each line to stderr, in order with
    // what the reply writes there.
    ::openlog("walk-request-test", LOG_PERROR, LOG_USER);
    std::string text;
    for (const auto& [arguments, result] :
         {std::pair{std::vector<std::string>{"snmpwalk"}, -1},
          std::pair{std::vector<std::string>{"snmpwalk", "-V"}, -2}}) {
        std::fflush(stderr);
        const int saved = ::dup(STDERR_FILENO);
        FILE* capture = std::tmpfile();
        ::dup2(::fileno(capture), STDERR_FILENO);
        int replies = 0;
        service.mibwalk_XPC(walk_request("alice", arguments), [&](const std::string& reply) {
            ++replies;
            std::fprintf(stderr, "reply %s\n", reply.c_str());
        });
        std::fflush(stderr);
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
        std::rewind(capture);
        std::string got;
        for (int c; (c = std::fgetc(capture)) != EOF;) got += static_cast<char>(c);
        std::fclose(capture);
        EXPECT_EQ(replies, 1);
        const std::string line = "xpc - mibwalk_XPC - iRet=" + std::to_string(result);
        const std::size_t reply_at = got.find("reply iRet=" + std::to_string(result) + "\n");
        const std::size_t log_at = got.find(line);
        ASSERT_NE(reply_at, std::string::npos) << got;
        ASSERT_NE(log_at, std::string::npos) << got;
        EXPECT_LT(reply_at, log_at);
        EXPECT_EQ(got.find(line, log_at + 1), std::string::npos) << "one line only";
    }
    ::closelog();
}

TEST(WalkRequest, MissingMarkersThrowWithoutReplyOrFile) {
    TempDir folder;
    const Service service(folder.prefix());
    for (const char* request : {"ModelXalice:USErName:ENDsnmpwalk:arg:",
                                "ModelX:ModelName:ENDalice snmpwalk:arg:"}) {
        int replies = 0;
        EXPECT_THROW(service.mibwalk_XPC(request, [&](const std::string&) { ++replies; }),
                     std::out_of_range)
            << request;
        EXPECT_EQ(replies, 0);
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(WalkRequest, FolderIsTakenLiterally) {
    TempDir parent;
    const std::string folder = parent.file("100%s%n%d") + "/";
    std::filesystem::create_directory(folder);
    const Service service(folder);
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request("alice", {"snmpwalk"}), service), "iRet=-1");
    EXPECT_TRUE(tz::test::exists(folder + "alice-ModelX-profile.plist"));
}

TEST(WalkRequestDeathTest, APathThatDoesNotFitEndsTheProcess) {
    TempDir folder;
    const Service service(folder.prefix());
    // The current path fits in 255 characters; the spool path, 6 longer, not.
    const std::size_t fixed = folder.prefix().size() + std::strlen("-ModelX-profile.plist");
    const std::string user(255 - fixed - 3, 'u');
    const std::string request = walk_request(user, {"snmpwalk"});
    EXPECT_DEATH(service.mibwalk_XPC(request, [](const std::string&) {}), "");
    // One character less for the spool path to fit: the request is answered.
    const std::string fits(255 - fixed - 6, 'u');
    EXPECT_EQ(call(&Service::mibwalk_XPC, walk_request(fits, {"snmpwalk"}), service), "iRet=-1");
}

}  // namespace
