// The walk against a real snmpd and against the scripted agent. One table of
// agents, each walked one request at a time (window 1) and with requests in
// flight (the default window and 8): everything the walk leaves behind must
// be the same byte for byte.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "discovery_support.h"
#include "stderr_capture.h"

namespace tz::test {
namespace {

const int32_t kDefaultWindow = TZGetWalkWindow();

// An agent started for a case: kept alive by `owner`, reached at `peer`.
struct Started {
    std::shared_ptr<void> owner;
    std::string peer;
    std::function<std::size_t()> requests;  // how many it received (scripted only)
};
using Start = std::function<Started()>;

// snmpd answers the same names the same way every time: one per case.
Start snmpd(std::vector<std::string> config) {
    auto shared = std::make_shared<std::shared_ptr<SnmpAgent>>();
    return [config = std::move(config), shared] {
        if (!*shared) *shared = std::make_shared<SnmpAgent>(config);
        return Started{*shared, (*shared)->peer(), [] { return std::size_t{0}; }};
    };
}

// The scripted agent counts what it was asked: a fresh one per walk.
Start scripted(std::string script) {
    return [script = std::move(script)] {
        auto agent = std::make_shared<ScriptedAgent>(script);
        return Started{agent, agent->peer(), [agent] { return agent->requests().size(); }};
    };
}

// The scripted agent's variables: rows 1..rows of columns 1 to 5 and 7.
std::string table_json(int rows) {
    std::string json;
    for (int r = 1; r <= rows; ++r) {
        const std::string file = "\"F" + std::to_string(r) + ".ICC\"";
        for (const auto& [column, value] :
             std::vector<std::pair<int, std::string>>{{1, std::to_string(r)}, {2, "4"},
                                                      {3, "\"Profile\""}, {4, file},
                                                      {5, std::to_string(r % 3 + 1)}, {7, "1"}}) {
            json += (json.empty() ? "" : ", ") + std::string("\"") + cell(column, r) + "\": {" +
                    (value[0] == '"' ? "\"str\": " : "\"int\": ") + value + "}";
        }
    }
    return "\"table\": {" + json + "}";
}

// A scripted agent with the 12-row table and `extra` members of the script.
Start table12(const std::string& extra = "") {
    return scripted("{" + table_json(12) + (extra.empty() ? "" : ", " + extra) + "}");
}

std::string answer_for(const std::string& name, const std::string& step) {
    return "\"answers\": {\"" + name + "\": " + step + "}";
}

// A table with holes: rows 1, 2, 5, 9, 10 whole, row 3 with columns 1 and 4
// only, row 7 without column 5, and rows 0, 501 and 777 that the spool
// ignores.
std::vector<std::string> gapped_table() {
    std::vector<std::string> lines;
    for (const int r : {0, 1, 2, 5, 9, 10, 501, 777})
        for (auto& line : printer_row(r, 5, "G" + std::to_string(r) + ".ICC", 2)) lines.push_back(line);
    lines.push_back(override_integer(cell(1, 3), 3));
    lines.push_back(override_string(cell(4, 3), "G3.ICC"));
    for (auto& line : printer_row(7, 4, "G7.ICC", 1))
        if (line.find(cell(5, 7)) == std::string::npos) lines.push_back(line);
    return lines;
}

std::vector<std::string> with_v3_user(std::vector<std::string> lines) {
    lines.push_back("createUser tzuser SHA tzpassword1 AES tzpassword1");
    lines.push_back("rouser tzuser priv");
    return lines;
}

struct Case {
    const char* name;
    Start agent;
    std::vector<std::string> options;  // before the agent
    std::string root;                  // after it; "" for none
    int32_t result;                    // at every window
    int32_t counted = -1;              // numprinted's growth; -1: not checked
};

const std::vector<std::string> kV1 = {"-v1", "-c", "public", "-t", "0.2", "-r", "0"};
const std::vector<std::string> kV2c = {"-v2c", "-c", "public", "-t", "0.2", "-r", "0"};

std::vector<std::string> plus(std::vector<std::string> options, const std::vector<std::string>& more) {
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

const std::string kOutside = "1.3.6.1.4.1.99992.1";

std::vector<Case> cases() {
    return {
        {"snmpd without rows", snmpd({}), kV1, kProfileTable, 0, 0},
        {"snmpd with one row", snmpd(printer_table(1)), kV1, kProfileTable, 0, 6},
        {"snmpd with 12 rows, v2c", snmpd(printer_table(12)), kV2c, kProfileTable, 0},
        {"snmpd with 500 rows", snmpd(printer_table(500)), kV1, kProfileTable, 0, 3000},
        {"snmpd with gaps, missing columns, rows outside 1..500", snmpd(gapped_table()), kV1,
         kProfileTable, 0},
        {"snmpd, -C xi: GET of the root printed first", snmpd(printer_table(2)),
         plus({"-Cxi"}, kV1), cell(1, 2), 0},
        {"snmpd, v3 authPriv", snmpd(with_v3_user(printer_table(12))),
         {"-v3", "-l", "authPriv", "-u", "tzuser", "-a", "SHA", "-A", "tzpassword1", "-x", "AES",
          "-X", "tzpassword1", "-t", "0.5", "-r", "0"},
         kProfileTable, 0},
        {"an OID that does not increase",
         table12(answer_for(cell(1, 3), R"({"oid": ")" + cell(1, 3) + R"(", "int": 3})")), kV1,
         kProfileTable, 1, 4},
        {"an OID that does not increase, -C c: until the agent falls silent",
         table12(answer_for(cell(1, 3), R"({"times": 4, "oid": ")" + cell(1, 3) + R"(", "int": 3})")),
         plus({"-Cc"}, kV1), kProfileTable, 1, 7},
        {"endOfMibView inside the subtree",
         table12(answer_for(cell(2, 5), R"({"oid": ")" + cell(2, 6) + R"(", "endOfMibView": true})")),
         kV2c, kProfileTable, 0, 18},
        {"the first answer outside the subtree",
         table12(answer_for(kProfileTable, R"({"oid": ")" + kOutside + R"(", "int": 1})")), kV1,
         kProfileTable, 0, 0},
        {"an error status", table12(answer_for(cell(3, 7), R"({"error": 5})")), kV1, kProfileTable, 2,
         31},
        {"noSuchName halfway", table12(answer_for(cell(3, 7), R"({"error": 2})")), kV1, kProfileTable,
         0, 31},
        {"no answer at all", table12(R"("silent_from": "1")"), kV1, kProfileTable, 1, 0},
        {"an agent that dies halfway", table12(R"("silent_from": ")" + cell(4, 6) + "\""), kV1,
         kProfileTable, 1, 42},
        {"every third answer late, overtaken by the next ones", table12(R"("delay_every": [3, 40])"),
         {"-v1", "-c", "public", "-t", "1", "-r", "0"}, kProfileTable, 0, 72},
        {"every second request dropped", table12(R"("drop_every": 2)"),
         {"-v1", "-c", "public", "-t", "0.05", "-r", "8"}, kProfileTable, 0, 72},
    };
}

// Everything a walk leaves behind.
struct Observed {
    int32_t result = 0;
    int32_t counted = 0;
    int32_t progress = 0;   // the last count the progress hook heard
    int32_t progress_calls = 0;
    std::string spool;      // PlistForSpool's bytes
    std::string debug;      // sDEBUGmsg's bytes
    std::string printed;    // standard output
    std::string plist;      // the rebuilt profile plist
    std::size_t requests = 0;
};

Observed* observing = nullptr;
void on_progress(int32_t variables) {
    observing->progress = variables;
    ++observing->progress_calls;
}

Observed walk_at(const Case& c, const Started& agent, int32_t window) {
    const ProfilePaths paths;
    Tables seed;  // a device profile the printer may still report, and the user's own
    Tables::add(seed.rgb, entry(1, 2, "PRF00001.ICC", 5));
    Tables::add(seed.sim, entry(0, 1, "MINE.ICC"));
    EXPECT_EQ(seed.write(), 0);
    for (const int boolean : {1, 2, 3}) netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, boolean, 0);
    std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);

