// One walk at a time in a service process, kept apart by the service.
#include <filesystem>
#include <future>
#include <latch>

#include <sdbus-c++/sdbus-c++.h>

#include <gtest/gtest.h>

#include "private_bus.h"
#include "snmp_agent.h"
#include "udp_relay.h"

namespace {

using tz::test::connect;
using tz::test::reply_of;
using tz::test::UdpRelay;

std::string walk_of(const std::string& model, const std::string& user, const std::string& peer) {
    return tz::client::walk_request(
        model, user, {"snmpwalk", "-v", "1", "-c", "public", "-t", "20", "-r", "0", peer, tz::test::kProfileTable});
}

// Two walks at once never overlap: each file is byte for byte a lone walk's,
// the second walk sends nothing while the first is held, and a third caller
// is served meanwhile (a held walk does not block short calls).
TEST(WalkTurns, TwoWalksAtOnceEachLeaveTheirFileAsALoneWalkAndAThirdCallerIsServed) {
    tz::test::PrivateBus bus(30);
    std::vector<std::string> second_table;  // differs from printer_table's in every column
    for (int r = 1; r <= 14; ++r)
        for (auto& line : tz::test::printer_row(r, 5, "DST" + std::to_string(r) + ".ICM", 3))
            second_table.push_back(line);
    tz::test::SnmpAgent first_printer(tz::test::printer_table(9)), second_printer(second_table);
    UdpRelay relays[2] = {UdpRelay(first_printer.port()), UdpRelay(second_printer.port())};
    std::unique_ptr<tz::client::HelperClient> walkers[2] = {connect(bus), connect(bus)}, other = connect(bus);
    ASSERT_TRUE(walkers[0] && walkers[1] && other);
    const std::string walks[2] = {walk_of("T48Q", "alice", relays[0].peer()), walk_of("T49X", "bob", relays[1].peer())};
    const std::string files[2] = {bus.prefs() + "alice-T48Q-profile.plist", bus.prefs() + "bob-T49X-profile.plist"};
    const auto clear = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(bus.prefs())) std::filesystem::remove(entry);
    };

    std::string alone[2];
    for (int i = 0; i < 2; ++i) {
        clear();
        ASSERT_EQ(reply_of(walkers[i]->mib_walk(walks[i])), "iRet=0");
        alone[i] = tz::test::read_file(files[i]);
    }
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        clear();
        for (UdpRelay& relay : relays) relay.hold(true);
        std::latch start(2);
        std::future<tz::client::Outcome> outcomes[2];
        for (int i = 0; i < 2; ++i)
            outcomes[i] = std::async(std::launch::async, [&, i] {
                start.arrive_and_wait();
                return walkers[i]->mib_walk(walks[i]);
            });
        const int running = UdpRelay::first_asked({&relays[0], &relays[1]});
        ASSERT_GE(running, 0) << "no walk reached its printer";
        EXPECT_EQ(reply_of(other->exist(bus.prefs())), "TRUE");
        EXPECT_EQ(relays[1 - running].requests(), 0u) << "the second walk began while the first ran";
        for (auto& outcome : outcomes)
            EXPECT_EQ(outcome.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        for (UdpRelay& relay : relays) relay.hold(false);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(reply_of(outcomes[i].get()), "iRet=0");
            EXPECT_TRUE(tz::test::read_file(files[i]) == alone[i]) << files[i] << " differs from a lone walk's";
        }
    }
}

TEST(WalkTurns, AWaitingWalkWhoseCallerLeavesNeverRuns) {
    tz::test::PrivateBus bus(30);
    tz::test::SnmpAgent printer(tz::test::printer_table(3));
    UdpRelay relay(printer.port());
    auto first = connect(bus), other = connect(bus), leaver = connect(bus);
    ASSERT_TRUE(first && other && leaver);
    relay.hold(true);
    auto held = std::async(std::launch::async, [&] { return first->mib_walk(walk_of("T48Q", "alice", relay.peer())); });
    ASSERT_EQ(UdpRelay::first_asked({&relay}), 0);

    // The leaver: known to the service (one call answered), then a walk the
    // service has received (before the property read behind it), then gone.
    const std::string name = leaver->unique_name();
    ASSERT_EQ(reply_of(leaver->exist("/")), "TRUE");
    leaver->set_walk_timeout(std::chrono::milliseconds(1));
    EXPECT_FALSE(leaver->mib_walk(walk_of("T48Q", "leaver", relay.peer())).ok());
    ASSERT_EQ(reply_of(leaver->version()), TZ_VERSION);
    leaver.reset();
    // Once the bus has dropped the name, the service gets the departure before any later call.
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    for (bool has = true; has; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        daemon->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(name).storeResultsTo(has);
    EXPECT_EQ(reply_of(other->exist("/")), "TRUE");

    relay.hold(false);
    EXPECT_EQ(reply_of(held.get()), "iRet=0");
    // Turns go in arrival order: the leaver's walk would have run before this one.
    EXPECT_EQ(reply_of(other->mib_walk(walk_of("T48Q", "bob", relay.peer()))), "iRet=0");
    EXPECT_TRUE(tz::test::exists(bus.prefs() + "bob-T48Q-profile.plist"));
    EXPECT_FALSE(tz::test::exists(bus.prefs() + "leaver-T48Q-profile.plist"));
}

}  // namespace
