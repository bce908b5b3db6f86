// tzhelperd on a private dbus-daemon: activation, routing, Helper1, errors, uid check, idle exit, options, walk turns.
#include <algorithm>
#include <future>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "methods.h"
#include "private_bus.h"
#include "scripted_agent.h"
#include "snmp_agent.h"

namespace tz::test {
namespace {

// busctl, an independent client: one row per method, with a reply or file no other operation gives (the previous copy's
// name has a space, a colon and a non-ASCII letter); then the service ends when idle, and a call starts it again: from
// another user (as root), denied each time, then from its own user, served.
TEST(HelperBus, ActivatedByTheFirstCallRoutesEachMethodToItsOperationThenEndsWhenIdleAndDeniesOtherUsers) {
    // No client from an unreachable bus, even with nowhere to put the reason; first, so that a crash ends the test.
    EXPECT_EQ(tz::client::HelperClient::connect("unix:path=/nonexistent/bus", nullptr), nullptr);
    PrivateBus bus;
    SnmpAgent agent(printer_table(12));
    const std::string current = bus.prefs() + "alice-T48Q-profile.plist", previous = bus.prefs() + "a b:\xC3\xA4.plist";
    const std::string target = bus.prefs() + "written.plist", url = tz::client::file_url(target);
    namespace p = tz::protocol;
    const struct {
        std::string_view method;
        std::string request, reply, path, content;  // content "-": `path` must not exist; "?": any
    } rows[] = {
        {p::kMibWalk.name, walk_of("T48Q", "alice", agent.peer()), "iRet=0", current, "?"},
        {p::kExist.name, current, "TRUE", current, "?"},
        {p::kIsAdmin.name, bus.prefs() + "probe", "TRUE", bus.prefs() + "probe", "-"},
        {p::kSwap.name, tz::client::swap_request(2, current, previous), "TRUE", previous, "?"},
        {p::kRemove.name, previous, "TRUE", previous, "-"},
        {p::kWriteDictionary.name, tz::client::write_request(url, "<plist/>"), "TRUE", target, "<plist/>"},
        {p::kWriteData.name, tz::client::write_request(url, "piece"), "TRUE", target + ".dummy", "piece"},
        {p::kWriteDataRename.name, url, "TRUE", target, "piece"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.request);
        const auto got = run_command({"busctl", "--address=" + bus.address(), "call", std::string(tz::bus::kBusName),
                                      std::string(tz::bus::kObjectPath), std::string(tz::bus::kInterface),
                                      std::string(row.method), "s", row.request});
        EXPECT_EQ(got.out, "s \"" + row.reply + "\"\n") << got.err;
        EXPECT_EQ(exists(row.path), row.content != "-");
        EXPECT_EQ(row.content == "-" || row.content == "?" ? row.content : read_file(row.path), row.content);
    }
    const pid_t first = bus.service_pid();
    ASSERT_GT(first, 0);
    ASSERT_TRUE(wait_for_exit(first, std::chrono::seconds(60))) << "no idle exit";
    // The second call is refused as the first: what was found out about the caller is kept.
    const auto denied = [](const auto& o) { return o.error && o.error->name == tz::bus::kAccessDenied; };
    EXPECT_TRUE(::geteuid() != 0 || run_unprivileged([&] {
                  auto client = tz::client::HelperClient::connect(bus.address(), nullptr);
                  return client && denied(client->write_dictionary(tz::client::write_request(url, "x"))) &&
                                 denied(client->exist("/")) ? 0 : 1;
              }) == 0);
    EXPECT_EQ(read_file(target), "piece");
    EXPECT_EQ(reply_of(connect(bus)->exist("/")), "TRUE");
}

TEST(CommandLine, OptionsAndUsageErrors) {
    const struct {
        std::vector<std::string> args;
        std::string out, err;  // out: a part of stdout; empty: exit status 2 and a one-line stderr holding err
    } cases[] = {
        {{"--help"}, "(default /var/lib/tzhelper/tazorex.printers.T48Q/", ""},
        {{"--walk-window=1", "--walk-window=2147483647", "--idle-exit=0", "--idle-exit=31536000", "--walk-timeout=1",
          "--walk-max-variables=1", "--debug", "--version"}, "tzhelperd " TZ_VERSION "\n", ""},
        {{"--walk-window", "0"}, "", "--walk-window takes a whole number from 1 to 2147483647, not \"0\""},
        {{"--walk-timeout", "4x"}, "", "--walk-timeout takes a whole number from 1 to 2147483647, not \"4x\""},
        {{"--walk-timeout", "2147483648"}, "", "\"2147483648\""},
        {{"--idle-exit=31536001"}, "", "\"31536001\""},
        {{"--preferences-dir="}, "", "--preferences-dir"},
        {{"--address"}, "", "\"--address\" needs a value"},
        {{"--debug=yes"}, "", "\"--debug=yes\""},
        {{"-x"}, "", "unknown option \"-x\""},
        {{"--bogus"}, "", "\"--bogus\""},
        {{"--debug", "stray"}, "", "\"stray\""},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv = {TZHELPERD_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const auto result = run_command(argv);
        SCOPED_TRACE(::testing::PrintToString(c.args));
        EXPECT_EQ(result.status, c.out.empty() ? 2 : 0);
        EXPECT_TRUE(c.out.empty() ? result.out.empty() : result.out.find(c.out) != std::string::npos) << result.out;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find('\n'), c.err.empty() ? std::string::npos : result.err.size() - 1) << result.err;
    }
}

// The folder check at start (one warning; walks wait until the folder can be made); under --debug the walks' lines.
// SIGTERM stops a walk (-t 86400 at a silent agent): its file is written and the service ends with 0.
TEST(CommandLine, StderrCarriesTheFolderCheckAndUnderDebugTheWalksDiagnosticsAndSigtermStopsAWalk) {
    PrivateBus bus;
    const ScriptedAgent silent(R"("silent_from": "1")");
    const std::string parent = bus.dir().file("no"), folder = parent + "/u/", err = bus.dir().file("err");
    const pid_t service = spawn({TZHELPERD_PATH, "--address", bus.address(), "--idle-exit", "0",
                                 "--preferences-dir", folder, "--debug"}, "", err);
    ASSERT_TRUE(wait_until([&] { return bus.service_pid() == service; }, std::chrono::seconds(30)))
        << "it never owned the name";
    std::filesystem::create_directory(parent);  // the next walk makes the folder
    const auto client = connect(bus);
    client->mib_walk(tz::client::walk_request("T48Q", "alice", {"snmpwalk", "-v", "9"}));
    client->mib_walk(tz::client::walk_request("T48Q", "alice",  // a count of 0 is said too
                     {"snmpwalk", "-v", "1", "-c", "public", "-t", "0.2", "-r", "0", "-Cp", "127.0.0.1:1", "1.3"}));
    client->set_walk_timeout(std::chrono::milliseconds(1));
    EXPECT_FALSE(client->mib_walk(walk_of("T48Q", "carol", silent.peer(), "86400")).ok());
    ASSERT_TRUE(silent.wait_for_requests(1));
    ASSERT_EQ(::kill(service, SIGTERM), 0);
    EXPECT_EQ(wait_status(service), 0);
    EXPECT_TRUE(exists(folder + "carol-T48Q-profile.plist"));
    EXPECT_EQ(read_file(err),
              "<4>tzhelperd: the preferences folder " + folder + " cannot be made: No such file or directory; walks do "
              "not run until it can: ask an administrator to add this user to the lpadmin group\n"
              "<7>tzhelperd: walk: Invalid version specified after -v flag: 9\n"
              "<7>tzhelperd: walk: [UTIL-MIB] Variables found: 0\n"
              "<7>tzhelperd: walk: [UTIL-MIB] Variables found: 0\n");  // the stopped walk's
}

// Walks never overlap: each file is a lone walk's, and a walk asked for while another waits for its printer does not
// begin. The held walk does not block short calls. Each walker hears only its own walk's progress (the first in turn
// alternates: a walker would hear the other's final count before its own), never a count of 0, the final count last.
TEST(WalkTurns, TwoWalksAtOnceEachLeaveTheirFileAsALoneWalkAndAThirdCallerIsServed) {
    PrivateBus bus(30);
    const ScriptedAgent printers[] = {ScriptedAgent(R"("rows": 9)"), ScriptedAgent(R"("rows": 14, "file": "D%d.ICM")")};
    std::unique_ptr<tz::client::HelperClient> walkers[2] = {connect(bus), connect(bus)}, other = connect(bus);
    const std::string walks[2] = {walk_of("T48Q", "alice", printers[0].peer()),
                                  walk_of("T49X", "bob", printers[1].peer())};
    const std::string files[2] = {bus.prefs() + "alice-T48Q-profile.plist", bus.prefs() + "bob-T49X-profile.plist"};
    const uint32_t variables[2] = {9 * 6, 14 * 6};

    std::string alone[2];  // each walk writes only its own file
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(reply_of(walkers[i]->mib_walk(walks[i])), "iRet=0");
        alone[i] = read_file(files[i]);
    }
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        for (const auto& e : std::filesystem::directory_iterator(bus.prefs())) std::filesystem::remove(e);
        for (const ScriptedAgent& printer : printers) printer.hold(true);
        const int first = round % 2;
        const std::size_t asked[2] = {printers[0].requests().size(), printers[1].requests().size()};
        const auto began = [&](int i) {  // a walk begins with its root; guesses of the last may still come in
            const auto seen = printers[i].requests();
            return std::find(seen.begin() + asked[i], seen.end(), "getnext " + kProfileTable) != seen.end();
        };
        std::vector<uint32_t> counts[2];
        std::future<tz::client::Outcome> outcomes[2];
        for (const int i : {first, 1 - first}) {
            outcomes[i] = std::async(std::launch::async, [&, i] {
                return walkers[i]->mib_walk(walks[i], [&, i](uint32_t n) { counts[i].push_back(n); });
            });
            ASSERT_TRUE(i != first || wait_until([&] { return began(i); }, std::chrono::minutes(1)))
                << "the first walk never began";
        }
        for (int call = 0; call < 2; ++call) EXPECT_EQ(reply_of(other->exist(bus.prefs())), "TRUE");
        EXPECT_FALSE(began(1 - first)) << "the second walk began too soon";
        for (const ScriptedAgent& printer : printers) printer.hold(false);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(reply_of(outcomes[i].get()), "iRet=0");
            EXPECT_TRUE(read_file(files[i]) == alone[i]) << files[i] << " differs from a lone walk's";
            EXPECT_TRUE(std::is_sorted(counts[i].begin(), counts[i].end()) && !counts[i].empty() &&
                        counts[i].front() > 0 && counts[i].back() == variables[i])
                << ::testing::PrintToString(counts[i]);
        }
    }
}

