// tzhelperctl against a real tzhelperd on a private bus: the exit status, the
// line on stderr and the JSON of each kind of outcome, every command's help,
// and a walk's summary.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "helper_client.h"
#include "private_bus.h"
#include "snmp_agent.h"

namespace {

using nlohmann::json;
using tz::test::CommandResult;
using tz::test::PrivateBus;
using tz::test::run_command;

const std::string kCtl = TZHELPERCTL_PATH;
const std::string kNotProvided =
    "the name tazorex.printers.T48Q.Helper is not provided by any service: is the tzhelper package installed?";

// A bus on which the helper's name is not activatable.
void forget_the_service(const PrivateBus& bus) {
    std::filesystem::remove(bus.dir().file("services/tazorex.printers.T48Q.Helper.service"));
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    daemon->callMethod("ReloadConfig").onInterface("org.freedesktop.DBus");
}

TEST(Tzhelperctl, ExitStatusAndMessageSayWhatTheOutcomeMeans) {
    PrivateBus served, bare;
    forget_the_service(bare);
    const std::string missing = served.prefs() + "missing.plist";
    // No agent listens on port 1: the walk's request goes unanswered.
    const std::vector<std::string> silent_walk = {"walk", "--model", "T48Q", "--user", "alice", "--", "-v", "1",
                                                  "-c", "public", "-t", "1", "-r", "0", "127.0.0.1:1"};
    enum Bus { kServed, kBare, kNoBus };
    struct Case {
        Bus bus;
        std::vector<std::string> args;
        int status;
        std::string out;  // stdout starts with it
        std::string err;  // stderr holds it; "" for an empty stderr
    };
    const Case cases[] = {
        {kServed, {"exist", served.prefs()}, 0, "TRUE\n", ""},
        {kServed, {"exist", missing}, 1, "FALSE\n", missing + " does not exist for the helper"},
        {kServed, {"is-admin", "/proc/none/x"}, 1, "FALSE\n", "the helper cannot write /proc/none/x"},
        {kServed, silent_walk, 1, "iRet=1\n", "the printer did not answer or the walk stopped (iRet=1)"},
        {kServed, {"walk", "--model", "T48Q", "--user", "alice", "--", "-Z"}, 1, "iRet=-1\n",
         "the SNMP arguments were refused (iRet=-1)"},
        {kServed, {"walk", "--model", "T48Q", "--user", "alice", "--", "-V"}, 1, "iRet=-2\n",
         "the SNMP argument parser stopped after its help or version output, or the pass phrase "
         "gave no key (iRet=-2)"},
        {kServed, {"raw", "writeDataToPlistFile_XPC", "file:///tmp/x"}, 1, "",
         "the helper refused the request: "},
        // Not UTF-8: the bus refuses to carry it; the JSON still holds it, as U+FFFD.
        {kServed, {"raw", "tzPListExistProfile_XPC", "/tmp/\xff"}, 1, "",
         "the call failed: org.freedesktop.DBus.Error.InvalidArgs"},
        {kBare, {"exist", "/"}, 3, "", kNotProvided},
        {kBare, {"show", "--user", "alice", "--model", "T48Q"}, 3, "", kNotProvided},
        {kNoBus, {"exist", "/"}, 3, "", "no session bus: DBUS_SESSION_BUS_ADDRESS is not set"},
        {kNoBus, {"show", "--user", "alice", "--model", "T48Q"}, 3, "", "no session bus"},
        {kServed, {"exist"}, 2, "", "exist takes PATH"},
        {kServed, {"swap", "two", "a", "b"}, 2, "", "swap's TYPE is a number"},
        {kServed, {"walk", "--model", "T48Q", "--", "-v", "1"}, 2, "", "walk needs --model and --user"},
        {kServed, {"exist", "--json=yes", "/"}, 2, "", "--json takes no value"},
        {kServed, {"frobnicate"}, 2, "", "unknown command frobnicate"},
    };
    for (const Case& c : cases) {
        for (const bool as_json : {false, true}) {
            std::vector<std::string> argv;
            if (c.bus == kNoBus)
                argv = {"env", "-u", "DBUS_SESSION_BUS_ADDRESS", "-u", "XDG_RUNTIME_DIR", kCtl};
            else
                argv = {kCtl, "--address", (c.bus == kServed ? served : bare).address()};
            if (as_json) argv.push_back("--json");
            argv.insert(argv.end(), c.args.begin(), c.args.end());
            const CommandResult got = run_command(argv);
            const std::string what = c.args[0] + (as_json ? " --json" : "") + " -> " + got.out + got.err;
            EXPECT_EQ(got.status, c.status) << what;
            if (c.err.empty())
                EXPECT_EQ(got.err, "") << what;
            else
                EXPECT_NE(got.err.find("tzhelperctl: " + c.err), std::string::npos) << what;
            if (c.status == 2 || c.args[0] == "show") {
                EXPECT_EQ(got.out, "") << what;
            } else if (!as_json) {
                EXPECT_EQ(got.out.substr(0, c.out.size()), c.out) << what;
            } else {
                const json out = json::parse(got.out, nullptr, false);
                ASSERT_FALSE(out.is_discarded()) << what;
                EXPECT_EQ(out.value("ok", !c.status), c.status == 0) << what;
                EXPECT_EQ(out.contains("error"), c.out.empty()) << what;
            }
        }
    }
}

TEST(Tzhelperctl, EveryCommandHasItsOwnHelp) {
    for (const char* command : {"is-admin", "swap", "exist", "remove", "write-plist", "write-piece",
                                "finish-piece", "walk", "raw", "show"}) {
        const CommandResult got = run_command({kCtl, command, "--help"});
        EXPECT_EQ(got.status, 0) << command << ": " << got.err;
        EXPECT_EQ(got.out.rfind(std::string("Usage: tzhelperctl [OPTIONS] ") + command + " ", 0), 0u)
            << got.out;
        EXPECT_NE(got.out.find("\nExample:\n  "), std::string::npos) << got.out;
    }
    EXPECT_EQ(run_command({kCtl, "--version"}).out, "tzhelperctl " TZ_VERSION "\n");
}

TEST(Tzhelperctl, AWalkSaysWhatItChangedAndShowFindsTheFileThroughTheHelper) {
    PrivateBus bus;
    const std::string user = "bob";
    const auto walk = [&] {
        tz::test::SnmpAgent agent(tz::test::printer_table(6));
        return run_command({kCtl, "--address", bus.address(), "--json", "walk", "--model", "T48Q", "--user",
                            user, "--", "-v", "1", "-c", "public", "-t", "1", "-r", "0", agent.peer(),
                            tz::test::kProfileTable});
    };
    const CommandResult first = walk();
    ASSERT_EQ(first.status, 0) << first.err;
    const json added = json::parse(first.out);
    // Classes 1 and 2 go to RGB, 3 to SIM and DST.
    EXPECT_EQ(added["summary"]["RGB"]["added"].size(), 4u);
    EXPECT_EQ(added["summary"]["SIM"]["added"].size(), 2u);
    EXPECT_EQ(added["summary"]["DST"]["added"][0],
              json({{"FileName", "PRF00003.ICC"}, {"Location", 5}, {"ProfileName", "Profile 3"}, {"InMenu", 2}}));

    const CommandResult shown = run_command(
        {kCtl, "--address", bus.address(), "show", "--json", "--user", user, "--model", "T48Q"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    const json tables = json::parse(shown.out);
    EXPECT_EQ(tables["categories"]["RGB"]["iNum"], 4);
    EXPECT_EQ(tables["categories"]["SIM"]["entries"][1]["FileName"], "PRF00006.ICC");

    // Unchanged when the printer reports the same; a text summary says so.
    tz::test::SnmpAgent agent(tz::test::printer_table(6));
    const CommandResult again =
        run_command({kCtl, "--address", bus.address(), "walk", "--model", "T48Q", "--user", user, "--", "-v",
                     "1", "-c", "public", agent.peer(), tz::test::kProfileTable});
    EXPECT_EQ(again.out, "iRet=0\nRGB: no change\nSIM: no change\nDST: no change\n") << again.err;
    EXPECT_EQ(again.err, "") << "no progress line when stderr is not a terminal";
}

TEST(HelperClient, ReadsTheHelpersPropertiesAndReportsItsOwnWalksProgress) {
    PrivateBus bus;
    tz::client::BusError error;
    auto client = tz::client::HelperClient::connect(bus.address(), &error);
    ASSERT_TRUE(client) << error.message;
    EXPECT_EQ(client->preferences_directory().reply, bus.prefs());
    EXPECT_EQ(client->version().reply, TZ_VERSION);
    const auto unknown = client->property("Colour");
    ASSERT_FALSE(unknown.ok());
    EXPECT_EQ(unknown.error->name, "org.freedesktop.DBus.Error.UnknownProperty");

    // A long walk (the agent's whole tree) is under way when a second caller
    // walks a printer of 3 rows: that walk waits its turn, hearing the first
    // one's progress, and must count only its own: 6 variables a row, the
    // final count last.
    auto other = tz::client::HelperClient::connect(bus.address(), &error);
    ASSERT_TRUE(other) << error.message;
    tz::test::SnmpAgent agent(tz::test::printer_table(3));
    const auto walk = [&](tz::client::HelperClient& walker, const std::string& root,
                          const std::function<void(uint32_t)>& progress) {
        return walker
            .mib_walk(tz::client::walk_request("T48Q", "alice",
                                               {"snmpwalk", "-v", "2c", "-c", "public", agent.peer(), root}),
                      progress)
            .reply;
    };
    std::vector<uint32_t> long_counts, counts;
    std::promise<void> under_way;
    auto long_walk = std::async(std::launch::async, [&] {
        return walk(*client, "1.3.6.1", [&](uint32_t variables) {
            if (long_counts.empty()) under_way.set_value();
            long_counts.push_back(variables);
        });
    });
    under_way.get_future().wait();
    EXPECT_EQ(walk(*other, tz::test::kProfileTable, [&](uint32_t variables) { counts.push_back(variables); }),
              "iRet=0");
    EXPECT_EQ(long_walk.get(), "iRet=0");
    ASSERT_FALSE(counts.empty());
    EXPECT_EQ(counts.back(), 18u);
    EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end())) << ::testing::PrintToString(counts);
    EXPECT_GT(long_counts.back(), 18u);
    EXPECT_EQ(client->exist(bus.prefs()).reply, "TRUE") << "the connection serves plain calls after it";
}

}  // namespace
