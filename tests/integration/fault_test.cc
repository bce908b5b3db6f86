// Faults around the service, end to end on a private bus with a real snmpd:
// an agent or the service dying halfway through a walk, an unwritable or full
// disk, outsized, marker-only and non-UTF-8 requests (the bus itself refuses
// strings that are not UTF-8, so those go to the service object directly).
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "bus_names.h"
#include "udp_relay.h"
#include "helper_client.h"
#include "bus_client.h"
#include "private_bus.h"
#include "service.h"
#include "service_call.h"
#include "snmp_agent.h"
#include "temp_dir.h"
#include "tz_profile_store.h"

namespace {

namespace fs = std::filesystem;
using tz::client::HelperClient;
using tz::client::Outcome;
using tz::test::UdpRelay;
using tz::test::PrivateBus;
using tz::test::connect;
using tz::test::reply_of;
using tz::test::SnmpAgent;

const std::string& kTable = tz::test::kProfileTable;

// Row r of the printer: file PRF<r>.ICC, source 5 or 4, class 1, 2, 3 in turn.
std::string row_file(int r) {
    char name[32];
    std::snprintf(name, sizeof name, "PRF%05d.ICC", r);
    return name;
}
int row_class(int r) { return (r - 1) % 3 + 1; }

using tz::test::printer_table;  // columns 1 to 5 and 7: a walk gets column 1 of every row, then 2, ...

std::string walk_request(const std::string& user, const std::string& peer) {
    return tz::client::walk_request(
        "T48Q", user, {"snmpwalk", "-v", "1", "-c", "public", "-t", "3", "-r", "0", peer, kTable});
}

// ---- Profile files ------------------------------------------------------------

struct Slot {
    int category;
    const char* file;
    int in_menu;
    int index;
    int location;
};

// Writes a profile plist holding `slots` with the store's own writer.
void write_profile(const std::string& path, const std::vector<Slot>& slots) {
    ProfileTable tables[3];
    std::memset(tables, 0, sizeof tables);
    for (const Slot& s : slots) {
        ProfileTable& t = tables[s.category];
        ProfileEntry& e = t.Entry[t.iNum++];
        e.IndexOnDevice = s.index;
        e.InMenu = s.in_menu;
        e.ProfileClass = s.category == 0 ? 1 : 3;
        std::strncpy(e.FileName, s.file, sizeof e.FileName - 1);
        e.Location = s.location;
    }
    TZ_PLIST_PROFILE_PATH = path.c_str();
    ASSERT_EQ(TZPListWriteProfile_All(&tables[0], &tables[1], &tables[2]), 0);
    TZ_PLIST_PROFILE_PATH = nullptr;
}

// The slots in use as Python's plistlib reads the file, one "<category>
// <file> <InMenu>" line each in slot order, or the reader's complaint.
std::string slots_in_use(const std::string& path) {
    const auto result = tz::test::run_command(
        {"/usr/bin/python3", "-c",
         "import plistlib,sys\n"
         "p=plistlib.load(open(sys.argv[1],'rb'))\n"
         "for c in ('RGB','SIM','DST'):\n"
         "  d=p[c]\n"
         "  for i in range(500):\n"
         "    m=d['InMenu']['InMenu%04d'%i]\n"
         "    if m: print(c,d['FileName']['FileName%04d'%i],m)\n",
         path});
    return result.status == 0 ? result.out : "unreadable: " + result.err;
}

// A user's file before the walks below: RGB entries in the states 1, 2, 4 and
// 5, a SIM entry in state 4.
const std::vector<Slot> kBefore = {
    {0, "OLD1.ICC", 1, 7, 4}, {0, "OLD2.ICC", 2, 8, 4}, {0, "KEPT4.ICC", 4, 9, 5},
    {0, "USER5.ICC", 5, 10, 4}, {1, "SIMK4.ICC", 4, 11, 5},
};

// What the walk leaves of kBefore, with rows 1 to `rows` of the printer merged
// (classes 1 and 2 into RGB, class 3 into SIM and DST). After a failed walk
// states 1 and 2 are freed and their slots taken first by the printer's rows;
// after a complete one they become 1. State 4 ends as 6, 5 stays.
std::string expected_slots(int rows, bool failed) {
    std::vector<std::string> rgb_rows, sim = {"SIMK4.ICC 6"}, dst;
    for (int r = 1; r <= rows; ++r) {
        const std::string line = row_file(r) + " 2";
        if (row_class(r) == 3) {
            sim.push_back(line);
            dst.push_back(line);
        } else {
            rgb_rows.push_back(line);
        }
    }
    std::vector<std::string> rgb = {"OLD1.ICC 1", "OLD2.ICC 1", "KEPT4.ICC 6", "USER5.ICC 5"};
    if (failed) {
        rgb[0] = rgb_rows[0];
        rgb[1] = rgb_rows[1];
        rgb_rows.erase(rgb_rows.begin(), rgb_rows.begin() + 2);
    }
    rgb.insert(rgb.end(), rgb_rows.begin(), rgb_rows.end());
    std::string text;
    for (const auto& [name, lines] : {std::pair{"RGB", &rgb}, {"SIM", &sim}, {"DST", &dst}})
        for (const auto& l : *lines) text += std::string(name) + " " + l + "\n";
    return text;
}

// ---- Walks cut short ----------------------------------------------------------

TEST(WalkFaults, AnAgentKilledHalfwayFailsTheWalkAndTheFileKeepsWhatArrived) {
    PrivateBus bus;
    const std::string plist = bus.prefs() + "alice-T48Q-profile.plist";
    write_profile(plist, kBefore);
    SnmpAgent agent(printer_table(500));
    UdpRelay relay({agent.port()});
    // Columns 1 to 4 of all 500 rows, then the class column of rows 1 to 400,
    // less the answers to requests the walk sent ahead and never used (at
    // most a window beyond the walk and one past the end of each column):
    // the agent dies with part of the rows complete.
    relay.cut_after(4 * 500 + 400, [&] { agent.stop(); });
    auto client = connect(bus);
    ASSERT_TRUE(client);

    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", relay.peer()))), "iRet=1");
    EXPECT_EQ(relay.answers(), 2400u);
    EXPECT_FALSE(agent.running());
    // Rows 1 to some k arrived whole; the rest arrived without a class and
    // are not merged.
    const std::string slots = slots_in_use(plist);
    int complete = 400;
    while (complete > 2 && slots != expected_slots(complete, true)) --complete;
    EXPECT_EQ(slots, expected_slots(complete, true));
    EXPECT_GT(complete, 2);
}

TEST(WalkFaults, AServiceKilledHalfwayIsStartedAgainAndWalksTheWholeTable) {
    PrivateBus bus;
    const std::string plist = bus.prefs() + "alice-T48Q-profile.plist";
    write_profile(plist, kBefore);
    const std::string before = tz::test::read_file(plist);
    SnmpAgent agent(printer_table(500));
    UdpRelay relay({agent.port()});
    auto client = connect(bus);
    ASSERT_TRUE(client);
    ASSERT_EQ(reply_of(client->exist(plist)), "TRUE");
    const pid_t service = bus.service_pid();
    ASSERT_GT(service, 0);
    relay.cut_after(1500, [service] { ::kill(service, SIGKILL); });

    const Outcome killed = client->mib_walk(walk_request("alice", relay.peer()));
    ASSERT_FALSE(killed.ok());
    EXPECT_EQ(killed.error->name, "org.freedesktop.DBus.Error.NoReply");
    ASSERT_TRUE(tz::test::wait_for_exit(service, std::chrono::seconds(30)));
    EXPECT_EQ(tz::test::read_file(plist), before) << "the rebuild never ran";

    relay.reopen();
    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", relay.peer()))), "iRet=0");
    EXPECT_NE(bus.service_pid(), service);
    EXPECT_EQ(slots_in_use(plist), expected_slots(500, false));
}

// ---- Disks that refuse --------------------------------------------------------

// Runs `check` as nobody (when root) in a child; its report, "" when all held.
std::string report_as_nobody(const std::function<std::string()>& check) {
    int report[2];
    if (::pipe(report) != 0) return "no pipe";
    const int status = tz::test::run_unprivileged([&] {
        ::close(report[0]);
        std::string text;
        try {
            text = check();
        } catch (const std::exception& e) {
            text = std::string("threw: ") + e.what();
        }
        [[maybe_unused]] const ssize_t put = ::write(report[1], text.data(), text.size());
        return text.empty() ? 0 : 1;
    });
    ::close(report[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(report[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(got));
    ::close(report[0]);
    if (status < 0) text += "the child died";
    return text;
}

TEST(DiskFaults, AnUnwritablePreferencesFolderGetsNoFileAndWritesAnswerFalse) {
    SnmpAgent agent(printer_table(3));
    const std::string peer = agent.peer();
    // The bus, the service and the caller all run as nobody, who cannot write
    // the folder.
    const std::string report = report_as_nobody([&] {
        PrivateBus bus;
        ::chmod(bus.prefs().c_str(), 0555);
        tz::client::BusError error;
        auto client = HelperClient::connect(bus.address(), &error);
        if (!client) return "no client: " + error.message;
        std::string failures;
        const auto expect = [&](const std::string& what, const Outcome& outcome, const std::string& want) {
            if (reply_of(outcome) != want) failures += what + " answered " + reply_of(outcome) + "\n";
        };
        const std::string url = tz::client::file_url(bus.prefs() + "alice-T48Q-profile.plist");
        expect("walk", client->mib_walk(walk_request("alice", peer)), "iRet=0");
        expect("probe", client->is_admin(bus.prefs() + "x.plist"), "FALSE");
        expect("one-shot write", client->write_dictionary(tz::client::write_request(url, "<plist/>")),
               "FALSE");
        expect("piecewise write", client->write_data(tz::client::write_request(url, "AB")), "FALSE");
        expect("rename", client->write_data_rename(url), "TRUE");
        if (!fs::is_empty(bus.prefs())) failures += "the folder is not empty\n";
        return failures;
    });
    EXPECT_EQ(report, "");
}

TEST(DiskFaults, AFullDiskAnswersFalseAndTheNextSequenceOnTheSameTargetWorks) {
    PrivateBus bus;
    SnmpAgent agent(printer_table(3));
    auto client = connect(bus);
    ASSERT_TRUE(client);

    const std::string whole = bus.prefs() + "whole.plist";
    fs::create_symlink("/dev/full", whole);
    const std::string whole_url = tz::client::file_url(whole);
    EXPECT_EQ(reply_of(client->write_dictionary(tz::client::write_request(whole_url, "<a/>"))), "FALSE");
    EXPECT_EQ(reply_of(client->remove(whole)), "TRUE");
    EXPECT_EQ(reply_of(client->write_dictionary(tz::client::write_request(whole_url, "<b/>"))), "TRUE");
    EXPECT_EQ(tz::test::read_file(whole), "<b/>");

    const std::string pieces = bus.prefs() + "pieces.plist";
    const std::string pieces_url = tz::client::file_url(pieces);
    fs::create_symlink("/dev/full", pieces + ".dummy");
    EXPECT_EQ(reply_of(client->write_data(tz::client::write_request(pieces_url, "AB"))), "FALSE");
    EXPECT_TRUE(fs::is_symlink(pieces + ".dummy")) << "the link is written through, not replaced";
    EXPECT_EQ(reply_of(client->remove(pieces + ".dummy")), "TRUE");
    EXPECT_EQ(reply_of(client->write_data(tz::client::write_request(pieces_url, "AB"))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data(tz::client::write_request(pieces_url, "CD"))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data_rename(pieces_url)), "TRUE");
    EXPECT_EQ(tz::test::read_file(pieces), "ABCD");

    // The walk reports its own status; the write it could not make is lost.
    const std::string plist = bus.prefs() + "alice-T48Q-profile.plist";
    fs::create_symlink("/dev/full", plist);
    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", agent.peer()))), "iRet=0");
    EXPECT_TRUE(fs::is_symlink(plist));
    EXPECT_EQ(reply_of(client->remove(plist)), "TRUE");
    EXPECT_EQ(reply_of(client->mib_walk(walk_request("alice", agent.peer()))), "iRet=0");
    EXPECT_EQ(slots_in_use(plist), "RGB PRF00001.ICC 2\nRGB PRF00002.ICC 2\nSIM PRF00003.ICC 2\n"
                                   "DST PRF00003.ICC 2\n");

    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(bus.prefs())) names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"whole.plist", "pieces.plist", "alice-T48Q-profile.plist"}))
        << "no scratch or temporary file is left";
}

