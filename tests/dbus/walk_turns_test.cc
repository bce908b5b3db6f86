// Walks one at a time in a service process: two callers walking two printers
// at once, a third caller served meanwhile, and a waiting walk whose caller
// leaves the bus.
#include <unistd.h>

#include <filesystem>
#include <future>
#include <latch>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "bus_client.h"
#include "bus_names.h"
#include "methods.h"
#include "bus_watch.h"
#include "udp_relay.h"
#include "helper_client.h"
#include "private_bus.h"
#include "snmp_agent.h"

namespace {

using tz::test::connect;
using tz::test::UdpRelay;
using tz::test::PrivateBus;
using tz::test::reply_of;

std::string walk_of(const std::string& model, const std::string& user, const std::string& peer) {
    return tz::client::walk_request(
        model, user,
        {"snmpwalk", "-v", "1", "-c", "public", "-t", "20", "-r", "0", peer, tz::test::kProfileTable});
}

void clear_folder(const std::string& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) std::filesystem::remove(entry);
}

// A second printer whose rows differ from printer_table's in every column.
std::vector<std::string> other_printer(int rows) {
    std::vector<std::string> lines;
    for (int r = 1; r <= rows; ++r)
        for (auto& line : tz::test::printer_row(r, 5, "DST" + std::to_string(r) + ".ICM", 3))
            lines.push_back(line);
    return lines;
}

TEST(WalkTurns, TwoWalksAtOnceEachLeaveTheirFileAsALoneWalkAndAThirdCallerIsServed) {
    PrivateBus bus(30);
    tz::test::SnmpAgent first_printer(tz::test::printer_table(9));
    tz::test::SnmpAgent second_printer(other_printer(14));
    UdpRelay relays({first_printer.port(), second_printer.port()});
    auto alice = connect(bus);
    auto bob = connect(bus);
    auto other = connect(bus);
    ASSERT_TRUE(alice && bob && other);
    const std::string walks[2] = {walk_of("T48Q", "alice", relays.peer(0)),
                                  walk_of("T49X", "bob", relays.peer(1))};
    const std::string files[2] = {bus.prefs() + "alice-T48Q-profile.plist",
                                  bus.prefs() + "bob-T49X-profile.plist"};
    tz::client::HelperClient* walkers[2] = {alice.get(), bob.get()};

    std::string alone[2];
    for (int i = 0; i < 2; ++i) {
        clear_folder(bus.prefs());
        ASSERT_EQ(reply_of(walkers[i]->mib_walk(walks[i])), "iRet=0");
        alone[i] = tz::test::read_file(files[i]);
    }

    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        clear_folder(bus.prefs());
        relays.close();
        std::latch start(2);
        std::future<tz::client::Outcome> outcomes[2];
        for (int i = 0; i < 2; ++i)
            outcomes[i] = std::async(std::launch::async, [&, i] {
                start.arrive_and_wait();
                return walkers[i]->mib_walk(walks[i]);
            });

        // One walk is under way and held; the other has arrived or will.
        const int running = relays.wait_for_request();
        ASSERT_GE(running, 0) << "no walk reached its printer";
        EXPECT_EQ(reply_of(other->exist(bus.prefs())), "TRUE");
        EXPECT_EQ(relays.requests(1 - running), 0u) << "the second walk began while the first ran";
        for (auto& outcome : outcomes)
            EXPECT_EQ(outcome.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

        relays.open();
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(reply_of(outcomes[i].get()), "iRet=0");
            EXPECT_TRUE(tz::test::read_file(files[i]) == alone[i])
                << files[i] << " differs from a lone walk's";
        }
    }
}

TEST(WalkTurns, AWaitingWalkWhoseCallerLeavesNeverRuns) {
    PrivateBus bus(30);
    tz::test::SnmpAgent printer(tz::test::printer_table(3));
    UdpRelay relays({printer.port()});
    auto first = connect(bus);
    auto other = connect(bus);
    ASSERT_TRUE(first && other);

    relays.close();
    auto held = std::async(std::launch::async,
                           [&] { return first->mib_walk(walk_of("T48Q", "alice", relays.peer(0))); });
    ASSERT_EQ(relays.wait_for_request(), 0);

    // The leaver: known to the service (one call answered), then a walk that
    // the bus has delivered, then gone.
    auto leaver = sdbus::createSessionBusConnectionWithAddress(bus.address());
    const std::string leaver_name = leaver->getUniqueName();
    auto proxy =
        sdbus::createProxy(*leaver, std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath));
    std::string reply;
    proxy->callMethod(std::string(tz::protocol::kExist.name))
        .onInterface(std::string(tz::bus::kInterface))
        .withArguments(std::string("/"))
        .storeResultsTo(reply);
    ASSERT_EQ(reply, "TRUE");
    tz::test::BusWatch left(bus.address(),
                            "type='signal',member='NameOwnerChanged',arg0='" + leaver_name + "'",
                            [](sdbus::Message& m) { return m.getMemberName(); });
    proxy->callMethodAsync(std::string(tz::protocol::kMibWalk.name))
        .onInterface(std::string(tz::bus::kInterface))
        .withArguments(walk_of("T48Q", "leaver", relays.peer(0)))
        .uponReplyInvoke([](const sdbus::Error*, std::string) {});
    // The bus handles the leaver's messages in order: once it answers this,
    // it has passed the walk on to the service.
    auto daemon = sdbus::createProxy(*leaver, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    std::string owner;
    daemon->callMethod("GetNameOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string(tz::bus::kBusName))
        .storeResultsTo(owner);
    daemon.reset();
    proxy.reset();
    leaver.reset();
    ASSERT_TRUE(left.wait_until([](const auto& seen) { return !seen.empty(); }));
    // The bus delivers the departure to the service before this call.
    EXPECT_EQ(reply_of(other->exist("/")), "TRUE");

    relays.open();
    EXPECT_EQ(reply_of(held.get()), "iRet=0");
    // Walks take turns in arrival order: the leaver's would have run before
    // this one.
    EXPECT_EQ(reply_of(other->mib_walk(walk_of("T48Q", "bob", relays.peer(0)))), "iRet=0");
    EXPECT_TRUE(tz::test::exists(bus.prefs() + "bob-T48Q-profile.plist"));
    EXPECT_FALSE(tz::test::exists(bus.prefs() + "leaver-T48Q-profile.plist"));
}

}  // namespace
