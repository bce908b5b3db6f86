#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "discovery_support.h"
#include "scripted_agent.h"
#include "snmp_agent.h"

namespace {

using tz::test::cell;
using tz::test::entry;
using tz::test::kTable;
using tz::test::ProfileFiles;
using tz::test::ScriptedAgent;
using tz::test::SnmpAgent;
using tz::test::Tables;
using tz::test::v1;
using tz::test::walk;

// The printer's table as snmpd serves it: rows 1..n (or the given rows),
// seven columns each.
std::vector<std::string> table_lines(const std::vector<int>& rows) {
    std::vector<std::string> lines;
    for (const int r : rows) {
        char name[32];
        std::snprintf(name, sizeof name, "PRF%05d.ICC", r);
        lines.push_back(tz::test::override_integer(cell(1, r), r));
        lines.push_back(tz::test::override_integer(cell(2, r), 4));
        lines.push_back(tz::test::override_string(cell(3, r), "Profile " + std::to_string(r)));
        lines.push_back(tz::test::override_string(cell(4, r), name));
        lines.push_back(tz::test::override_integer(cell(5, r), 1));
        lines.push_back(tz::test::override_integer(cell(6, r), 0));
        lines.push_back(tz::test::override_integer(cell(7, r), 1));
    }
    return lines;
}

std::vector<int> rows_up_to(int n) {
    std::vector<int> rows;
    for (int r = 1; r <= n; ++r) rows.push_back(r);
    return rows;
}

// What net-snmp's own walker prints for the same agent and root, one line
// per variable.
int snmpwalk_lines(const SnmpAgent& agent, const std::string& root) {
    std::string command = "env -i";
    for (const auto& var : agent.client_environment()) command += " '" + var + "'";
    command += " /usr/bin/snmpwalk -v1 -c public -On -t 0.2 -r 0 " + agent.peer() + " " + root;
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return -1;
    int lines = 0;
    for (int c; (c = std::fgetc(out)) != EOF;) lines += c == '\n';
    ::pclose(out);
    return lines;
}

// Collects what is written to stderr while it lives.
class StderrCapture {
public:
    StderrCapture() : file_(std::tmpfile()), saved_(::dup(STDERR_FILENO)) {
        std::fflush(stderr);
        ::dup2(::fileno(file_), STDERR_FILENO);
    }
    std::string finish() {
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        std::string text;
        std::rewind(file_);
        for (int c; (c = std::fgetc(file_)) != EOF;) text += static_cast<char>(c);
        return text;
    }
    ~StderrCapture() {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        std::fclose(file_);
    }

private:
    FILE* file_;
    int saved_;
};

TEST(WalkRealAgent, SpoolsTheWholeTableAndCountsWhatSnmpwalkPrints) {
    ProfileFiles files;
    SnmpAgent agent(table_lines(rows_up_to(500)));
    const int32_t before = numprinted;
    // A root followed by more arguments: only the first is the root.
    std::vector<std::string> args = v1(agent.peer(), kTable);
    args.push_back("1.3.6.1.2.1");
    EXPECT_EQ(walk(args), 0);
    EXPECT_EQ(numprinted - before, snmpwalk_lines(agent, kTable));
    EXPECT_EQ(numprinted - before, 3500);
    EXPECT_EQ(PlistForSpool.iNum, 500);
    EXPECT_STREQ(PlistForSpool.Entry[499].FileName, "PRF00500.ICC");

    Tables written;
    ASSERT_EQ(written.read(), 0);
    EXPECT_EQ(written.rgb.iNum, 500);
    EXPECT_EQ(written.rgb.Entry[499].InMenu, 2);
}

TEST(WalkRealAgent, ASecondWalkParsesItsOwnArguments) {
    ProfileFiles files;
    SnmpAgent agent(table_lines({1, 2, 5}));
    ScriptedAgent other(R"([{"error": 2}])");
    // Options clustered and split differently in the two walks.
    EXPECT_EQ(walk({"-v1", "-cpublic", "-t", "0.2", "-r0", agent.peer(), kTable}), 0);
    EXPECT_EQ(PlistForSpool.iNum, 3);
    EXPECT_EQ(walk({"-r", "0", "-t0.2", "-v", "1", "-c", "public", other.peer(), kTable + ".4"}),
              0);
    EXPECT_EQ(other.requests(), std::vector<std::string>{"getnext " + kTable + ".4"});
    EXPECT_EQ(PlistForSpool.iNum, 0);
}

TEST(WalkRealAgent, AStoppedAgentIsAFailedWalk) {
    ProfileFiles files;
    Tables before;
    before.add(0, entry(2, 1, 1, "A.ICC", 4));
    before.add(0, entry(4, 2, 1, "B.ICC", 4));
    ASSERT_EQ(before.write(), 0);
    SnmpAgent agent;
    const std::string peer = agent.peer();
    agent.stop();

    EXPECT_EQ(walk(v1(peer, kTable)), 1);
    Tables after;
    ASSERT_EQ(after.read(), 0);
    ASSERT_EQ(after.rgb.iNum, 1);
    EXPECT_STREQ(after.rgb.Entry[0].FileName, "B.ICC");
    EXPECT_EQ(after.rgb.Entry[0].InMenu, 6);
}

TEST(WalkScripted, AgentErrorStatusKeepsWhatCameBefore) {
    ProfileFiles files;
    ScriptedAgent agent("[{\"oid\": \"" + cell(1, 1) + "\", \"int\": 1}, {\"error\": 5}]");
    EXPECT_EQ(walk(v1(agent.peer(), kTable)), 2);
    EXPECT_EQ(PlistForSpool.iNum, 1);
}

TEST(WalkScripted, NoAnswerIsAFailure) {
    ProfileFiles files;
    ScriptedAgent agent("[]");
    EXPECT_EQ(walk(v1(agent.peer(), kTable)), 1);
    EXPECT_EQ(agent.requests().size(), 1u);  // no retries with -r 0
}

TEST(WalkScripted, EndOfMibViewInsideTheSubtreeEndsTheWalkCounted) {
    ProfileFiles files;
    ScriptedAgent agent("[{\"oid\": \"" + cell(1, 1) + "\", \"int\": 1}, {\"oid\": \"" +
                        cell(1, 2) + "\", \"endOfMibView\": true}]");
    const int32_t before = numprinted;
    std::vector<std::string> args = v1(agent.peer(), kTable);
    args[0] = "-v2c";
    EXPECT_EQ(walk(args), 0);
    EXPECT_EQ(numprinted - before, 2);
    EXPECT_EQ(PlistForSpool.iNum, 1);
    EXPECT_EQ(PlistForSpool.Entry[1].IndexOnDevice, 0);
    EXPECT_EQ(agent.requests().size(), 2u);
}

TEST(WalkScripted, AnOidThatDoesNotIncreaseStopsTheWalk) {
    ProfileFiles files;
    ScriptedAgent agent("[{\"repeat\": 5, \"oid\": \"" + cell(1, 1) + "\", \"int\": 1}]");
    std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
    EXPECT_EQ(walk(v1(agent.peer(), kTable)), 1);
    EXPECT_EQ(agent.requests().size(), 2u);
    // The operands are the raw bytes of the sub-identifier words: 0x01 each.
    EXPECT_STREQ(sDEBUGmsg, "[SNMP] Error: OID not increasing: \x01 >= \x01");
    EXPECT_EQ(PlistForSpool.iNum, 2);  // both answers were spooled
}

TEST(WalkScripted, WithoutTheOrderingCheckTheSameOidIsAskedAgain) {
    ProfileFiles files;
    ScriptedAgent agent("[{\"repeat\": 5, \"oid\": \"" + cell(1, 1) + "\", \"int\": 1}]");
    std::vector<std::string> args = v1(agent.peer(), kTable);
    args.insert(args.begin(), "-Cc");
    EXPECT_EQ(walk(args), 1);  // ends only when the agent falls silent
    const auto requests = agent.requests();
    ASSERT_EQ(requests.size(), 6u);
    EXPECT_EQ(requests[5], "getnext " + cell(1, 1));
    EXPECT_EQ(PlistForSpool.iNum, 5);
    EXPECT_TRUE(netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, 3));  // the toggle persists
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, 3, 0);
}