// A caller's walk begins only once the calls it sent before are answered (when the printer hears the walk, the 30 MiB
// write sent right before it is whole), and keeps at most 64 MiB of its caller's requests behind it. A caller that
// leaves gives up its waiting walk and stops its running one (-t 86400 at a silent agent).
TEST(WalkTurns, AWalkWaitsForItsCallersEarlierCallsHoldsAtMost64MiBBehindItAndStopsWhenItsCallerLeaves) {
    PrivateBus bus(30);
    const ScriptedAgent printer(R"("rows": 3)"), silent(R"("silent_from": "1")");
    auto first = connect(bus), other = connect(bus), leaver = connect(bus);
    const std::string target = bus.prefs() + "big.plist", big(30u << 20, '/');
    first->set_timeout(std::chrono::milliseconds(1));  // what is left of a call is sent by the next call that waits
    first->set_walk_timeout(std::chrono::milliseconds(1));
    EXPECT_FALSE(first->write_dictionary(tz::client::write_request(tz::client::file_url(target), big)).ok());
    const std::string walk = walk_of("T48Q", "alice", silent.peer(), "86400");
    EXPECT_FALSE(first->mib_walk(walk).ok());
    first->set_timeout(std::chrono::seconds(60));
    ASSERT_EQ(reply_of(first->version()), TZ_VERSION);  // a property read is answered behind a walk
    ASSERT_TRUE(silent.wait_for_requests(1));
    EXPECT_EQ(std::filesystem::file_size(target), big.size()) << "the walk began before the write was done";
    first->set_timeout(std::chrono::milliseconds(1));  // with the running walk's request, exactly 64 MiB kept
    for (const std::size_t size : {big.size(), big.size(), (4u << 20) - walk.size()})
        EXPECT_FALSE(first->exist(std::string(size, '/')).ok());
    first->set_timeout(std::chrono::seconds(60));
    EXPECT_EQ(reply_of(first->exist("/")).substr(0, 56), "error org.freedesktop.DBus.Error.LimitsExceeded: the cal");

    // The leaver: a walk queued (the property read behind it answered), then gone.
    const std::string name = leaver->unique_name();
    leaver->set_walk_timeout(std::chrono::milliseconds(1));
    EXPECT_FALSE(leaver->mib_walk(walk_of("T48Q", "leaver", silent.peer())).ok());
    ASSERT_EQ(reply_of(leaver->version()), TZ_VERSION);
    leaver.reset();
    // Once the bus has dropped the name, the service gets the departure before any later call.
    ASSERT_TRUE(wait_until([&] { return bus.service_pid(name) == 0; }, std::chrono::seconds(60)));
    EXPECT_EQ(reply_of(other->exist("/")), "TRUE");

    // The first walk could not end (its agent is silent) if it went on; the leaver's would run next.
    first.reset();
    EXPECT_EQ(reply_of(other->mib_walk(walk_of("T48Q", "bob", printer.peer()))), "iRet=0");
    for (const auto& [user, walked] : {std::pair{"alice", true}, {"bob", true}, {"leaver", false}})
        EXPECT_EQ(exists(bus.prefs() + user + "-T48Q-profile.plist"), walked) << user;
}

}  // namespace
}  // namespace tz::test
