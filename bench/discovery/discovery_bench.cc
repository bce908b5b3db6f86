// Speed of the walk, side by side on the same snmpd:
//   - 500-profile device: mib_walk (GETNEXT loop, spool, rebuild with plist
//     read and write) against a bare in-process GETNEXT loop over the same
//     subtree (session open, requests, close; nothing kept);
//   - 40-profile device: the whole walk request in process
//     (Service::mibwalk_XPC) against one `snmpwalk -v1` process.
// bench/discovery/ratios prints the ratios.
#include <benchmark/benchmark.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "device_table.h"
#include "service.h"
#include "snmp_agent.h"
#include "temp_dir.h"
#include "tz_discovery.h"

namespace {

using tz::bench::kTable;
const auto table = tz::bench::device_table;

std::unique_ptr<tz::test::SnmpAgent> device500, device40;
std::unique_ptr<tz::test::TempDir> folder;

std::vector<std::string> walk_arguments(const tz::test::SnmpAgent& agent) {
    return {"snmpwalk", "-v1", "-c", "public", "-t", "1", "-r", "1", agent.peer(), kTable};
}

int32_t walk(const tz::test::SnmpAgent& agent) {
    std::vector<std::string> args = walk_arguments(agent);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return mib_walk(static_cast<int32_t>(args.size()), argv.data());
}

void BM_MibWalk500(benchmark::State& state) {
    const std::string plist = folder->file("bench-walk-profile.plist");
    TZ_PLIST_PROFILE_PATH = plist.c_str();
    for (auto _ : state)
        if (walk(*device500) != 0) state.SkipWithError("walk failed");
    TZ_PLIST_PROFILE_PATH = nullptr;
}

// The rebuild alone, from the spool of the last 500-profile walk: where the
// difference between the two above goes (plist read, merge, tidy, write).
void BM_Rebuild500(benchmark::State& state) {
    const std::string plist = folder->file("bench-walk-profile.plist");
    TZ_PLIST_PROFILE_PATH = plist.c_str();
    if (walk(*device500) != 0) state.SkipWithError("walk failed");
    for (auto _ : state) benchmark::DoNotOptimize(vRestructPlistSpool2Current(0));
    TZ_PLIST_PROFILE_PATH = nullptr;
}

// What any walk must do at least: the same requests, nothing kept.
void BM_BareGetNext500(benchmark::State& state) {
    oid root[MAX_OID_LEN];
    size_t root_length = MAX_OID_LEN;
    read_objid(kTable.c_str(), root, &root_length);
    std::string peer = device500->peer();
    std::string community = "public";
    for (auto _ : state) {
        netsnmp_session settings;
        snmp_sess_init(&settings);
        settings.version = SNMP_VERSION_1;
        settings.peername = peer.data();
        settings.community = reinterpret_cast<u_char*>(community.data());
        settings.community_len = community.size();
        netsnmp_session* session = snmp_open(&settings);
        oid name[MAX_OID_LEN];
        size_t name_length = root_length;
        std::memcpy(name, root, root_length * sizeof(oid));
        int variables = 0;
        for (bool inside = true; inside;) {
            netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GETNEXT);
            snmp_add_null_var(request, name, name_length);
            netsnmp_pdu* response = nullptr;
            inside = snmp_synch_response(session, request, &response) == STAT_SUCCESS &&
                     response->errstat == SNMP_ERR_NOERROR;
            for (auto* var = inside ? response->variables : nullptr; var; var = var->next_variable) {
                inside = var->name_length >= root_length &&
                         std::memcmp(var->name, root, root_length * sizeof(oid)) == 0;
                if (!inside) break;
                std::memcpy(name, var->name, var->name_length * sizeof(oid));
                name_length = var->name_length;
                ++variables;
            }
            if (response) snmp_free_pdu(response);
        }
        snmp_close(session);
        if (variables != 3500) state.SkipWithError("bare loop saw the wrong count");
    }
}

void BM_ServiceWalk40(benchmark::State& state) {
    const tz::Service service(folder->prefix());
    std::string request = "ModelX:ModelName:ENDbench:USErName:END";
    for (const auto& a : walk_arguments(*device40)) request += a + ":arg:";
    for (auto _ : state)
        service.mibwalk_XPC(request, [&](const std::string& reply) {
            if (reply != "iRet=0") state.SkipWithError(reply.c_str());
        });
}

void BM_SnmpwalkProcess40(benchmark::State& state) {
    std::vector<std::string> argv = {"/usr/bin/snmpwalk", "-v1", "-c", "public", "-On",
                                     device40->peer(), kTable};
    for (auto _ : state) {
        if (tz::test::wait_status(tz::test::spawn(argv, "/dev/null", "/dev/null", device40->client_environment())) != 0)
            state.SkipWithError("snmpwalk failed");
    }
}

BENCHMARK(BM_MibWalk500)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareGetNext500)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rebuild500)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServiceWalk40)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SnmpwalkProcess40)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    folder = std::make_unique<tz::test::TempDir>();
    device500 = std::make_unique<tz::test::SnmpAgent>(table(500));
    device40 = std::make_unique<tz::test::SnmpAgent>(table(40));
    // The first walk starts the library (no MIB files) for the bare loop too.
    const std::string plist = folder->file("warm-up-profile.plist");
    TZ_PLIST_PROFILE_PATH = plist.c_str();
    walk(*device40);
    TZ_PLIST_PROFILE_PATH = nullptr;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    device40.reset();
    device500.reset();
    folder.reset();
}
