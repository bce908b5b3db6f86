// tzhelperd's command line and what it writes to stderr (the journal): usage
// errors, the start-up check of the preferences folder, --debug.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bus_client.h"
#include "bus_names.h"
#include "bus_watch.h"
#include "helper_client.h"
#include "private_bus.h"
#include "snmp_agent.h"

namespace {

using tz::test::PrivateBus;
using tz::test::run_command;

TEST(CommandLine, OptionsAndUsageErrors) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;  // the whole of stdout
        std::string err;  // a part of stderr's one line
    };
    const Case cases[] = {
        {{"--version"}, 0, "tzhelperd 1.0\n", ""},
        {{"--walk-window", "0"}, 2, "", "\"0\""},
        {{"--walk-window=-3"}, 2, "", "\"-3\""},
        {{"--walk-window", "4x"}, 2, "", "\"4x\""},
        {{"--idle-exit=soon"}, 2, "", "\"soon\""},
        {{"--preferences-dir="}, 2, "", "--preferences-dir"},
        {{"--address"}, 2, "", "\"--address\" needs a value"},
        {{"--debug=yes"}, 2, "", "\"--debug=yes\""},
        {{"--bogus"}, 2, "", "\"--bogus\""},
        {{"--debug", "stray"}, 2, "", "\"stray\""},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = {TZHELPERD_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const auto result = run_command(argv);
        SCOPED_TRACE(::testing::PrintToString(c.args));
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.out, c.out);
        if (c.err.empty()) {
            EXPECT_EQ(result.err, "");
        } else {
            EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
            EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "one line: " << result.err;
        }
    }
    const auto help = run_command({TZHELPERD_PATH, "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--idle-exit", "--preferences-dir", "--address", "--walk-window", "--debug",
                               "--version", "/var/lib/tzhelper/tazorex.printers.T48Q/"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
}

// Runs tzhelperd on `bus` with `args`, its stderr to `err_file`, and waits
// until it owns the helper's name (so no call activates another one).
pid_t start_service(const PrivateBus& bus, const std::vector<std::string>& args, const std::string& err_file) {
    tz::test::BusWatch owner(bus.address(),
                             "type='signal',member='NameOwnerChanged',arg0='" + std::string(tz::bus::kBusName) + "'",
                             [](sdbus::Message& m) { return m.getMemberName(); });
    std::vector<std::string> argv = {TZHELPERD_PATH, "--address", bus.address(), "--idle-exit", "0"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, raw[0], &actions, nullptr, raw.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    if (!owner.wait_until([](const auto& seen) { return !seen.empty(); })) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

TEST(CommandLine, StderrCarriesTheFolderCheckAndUnderDebugTheWalksDiagnostics) {
    struct Case {
        std::string name;
        bool debug;
        bool missing_folder;
        std::string expected;  // a line, or empty
    };
    const std::string complaint = "Invalid version specified after -v flag: 9";
    const Case cases[] = {
        {"debug", true, false, "<7>tzhelperd: walk: " + complaint + "\n"},
        {"missing folder", false, true, "<4>tzhelperd: the preferences folder "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PrivateBus bus;
        const std::string folder = c.missing_folder ? bus.dir().file("missing") + "/" : bus.prefs();
        std::vector<std::string> args = {"--preferences-dir", folder};
        if (c.debug) args.push_back("--debug");
        const std::string err_file = bus.dir().file("tzhelperd.err");
        const pid_t service = start_service(bus, args, err_file);
        ASSERT_GT(service, 0);
        auto client = tz::test::connect(bus);
        ASSERT_TRUE(client);
        EXPECT_EQ(tz::test::reply_of(client->mib_walk(tz::client::walk_request(
                      "T48Q", "alice", {"snmpwalk", "-v", "9", "127.0.0.1:9", tz::test::kProfileTable}))),
                  "iRet=-1");
        ASSERT_EQ(::kill(service, SIGTERM), 0);
        int status = -1;
        ASSERT_EQ(::waitpid(service, &status, 0), service);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

        const std::string err = tz::test::read_file(err_file);
        EXPECT_NE(err.find(c.expected), std::string::npos) << err;
        EXPECT_EQ(err.find(complaint) != std::string::npos, c.debug) << err;
        if (c.missing_folder) {
            EXPECT_NE(err.find(folder + " does not exist"), std::string::npos) << err;
            EXPECT_EQ(err.find('\n'), err.size() - 1) << "one line: " << err;
        } else {
            EXPECT_EQ(err.find("preferences folder"), std::string::npos) << err;
        }
    }
}

}  // namespace
