// tzhelperctl against a real tzhelperd on a private bus (exit status, stderr line and JSON of each outcome, a walk's
// summary, show through the helper's preferences folder), and the summary's comparison of tables.
#include <sys/stat.h>

#include <filesystem>
#include <tuple>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "helper_client.h"
#include "private_bus.h"
#include "profile_tables.h"
#include "snmp_agent.h"
#include "walk_summary.h"

namespace tz::test {
namespace {

using nlohmann::json;
using Args = std::vector<std::string>;

const std::string kCtl = TZHELPERCTL_PATH;

TEST(Tzhelperctl, ExitStatusMessageAndJsonSayWhatTheOutcomeMeans) {
    PrivateBus served, bare;
    std::filesystem::remove(bare.dir().file("services/tazorex.printers.T48Q.Helper.service"));  // not activatable
    const std::string prefs = served.prefs(), missing = prefs + "missing.plist", fifo = prefs + "fifo.plist";
    ::mkfifo(fifo.c_str(), 0600);  // neither the helper nor show waits for a writer
    enum Bus { kServed, kBare, kNoBus };
    const struct {
        Bus bus;
        Args args;
        int status;
        std::string out, err, in = "";  // stdout starts with out ("": the JSON holds an error); stderr holds err
    } cases[] = {
        {kServed, {"exist", missing}, 1, "FALSE\n", missing + " does not exist for the helper"},
        {kServed, {"is-admin", "/proc/none/x"}, 1, "FALSE\n", "the helper cannot write /proc/none/x"},
        {kServed, {"remove", missing}, 1, "FALSE\n", "the helper could not remove " + missing},
        {kServed, {"write-piece", "rel", "x"}, 1, "FALSE\n", "the helper could not append to the temporary .dummy"},
        {kServed, {"finish-piece", "rel"}, 1, "FALSE\n", "the helper could not rename the .dummy file onto rel"},
        {kServed, {"write-plist", prefs + "w.plist", "-"}, 0, "TRUE\n", "", "<plist/>"},
        {kServed, {"swap", "2147483647", "", ""}, 0, "TRUE\n", ""},
        {kServed, {"swap", "--", "-2147483648", "NULL", "NULL"}, 0, "TRUE\n", ""},
        {kServed, {"--timeout", "86400", "exist", prefs}, 0, "TRUE\n", ""},
        {kServed, {"walk", "--model", "M", "--user", "u", "--", "-v", "1", "-c", "public", "-t", "1", "-r", "0",
                   "127.0.0.1:1"}, 1, "iRet=1\n", "the printer did not answer or the walk stopped (iRet=1)"},
        {kServed, {"walk", "--model", "M", "--user", "u", "--", "-Z"}, 1, "iRet=-1\n", "the SNMP arguments were"},
        {kServed, {"walk", "--model", "M", "--user", "u", "--", "-V"}, 1, "iRet=-2\n", "the SNMP argument parser"},
        {kServed, {"raw", "writeDataToPlistFile_XPC", "file:///tmp/x"}, 1, "", "the helper refused the request: "},
        // Not UTF-8: the bus refuses to carry it; the JSON still holds it, as U+FFFD.
        {kServed, {"raw", "tzPListExistProfile_XPC", "/tmp/\xff"}, 1, "",
         "the call failed: org.freedesktop.DBus.Error.InvalidArgs"},
        {kServed, {"show", missing}, 1, "", "cannot read " + missing + ": No such file"},
        {kServed, {"show", fifo}, 1, "", "cannot read " + fifo + " as a profile plist (a regular file of this user"},
        {kServed, {"show", "-"}, 1, "", "cannot read standard input as a profile plist", "junk"},
        {kBare, {"exist", "/"}, 3, "", "the name tazorex.printers.T48Q.Helper is not"},
        {kBare, {"show", "--user", "u", "--model", "M"}, 3, "", "the name tazorex.printers.T48Q.Helper is not"},
        {kNoBus, {"exist", "/"}, 3, "", "no session bus: DBUS_SESSION_BUS_ADDRESS is not set"},
        {kNoBus, {"show", "--user", "u", "--model", "M"}, 3, "", "no session bus"},
        {kNoBus, {"--address", "unix:path=/x", "exist", "/"}, 3, "", "cannot connect to the bus unix:path=/x: Failed"},
        {kServed, {"exist"}, 2, "", "exist takes PATH"}, {kServed, {"exist", "a", "b"}, 2, "", "exist takes PATH"},
        {kServed, {"swap", "two", "a", "b"}, 2, "", "swap's TYPE is a number"},
        {kServed, {"swap", "2147483648", "a", "b"}, 2, "", "swap's TYPE is a number"},
        {kServed, {"--timeout", "0", "exist", "/"}, 2, "", "--timeout takes a number of seconds"},
        {kServed, {"--timeout", "1x", "exist", "/"}, 2, "", "--timeout takes a number of seconds"},
        {kServed, {"walk", "--model", "M", "--", "-v"}, 2, "", "walk needs --model and --user"},
        {kServed, {"walk", "--user", "u", "--model", "", "--"}, 2, "", "--model needs a value"},
        {kServed, {"walk", "--user"}, 2, "", "--user needs a value"},
        {kServed, {"exist", "--json=yes", "/"}, 2, "", "--json takes no value"},
        {kServed, {"exist", "--frob", "/"}, 2, "", "unknown option --frob"},
        {kServed, {"raw", "mibwalk_xpc", "x"}, 2, "", "raw takes one of the helper's eight methods"},
        {kServed, {"show"}, 2, "", "show needs a FILE"},
        {kServed, {"show", "--user", "u", "f"}, 2, "", "show takes FILE, or --user and --model"},
        {kServed, {"frobnicate"}, 2, "", "unknown command frobnicate"}, {kServed, {}, 2, "", "no command"},
    };
    for (const auto& c : cases) {
        for (const bool as_json : {false, true}) {
            Args argv = c.bus == kNoBus ? Args{"env", "-u", "DBUS_SESSION_BUS_ADDRESS", "-u", "XDG_RUNTIME_DIR", kCtl}
                                        : Args{kCtl, "--address", (c.bus == kServed ? served : bare).address()};
            if (as_json) argv.push_back("--json");
            argv.insert(argv.end(), c.args.begin(), c.args.end());
            if (!c.in.empty()) argv.insert(argv.begin(), {"sh", "-c", "printf %s \"$0\" | \"$@\"", c.in});
            const auto got = run_command(argv);
            SCOPED_TRACE(::testing::PrintToString(argv) + " -> " + got.out + got.err);
            EXPECT_EQ(got.status, c.status);
            EXPECT_TRUE(c.err.empty() ? got.err.empty() : got.err.find("tzhelperctl: " + c.err) != std::string::npos);
            if (c.status == 2 || (!c.args.empty() && c.args[0] == "show") || !as_json) {
                EXPECT_EQ(got.out.substr(0, c.out.size() + (c.out.empty() || as_json)), c.out);
                continue;
            }
            const json out = json::parse(got.out, nullptr, false);
            ASSERT_TRUE(out.is_object());
            EXPECT_EQ(out.value("ok", !c.status), c.status == 0);
            EXPECT_EQ(out.contains("error"), c.out.empty());
        }
    }
    EXPECT_EQ(read_file(prefs + "w.plist"), "<plist/>");
    // Without --debug the service keeps the walks' diagnostics (of -Z, say) out of its stderr.
    EXPECT_EQ(read_file(served.dir().file("daemon.err")).find("tzhelperd: walk"), std::string::npos);
    // raw's help lists the eight methods two to a line, the last after "or".
    const std::string raw_help = run_command({kCtl, "raw", "--help"}).out;
    EXPECT_NE(raw_help.find(",\n           writeDataToPlistFileRename_XPC or mibwalk_XPC\n"), std::string::npos);
}

TEST(Tzhelperctl, AWalkSaysWhatItChangedAndShowFindsTheFileThroughTheHelper) {
    PrivateBus bus;
    const auto run = [&](int rows, Args args, const PrivateBus* on = nullptr) {
        SnmpAgent agent(printer_table(rows));
        args.insert(args.begin(), {kCtl, "--address", (on ? *on : bus).address()});
        if (rows > 0) args.insert(args.end(), {"walk", "--model", "T48Q", "--user", "bob", "--", "-v", "1", "-c",
                                               "public", agent.peer(), kProfileTable});
        return run_command(args);
    };
    const json added = json::parse(run(6, {"--json"}).out)["summary"];  // class 3 goes to SIM and DST
    EXPECT_EQ(added["DST"]["added"][1],  // after PRF00003.ICC
              json::parse(R"({"FileName": "PRF00006.ICC", "Location": 4, "ProfileName": "Profile 6", "InMenu": 2})"));
    const json tables = json::parse(run(0, {"show", "--json", "--user", "bob", "--model", "T48Q"}).out)["categories"];
    EXPECT_EQ(tables["RGB"]["iNum"], 4);
    EXPECT_EQ(tables["SIM"]["entries"][1]["FileName"], "PRF00006.ICC");
    const std::string text = run(0, {"show", "--user", "bob", "--model", "T48Q"}).out;  // three tables, DST last
    const size_t dst = text.find("DST (iNum 2)\n");
    EXPECT_TRUE(text.rfind("RGB (iNum 4)\n", 0) == 0 && dst != std::string::npos &&
                text.find("(iNum", dst + 5) == std::string::npos && text.find("(no profile)") == std::string::npos)
        << text;
    const std::string all = run(0, {"show", "--all", "--user", "bob", "--model", "T48Q"}).out;  // free slots too
    EXPECT_NE(all.find("\n   499 ", all.find("DST (iNum 2)\n")), std::string::npos) << all.substr(0, 400);
    // Row 6 is gone from the printer: kept, and marked so; no progress line when stderr is not a terminal.
    const std::string remarked = "0 added, 0 dropped, 1 re-marked\n  re-marked  PRF00006.ICC  location 4   "
                                 "\"Profile 6\"           InMenu 2 -> 1\n";
    const auto again = run(5, {});
    EXPECT_EQ(again.out + again.err, "iRet=0\nRGB: no change\nSIM: " + remarked + "DST: " + remarked);
    // A helper whose folder property cannot be read (a bus that refuses the Get) still walks: only the summary is lost.
    const PrivateBus refusing(1, R"(<deny send_interface="org.freedesktop.DBus.Properties" send_member="Get"/>)");
    const auto unsummed = run(5, {}, &refusing);
    EXPECT_TRUE(unsummed.out.starts_with("iRet=0") && exists(refusing.prefs() + "bob-T48Q-profile.plist") &&
                unsummed.err.find("the helper's preferences folder is unknown: ") != std::string::npos) << unsummed.err;
}

// Slots {slot, InMenu, FILE, LOCATION} before and after; changes "+FILE@LOC:OLD>NEW" added, "-..." dropped, "~..."
// re-marked (InMenu 0 on the side where the profile is missing).
TEST(WalkSummary, NamesProfilesAddedDroppedAndReMarkedByFileNameAndLocation) {
    const auto table = [](std::initializer_list<std::tuple<int, int, std::string, int>> slots) {
        ProfileTable t{};  // iNum 0: the comparison looks at the slots only
        for (const auto& [slot, in_menu, file, location] : slots) {
            t.Entry[slot] = entry(1, in_menu, "", location);
            file.copy(t.Entry[slot].FileName, sizeof t.Entry[slot].FileName);  // 32 bytes: no terminator
        }
        return t;
    };
    const struct {
        ProfileTable before, after;
        std::vector<std::string> expected;
    } cases[] = {
        {table({{0, 2, "A", 4}}), table({{7, 2, "A", 4}}), {}},
        {table({{0, 2, "A", 4}, {1, 3, "B", 4}}), table({{0, 4, "A", 4}, {1, 2, "C", 4}}),
         {"+C@4:0>2", "-B@4:3>0", "~A@4:2>4"}},
        {table({{0, 2, "A", 4}}), table({{0, 2, "A", 5}}), {"+A@5:0>2", "-A@4:2>0"}},
        {table({{0, 0, "A", 4}, {499, 2, "B", 4}}), table({{0, 2, "A", 4}, {499, 0, "B", 4}}),
         {"+A@4:0>2", "-B@4:2>0"}},
        {table({{0, 2, "A", 4}, {1, 3, "A", 4}}), table({{0, 3, "A", 4}}), {"-A@4:3>0", "~A@4:2>3"}},
        {table({{0, 2, std::string(32, 'X'), 4}}), table({}), {"-" + std::string(32, 'X') + "@4:2>0"}},
    };
    for (const auto& c : cases) {
        const tz::ctl::CategoryChanges diff = tz::ctl::compare_profiles(c.before, c.after);
        std::vector<std::string> got;
        for (const auto& [sign, list] : {std::pair{'+', &diff.added}, {'-', &diff.dropped}, {'~', &diff.remarked}})
            for (const auto& p : *list)
                got.push_back(sign + p.file_name + "@" + std::to_string(p.location) + ":" +
                              std::to_string(p.old_in_menu) + ">" + std::to_string(p.new_in_menu));
        EXPECT_EQ(got, c.expected) << ::testing::PrintToString(c.expected);
    }
}

}  // namespace
}  // namespace tz::test