// Runs `check` in a child process whose files may not grow beyond `limit`
// bytes: a write past it fails as on a full disk. Returns the check's result.
int with_file_size_limit(rlim_t limit, const std::function<int()>& check) {
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit small{limit, limit};
        ::signal(SIGXFSZ, SIG_IGN);
        ::_exit(::setrlimit(RLIMIT_FSIZE, &small) == 0 ? check() : 125);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

TEST(DiskFaults, AWriteCutShortLeavesNoScratchFileAndTheNextWriteRecovers) {
    tz::test::TempDir dir;
    const tz::Service service;
    const std::string target = dir.file("profile.plist");
    const std::string url = tz::client::file_url(target);
    const std::string kept(48 * 1024, 'k');
    tz::test::write_file(target + ".dummy", kept);
    const auto call = [&](auto op, const std::string& request) {
        std::string reply = "none";
        (service.*op)(request, [&](const std::string& text) { reply = text; });
        return reply;
    };

    // The piece would take the temporary file past 64 KiB; so would the text.
    const int result = with_file_size_limit(64 * 1024, [&] {
        const bool piece_refused = call(&tz::Service::writeDataToPlistFile_XPC,
                                        tz::client::write_request(url, std::string(32 * 1024, 'p'))) == "FALSE";
        const bool text_refused = call(&tz::Service::writeDictionaryToPlistFile_XPC,
                                       tz::client::write_request(url, std::string(96 * 1024, 't'))) == "FALSE";
        return piece_refused && text_refused ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tz::test::read_file(target + ".dummy"), kept) << "the temporary file is as it was";
    EXPECT_EQ(fs::file_size(target), 64u * 1024) << "the one-shot write stopped at the limit";

    EXPECT_EQ(call(&tz::Service::writeDataToPlistFile_XPC, tz::client::write_request(url, "end")), "TRUE");
    EXPECT_EQ(call(&tz::Service::writeDataToPlistFileRename_XPC, url), "TRUE");
    EXPECT_EQ(tz::test::read_file(target), kept + "end");
    EXPECT_EQ(call(&tz::Service::writeDictionaryToPlistFile_XPC, tz::client::write_request(url, "<c/>")),
              "TRUE");
    EXPECT_EQ(tz::test::read_file(target), "<c/>");
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir.path())) ++files;
    EXPECT_EQ(files, 1u) << "no scratch file is left";
}