    Observed seen;
    observing = &seen;
    TZSetWalkProgressHook(on_progress);
    TZSetWalkWindow(window);
    std::vector<std::string> args = c.options;
    args.push_back(agent.peer);
    if (!c.root.empty()) args.push_back(c.root);
    const int32_t before = numprinted;
    {
        StderrCapture printed(STDOUT_FILENO);
        seen.result = walk(args);
        seen.printed = printed.finish();
    }
    TZSetWalkWindow(kDefaultWindow);
    TZSetWalkProgressHook(nullptr);
    seen.counted = numprinted - before;
    seen.spool.assign(reinterpret_cast<const char*>(&PlistForSpool), sizeof PlistForSpool);
    seen.debug.assign(sDEBUGmsg, sizeof sDEBUGmsg);
    seen.plist = read_file(paths.current);
    seen.requests = agent.requests();
    return seen;
}

TEST(Walk, EveryWindowLeavesWhatOneRequestAtATimeLeaves) {
    ASSERT_GT(kDefaultWindow, 1);
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const Observed one = walk_at(c, c.agent(), 1);
        EXPECT_EQ(one.result, c.result);
        if (c.counted >= 0) {
            EXPECT_EQ(one.counted, c.counted);
        }
        EXPECT_EQ(one.progress_calls, one.progress);
        for (const int32_t window : {kDefaultWindow, 8}) {
            SCOPED_TRACE("window " + std::to_string(window));
            const Observed many = walk_at(c, c.agent(), window);
            EXPECT_EQ(many.result, one.result);
            EXPECT_EQ(many.counted, one.counted);
            EXPECT_EQ(many.progress, one.progress);
            EXPECT_EQ(many.progress_calls, one.progress_calls);
            EXPECT_TRUE(many.spool == one.spool) << "the spools differ";
            EXPECT_EQ(many.debug, one.debug);
            EXPECT_EQ(many.printed, one.printed);
            EXPECT_EQ(many.plist, one.plist);
            // A lossy agent is not flooded: the window falls back whenever a
            // request goes unanswered.
            if (one.requests != 0) {
                EXPECT_LE(many.requests, 3 * one.requests);
            }
        }
    }
}

