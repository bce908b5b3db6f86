// The walk against snmpd and the scripted agent: one request at a time and with requests in flight
// (the default window, and 8 guessed even where the pace would not) each agent must leave the same behind, byte
// for byte; and what the name predictor makes of a table's first column.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>

#include "discovery_support.h"
#include "walk_pipeline.h"

namespace tz::test {
namespace {

using discovery::Name;
using discovery::NamePredictor;

const int32_t kDefaultWindow = TZGetWalkWindow();
const std::string& kT = kProfileTable;
// A second and a retry: an agent slowed by a loaded machine still answers in time. kSilent: for agents that stop.
const std::string kV1 = "-v1 -c public -t 1 -r 1", kV2c = "-v2c -c public -t 1 -r 1";
const std::string kSilent = "-v1 -c public -t 0.2 -r 0";

// The scripted agent's table with the GETNEXT of `name` answered by `step`; a variable as a step.
std::string answer(const std::string& name, const std::string& step, int rows = 12) {
    return R"("rows": )" + std::to_string(rows) + R"(, "answers": {")" + name + "\": " + step + "}";
}
std::string variable(const std::string& oid,
                     const std::string& rest = "") { return R"({"oid": ")" + oid + "\"" + rest + "}"; }

struct Case {
    const char* name;
    std::vector<std::string> snmpd;     // snmpd's configuration, unless the scripted agent's
    std::string script, options, root;  // (a fresh agent per walk: it counts requests); "dump": snmpd's MIB-2
    int32_t result, counted;  // at every window; counted: numprinted's growth, -1 unchecked
    std::string said = "";    // on stderr
    int32_t stop_at = -1;     // the stop hook says stop when asked a third time after this many variables
    int32_t limit = TZ_WALK_DEFAULT_VARIABLES;
    bool guessed = false;  // a slow agent: every window but 1 has several requests out at once, under 2x in all
};

