// The helper's front on a real private dbus-daemon: activation, the eight
// operations through an independent client (busctl, gdbus) and through the
// client library, per-caller ordering and concurrency, errors, the uid check,
// idle exit and a killed service.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <set>
#include <tuple>

#include <gtest/gtest.h>
#include <pugixml.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "as_unprivileged.h"
#include "bus_names.h"
#include "methods.h"
#include "helper_client.h"
#include "bus_client.h"
#include "bus_watch.h"
#include "private_bus.h"
#include "snmp_agent.h"
#include "temp_dir.h"

namespace {

using tz::client::HelperClient;
using tz::client::Outcome;
using tz::test::PrivateBus;
using tz::test::connect;
using tz::test::reply_of;
using tz::test::run_command;

// busctl as an independent client: the reply string, or "error: <stderr>".
std::string busctl_call(const PrivateBus& bus, std::string_view method, const std::string& request) {
    const auto result = run_command({"busctl", "--address=" + bus.address(), "call",
                                     std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath),
                                     std::string(tz::bus::kInterface), std::string(method), "s", request});
    if (result.status != 0) return "error: " + result.err;
    // busctl prints `s "TRUE"`.
    const auto first = result.out.find('"');
    const auto last = result.out.rfind('"');
    if (first == std::string::npos || last <= first) return "unparsed: " + result.out;
    return result.out.substr(first + 1, last - first - 1);
}