// What the table cannot say by comparing windows: the exact diagnostics and
// requests of the sequential walk.
TEST(Walk, OneRequestAtATimeSendsTheSequentialRequests) {
    const ProfilePaths paths;
    TZSetWalkWindow(1);
    {
        ScriptedAgent agent("{" + table_json(2) + ", " +
                            answer_for(cell(1, 1), R"({"oid": ")" + cell(1, 1) + R"(", "int": 1})") +
                            "}");
        std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
        EXPECT_EQ(walk(v1(agent.peer())), 1);
        // The operands are the raw bytes of the sub-identifier words: 0x01 each.
        EXPECT_STREQ(sDEBUGmsg, "[SNMP] Error: OID not increasing: \x01 >= \x01");
        EXPECT_EQ(agent.requests(),
                  (std::vector<std::string>{"getnext " + kProfileTable, "getnext " + cell(1, 1)}));
    }
    {
        ScriptedAgent agent("{" + table_json(1) + "}");
        std::vector<std::string> args = v1(agent.peer());
        args.insert(args.begin(), "-Cxi");
        // The debug hook hears each diagnostic, a repeated one too.
        static std::vector<std::string> heard;
        heard.clear();
        TZSetWalkDebugHook([](const char* text, int32_t) { heard.push_back(text ? text : ""); });
        EXPECT_EQ(walk({"-Cx", "-V"}), -2);
        EXPECT_EQ(walk(args), 0);
        TZSetWalkDebugHook(nullptr);
        EXPECT_EQ(std::count(heard.begin(), heard.end(), "Unknown flag passed to -C: x\n"), 2) << heard.size();
        EXPECT_STREQ(sDEBUGmsg, "Unknown flag passed to -C: x\n");
        const auto requests = agent.requests();
        ASSERT_EQ(requests.size(), 8u);  // the GET, six variables, the end
        EXPECT_EQ(requests[0], "get " + kProfileTable);
        EXPECT_EQ(requests[2], "getnext " + cell(1, 1));
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, 1, 0);
    }
    {
        // Every second request lost: each name after the first is sent
        // twice, the retry after one timeout, and nothing more.
        ScriptedAgent agent("{" + table_json(1) + R"(, "drop_every": 2})");
        EXPECT_EQ(walk({"-v1", "-c", "public", "-t", "0.05", "-r", "1", agent.peer(), kProfileTable}), 0);
        std::vector<std::string> expected = {"getnext " + kProfileTable};
        for (const int column : {1, 2, 3, 4, 5, 7})
            expected.insert(expected.end(), 2, "getnext " + cell(column, 1));
        EXPECT_EQ(agent.requests(), expected);
    }
    TZSetWalkWindow(kDefaultWindow);
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
    EXPECT_EQ(other.requests(), std::vector<std::string>{"getnext " + kProfileTable + ".4"});
    EXPECT_EQ(PlistForSpool.iNum, 0);
}

TEST(WalkArguments, RefusalsRebuildAsFailedAndPrintNothing) {
    const ProfilePaths paths;
    const std::pair<std::vector<std::string>, int32_t> cases[] = {
        {{"-v1", "-c", "public"}, -1},  // no agent
        {{"-V"}, -2},
        // A pass phrase too short to make a key: net-snmp says -3, the walk -2.
        {{"-v3", "-l", "authNoPriv", "-u", "u", "-a", "MD5", "-A", "short", "127.0.0.1:9"}, -2},
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
