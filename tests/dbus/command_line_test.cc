// tzhelperd's command line and what it writes to stderr (the journal).
#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <thread>

#include "private_bus.h"
#include "snmp_agent.h"

namespace {

using tz::test::run_command;

TEST(CommandLine, OptionsAndUsageErrors) {
    struct Case {
        std::vector<std::string> args;
        std::string out;  // the whole of stdout; empty: exit status 2 and
        std::string err;  // a one-line stderr holding this
    };
    const Case cases[] = {
        {{"--version"}, "tzhelperd " TZ_VERSION "\n", ""},
        {{"--walk-window=1", "--idle-exit=31536000", "--version"}, "tzhelperd " TZ_VERSION "\n", ""},
        {{"--walk-window=2147483647", "--idle-exit=0", "--debug", "--version"}, "tzhelperd " TZ_VERSION "\n", ""},
        {{"--walk-window", "0"}, "", "\"0\""},
        {{"--walk-window=-3"}, "", "\"-3\""},
        {{"--walk-window", "4x"}, "", "\"4x\""},
        {{"--walk-window", "2147483648"}, "", "\"2147483648\""},
        {{"--idle-exit=soon"}, "", "\"soon\""},
        {{"--idle-exit=31536001"}, "", "\"31536001\""},
        {{"--preferences-dir="}, "", "--preferences-dir"},
        {{"--address"}, "", "\"--address\" needs a value"},
        {{"--debug=yes"}, "", "\"--debug=yes\""},
        {{"-x"}, "", "unknown option \"-x\""},
        {{"--bogus"}, "", "\"--bogus\""},
        {{"--debug", "stray"}, "", "\"stray\""},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = {TZHELPERD_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const auto result = run_command(argv);
        SCOPED_TRACE(::testing::PrintToString(c.args));
        EXPECT_EQ(result.status, c.out.empty() ? 2 : 0);
        EXPECT_EQ(result.out, c.out);
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find('\n'), c.err.empty() ? std::string::npos : result.err.size() - 1) << result.err;
    }
    const auto help = run_command({TZHELPERD_PATH, "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--idle-exit", "--preferences-dir", "--address", "--walk-window", "--debug",
                               "--version", "/var/lib/tzhelper/tazorex.printers.T48Q/"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
}

// The folder check (one warning line, and the service starts anyway), and
// under --debug, and only then, the walk's diagnostics at debug priority.
TEST(CommandLine, StderrCarriesTheFolderCheckAndUnderDebugTheWalksDiagnostics) {
    const std::string complaint = "Invalid version specified after -v flag: 9";
    for (const bool debug : {true, false}) {
        SCOPED_TRACE(debug ? "debug, folder there" : "missing folder");
        tz::test::PrivateBus bus;
        const std::string folder = debug ? bus.prefs() : bus.dir().file("missing") + "/";
        const std::string err_file = bus.dir().file("tzhelperd.err");
        std::vector<std::string> argv = {TZHELPERD_PATH, "--address", bus.address(), "--idle-exit", "0",
                                         "--preferences-dir", folder, "--walk-window", "1"};
        if (debug) argv.push_back("--debug");
        const pid_t service = tz::test::spawn(argv, "", err_file);
        for (int i = 0; i < 3000 && bus.service_pid() != service; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(bus.service_pid(), service) << "it never owned the name";
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
        EXPECT_EQ(err, debug ? "<7>tzhelperd: walk: " + complaint + "\n"
                             : "<4>tzhelperd: the preferences folder " + folder +
                                   " does not exist: walks cannot save profiles; ask an administrator to "
                                   "create it (group lpadmin, mode 2775)\n");
    }
}

}  // namespace