std::vector<Case> cases() {
    auto v3 = printer_table(12);
    v3.insert(v3.end(), {"createUser tzuser SHA tzpassword1 AES tzpassword1", "rouser tzuser priv"});
    const std::string v3_as = "-v3 -l authPriv -x AES -X tzpassword1 -a SHA -t 5 -r 0 -u ", forever = " -t 86400 -r 5";
    const std::string kAddressed = "1.3.6.1.4.1.99991.3.1";
    std::vector<std::string> addressed, gapped = gapped_printer_table(), switched = switch_table();
    for (const char* row : {"10.0.0.1", "10.0.0.2", "10.0.1.1", "192.168.1.254"})
        for (const int c : {1, 2, 3})
            addressed.push_back(override_integer(kAddressed + "." + std::to_string(c) + "." + row, c));
    const auto count = [](const std::vector<std::string>& lines) { return static_cast<int32_t>(lines.size()); };
    const std::string outside = "1.3.6.1.4.1.99992.1", same3 = variable(cell(1, 3), R"(, "value": 3)");
    return {
        {"snmpd without rows", {}, "", kV1, kT, 0, 0},
        {"snmpd with one row", printer_table(1), "", kV1, kT, 0, 6},
        {"snmpd with 12 rows, v2c", printer_table(12), "", kV2c, kT, 0, 72},
        {"snmpd with two rows", printer_table(2), "", kV1, kT, 0, 12},
        {"snmpd, rows 0 to 777 with gaps and cells missing", gapped_printer_table(), "", kV1, kT, 0, count(gapped)},
        {"snmpd, a switch's interface table", switch_table(), "", kV1, kSwitchTable, 0, count(switched)},
        {"snmpd, row indexes of four sub-identifiers", addressed, "", kV1, kAddressed, 0, count(addressed)},
        {"snmpd, -C xi: GET of the root counted first", printer_table(2), "", "-Cxi " + kV1, cell(1, 2), 0, 1},
        {"snmpd, v3 authPriv", v3, "", v3_as + "tzuser -A tzpassword1", kT, 0, 72},
        {"snmpd, v3, an unknown user: the report ends the walk", v3, "", v3_as + "nobody -A tzpassword1", kT, 1, 0,
         "snmpwalk: Unknown user name\n"},
        {"snmpd with 500 rows, a limit of 1000 variables", printer_table(500), "", kV1, kT, 1, 1000, "", -1, 1000},
        {"no root: MIB-2, left at once", {}, R"("rows": 12)", kV1, "", 0, 0},
        {"no root: snmpd's MIB-2 tree, dumped once", {}, "dump", kV1, "", 0, -1},
        {"the root itself as the first answer", {}, answer(kT, variable(kT, R"(, "value": 1)")), kV1, kT, 1, 1},
        {"an OID that does not increase", {}, answer(cell(1, 3), same3), kV1, kT, 1, 4},
        {"an OID that does not increase, -C c: until the agent falls silent", {},
         answer(cell(1, 3), variable(cell(1, 3), R"(, "value": 3, "times": 4)")), "-Cc " + kSilent, kT, 1, 7},
        {"endOfMibView inside the subtree", {}, answer(cell(2, 5), variable(cell(2, 6))), kV2c, kT, 0, 18},
        {"the first answer outside the subtree", {}, answer(kT, variable(outside, R"(, "value": 1)")), kV1, kT, 0, 0},
        {"an error status", {}, answer(cell(3, 7), R"({"error": 5})"), kV1, kT, 2, 31},
        {"noSuchName halfway", {}, answer(cell(3, 7), R"({"error": 2})"), kV1, kT, 0, 31},
        {"no answer at all", {}, R"("rows": 12, "silent_from": "1")", kSilent, kT, 1, 0},
        {"a TCP agent that closes the connection", {}, R"("tcp_closes": true)", kV1, kT, 1, 0,
         "snmpwalk: Session abort failure\n"},
        {"an agent that dies halfway", {}, R"("rows": 12, "silent_from": ")" + cell(4, 6) + "\"", kSilent, kT, 1, 42},
        {"an agent that dies halfway, -t 86400 -r 5: the stop hook ends it", {},
         R"("rows": 12, "silent_from": ")" + cell(4, 6) + "\"", "-v1 -c public" + forever, kT, 1, 42, "", 42},
        {"no answer to the GET of -C i, -t 86400 -r 5: the stop hook ends it", {}, R"("rows": 12, "silent_from": "1")",
         "-Ci -v1 -c public" + forever, kT, 1, 0, "", 0},
        {"every third answer late, overtaken", {}, R"("rows": 4, "delay_every": [3, 40])", "-v1 -c public -t 1 -r 0",
         kT, 0, 24},
        {"every second request dropped", {}, R"("rows": 3, "drop_every": 2)", "-v1 -c public -t 0.05 -r 8", kT, 0, 18},
        {"every answer 20 ms late", {}, R"("rows": 12, "delay_every": [1, 20])", kV1, kT, 0, 72, "", -1,
         TZ_WALK_DEFAULT_VARIABLES, true},
    };
}

// snmpd's count of requests from an unknown engine: one per SNMPv3 engine discovery; 0 for the scripted agent.
long discoveries(const SnmpAgent* snmpd) {
    const auto count = snmpd ? snmpd->get("1.3.6.1.6.3.15.1.1.4.0") : std::nullopt;
    return count ? std::stol(*count) : 0;
}

// Everything a walk leaves behind: sDEBUGmsg, stdout, the spool's bytes, the rebuilt plist, the agent's discoveries
// (the guesses' session takes the chain's engine: it discovers nothing).
struct Observed {
    int32_t result = 0, counted = 0, progress = 0, progress_calls = 0, stop_at = -1, stop_asks = 0;
    std::string debug, printed, said, spool, plist;
    std::size_t requests = 0;
    int waiting = 0;  // the most requests out at once
    long discovered = 0;
    auto facts() const { return std::tie(result, counted, progress, progress_calls, debug, printed, said, discovered); }
} seen;

