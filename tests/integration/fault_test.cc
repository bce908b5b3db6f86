// An agent or the service dying in a walk, an unwritable or full disk, outsized and marker-only requests.
#include <sys/resource.h>

#include <future>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "folder_text.h"
#include "private_bus.h"
#include "scripted_agent.h"
#include "service_call.h"
#include "snmp_agent.h"

namespace tz::test {
namespace {

using S = tz::Service;
using tz::client::file_url;
using tz::client::write_request;

// The slots in use as Python's plistlib reads the file: "<category> <count> <last file name> {<InMenu values>}" lines.
std::string slots_in_use(const std::string& path) {
    const auto result = run_command({"/usr/bin/python3", "-c",
        "import plistlib,sys\np=plistlib.load(open(sys.argv[1],'rb'))\nfor c in ('RGB','SIM','DST'):\n"
        "  s=[(p[c]['FileName']['FileName%04d'%i],m) for i in range(500) if (m:=p[c]['InMenu']['InMenu%04d'%i])]\n"
        "  print(c,len(s),s[-1][0] if s else '-',{m for _,m in s})\n", path});
    return result.status == 0 ? result.out : "unreadable: " + result.err;
}

// In one bus's life: the service killed in a walk, then an agent of 500 rows silent halfway.
TEST(WalkFaults, AKilledServiceIsStartedAgainAndASilentAgentLeavesTheRowsThatArrivedWhole) {
    PrivateBus bus;
    const auto client = connect(bus);
    const std::string plist = bus.prefs() + "alice-T48Q-profile.plist";
    ASSERT_EQ(reply_of(client->exist(plist)), "FALSE");
    const pid_t service = bus.service_pid();
    ASSERT_GT(service, 0);
    // Silent from the third column on: the walk cannot end before the kill, which comes past its thousandth request.
    const ScriptedAgent silent(R"("rows": 500, "silent_from": ")" + cell(3, 1) + "\"");
    auto walk = std::async(std::launch::async,
                           [&] { return client->mib_walk(walk_of("T48Q", "alice", silent.peer())); });
    ASSERT_TRUE(silent.wait_for_requests(1000));
    ::kill(service, SIGKILL);
    const std::string killed = reply_of(walk.get());
    EXPECT_EQ(killed.rfind("error org.freedesktop.DBus.Error.NoReply:", 0), 0u) << killed;
    ASSERT_TRUE(wait_for_exit(service, std::chrono::seconds(30)));
    EXPECT_FALSE(exists(plist)) << "the rebuild never ran";

    // Columns 1 to 4 of every row, the class column of rows 1 to 400 (however far the walk asked ahead).
    const ScriptedAgent halfway(R"("rows": 500, "silent_from": ")" + cell(5, 400) + "\"");
    EXPECT_EQ(reply_of(client->mib_walk(walk_of("T48Q", "alice", halfway.peer(), "3"))), "iRet=1");
    // Rows 1 to 400 of printer_table: classes 1 and 2 in RGB, class 3 in SIM and DST.
    EXPECT_EQ(slots_in_use(plist), "RGB 267 PRF00400.ICC {2}\nSIM 133 PRF00399.ICC {2}\nDST 133 PRF00399.ICC {2}\n");
}

