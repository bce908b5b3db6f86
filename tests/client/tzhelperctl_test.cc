// tzhelperctl against a real tzhelperd on a private bus (exit status, stderr
// line and JSON of each outcome, help, a walk's summary), the client
// library's properties and progress, and the summary's comparison of tables.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "helper_client.h"
#include "private_bus.h"
#include "profile_tables.h"
#include "snmp_agent.h"
#include "walk_summary.h"

namespace {

using nlohmann::json;
using tz::test::PrivateBus;
using tz::test::run_command;
using Args = std::vector<std::string>;

const std::string kCtl = TZHELPERCTL_PATH;
const std::string kNotProvided = "the name tazorex.printers.T48Q.Helper is not provided by any service";

TEST(Tzhelperctl, ExitStatusMessageAndJsonSayWhatTheOutcomeMeans) {
    PrivateBus served, bare;
    // On `bare` the helper's name is not activatable.
    std::filesystem::remove(bare.dir().file("services/tazorex.printers.T48Q.Helper.service"));
    auto connection = sdbus::createSessionBusConnectionWithAddress(bare.address());
    sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")
        ->callMethod("ReloadConfig").onInterface("org.freedesktop.DBus");
    const std::string prefs = served.prefs(), missing = prefs + "missing.plist";
    const auto walk = [](Args snmp) {
        snmp.insert(snmp.begin(), {"walk", "--model", "T48Q", "--user", "alice", "--"});
        return snmp;
    };
    enum Bus { kServed, kBare, kNoBus };
    const struct {
        Bus bus;
        Args args;
        int status;
        std::string out;  // stdout starts with it; "" when the JSON holds an error
        std::string err;  // stderr holds it; "" for an empty stderr
        std::string in = "";
    } cases[] = {
        {kServed, {"exist", prefs}, 0, "TRUE\n", ""},
        {kServed, {"exist", missing}, 1, "FALSE\n", missing + " does not exist for the helper"},
        {kServed, {"is-admin", "/proc/none/x"}, 1, "FALSE\n", "the helper cannot write /proc/none/x"},
        {kServed, {"remove", missing}, 1, "FALSE\n", "the helper could not remove " + missing},
        {kServed, {"write-piece", "rel", "x"}, 1, "FALSE\n", "the helper could not append to the temporary .dummy file of rel"},
        {kServed, {"finish-piece", "rel"}, 1, "FALSE\n", "the helper could not rename the .dummy file onto rel"},
        {kServed, {"write-plist", prefs + "w.plist", "-"}, 0, "TRUE\n", "", "<plist/>"},
        {kServed, {"swap", "2147483647", "", ""}, 0, "TRUE\n", ""},
        {kServed, {"swap", "--", "-2147483648", "NULL", "NULL"}, 0, "TRUE\n", ""},
        {kServed, {"--timeout", "86400", "exist", prefs}, 0, "TRUE\n", ""},
        {kServed, walk({"-v", "1", "-c", "public", "-t", "1", "-r", "0", "127.0.0.1:1"}), 1, "iRet=1\n",
         "the printer did not answer or the walk stopped (iRet=1)"},
        {kServed, walk({"-Z"}), 1, "iRet=-1\n", "the SNMP arguments were refused (iRet=-1)"},
        {kServed, walk({"-V"}), 1, "iRet=-2\n", "the SNMP argument parser stopped after its help or version"},
        {kServed, {"raw", "writeDataToPlistFile_XPC", "file:///tmp/x"}, 1, "", "the helper refused the request: "},
        // Not UTF-8: the bus refuses to carry it; the JSON still holds it, as U+FFFD.
        {kServed, {"raw", "tzPListExistProfile_XPC", "/tmp/\xff"}, 1, "",
         "the call failed: org.freedesktop.DBus.Error.InvalidArgs"},
        {kServed, {"show", "-"}, 1, "", "cannot read standard input as a profile plist", "junk"},
        {kBare, {"exist", "/"}, 3, "", kNotProvided},
        {kBare, {"show", "--user", "alice", "--model", "T48Q"}, 3, "", kNotProvided},
        {kNoBus, {"exist", "/"}, 3, "", "no session bus: DBUS_SESSION_BUS_ADDRESS is not set"},
        {kNoBus, {"show", "--user", "alice", "--model", "T48Q"}, 3, "", "no session bus"},
        {kServed, {"exist"}, 2, "", "exist takes PATH"},
        {kServed, {"exist", "a", "b"}, 2, "", "exist takes PATH"},
        {kServed, {"swap", "two", "a", "b"}, 2, "", "swap's TYPE is a number"},
        {kServed, {"swap", "2147483648", "a", "b"}, 2, "", "swap's TYPE is a number"},
        {kServed, {"--timeout", "0", "exist", "/"}, 2, "", "--timeout takes a number of seconds"},
        {kServed, {"--timeout", "1x", "exist", "/"}, 2, "", "--timeout takes a number of seconds"},
        {kServed, {"walk", "--model", "T48Q", "--", "-v", "1"}, 2, "", "walk needs --model and --user"},
        {kServed, {"walk", "--user", "u", "--model", "", "--"}, 2, "", "--model needs a value"},
        {kServed, {"walk", "--user"}, 2, "", "--user needs a value"},
        {kServed, {"exist", "--json=yes", "/"}, 2, "", "--json takes no value"},
        {kServed, {"exist", "--frob", "/"}, 2, "", "unknown option --frob"},
        {kServed, {"raw", "mibwalk_xpc", "x"}, 2, "", "raw takes one of the helper's eight methods"},
        {kServed, {"show"}, 2, "", "show needs a FILE"},
        {kServed, {"show", "--user", "u", "f"}, 2, "", "show takes FILE, or --user and --model"},
        {kServed, {"frobnicate"}, 2, "", "unknown command frobnicate"},
        {kServed, {}, 2, "", "no command"},
    };
    for (const auto& c : cases) {
        for (const bool as_json : {false, true}) {
            Args argv = c.bus == kNoBus ? Args{"env", "-u", "DBUS_SESSION_BUS_ADDRESS", "-u", "XDG_RUNTIME_DIR", kCtl}
                                        : Args{kCtl, "--address", (c.bus == kServed ? served : bare).address()};
            if (as_json) argv.push_back("--json");
            argv.insert(argv.end(), c.args.begin(), c.args.end());
            if (!c.in.empty()) argv.insert(argv.begin(), {"sh", "-c", "printf %s \"$0\" | \"$@\"", c.in});
            const tz::test::CommandResult got = run_command(argv);
            const std::string what = ::testing::PrintToString(c.args) + (as_json ? " --json" : "") + " -> " +
                                     got.out + got.err;
            EXPECT_EQ(got.status, c.status) << what;
            if (c.err.empty())
                EXPECT_EQ(got.err, "") << what;
            else
                EXPECT_NE(got.err.find("tzhelperctl: " + c.err), std::string::npos) << what;
            if (c.status == 2 || (!c.args.empty() && c.args[0] == "show")) {
                EXPECT_EQ(got.out, "") << what;
            } else if (!as_json) {
                EXPECT_EQ(got.out.substr(0, c.out.size()), c.out) << what;
            } else {
                const json out = json::parse(got.out, nullptr, false);
                ASSERT_TRUE(out.is_object()) << what;
                EXPECT_EQ(out.value("ok", !c.status), c.status == 0) << what;
                EXPECT_EQ(out.contains("error"), c.out.empty()) << what;
            }
        }
    }
    EXPECT_EQ(tz::test::read_file(prefs + "w.plist"), "<plist/>");
}

TEST(Tzhelperctl, EveryCommandHasItsOwnHelp) {
    for (const char* command : {"is-admin", "swap", "exist", "remove", "write-plist", "write-piece",
                                "finish-piece", "walk", "raw", "show"}) {
        const auto got = run_command({kCtl, command, "--help"});
        EXPECT_EQ(got.status, 0) << command << ": " << got.err;
        EXPECT_EQ(got.out.rfind(std::string("Usage: tzhelperctl [OPTIONS] ") + command + " ", 0), 0u) << got.out;
        EXPECT_NE(got.out.find("\nExample:\n  "), std::string::npos) << got.out;
    }
    EXPECT_EQ(run_command({kCtl, "--version"}).out, "tzhelperctl " TZ_VERSION "\n");
}

TEST(Tzhelperctl, AWalkSaysWhatItChangedAndShowFindsTheFileThroughTheHelper) {
    PrivateBus bus;
    const auto walk = [&](int rows, const std::string& json) {
        tz::test::SnmpAgent agent(tz::test::printer_table(rows));
        return run_command({kCtl, "--address", bus.address(), json, "walk", "--model", "T48Q", "--user", "bob",
                            "--", "-v", "1", "-c", "public", agent.peer(), tz::test::kProfileTable});
    };
    const auto first = walk(6, "--json");
    ASSERT_EQ(first.status, 0) << first.err;
    const json added = json::parse(first.out)["summary"];
    // Classes 1 and 2 go to RGB, 3 to SIM and DST.
    EXPECT_EQ(added["RGB"]["added"].size(), 4u);
    EXPECT_EQ(added["SIM"]["added"].size(), 2u);
    EXPECT_EQ(added["DST"]["added"][0],
              json({{"FileName", "PRF00003.ICC"}, {"Location", 5}, {"ProfileName", "Profile 3"}, {"InMenu", 2}}));

    const auto shown = run_command({kCtl, "--address", bus.address(), "show", "--json", "--user", "bob", "--model", "T48Q"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    const json tables = json::parse(shown.out)["categories"];
    EXPECT_EQ(tables["RGB"]["iNum"], 4);
    EXPECT_EQ(tables["SIM"]["entries"][1]["FileName"], "PRF00006.ICC");

    const auto again = walk(5, "--address=" + bus.address());
    // Row 6 is gone from the printer: kept, and marked as such.
    const std::string remarked = "0 added, 0 dropped, 1 re-marked\n  re-marked  PRF00006.ICC  location 4   "
                                 "\"Profile 6\"           InMenu 2 -> 1\n";
    EXPECT_EQ(again.out, "iRet=0\nRGB: no change\nSIM: " + remarked + "DST: " + remarked) << again.err;
    EXPECT_EQ(again.err, "") << "no progress line when stderr is not a terminal";
}

TEST(HelperClient, ReadsTheHelpersPropertiesAndReportsItsOwnWalksProgress) {
    PrivateBus bus;
    tz::client::BusError error;
    auto client = tz::client::HelperClient::connect(bus.address(), &error);
    auto other = tz::client::HelperClient::connect(bus.address(), &error);
    ASSERT_TRUE(client && other) << error.message;
    EXPECT_EQ(client->preferences_directory().reply, bus.prefs());
    EXPECT_EQ(client->version().reply, TZ_VERSION);
    EXPECT_EQ(client->property("Colour").error->name, "org.freedesktop.DBus.Error.UnknownProperty");

    // While a long walk (the agent's whole tree) runs, another caller's walk of 3
    // rows waits its turn hearing the first one's progress, and counts only its
    // own: 6 variables a row, the final count last.
    tz::test::SnmpAgent agent(tz::test::printer_table(3));
    const auto walk = [&](tz::client::HelperClient& walker, const std::string& root, std::vector<uint32_t>& counts,
                          std::promise<void>* under_way) {
        return walker.mib_walk(tz::client::walk_request("T48Q", "alice", {"snmpwalk", "-v", "2c", "-c", "public",
                                                                          agent.peer(), root}),
                               [&](uint32_t variables) {
                                   if (counts.empty() && under_way) under_way->set_value();
                                   counts.push_back(variables);
                               }).reply;
    };
    std::vector<uint32_t> long_counts, counts;
    std::promise<void> under_way;
    auto long_walk = std::async(std::launch::async, [&] { return walk(*client, "1.3.6.1", long_counts, &under_way); });
    under_way.get_future().wait();
    EXPECT_EQ(walk(*other, tz::test::kProfileTable, counts, nullptr), "iRet=0");
    EXPECT_EQ(long_walk.get(), "iRet=0");
    ASSERT_FALSE(counts.empty());
    EXPECT_EQ(counts.back(), 18u);
    EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end())) << ::testing::PrintToString(counts);
    EXPECT_GT(long_counts.back(), 18u);
    EXPECT_EQ(client->exist(bus.prefs()).reply, "TRUE") << "the connection serves plain calls after it";
}

// "+NAME@LOC:NEW" added, "-NAME@LOC:OLD" dropped, "~NAME@LOC:OLD>NEW" re-marked.
std::vector<std::string> changes_of(const tz::ctl::CategoryChanges& changes) {
    std::vector<std::string> out;
    const auto at = [](const tz::ctl::ProfileChange& c) { return c.file_name + "@" + std::to_string(c.location); };
    for (const auto& c : changes.added) out.push_back("+" + at(c) + ":" + std::to_string(c.new_in_menu));
    for (const auto& c : changes.dropped) out.push_back("-" + at(c) + ":" + std::to_string(c.old_in_menu));
    for (const auto& c : changes.remarked)
        out.push_back("~" + at(c) + ":" + std::to_string(c.old_in_menu) + ">" + std::to_string(c.new_in_menu));
    return out;
}

TEST(WalkSummary, NamesProfilesAddedDroppedAndReMarkedByFileNameAndLocation) {
    using tz::test::entry;
    using Slots = std::vector<std::pair<int, ProfileEntry>>;
    const struct {
        const char* what;
        Slots before, after;
        std::vector<std::string> expected;
    } cases[] = {
        {"unchanged, moved to another slot", {{0, entry(1, 2, "A.ICC")}}, {{7, entry(9, 2, "A.ICC")}}, {}},
        {"added, dropped and re-marked", {{0, entry(1, 2, "A.ICC")}, {1, entry(2, 3, "B.ICC")}},
         {{0, entry(1, 4, "A.ICC")}, {1, entry(3, 2, "C.ICC")}}, {"+C.ICC@4:2", "-B.ICC@4:3", "~A.ICC@4:2>4"}},
        {"another location is another profile", {{0, entry(1, 2, "A.ICC", 4)}}, {{0, entry(1, 2, "A.ICC", 5)}},
         {"+A.ICC@5:2", "-A.ICC@4:2"}},
        {"free slots do not count, whatever iNum says", {{0, entry(1, 0, "A.ICC")}, {499, entry(1, 2, "B.ICC")}},
         {{0, entry(1, 2, "A.ICC")}, {499, entry(1, 0, "B.ICC")}}, {"+A.ICC@4:2", "-B.ICC@4:2"}},
        {"a profile held twice pairs once", {{0, entry(1, 2, "A.ICC")}, {1, entry(1, 3, "A.ICC")}},
         {{0, entry(1, 3, "A.ICC")}}, {"-A.ICC@4:3", "~A.ICC@4:2>3"}},
    };
    for (const auto& c : cases) {
        ProfileTable before{}, after{};
        after.iNum = 500;  // the comparison looks at the slots only
        for (const auto& [slot, e] : c.before) before.Entry[slot] = e;
        for (const auto& [slot, e] : c.after) after.Entry[slot] = e;
        EXPECT_EQ(changes_of(tz::ctl::compare_profiles(before, after)), c.expected) << c.what;
    }
    // A full text field has no terminator: all 32 bytes are read.
    ProfileTable before{}, after{};
    before.Entry[0] = entry(1, 2, "");
    std::memset(before.Entry[0].FileName, 'X', sizeof before.Entry[0].FileName);
    std::memset(before.Entry[0].ProfileName, 'Y', sizeof before.Entry[0].ProfileName);
    const auto dropped = tz::ctl::compare_profiles(before, after).dropped;
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_EQ(dropped[0].file_name + dropped[0].profile_name, std::string(32, 'X') + std::string(32, 'Y'));
}

}  // namespace