Observed walk_at(const Case& c, const SnmpAgent* snmpd, int32_t window) {
    static const TempDir dumps;
    const std::string port = snmpd ? std::to_string(snmpd->port()) : "0";
    const std::string dump = R"("dump": [")" + dumps.file("mib2") + "\", " + port + "]";
    const auto scripted =
        c.script.empty() ? nullptr : std::make_unique<ScriptedAgent>(c.script == "dump" ? dump : c.script);
    const ProfilePaths paths;
    for (const int boolean : {1, 2, 3}) netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, boolean, 0);
    std::memset(sDEBUGmsg, 0, sizeof sDEBUGmsg);
    seen = Observed{}, seen.stop_at = c.stop_at;
    TZSetWalkProgressHook([](int32_t n) { seen.progress = n, ++seen.progress_calls; });
    TZSetWalkStopHook([] { return seen.stop_at >= 0 && seen.progress >= seen.stop_at && ++seen.stop_asks >= 3; });
    TZSetWalkLimits(TZ_WALK_DEFAULT_SECONDS, c.limit);
    TZSetWalkWindow(window);
    std::vector<std::string> args;
    const std::string tcp = c.script.find("tcp_closes") == std::string::npos ? "" : "tcp:";
    std::istringstream words(c.options + " " + tcp + (scripted ? scripted->peer() : snmpd->peer()) + " " + c.root);
    for (std::string word; words >> word;) args.push_back(word);
    const int32_t before = numprinted;
    const long discovered = discoveries(snmpd);
    testing::internal::CaptureStdout(), testing::internal::CaptureStderr();  // gtest's own capture of fds 1 and 2
    seen.result = walk(args);
    seen.printed = testing::internal::GetCapturedStdout(), seen.said = testing::internal::GetCapturedStderr();
    seen.counted = numprinted - before;
    seen.spool.assign(reinterpret_cast<const char*>(&PlistForSpool), sizeof PlistForSpool);
    seen.debug.assign(sDEBUGmsg, sizeof sDEBUGmsg), seen.plist = read_file(paths.current);
    seen.requests = scripted ? scripted->requests().size() : 0;
    seen.waiting = scripted ? scripted->most_waiting() : 0;
    seen.discovered = discoveries(snmpd) - discovered;
    return seen;
}

TEST(Walk, EveryWindowLeavesWhatOneRequestAtATimeLeaves) {
    ASSERT_GT(kDefaultWindow, 1);
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const auto snmpd = c.script.empty() || c.script == "dump" ? std::make_unique<SnmpAgent>(c.snmpd) : nullptr;
        const Observed one = walk_at(c, snmpd.get(), 1);
        EXPECT_EQ(std::tie(one.result, one.counted, one.progress_calls, one.said),
                  std::tie(c.result, c.counted < 0 ? one.counted : c.counted, one.progress, c.said));
        for (const int32_t window : {kDefaultWindow, -8}) {
            const Observed many = walk_at(c, snmpd.get(), window);
            EXPECT_EQ(many.facts(), one.facts()) << "window " << window;
            EXPECT_TRUE(many.spool == one.spool && many.plist == one.plist) << "window " << window;
            // Loose bounds: 3x, or a short walk's first bursts (54 for 8 under load); a slow agent's table 1.2x-1.5x.
            EXPECT_LE(many.requests, c.guessed ? 2 * one.requests : 4 * one.requests + 48)
                << "a lossy agent is flooded, or the slow agent asked for names no answer pointed to";
            EXPECT_TRUE(!c.guessed || many.waiting >= 6) << "a slow agent must be asked ahead: " << many.waiting;
        }
    }
}

