// An agent or the service dying in a walk, an unwritable or full disk, outsized, marker-only and non-UTF-8 requests.
#include <sys/resource.h>

#include <fstream>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "private_bus.h"
#include "service_call.h"
#include "snmp_agent.h"
#include "udp_relay.h"

namespace {

namespace fs = std::filesystem;
using S = tz::Service;
using tz::test::call;
using tz::client::file_url;
using tz::client::write_request;
using tz::test::connect;
using tz::test::reply_of;
using tz::test::SnmpAgent;
using tz::test::UdpRelay;

std::string walk_request(const std::string& user, const std::string& peer) {
    return tz::client::walk_request(
        "T48Q", user, {"snmpwalk", "-v", "1", "-c", "public", "-t", "3", "-r", "0", peer, tz::test::kProfileTable});
}

// The slots in use as Python's plistlib reads the file: "<category> <file> <InMenu>" lines.
std::string slots_in_use(const std::string& path) {
    const auto result = tz::test::run_command({"/usr/bin/python3", "-c",
        "import plistlib,sys\np=plistlib.load(open(sys.argv[1],'rb'))\n"
        "for c in ('RGB','SIM','DST'):\n  for i in range(500):\n    m=p[c]['InMenu']['InMenu%04d'%i]\n"
        "    if m: print(c,p[c]['FileName']['FileName%04d'%i],m)\n", path});
    return result.status == 0 ? result.out : "unreadable: " + result.err;
}

// What rows 1 to `rows` of printer_table make of a new file: classes 1 and 2 in RGB, class 3 in SIM and DST.
std::string expected_slots(int rows) {
    std::string text[3];
    for (int r = 1; r <= rows; ++r) {
        char line[32];
        std::snprintf(line, sizeof line, " PRF%05d.ICC 2\n", r);
        if (r % 3 != 0) text[0] += "RGB" + std::string(line);
        else text[1] += "SIM" + std::string(line), text[2] += "DST" + std::string(line);
    }
    return text[0] + text[1] + text[2];
}

// A walk of a 500-row table through a relay that can cut it short.
struct WalkFaults : ::testing::Test {
    tz::test::PrivateBus bus;
    SnmpAgent agent{tz::test::printer_table(500)};
    UdpRelay relay{agent.port()};
    std::unique_ptr<tz::client::HelperClient> client = connect(bus);
    const std::string plist = bus.prefs() + "alice-T48Q-profile.plist";
};

TEST_F(WalkFaults, AnAgentKilledHalfwayFailsTheWalkAndTheFileKeepsTheRowsThatArrivedWhole) {
    // Columns 1 to 4 of all rows, then the class column of rows 1 to 400 less those sent ahead: some rows whole.
    relay.cut_after(4 * 500 + 400, [&] { agent.stop(); });
    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", relay.peer()))), "iRet=1");
    const std::string slots = slots_in_use(plist);
    int complete = 400;
    while (complete > 2 && slots != expected_slots(complete)) --complete;
    EXPECT_EQ(slots, expected_slots(complete));
    EXPECT_GT(complete, 2);
}

TEST_F(WalkFaults, AServiceKilledHalfwayIsStartedAgainAndWalksTheWholeTable) {
    ASSERT_EQ(reply_of(client->exist(plist)), "FALSE");
    const pid_t service = bus.service_pid();
    ASSERT_GT(service, 0);
    relay.cut_after(1500, [service] { ::kill(service, SIGKILL); });
    const std::string killed = reply_of(client->mib_walk(walk_request("alice", relay.peer())));
    EXPECT_EQ(killed.rfind("error org.freedesktop.DBus.Error.NoReply:", 0), 0u) << killed;
    ASSERT_TRUE(tz::test::wait_for_exit(service, std::chrono::seconds(30)));
    EXPECT_FALSE(tz::test::exists(plist)) << "the rebuild never ran";

    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", agent.peer()))), "iRet=0");
    EXPECT_NE(bus.service_pid(), service);
    EXPECT_EQ(slots_in_use(plist), expected_slots(500));
}

// The bus, the service and the caller all run as nobody, who cannot write the folder.
TEST(DiskFaults, AnUnwritablePreferencesFolderGetsNoFileAndWritesAnswerFalse) {
    SnmpAgent agent(tz::test::printer_table(3));
    EXPECT_EQ(tz::test::run_unprivileged([&] {
                  tz::test::PrivateBus bus;
                  ::chmod(bus.prefs().c_str(), 0555);
                  auto client = tz::client::HelperClient::connect(bus.address(), nullptr);
                  const std::string url = file_url(bus.prefs() + "alice-T48Q-profile.plist");
                  return client && reply_of(client->mib_walk(walk_request("alice", agent.peer()))) +
                                           reply_of(client->is_admin(bus.prefs() + "x.plist")) +
                                           reply_of(client->write_dictionary(write_request(url, "<plist/>"))) +
                                           reply_of(client->write_data(write_request(url, "AB"))) +
                                           reply_of(client->write_data_rename(url)) == "iRet=0FALSEFALSEFALSETRUE" &&
                                 fs::is_empty(bus.prefs()) ? 0 : 1;
              }), 0);
}

TEST(DiskFaults, AFullDiskAnswersFalseAndTheNextSequenceOnTheSameTargetWorks) {
    tz::test::PrivateBus bus;
    SnmpAgent agent(tz::test::printer_table(3));
    auto client = connect(bus);
    const std::string whole = bus.prefs() + "whole.plist", pieces = bus.prefs() + "pieces.plist";
    const std::string links[] = {whole, pieces + ".dummy", bus.prefs() + "alice-T48Q-profile.plist"};
    for (const std::string& link : links) fs::create_symlink("/dev/full", link);
    EXPECT_EQ(reply_of(client->write_dictionary(write_request(file_url(whole), "<a/>"))), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(write_request(file_url(pieces), "AB"))), "FALSE");
    // The walk reports its own status; the write it could not make is lost.
    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", agent.peer()))), "iRet=0");
    for (const std::string& link : links) {
        EXPECT_TRUE(fs::is_symlink(link)) << link << " is written through, not replaced";
        EXPECT_EQ(reply_of(client->remove(link)), "TRUE");
    }
    EXPECT_EQ(reply_of(client->write_dictionary(write_request(file_url(whole), "<b/>"))), "TRUE");
    for (const char* piece : {"AB", "CD"})
        EXPECT_EQ(reply_of(client->write_data(write_request(file_url(pieces), piece))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data_rename(file_url(pieces))), "TRUE");
    EXPECT_EQ(tz::test::read_file(whole) + tz::test::read_file(pieces), "<b/>ABCD");
    EXPECT_EQ(std::distance(fs::directory_iterator(bus.prefs()), {}), 2) << "no scratch file is left";
}

