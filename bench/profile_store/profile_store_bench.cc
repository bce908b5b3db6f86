// The profile file read and written whole, side by side with libplist on the
// same bytes: a full file, all 1,500 slots in use with realistic names.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "tz_profile_store.h"

namespace {

const char* const kMedia[] = {"Glossy Photo", "Matte Fine Art", "Plain & Recycled",
                              "Satin Pro",    "Canvas",         "Proof <Semi>"};

void fill(ProfileTable& table, int category) {
    std::memset(&table, 0, sizeof table);
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n) {
        ProfileEntry& e = table.Entry[n];
        e.IndexOnDevice = n + 1;
        e.InMenu = 1 + n % 6;
        e.ProfileClass = category == 0 ? 1 + n % 2 : 3;
        e.Location = 4 + n % 2;
        std::snprintf(e.FileName, sizeof e.FileName, "T48Q_%c%03d_%s.ICC", "RSD"[category], n,
                      n % 2 ? "GLOSS" : "MATTE");
        std::snprintf(e.ProfileName, sizeof e.ProfileName, "%s %03d \xC3\xA9", kMedia[n % 6], n);
    }
    table.iNum = TZ_PROFILE_SLOTS;
}

// One temporary profile file for the whole run, written by the store.
struct Fixture {
    std::string folder;
    std::string path;
    ProfileTable tables[3];

    Fixture() {
        // tmpfs when there is one: the figures are the codec's, not the disk's
        // (a truncating rewrite on ext4 also starts writeback at close).
        char shm[] = "/dev/shm/tz-bench-XXXXXX";
        char tmp[] = "/tmp/tz-bench-XXXXXX";
        const char* made = ::mkdtemp(shm);
        if (made == nullptr) made = ::mkdtemp(tmp);
        if (made == nullptr) std::abort();
        folder = made;
        path = folder + "/user-T48Q-profile.plist";
        TZ_PLIST_PROFILE_PATH = path.c_str();
        for (int c = 0; c < 3; ++c) fill(tables[c], c);
        if (TZPListWriteProfile_All(&tables[0], &tables[1], &tables[2]) != 0) std::abort();
    }
    ~Fixture() {
        std::remove(path.c_str());
        std::remove((folder + "/libplist.plist").c_str());
        ::rmdir(folder.c_str());
    }
    std::string bytes() const {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void BM_TZPListReadProfile_All(benchmark::State& state) {
    Fixture& f = fixture();
    auto tables = std::make_unique<ProfileTable[]>(3);
    for (auto _ : state) {
        std::memset(tables.get(), 0, 3 * sizeof(ProfileTable));
        if (TZPListReadProfile_All(&tables[0], &tables[1], &tables[2]) != 0) std::abort();
        benchmark::DoNotOptimize(tables[2].iNum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.bytes().size()));
}

// libplist's XML reader on the same file, the file read included as above.
void BM_libplist_plist_from_xml(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) {
        const std::string bytes = f.bytes();
        plist_t root = nullptr;
        plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
        if (root == nullptr) std::abort();
        plist_free(root);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.bytes().size()));
}

void BM_TZPListWriteProfile_All(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state)
        if (TZPListWriteProfile_All(&f.tables[0], &f.tables[1], &f.tables[2]) != 0) std::abort();
}

// libplist's XML writer on the same tree, plus writing the file.
void BM_libplist_plist_to_xml_and_write(benchmark::State& state) {
    Fixture& f = fixture();
    const std::string bytes = f.bytes();
    plist_t root = nullptr;
    plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (root == nullptr) std::abort();
    const std::string out = f.folder + "/libplist.plist";
    for (auto _ : state) {
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(root, &xml, &length);
        const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        if (fd < 0 || ::write(fd, xml, length) != static_cast<ssize_t>(length)) std::abort();
        ::close(fd);
        plist_to_xml_free(xml);
    }
    plist_free(root);
}

BENCHMARK(BM_TZPListReadProfile_All)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_libplist_plist_from_xml)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TZPListWriteProfile_All)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_libplist_plist_to_xml_and_write)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