TEST(Walk, OneRequestAtATimeSendsTheSequentialRequests) {
    const ProfilePaths paths;
    TZSetWalkWindow(0);  // taken as 1
    EXPECT_EQ(TZGetWalkWindow(), 1);
    {
        ScriptedAgent agent(answer(cell(1, 1), variable(cell(1, 1), R"(, "value": 1)"), 1));
        EXPECT_EQ(walk(v1(agent.peer())), 1);
        EXPECT_STREQ(sDEBUGmsg, "[SNMP] Error: OID not increasing: \x01 >= \x01");  // raw sub-identifier bytes
        EXPECT_EQ(agent.requests(), (std::vector<std::string>{"getnext " + kT, "getnext " + cell(1, 1)}));
    }
    {
        ScriptedAgent agent(R"("rows": 1, "drop_every": 2)");  // each name after the first sent twice, no more
        EXPECT_EQ(walk({"-v1", "-c", "public", "-t", "0.2", "-r", "1", agent.peer(), kT}), 0);
        std::vector<std::string> expected = {"getnext " + kT};
        for (const int column : {1, 2, 3, 4, 5, 7}) expected.insert(expected.end(), 2, "getnext " + cell(column, 1));
        EXPECT_EQ(agent.requests(), expected);
    }
    ScriptedAgent agent(R"("rows": 1)");
    static std::vector<std::pair<std::string, int32_t>> heard;
    TZSetWalkDebugHook([](const char* text, int32_t n) { heard.emplace_back(text ? text : "", n); });
    EXPECT_EQ(walk({"-Cx", "-H"}), -2);
    EXPECT_GT(heard.size(), 20u) << "the parser's help, one line at a time";
    const int32_t before = numprinted;
    EXPECT_EQ(walk({"-Cxip", "-v1", "-c", "public", "-t", "0.2", "-r", "0", agent.peer(), kT}), 0);
    EXPECT_EQ(numprinted - before, 6) << "a GET refused with noSuchName counts nothing";
    const std::pair<std::string, int32_t> flag{"Unknown flag passed to -C: x\n", 0};  // each walk's, repeated too
    EXPECT_EQ(std::count(heard.begin(), heard.end(), flag), 2);
    EXPECT_EQ(heard.back(), std::make_pair(std::string("[UTIL-MIB] Variables found: "), numprinted));  // -C p last
    EXPECT_STREQ(sDEBUGmsg, flag.first.c_str());
    const auto requests = agent.requests();
    ASSERT_EQ(requests.size(), 8u);  // the GET, six variables, the end
    EXPECT_EQ(std::tie(requests[0], requests[2]), std::tuple("get " + kT, "getnext " + cell(1, 1)));
}