// A UDP socket on 127.0.0.1 that receives requests and never answers: a walk
// against it waits for its timeout.
class SilentAgent {
public:
    SilentAgent() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            throw std::runtime_error("cannot bind a UDP socket");
        port_ = ntohs(addr.sin_port);
    }
    ~SilentAgent() { ::close(fd_); }
    std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }
    // Waits for a request to arrive (the walk is then under way).
    bool wait_for_request() const {
        pollfd entry{fd_, POLLIN, 0};
        return ::poll(&entry, 1, 60'000) == 1;
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

std::string walk_request(const std::string& user, const std::string& peer, int timeout_s) {
    return tz::client::walk_request("T48Q", user,
                                    {"snmpwalk", "-v", "1", "-c", "public", "-t", std::to_string(timeout_s),
                                     "-r", "0", peer, tz::test::kProfileTable});
}

TEST(HelperBus, ActivatedByTheFirstCallServesAllEightOperationsToBusctl) {
    PrivateBus bus;
    tz::test::SnmpAgent agent(tz::test::printer_table(6));
    const std::string current = bus.prefs() + "alice-T48Q-profile.plist";
    const std::string previous = bus.prefs() + "alice-T48Q-profile.prev.plist";
    ASSERT_EQ(bus.service_pid(), 0) << "nothing runs before the first call";

    EXPECT_EQ(busctl_call(bus, tz::protocol::kExist.name, current), "FALSE");
    EXPECT_GT(bus.service_pid(), 0);

    EXPECT_EQ(busctl_call(bus, tz::protocol::kMibWalk.name, walk_request("alice", agent.peer(), 2)), "iRet=0");
    const std::string walked = tz::test::read_file(current);
    EXPECT_NE(walked.find("PRF00006.ICC"), std::string::npos);

    EXPECT_EQ(busctl_call(bus, tz::protocol::kExist.name, current), "TRUE");
    EXPECT_EQ(busctl_call(bus, tz::protocol::kIsAdmin.name, current), "TRUE");
    // Type 2 copies the current file to the previous one.
    EXPECT_EQ(busctl_call(bus, tz::protocol::kSwap.name, tz::client::swap_request(2, current, previous)), "TRUE");
    EXPECT_EQ(tz::test::read_file(previous), walked);
    EXPECT_EQ(busctl_call(bus, tz::protocol::kRemove.name, previous), "TRUE");
    EXPECT_FALSE(tz::test::exists(previous));

    const std::string target = bus.prefs() + "written.plist";
    EXPECT_EQ(busctl_call(bus, tz::protocol::kWriteDictionary.name,
                          tz::client::write_request(tz::client::file_url(target), "<plist/>")),
              "TRUE");
    EXPECT_EQ(tz::test::read_file(target), "<plist/>");
    EXPECT_EQ(busctl_call(bus, tz::protocol::kWriteData.name,
                          tz::client::write_request(tz::client::file_url(target), "piece")),
              "TRUE");
    EXPECT_EQ(tz::test::read_file(target + ".dummy"), "piece");
    EXPECT_EQ(busctl_call(bus, tz::protocol::kWriteDataRename.name, tz::client::file_url(target)), "TRUE");
    EXPECT_EQ(tz::test::read_file(target), "piece");
    EXPECT_FALSE(tz::test::exists(target + ".dummy"));
}

TEST(HelperBus, ClientLibraryAndTzhelperctlCarryRequestsUnchanged) {
    PrivateBus bus;
    tz::test::SnmpAgent agent(tz::test::printer_table(12));
    auto client = connect(bus);
    ASSERT_TRUE(client);

    // A path with a space, a colon and a non-ASCII letter reaches the service
    // as the same path.
    const std::string odd = bus.prefs() + "a b:ä.plist";
    tz::test::write_file(odd, "text");
    EXPECT_EQ(reply_of(client->exist(odd)), "TRUE");
    EXPECT_EQ(reply_of(client->swap(tz::client::swap_request(1, "", odd))), "TRUE");
    EXPECT_FALSE(tz::test::exists(odd)) << "type 1 removes the previous file";

    const std::string ctl = TZHELPERCTL_PATH;
    const auto walk =
        run_command({ctl, "--address", bus.address(), "walk", "--model", "T48Q", "--user", "bob", "--", "-v",
                     "1", "-c", "public", agent.peer(), tz::test::kProfileTable});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_EQ(walk.out.substr(0, walk.out.find('\n') + 1), "iRet=0\n") << "the reply comes first";
    EXPECT_TRUE(tz::test::exists(bus.prefs() + "bob-T48Q-profile.plist"));
}

// Each member of `interface` as one line: kind, name, type and access, then
// its arguments and annotations.
std::set<std::string> members_of(const pugi::xml_document& doc, std::string_view interface) {
    std::set<std::string> members;
    for (const auto& found : doc.select_nodes("//interface")) {
        if (found.node().attribute("name").value() != interface) continue;
        for (const pugi::xml_node member : found.node().children()) {
            if (member.type() != pugi::node_element) continue;
            std::string line = std::string(member.name()) + " " + member.attribute("name").value() + " " +
                               member.attribute("type").value() + " " + member.attribute("access").value();
            for (const pugi::xml_node part : member.children()) {
                if (std::string_view(part.name()) == "arg")
                    line += std::string(" (") + part.attribute("name").value() + " " +
                            part.attribute("type").value() + " " + part.attribute("direction").value() + ")";
                else if (std::string_view(part.name()) == "annotation")
                    line += std::string(" @") + part.attribute("name").value() + "=" +
                            part.attribute("value").value();
            }
            members.insert(line);
        }
    }
    return members;
}

TEST(HelperBus, LiveIntrospectionMatchesThePublishedInterfaces) {
    PrivateBus bus;
    const auto live = run_command({"gdbus", "introspect", "--address", bus.address(), "--dest",
                                   std::string(tz::bus::kBusName), "--object-path",
                                   std::string(tz::bus::kObjectPath), "--xml"});
    ASSERT_EQ(live.status, 0) << live.err;
    pugi::xml_document live_doc, published_doc;
    ASSERT_TRUE(live_doc.load_string(live.out.c_str()));
    ASSERT_TRUE(published_doc.load_file(TZ_INTERFACE_XML));

    // The XML lists the protocol's table (tests/protocol); the service, the XML.
    EXPECT_EQ(members_of(live_doc, tz::bus::kInterface), members_of(published_doc, tz::bus::kInterface));
    const auto helper1 = members_of(live_doc, tz::bus::kInterface1);
    EXPECT_EQ(helper1.size(), 3u) << "Version, PreferencesDirectory, WalkProgress";
    EXPECT_EQ(helper1, members_of(published_doc, tz::bus::kInterface1));
}

TEST(HelperBus, Helper1NamesVersionAndFolderAndReportsAWalksProgress) {
    PrivateBus bus;
    // busctl prints `s "VALUE"`.
    const auto property = [&](std::string_view name) {
        const auto got = run_command({"busctl", "--address=" + bus.address(), "get-property",
                                      std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath),
                                      std::string(tz::bus::kInterface1), std::string(name)});
        return got.status == 0 ? got.out : "error: " + got.err;
    };
    EXPECT_EQ(property(tz::bus::kPreferencesDirectoryProperty), "s \"" + bus.prefs() + "\"\n");
    EXPECT_EQ(property(tz::bus::kVersionProperty).rfind("s \"1.", 0), 0u);

    tz::test::SnmpAgent agent(tz::test::printer_table(12));
    tz::test::BusWatch progress(bus.address(),
                                "type='signal',interface='" + std::string(tz::bus::kInterface1) +
                                    "',member='" + std::string(tz::bus::kWalkProgressSignal) + "'",
                                [](sdbus::Message& m) {
                                    std::string caller;
                                    uint32_t variables = 0;
                                    m >> caller >> variables;
                                    return caller + " " + std::to_string(variables);
                                });
    auto walker = connect(bus);
    ASSERT_TRUE(walker);
    EXPECT_EQ(reply_of(walker->mib_walk(walk_request("alice", agent.peer(), 5))), "iRet=0");
    // Twelve rows of six columns; the final count comes last, just before
    // the reply.
    const std::string final_count = walker->unique_name() + " 72";
    ASSERT_TRUE(progress.wait_until([&](const auto& seen) {
        return std::find(seen.begin(), seen.end(), final_count) != seen.end();
    })) << ::testing::PrintToString(progress.seen());
    EXPECT_EQ(progress.seen().back(), final_count);
}

TEST(HelperBus, MissingMarkersGiveTheNamedRangeErrorAndTheCallerGoesOn) {
    PrivateBus bus;
    auto client = connect(bus);
    ASSERT_TRUE(client);
    const std::string target = bus.prefs() + "untouched.plist";

    const Outcome write = client->write_dictionary(tz::client::file_url(target) + "<plist/>");
    ASSERT_FALSE(write.ok());
    EXPECT_EQ(write.error->name, tz::bus::kRangeError);
    EXPECT_NE(write.error->message.find(":AddURL:END"), std::string::npos) << write.error->message;
    EXPECT_FALSE(tz::test::exists(target));

    // gdbus, an independent client, sees the same error name.
    const auto gdbus = run_command(
        {"gdbus", "call", "--address", bus.address(), "--dest", std::string(tz::bus::kBusName),
         "--object-path", std::string(tz::bus::kObjectPath), "--method",
         std::string(tz::bus::kInterface) + "." + std::string(tz::protocol::kWriteData.name), "'file:///tmp/x'"});
    EXPECT_NE(gdbus.status, 0);
    EXPECT_NE(gdbus.err.find(std::string(tz::bus::kRangeError)), std::string::npos) << gdbus.err;

    EXPECT_EQ(reply_of(client->exist(bus.prefs())), "TRUE") << "the caller's queue goes on";
}

TEST(HelperBus, CallersOfAnotherUserAreDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to call as another user";
    PrivateBus bus;
    const std::string target = bus.prefs() + "by-nobody.plist";
    const std::string address = bus.address();
    const int result = tz::test::run_unprivileged([&] {
        tz::client::BusError error;
        auto client = HelperClient::connect(address, &error);
        if (!client) return 10;
        const Outcome write =
            client->write_dictionary(tz::client::write_request(tz::client::file_url(target), "x"));
        if (write.ok()) return 11;
        if (write.error->name != tz::bus::kAccessDenied) return 12;
        const Outcome again = client->exist("/");
        if (again.ok() || again.error->name != tz::bus::kAccessDenied) return 13;
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(tz::test::exists(target));

    auto own = connect(bus);
    ASSERT_TRUE(own);
    EXPECT_EQ(reply_of(own->exist("/")), "TRUE") << "the service's own user is still served";
}

TEST(HelperBus, PipelinedPiecewiseWritesOfOneCallerLandInOrder) {
    PrivateBus bus;
    const std::string target = bus.prefs() + "pieces.txt";
    const std::string url = tz::client::file_url(target);
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    auto proxy =
        sdbus::createProxy(*connection, std::string(tz::bus::kBusName), std::string(tz::bus::kObjectPath));

    // All 200 calls are on the wire before the first reply is read.
    constexpr int kPieces = 200;
    std::string expected;
    std::vector<std::string> replies;
    std::vector<sdbus::PendingAsyncCall> calls;
    for (int i = 0; i < kPieces; ++i) {
        const std::string piece = std::to_string(i) + ",";
        expected += piece;
        calls.push_back(proxy->callMethodAsync(std::string(tz::protocol::kWriteData.name))
                            .onInterface(std::string(tz::bus::kInterface))
                            .withArguments(tz::client::write_request(url, piece))
                            .uponReplyInvoke([&](const sdbus::Error* error, std::string reply) {
                                replies.push_back(error ? error->getName() : reply);
                            }));
    }
    while (replies.size() < kPieces) {
        if (connection->processPendingRequest()) continue;
        const auto data = connection->getEventLoopPollData();
        pollfd entry{data.fd, data.events, 0};
        ASSERT_GE(::poll(&entry, 1, 60'000), 1) << "replies stopped after " << replies.size();
    }
    EXPECT_EQ(replies, std::vector<std::string>(kPieces, "TRUE"));

    auto client = connect(bus);
    ASSERT_TRUE(client);
    EXPECT_EQ(reply_of(client->write_data_rename(url)), "TRUE");
    EXPECT_EQ(tz::test::read_file(target), expected);
}

TEST(HelperBus, ASlowWalkDoesNotHoldUpAnotherCaller) {
    PrivateBus bus;
    SilentAgent silent;
    auto walker = connect(bus);
    auto other = connect(bus);
    ASSERT_TRUE(walker && other);

    auto walk = std::async(std::launch::async,
                           [&] { return walker->mib_walk(walk_request("alice", silent.peer(), 3)); });
    ASSERT_TRUE(silent.wait_for_request()) << "the walk never reached the agent";
    EXPECT_EQ(reply_of(other->exist("/")), "TRUE");
    EXPECT_EQ(walk.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the other caller was answered only after the walk";
    EXPECT_EQ(reply_of(walk.get()), "iRet=1") << "an agent that never answers fails the walk";
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
    const pid_t second = bus.service_pid();
    EXPECT_GT(second, 0);
    EXPECT_NE(second, first);
}

TEST(HelperBus, AServiceKilledInACallFailsThatCallAndTheNextOneWorks) {
    PrivateBus bus;
    SilentAgent silent;
    auto walker = connect(bus);
    ASSERT_TRUE(walker);
    auto walk = std::async(std::launch::async,
                           [&] { return walker->mib_walk(walk_request("alice", silent.peer(), 60)); });
    ASSERT_TRUE(silent.wait_for_request());
    const pid_t service = bus.service_pid();
    ASSERT_GT(service, 0);
    ASSERT_EQ(::kill(service, SIGKILL), 0);

    const Outcome killed = walk.get();
    ASSERT_FALSE(killed.ok());
    EXPECT_EQ(killed.error->name, "org.freedesktop.DBus.Error.NoReply");
    ASSERT_TRUE(tz::test::wait_for_exit(service, std::chrono::seconds(30)));

    EXPECT_EQ(reply_of(walker->exist("/")), "TRUE");
    EXPECT_NE(bus.service_pid(), service);
}

}  // namespace