// ---- Requests out of the ordinary ---------------------------------------------

// The peak resident size of `pid` in KiB (VmHWM), or -1.
long peak_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// Sets an environment variable while it lives: the bus daemon, and the
// service it starts, inherit the test's environment.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment() {
        if (old_) ::setenv(name_, old_->c_str(), 1);
        else ::unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(RequestFaults, TenMegabyteAndMarkerOnlyRequestsAreAnsweredInBoundedMemory) {
#if defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer keeps freed blocks resident in a quarantine of 256 MiB,
    // which would be measured instead of the service; without it the peak is
    // the service's own plus the sanitizer's shadow of it.
    const char* options = std::getenv("ASAN_OPTIONS");
    const ScopedEnvironment no_quarantine(
        "ASAN_OPTIONS", std::string(options != nullptr ? options : "") + ":quarantine_size_mb=0");
#endif
    // No idle exit: a 10 MB message can take longer to arrive than a short
    // idle time, and the peak belongs to one process.
    PrivateBus bus(0);
    auto client = connect(bus);
    ASSERT_TRUE(client);
    const std::string target = bus.prefs() + "big.plist";
    const std::string url = tz::client::file_url(target);
    ASSERT_EQ(reply_of(client->write_dictionary(tz::client::write_request(url, "<small/>"))), "TRUE");
    const pid_t service = bus.service_pid();
    const long baseline = peak_kib(service);
    ASSERT_GT(baseline, 0);

    constexpr std::size_t kBig = 10u << 20;
    const std::string text(kBig, 'x');
    EXPECT_EQ(reply_of(client->write_dictionary(tz::client::write_request(url, text))), "TRUE");
    EXPECT_EQ(fs::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->write_data(tz::client::write_request(url, text))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data_rename(url)), "TRUE");
    EXPECT_EQ(fs::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->exist(bus.prefs() + text)), "FALSE");
    EXPECT_EQ(reply_of(client->is_admin(bus.prefs() + text)), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(text)).rfind("error " + std::string(tz::bus::kRangeError) + ":", 0), 0u);
    // Two million ":arg:" markers: far more arguments than a walk takes.
    std::string markers = "T48Q:ModelName:ENDalice:USErName:END";
    while (markers.size() < kBig) markers += ":arg:";
    EXPECT_EQ(reply_of(client->mib_walk(markers)), "iRet=-1");
    const long peak = peak_kib(service);

    // Requests of markers only: empty fields everywhere.
    EXPECT_EQ(reply_of(client->write_dictionary(":AddURL:END")), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(":AddURL:END")), "FALSE");
    EXPECT_EQ(reply_of(client->swap(":ARG_iSwapType:ARG_cFooCurrentString:ARG_cFooPrevString")), "TRUE");
    EXPECT_EQ(reply_of(client->mib_walk(":ModelName:END:USErName:END:arg:")), "iRet=-1");
    EXPECT_EQ(bus.service_pid(), service);

    std::printf("[ memory ] service VmHWM %ld KiB before, %ld KiB after 10 MiB requests\n", baseline, peak);
    RecordProperty("vmhwm_before_kib", static_cast<int>(baseline));
    RecordProperty("vmhwm_after_kib", static_cast<int>(peak));
    // A handful of copies of one request live at once: the bytes sd-bus read
    // from the socket, the message's string argument, the service's copy of
    // the request, and a field or a file's new content cut from it. Five
    // copies of the largest request bound that; a service that cut the two
    // million markers into a vector would not fit.
    constexpr long kPeakBoundKib = 5 * static_cast<long>(kBig >> 10);
    EXPECT_LT(peak - baseline, kPeakBoundKib) << "peak grew from " << baseline << " KiB to " << peak;
}

