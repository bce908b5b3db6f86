// Profile tables for tests: entries, zeroed tables and the path globals in a temporary folder.
#pragma once

#include <cstring>
#include <string>

#include "temp_dir.h"
#include "tz_profile_store.h"

namespace tz::test {

inline ProfileEntry entry(int32_t index, int32_t in_menu, const char* file_name, int32_t location = 4,
                          int32_t profile_class = 1, const char* name = "") {
    ProfileEntry e{};
    e.IndexOnDevice = index, e.InMenu = in_menu, e.ProfileClass = profile_class, e.Location = location;
    std::strncpy(e.FileName, file_name, sizeof e.FileName - 1);
    std::strncpy(e.ProfileName, name, sizeof e.ProfileName - 1);
    return e;
}

template <typename T> bool same_bytes(const T& a, const T& b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

struct Tables {
    ProfileTable rgb{}, sim{}, dst{};
    static void add(ProfileTable& t, const ProfileEntry& e) { t.Entry[t.iNum++] = e; }
    int32_t read() { return TZPListReadProfile_All(&rgb, &sim, &dst); }
    int32_t write() const { return TZPListWriteProfile_All(&rgb, &sim, &dst); }
};

// A temporary folder the store's path globals point into while it lives.
struct ProfilePaths {
    ProfilePaths() {
        TZ_PLIST_PROFILE_PATH = current.c_str(), TZ_PLIST_PROFILE_PREV_PATH = previous.c_str();
        TZ_PLIST_PROFILE_SPOOL_PATH = spool.c_str();
    }
    ~ProfilePaths() { TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = TZ_PLIST_PROFILE_SPOOL_PATH = nullptr; }
    TempDir dir;
    const std::string current = dir.file("alice-ModelX-profile.plist");
    const std::string previous = dir.file("alice-ModelX-profile.prev.plist");
    const std::string spool = dir.file("alice-ModelX-profile.spool.plist");
};

}  // namespace tz::test
