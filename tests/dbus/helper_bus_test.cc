// tzhelperd's bus front on a real private dbus-daemon: activation, routing of
// each method, the published interfaces, errors, the uid check, idle exit.
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>

#include <gtest/gtest.h>
#include <pugixml.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "as_unprivileged.h"
#include "bus_client.h"
#include "bus_names.h"
#include "bus_watch.h"
#include "methods.h"
#include "snmp_agent.h"

namespace {

using tz::test::connect;
using tz::test::PrivateBus;
using tz::test::reply_of;
using tz::test::run_command;

std::string walk_request(const std::string& peer) {
    return tz::client::walk_request("T48Q", "alice",
                                    {"snmpwalk", "-v", "1", "-c", "public", "-t", "5", peer, tz::test::kProfileTable});
}

// busctl, an independent client: one row per method, each with a reply or a
// file that no other operation would give for the same request.
TEST(HelperBus, ActivatedByTheFirstCallRoutesEachMethodToItsOperation) {
    PrivateBus bus;
    tz::test::SnmpAgent agent(tz::test::printer_table(6));
    const std::string current = bus.prefs() + "alice-T48Q-profile.plist";
    const std::string previous = bus.prefs() + "alice-T48Q-profile.prev.plist";
    const std::string target = bus.prefs() + "written.plist", url = tz::client::file_url(target);
    namespace p = tz::protocol;
    struct Row {
        std::string_view method;
        std::string request, reply, path;
        std::optional<std::string> content;  // of `path`; none: it must not exist
    };
    const Row rows[] = {
        {p::kExist.name, current, "FALSE", current, std::nullopt},
        {p::kMibWalk.name, walk_request(agent.peer()), "iRet=0", current, "?"},
        {p::kExist.name, current, "TRUE", current, "?"},
        {p::kIsAdmin.name, bus.prefs() + "probe", "TRUE", bus.prefs() + "probe", std::nullopt},
        {p::kSwap.name, tz::client::swap_request(2, current, previous), "TRUE", previous, "?"},
        {p::kRemove.name, previous, "TRUE", previous, std::nullopt},
        {p::kWriteDictionary.name, tz::client::write_request(url, "<plist/>"), "TRUE", target, "<plist/>"},
        {p::kWriteData.name, tz::client::write_request(url, "piece"), "TRUE", target + ".dummy", "piece"},
        {p::kWriteDataRename.name, url, "TRUE", target, "piece"},
        {p::kRemove.name, target + ".dummy", "FALSE", target, "piece"},
    };
    ASSERT_EQ(bus.service_pid(), 0) << "nothing runs before the first call";
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.request);
        const auto got = run_command({"busctl", "--address=" + bus.address(), "call", std::string(tz::bus::kBusName),
                                      std::string(tz::bus::kObjectPath), std::string(tz::bus::kInterface),
                                      std::string(row.method), "s", row.request});
        EXPECT_EQ(got.out, "s \"" + row.reply + "\"\n") << got.err;
        EXPECT_EQ(tz::test::exists(row.path), row.content.has_value());
        if (row.content && *row.content != "?") {
            EXPECT_EQ(tz::test::read_file(row.path), *row.content);
        }
    }
}

// Each member of `interface` as one line: kind, name, type, access, arguments.
std::set<std::string> members_of(const pugi::xml_document& doc, std::string_view interface) {
    std::set<std::string> members;
    for (const auto& found : doc.select_nodes("//interface")) {
        if (found.node().attribute("name").value() != interface) continue;
        for (const pugi::xml_node member : found.node().children()) {
            if (member.type() != pugi::node_element) continue;
            std::string line = std::string(member.name()) + " " + member.attribute("name").value() + " " +
                               member.attribute("type").value() + " " + member.attribute("access").value();
            for (const pugi::xml_node part : member.children())
                for (const char* attribute : {"name", "type", "direction", "value"})
                    line += std::string(" ") + part.attribute(attribute).value();
            members.insert(line);
        }
    }
    return members;
}