TEST(WalkScripted, IncludeRequestedGetsTheRootFirst) {
    ProfileFiles files;
    ScriptedAgent agent("[{\"oid\": \"" + kTable + "\", \"int\": 3}, {\"error\": 2}]");
    std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
    std::vector<std::string> args = v1(agent.peer(), kTable);
    args.insert(args.begin(), "-Cxi");
    EXPECT_EQ(walk(args), 0);  // the unknown letter is only noted
    EXPECT_STREQ(sDEBUGmsg, "Unknown flag passed to -C: x\n");
    EXPECT_EQ(agent.requests(),
              (std::vector<std::string>{"get " + kTable, "getnext " + kTable}));
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, 1, 0);
}

TEST(WalkScripted, WithoutARootWalksMib2) {
    ProfileFiles files;
    ScriptedAgent agent(R"([{"error": 2}])");
    EXPECT_EQ(walk({"-v1", "-c", "public", "-t", "0.2", "-r", "0", agent.peer()}), 0);
    ASSERT_FALSE(agent.requests().empty());
    EXPECT_EQ(agent.requests()[0], "getnext 1.3.6.1.2.1");
}

TEST(WalkArguments, RefusalsRebuildAsFailedAndPrintNothing) {
    ProfileFiles files;
    struct Case {
        std::vector<std::string> args;
        int32_t result;
    };
    const Case cases[] = {
        {{"-v1", "-c", "public"}, -1},  // no agent
        {{"-V"}, -2},
        {{"-v3", "-l", "authNoPriv", "-u", "u", "-a", "MD5", "-A", "short", "127.0.0.1:9"}, -3},
    };
    for (const Case& c : cases) {
        Tables before;
        before.add(0, entry(2, 1, 1, "A.ICC", 4));
        ASSERT_EQ(before.write(), 0);
        StderrCapture capture;
        EXPECT_EQ(walk(c.args), c.result) << c.args[0];
        EXPECT_EQ(capture.finish(), "") << c.args[0];
        Tables after;
        ASSERT_EQ(after.read(), 0);
        EXPECT_EQ(after.rgb.iNum, 0) << "rebuilt as a failed walk: " << c.args[0];
    }
}

TEST(WalkArguments, ABadRootOrAgentFailsBeforeAnyRequest) {
    ProfileFiles files;
    EXPECT_EQ(walk({"-v1", "-c", "public", "127.0.0.1:9", "1.3.not.an.oid"}), 1);
    EXPECT_EQ(walk({"-v1", "-c", "public", "nosuchtransport:xyz", "1.3.6"}), 1);
    Tables after;
    EXPECT_EQ(after.read(), 0);  // the rebuild ran and wrote the file
}

}  // namespace