// Files may not grow past 64 KiB: a write past it fails part way, as on a full disk.
TEST(DiskFaults, AWriteCutShortLeavesNoScratchFileAndTheNextWriteRecovers) {
    tz::test::TempDir dir;
    const std::string target = dir.file("profile.plist"), url = file_url(target), kept(48 * 1024, 'k');
    tz::test::write_file(target + ".dummy", kept);
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit small{64 * 1024, 64 * 1024};
        ::signal(SIGXFSZ, SIG_IGN);
        ::_exit(::setrlimit(RLIMIT_FSIZE, &small) == 0 &&
                call(&S::writeDataToPlistFile_XPC, write_request(url, std::string(32 * 1024, 'p'))) == "FALSE" &&
                call(&S::writeDictionaryToPlistFile_XPC, write_request(url, std::string(96 * 1024, 't'))) == "FALSE"
                ? 0 : 1);
    }
    EXPECT_EQ(tz::test::wait_status(child), 0);
    EXPECT_EQ(tz::test::read_file(target + ".dummy"), kept) << "the temporary file is as it was";
    EXPECT_EQ(fs::file_size(target), 64u * 1024) << "the one-shot write stopped at the limit";
    EXPECT_EQ(call(&S::writeDataToPlistFile_XPC, write_request(url, "end")), "TRUE");
    EXPECT_EQ(call(&S::writeDataToPlistFileRename_XPC, url), "TRUE");
    EXPECT_EQ(tz::test::read_file(target), kept + "end");
    EXPECT_EQ(call(&S::writeDictionaryToPlistFile_XPC, write_request(url, "<c/>")), "TRUE");
    EXPECT_EQ(tz::test::read_file(target), "<c/>");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1) << "no scratch file";
}