TEST(RequestFaults, BytesThatAreNotUtf8AreRefusedWithoutTouchingAnything) {
    tz::test::TempDir dir;
    const tz::Service service(dir.prefix());
    const std::string odd = dir.file("bad\xff.plist");  // a name the service cannot have
    tz::test::write_file(odd, "kept");
    tz::test::write_file(odd + ".dummy", "dummy");
    const std::string odd_url = "file://" + odd;
    const auto call = [&](tz::test::Operation op, const std::string& request) {
        return tz::test::call(op, request, service);  // fails the test unless it replies once
    };
    using S = tz::Service;
    EXPECT_EQ(call(&S::tzPListIsAdminProfile_XPC, odd), "FALSE");
    EXPECT_EQ(call(&S::tzPListExistProfile_XPC, odd), "FALSE");
    EXPECT_EQ(call(&S::tzPListRemove_XPC, odd), "FALSE");
    EXPECT_EQ(call(&S::tzPListSwapProfile_XPC, tz::client::swap_request(0, odd, dir.file("p"))), "TRUE");
    EXPECT_EQ(call(&S::writeDictionaryToPlistFile_XPC, tz::client::write_request(odd_url, "x")), "FALSE");
    EXPECT_EQ(call(&S::writeDataToPlistFile_XPC, tz::client::write_request(odd_url, "x")), "FALSE");
    EXPECT_EQ(call(&S::writeDataToPlistFileRename_XPC, odd_url), "FALSE");
    EXPECT_EQ(tz::test::read_file(odd), "kept");
    EXPECT_EQ(tz::test::read_file(odd + ".dummy"), "dummy");
    // A name without a UTF-8 form prints as "(null)", as a missing one does.
    EXPECT_EQ(call(&S::mibwalk_XPC, "T48Q:ModelName:END\xfe:USErName:ENDsnmpwalk:arg:"), "iRet=-1");
    EXPECT_TRUE(tz::test::exists(dir.file("(null)-T48Q-profile.plist")));
}

}  // namespace
