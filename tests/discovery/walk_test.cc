// The walk against a real snmpd and against the scripted agent.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "discovery_support.h"
#include "stderr_capture.h"

namespace tz::test {
namespace {

using Requests = std::vector<std::string>;

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

// The scripted agent's answer of one INTEGER variable.
std::string answer(const std::string& oid, int value) {
    return "{\"oid\": \"" + oid + "\", \"int\": " + std::to_string(value) + "}";
}

TEST(WalkRealAgent, SpoolsTheWholeTableAndCountsWhatSnmpwalkPrints) {
    const ProfilePaths paths;
    SnmpAgent agent(printer_table(500));
    const int32_t before = numprinted;
    std::vector<std::string> args = v1(agent.peer());
    args.push_back("1.3.6.1.2.1");  // only the first root counts
    EXPECT_EQ(walk(args), 0);
    EXPECT_EQ(numprinted - before, snmpwalk_lines(agent, kProfileTable));
    EXPECT_EQ(numprinted - before, 3000);
    EXPECT_EQ(PlistForSpool.iNum, 500);
    EXPECT_STREQ(PlistForSpool.Entry[499].FileName, "PRF00500.ICC");
    Tables written;
    ASSERT_EQ(written.read(), 0);
    EXPECT_EQ(written.rgb.iNum + written.sim.iNum, 500);
}

TEST(WalkRealAgent, ASecondWalkParsesItsOwnArgumentsAndRebuildsFromCountedRows) {
    const ProfilePaths paths;
    std::vector<std::string> rows = printer_row(1, 4, "ONE.ICC", 1);
    for (const int r : {2, 5}) {
        const auto row = printer_row(r, 4, "ROW" + std::to_string(r) + ".ICC", 1);
        rows.insert(rows.end(), row.begin(), row.end());
    }
    SnmpAgent agent(rows);
    ScriptedAgent other(R"([{"error": 2}])");
    // Options clustered and split differently in the two walks.
    EXPECT_EQ(walk({"-v1", "-cpublic", "-t", "0.2", "-r0", agent.peer(), kProfileTable}), 0);
    EXPECT_EQ(PlistForSpool.iNum, 3);
    Tables written;
    ASSERT_EQ(written.read(), 0);
    ASSERT_EQ(written.rgb.iNum, 2);  // rows 1 to 3: row 5 is never read
    EXPECT_STREQ(written.rgb.Entry[1].FileName, "ROW2.ICC");

    EXPECT_EQ(walk({"-r", "0", "-t0.2", "-v", "1", "-c", "public", other.peer(), kProfileTable + ".4"}), 0);
    EXPECT_EQ(other.requests(), Requests{"getnext " + kProfileTable + ".4"});
    EXPECT_EQ(PlistForSpool.iNum, 0);
}

TEST(WalkScripted, ErrorStatusEndOfMibViewAndSilence) {
    const ProfilePaths paths;
    {
        ScriptedAgent agent("[" + answer(cell(1, 1), 1) + R"(, {"error": 5}])");
        EXPECT_EQ(walk(v1(agent.peer())), 2);
        EXPECT_EQ(PlistForSpool.iNum, 1);  // what came before is kept
    }
    {
        ScriptedAgent agent("[" + answer(cell(1, 1), 1) + R"(, {"oid": ")" + cell(1, 2) +
                            R"(", "endOfMibView": true}])");
        const int32_t before = numprinted;
        std::vector<std::string> args = v1(agent.peer());
        args[0] = "-v2c";
        EXPECT_EQ(walk(args), 0);
        EXPECT_EQ(numprinted - before, 2);  // counted, not spooled
        EXPECT_EQ(PlistForSpool.iNum, 1);
        EXPECT_EQ(agent.requests().size(), 2u);
    }
    {
        ScriptedAgent agent("[]");
        EXPECT_EQ(walk(v1(agent.peer())), 1);
        EXPECT_EQ(agent.requests().size(), 1u);  // no retries with -r 0
    }
}

TEST(WalkScripted, AnOidThatDoesNotIncreaseStopsTheWalkUnlessCcIsGiven) {
    const ProfilePaths paths;
    const std::string repeated = R"([{"repeat": 5, "oid": ")" + cell(1, 1) + R"(", "int": 1}])";
    {
        ScriptedAgent agent(repeated);
        std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
        EXPECT_EQ(walk(v1(agent.peer())), 1);
        EXPECT_EQ(agent.requests().size(), 2u);
        // The operands are the raw bytes of the sub-identifier words: 0x01 each.
        EXPECT_STREQ(sDEBUGmsg, "[SNMP] Error: OID not increasing: \x01 >= \x01");
        EXPECT_EQ(PlistForSpool.iNum, 2);  // both answers were spooled
    }
    ScriptedAgent agent(repeated);
    std::vector<std::string> args = v1(agent.peer());
    args.insert(args.begin(), "-Cc");
    EXPECT_EQ(walk(args), 1);  // ends only when the agent falls silent
    const auto requests = agent.requests();
    ASSERT_EQ(requests.size(), 6u);
    EXPECT_EQ(requests[5], "getnext " + cell(1, 1));
    EXPECT_TRUE(netsnmp_ds_get_boolean(NETSNMP_DS_APPLICATION_ID, 3));  // the toggle persists
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, 3, 0);
}

TEST(WalkScripted, IncludeRequestedGetsTheRootFirst) {
    const ProfilePaths paths;
    ScriptedAgent agent("[" + answer(kProfileTable, 3) + R"(, {"error": 2}])");
    std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
    std::vector<std::string> args = v1(agent.peer());
    args.insert(args.begin(), "-Cxi");
    EXPECT_EQ(walk(args), 0);  // the unknown letter is only noted
    EXPECT_STREQ(sDEBUGmsg, "Unknown flag passed to -C: x\n");
    EXPECT_EQ(agent.requests(), (Requests{"get " + kProfileTable, "getnext " + kProfileTable}));
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, 1, 0);
}

TEST(WalkArguments, RefusalsRebuildAsFailedAndPrintNothing) {
    const ProfilePaths paths;
    const std::pair<std::vector<std::string>, int32_t> cases[] = {
        {{"-v1", "-c", "public"}, -1},  // no agent
        {{"-V"}, -2},
        {{"-v3", "-l", "authNoPriv", "-u", "u", "-a", "MD5", "-A", "short", "127.0.0.1:9"}, -3},
    };
    for (const auto& [args, result] : cases) {
        Tables before;
        Tables::add(before.rgb, entry(1, 2, "A.ICC"));
        ASSERT_EQ(before.write(), 0);
        StderrCapture capture;
        EXPECT_EQ(walk(args), result) << args[0];
        EXPECT_EQ(capture.finish(), "") << args[0];
        Tables after;
        ASSERT_EQ(after.read(), 0);
        EXPECT_EQ(after.rgb.iNum, 0) << "rebuilt as a failed walk: " << args[0];
    }
    EXPECT_EQ(walk({"-v1", "-c", "public", "127.0.0.1:9", "1.3.not.an.oid"}), 1);
}

}  // namespace
}  // namespace tz::test