// Ten-megabyte and marker-only requests; the peak resident size (VmHWM) grows by less than five copies of one.
TEST(RequestFaults, TenMegabyteAndMarkerOnlyRequestsAreAnsweredInBoundedMemory) {
#if defined(__SANITIZE_ADDRESS__)  // the service inherits this: measure it, not ASan's quarantine of freed blocks
    const char* asan = std::getenv("ASAN_OPTIONS");
    ::setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":quarantine_size_mb=0").c_str(), 1);
#endif
    tz::test::PrivateBus bus(0);  // no idle exit: the peak belongs to one process
    auto client = connect(bus);
    const std::string target = bus.prefs() + "big.plist", url = file_url(target);
    ASSERT_EQ(reply_of(client->write_dictionary(write_request(url, "<small/>"))), "TRUE");
    const pid_t service = bus.service_pid();
    const auto peak_kib = [&] {
        std::ifstream status("/proc/" + std::to_string(service) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
        return -1L;
    };
    const long baseline = peak_kib();
    ASSERT_GT(baseline, 0);
    constexpr std::size_t kBig = 10u << 20;
    const std::string text(kBig, 'x');
    std::string markers = "T48Q:ModelName:ENDalice:USErName:END";  // two million ":arg:": far too many arguments
    while (markers.size() < kBig) markers += ":arg:";
    EXPECT_EQ(reply_of(client->write_dictionary(write_request(url, text))), "TRUE");
    EXPECT_EQ(fs::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->write_data(write_request(url, text))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data_rename(url)), "TRUE");
    EXPECT_EQ(fs::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->exist(bus.prefs() + text)), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(text)).rfind("error " + std::string(tz::bus::kRangeError) + ":", 0), 0u);
    EXPECT_EQ(reply_of(client->mib_walk(markers)), "iRet=-1");
    EXPECT_LT(peak_kib() - baseline, 5 * static_cast<long>(kBig >> 10)) << "from " << baseline << " KiB";
    EXPECT_EQ(reply_of(client->write_dictionary(":AddURL:END")), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(":AddURL:END")), "FALSE");
    EXPECT_EQ(reply_of(client->swap(":ARG_iSwapType:ARG_cFooCurrentString:ARG_cFooPrevString")), "TRUE");
    EXPECT_EQ(reply_of(client->mib_walk(":ModelName:END:USErName:END:arg:")), "iRet=-1");
    EXPECT_EQ(bus.service_pid(), service);
}

TEST(RequestFaults, BytesThatAreNotUtf8AreRefusedWithoutTouchingAnything) {
    tz::test::TempDir dir;
    const tz::Service service(dir.prefix());
    const std::string odd = dir.file("bad\xff.plist"), odd_url = "file://" + odd;
    tz::test::write_file(odd, "kept");
    tz::test::write_file(odd + ".dummy", "dummy");
    const std::tuple<tz::test::Operation, std::string, std::string> rows[] = {
        {&S::tzPListExistProfile_XPC, odd, "FALSE"},
        {&S::tzPListRemove_XPC, odd, "FALSE"},
        {&S::writeDictionaryToPlistFile_XPC, write_request(odd_url, "x"), "FALSE"},
        {&S::writeDictionaryToPlistFile_XPC, write_request(file_url(dir.file("t")), "\xc3"), "FALSE"},
        {&S::writeDataToPlistFile_XPC, write_request(odd_url, "x"), "FALSE"},
        {&S::writeDataToPlistFileRename_XPC, odd_url, "FALSE"},
        // A user name without a UTF-8 form prints as "(null)", as a missing one does.
        {&S::mibwalk_XPC, "T48Q:ModelName:END\xfe:USErName:ENDsnmpwalk:arg:", "iRet=-1"},
    };
    for (const auto& [op, request, reply] : rows) EXPECT_EQ(call(op, request, service), reply) << request;
    EXPECT_EQ(tz::test::read_file(odd), "kept");
    EXPECT_EQ(tz::test::read_file(odd + ".dummy"), "dummy");
    EXPECT_FALSE(tz::test::exists(dir.file("t")));
    EXPECT_TRUE(tz::test::exists(dir.file("(null)-T48Q-profile.plist")));
}

}  // namespace