// Once the first column has shown rows 1, 5 and 9, the rest of the table is named exactly, past the last known column
// only a guess along a run is offered, and past an answer that left the root nothing.
TEST(Walk, ThePredictorNamesTheRowsTheFirstColumnShowedInTheNextColumn) {
    NamePredictor predictor(oid_of(kT));
    const auto learn = [&](const Name& asked, const Name& next, long error = SNMP_ERR_NOERROR) {
        netsnmp_pdu* answer = snmp_pdu_create(SNMP_MSG_RESPONSE);
        answer->errstat = error;
        snmp_add_null_var(answer, next.data(), next.size());
        predictor.learn(asked, answer);
        snmp_free_pdu(answer);
    };
    Name asked = oid_of(kT);
    for (const std::string& dotted : {cell(1, 1), cell(1, 5), cell(1, 9), cell(2, 1)}) {
        predictor.passed(asked);
        learn(asked, oid_of(dotted));
        asked = oid_of(dotted);
    }
    predictor.passed(asked);
    const auto after = [&](int column, int row, bool runs) {
        const auto next = predictor.after(oid_of(cell(column, row)), runs);
        return next ? std::pair(next->name, next->known) : std::pair(Name(), false);
    };
    EXPECT_EQ(after(2, 1, false), std::pair(oid_of(cell(2, 5)), true));
    EXPECT_EQ(after(2, 5, true), std::pair(oid_of(cell(2, 9)), true));
    EXPECT_EQ(after(2, 9, false), std::pair(Name(), false));
    EXPECT_EQ(after(2, 9, true), std::pair(oid_of(cell(3, 1)), false));
    // Probes: the last known row in this column (known), then in the next columns (guesses).
    const auto probes = predictor.probes(oid_of(cell(2, 1)), true);
    ASSERT_GE(probes.size(), 2u);
    EXPECT_EQ(std::pair(probes[0].name, probes[0].known), std::pair(oid_of(cell(2, 9)), true));
    EXPECT_EQ(std::pair(probes[1].name, probes[1].known), std::pair(oid_of(cell(3, 9)), false));
    learn(oid_of(cell(2, 7)), oid_of(cell(2, 7)));  // an answer that does not go past its name shows no row
    EXPECT_EQ(after(2, 5, false), std::pair(oid_of(cell(2, 9)), true));
    // A step between two addresses of one column goes up before the last sub-identifier, yet shows no table.
    const Name from = oid_of(kT + ".9.4.127.0.0.1"), to = oid_of(kT + ".9.4.192.0.2.2");
    learn(from, to);
    EXPECT_FALSE(predictor.after(to, true)) << "no column 193";
    learn(oid_of(cell(3, 10)), oid_of("1.3.6.2"));  // an answer that leaves the root: nothing is guessed past
    EXPECT_EQ(predictor.probes(oid_of(cell(2, 1)), true).size(), 2u);
    learn(oid_of(cell(2, 10)), oid_of(cell(2, 10)), SNMP_ERR_NOSUCHNAME);  // nor past SNMPv1's end
    EXPECT_FALSE(predictor.after(oid_of(cell(2, 9)), true));
    // Before any table, in the first column: the next seven subtrees, and not a name one shows past a run held back.
    predictor = NamePredictor(oid_of(kT));
    predictor.passed(oid_of(cell(1, 1)));
    EXPECT_EQ(predictor.probes(oid_of(cell(1, 1)), true).back().name, oid_of(kT + ".8"));
    EXPECT_TRUE(predictor.probes(oid_of(cell(1, 1)), false).empty());
    learn(oid_of(kT + ".5"), oid_of(cell(5, 1)));
    EXPECT_FALSE(predictor.after(oid_of(cell(1, 1)), false));
    EXPECT_EQ(predictor.after(oid_of(cell(1, 1)), true)->name, oid_of(cell(1, 2)));
    learn(oid_of(cell(1, 3)), oid_of(cell(1, 3)));  // an answer that stays put ends the run there
    EXPECT_EQ(predictor.after(oid_of(cell(1, 3)), true)->name, oid_of(cell(5, 1)));
}

TEST(Walk, RefusalsAndFailuresBeforeTheLoopRebuildAsFailed) {
    const ProfilePaths paths;
    const std::pair<std::vector<std::string>, int32_t> cases[] = {
        {{"-v1", "-c", "public"}, -1}, {{"-V"}, -2},  // no agent; version
        // No key: net-snmp's -3.
        {{"-v3", "-l", "authNoPriv", "-u", "u", "-a", "MD5", "-A", "short", "127.0.0.1:9"}, -2},
        {{"-v1", "-c", "public", "127.0.0.1:9", "1.3.not.an.oid"}, 1},
        {{"-v1", "-c", "public", "tcp:127.0.0.1:9", kT}, 1},  // no session
    };
    for (const auto& [args, result] : cases) {
        Tables before;
        Tables::add(before.rgb, entry(1, 2, "A.ICC"));
        ASSERT_EQ(before.write(), 0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(walk(args), result) << args.back();
        EXPECT_TRUE(testing::internal::GetCapturedStderr().empty() || result > 0) << "a refusal prints nothing";
        Tables after;
        ASSERT_EQ(after.read(), 0);
        EXPECT_EQ(after.rgb.iNum, 0) << "rebuilt as a failed walk: " << args.back();
    }
}

}  // namespace
}  // namespace tz::test