// Writes cut short, as nobody under root: in its folder of mode 0555, through links to /dev/full (a piece is refused
// already: its temporary file is a link), past a 64 KiB file size limit. Each write answers FALSE, the walk iRet=0 with
// no file; once the fault is gone, the same target takes a piece and a whole write, and no scratch file is left.
TEST(DiskFaults, WritesCutShortAnswerFalseAndTheNextSequenceOnTheSameTargetWorks) {
    SnmpAgent agent(printer_table(3));
    const std::string kept(48 * 1024, 'k');
    const std::string links = "alice-T48Q-profile.plist->/dev/full;t->/dev/full;t.dummy->/dev/full";
    const struct { std::string before; mode_t mode; rlim_t limit; std::string after, walk, recovered; } cases[] = {
        {"", 0555, RLIM_INFINITY, "", "iRet=0", "end"},
        {links, 0755, RLIM_INFINITY, links, "iRet=0", "end"},
        {"t.dummy=" + kept, 0755, 64 * 1024, "t=" + std::string(64 * 1024, 't') + ";t.dummy=" + kept, "", kept + "end"},
    };
    ::umask(002);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.before.substr(0, 24));
        TempDir dir;
        build(dir, c.before);
        ASSERT_EQ(::chown(dir.path().c_str(), unprivileged_uid(), -1), 0);
        ASSERT_EQ(::chmod(dir.path().c_str(), c.mode), 0);
        const S service(dir.prefix(), S::Folder::private_to_user);
        const std::string url = file_url(dir.file("t"));
        const auto put = [&](auto op, const std::string& text) { return call(op, write_request(url, text), service); };
        EXPECT_EQ(run_unprivileged([&] {
            const rlimit limit{c.limit, c.limit};
            ::signal(SIGXFSZ, SIG_IGN);
            return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                   put(&S::writeDataToPlistFile_XPC, std::string(32 * 1024, 'p')) == "FALSE" &&
                   put(&S::writeDictionaryToPlistFile_XPC, std::string(96 * 1024, 't')) == "FALSE" &&
                   (c.walk.empty() || call(&S::mibwalk_XPC, walk_of("T48Q", "alice", agent.peer()), service) == c.walk)
                   ? 0 : 1;
        }), 0);
        EXPECT_EQ(listing(dir), c.after) << "links are written through, not replaced";
        ::chmod(dir.path().c_str(), 0755);
        for (const auto& e : std::filesystem::directory_iterator(dir.path()))
            EXPECT_TRUE(!e.is_symlink() || call(&S::tzPListRemove_XPC, e.path().string(), service) == "TRUE") << e;
        EXPECT_EQ(put(&S::writeDataToPlistFile_XPC, "end"), "TRUE");
        EXPECT_EQ(call(&S::writeDataToPlistFileRename_XPC, url, service), "TRUE");
        EXPECT_EQ(read_file(dir.file("t")), c.recovered);
        EXPECT_EQ(put(&S::writeDictionaryToPlistFile_XPC, "<c/>"), "TRUE");
        EXPECT_EQ(listing(dir), "t=<c/>") << "no scratch file is left";
    }
}

// Ten-megabyte requests (one of markers only); the peak resident size (VmHWM) grows by less than five copies of one.
TEST(RequestFaults, TenMegabyteRequestsAreAnsweredInBoundedMemory) {
#if defined(__SANITIZE_ADDRESS__)  // the service inherits this: measure it, not ASan's quarantine of freed blocks
    const char* asan = std::getenv("ASAN_OPTIONS");
    ::setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":quarantine_size_mb=0").c_str(), 1);
#endif
    PrivateBus bus(0);  // no idle exit: the peak belongs to one process
    auto client = connect(bus);
    const std::string target = bus.prefs() + "big.plist", url = file_url(target);
    ASSERT_EQ(reply_of(client->write_dictionary(write_request(url, "<small/>"))), "TRUE");
    const pid_t service = bus.service_pid();
    const auto peak_kib = [&] {
        const std::string status = read_file("/proc/" + std::to_string(service) + "/status");
        return status.find("VmHWM:") == std::string::npos ? -1L : std::stol(status.substr(status.find("VmHWM:") + 6));
    };
    const long baseline = peak_kib();
    ASSERT_GT(baseline, 0);
    constexpr std::size_t kBig = 10u << 20;
    const std::string text(kBig, 'x');
    std::string markers = "T48Q:ModelName:ENDalice:USErName:END";  // two million ":arg:": far too many arguments
    while (markers.size() < kBig) markers += ":arg:";
    EXPECT_EQ(reply_of(client->write_dictionary(write_request(url, text))), "TRUE");
    EXPECT_EQ(std::filesystem::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->write_data(write_request(url, text))), "TRUE");
    EXPECT_EQ(reply_of(client->write_data_rename(url)), "TRUE");
    EXPECT_EQ(std::filesystem::file_size(target), kBig);
    EXPECT_EQ(reply_of(client->exist(bus.prefs() + text)), "FALSE");
    EXPECT_EQ(reply_of(client->write_data(text)).rfind("error " + std::string(tz::bus::kRangeError) + ":", 0), 0u);
    EXPECT_EQ(reply_of(client->mib_walk(markers)), "iRet=-1");
    EXPECT_LT(peak_kib() - baseline, 5 * static_cast<long>(kBig >> 10)) << "from " << baseline << " KiB";
    EXPECT_EQ(bus.service_pid(), service);
}

}  // namespace
}  // namespace tz::test