TEST(HelperBus, PublishesItsInterfacesAndHelper1NamesVersionFolderAndWalkProgress) {
    PrivateBus bus;
    const auto live = run_command({"gdbus", "introspect", "--address", bus.address(), "--dest",
                                   std::string(tz::bus::kBusName), "--object-path", std::string(tz::bus::kObjectPath),
                                   "--xml"});
    pugi::xml_document live_doc, published_doc;
    ASSERT_TRUE(live_doc.load_string(live.out.c_str())) << live.err;
    ASSERT_TRUE(published_doc.load_file(TZ_INTERFACE_XML));
    EXPECT_EQ(members_of(live_doc, tz::bus::kInterface), members_of(published_doc, tz::bus::kInterface));
    EXPECT_EQ(members_of(live_doc, tz::bus::kInterface1).size(), 3u) << "Version, PreferencesDirectory, WalkProgress";
    EXPECT_EQ(members_of(live_doc, tz::bus::kInterface1), members_of(published_doc, tz::bus::kInterface1));

    const auto property = [&](std::string_view name) {
        return run_command({"busctl", "--address=" + bus.address(), "get-property", std::string(tz::bus::kBusName),
                            std::string(tz::bus::kObjectPath), std::string(tz::bus::kInterface1), std::string(name)})
            .out;
    };
    EXPECT_EQ(property(tz::bus::kPreferencesDirectoryProperty), "s \"" + bus.prefs() + "\"\n");
    EXPECT_EQ(property(tz::bus::kVersionProperty), "s \"" TZ_VERSION "\"\n");

    tz::test::SnmpAgent agent(tz::test::printer_table(12));
    tz::test::BusWatch progress(bus.address(),
                                "type='signal',interface='" + std::string(tz::bus::kInterface1) + "',member='" +
                                    std::string(tz::bus::kWalkProgressSignal) + "'",
                                [](sdbus::Message& m) {
                                    std::string caller;
                                    uint32_t variables = 0;
                                    m >> caller >> variables;
                                    return caller + " " + std::to_string(variables);
                                });
    auto walker = connect(bus);
    ASSERT_TRUE(walker);
    EXPECT_EQ(reply_of(walker->mib_walk(walk_request(agent.peer()))), "iRet=0");
    // Twelve rows of six columns; the final count comes last, before the reply.
    const std::string final_count = walker->unique_name() + " 72";
    ASSERT_TRUE(progress.wait_until([&](const auto& seen) {
        return std::find(seen.begin(), seen.end(), final_count) != seen.end();
    })) << ::testing::PrintToString(progress.seen());
    EXPECT_EQ(progress.seen().back(), final_count);
}

TEST(HelperBus, MissingMarkersGiveTheRangeErrorAndTheCallerGoesOn) {
    PrivateBus bus;
    auto client = connect(bus);
    ASSERT_TRUE(client);
    const std::string target = bus.prefs() + "untouched.plist";
    EXPECT_EQ(reply_of(client->write_dictionary(tz::client::file_url(target) + "<plist/>")).rfind(
                  "error " + std::string(tz::bus::kRangeError) + ": ", 0),
              0u);
    EXPECT_FALSE(tz::test::exists(target));
    // A path with a space, a colon and a non-ASCII letter arrives unchanged.
    const std::string odd = bus.prefs() + "a b:\xC3\xA4.plist";
    tz::test::write_file(odd, "text");
    EXPECT_EQ(reply_of(client->exist(odd)), "TRUE");
}

TEST(HelperBus, CallersOfAnotherUserAreDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to call as another user";
    PrivateBus bus;
    const std::string target = bus.prefs() + "by-nobody.plist", address = bus.address();
    EXPECT_EQ(tz::test::run_unprivileged([&] {
                  auto client = tz::client::HelperClient::connect(address, nullptr);
                  if (!client) return 10;
                  const auto write = client->write_dictionary(tz::client::write_request(tz::client::file_url(target), "x"));
                  const auto again = client->exist("/");  // the answer is kept for the caller, not asked again
                  return !write.ok() && write.error->name == tz::bus::kAccessDenied && !again.ok() &&
                                 again.error->name == tz::bus::kAccessDenied
                             ? 0
                             : 11;
              }),
              0);
    EXPECT_FALSE(tz::test::exists(target));
    auto own = connect(bus);
    ASSERT_TRUE(own);
    EXPECT_EQ(reply_of(own->exist("/")), "TRUE") << "the service's own user is still served";
}

TEST(HelperBus, EndsWhenIdleAndIsStartedAgainByTheNextCall) {
    PrivateBus bus(1);
    auto client = connect(bus);
    ASSERT_TRUE(client);
    EXPECT_EQ(reply_of(client->exist("/")), "TRUE");
    const pid_t first = bus.service_pid();
    ASSERT_GT(first, 0);
    ASSERT_TRUE(tz::test::wait_for_exit(first, std::chrono::seconds(60))) << "no idle exit";
    EXPECT_EQ(bus.service_pid(), 0) << "the name went with the process";
    EXPECT_EQ(reply_of(client->exist("/")), "TRUE");
    EXPECT_NE(bus.service_pid(), first);
}

}  // namespace
