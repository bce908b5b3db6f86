// Shared pieces of the profile store tests: a temporary folder with the path
// globals pointed into it, table builders, and XML text for files the store's
// own writer would never produce.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "temp_dir.h"
#include "tz_profile_store.h"

namespace tz::test {

// Tables live on the heap, zeroed: three of them are 126 KB.
inline std::unique_ptr<ProfileTable> table() {
    auto t = std::make_unique<ProfileTable>();
    std::memset(t.get(), 0, sizeof(ProfileTable));
    return t;
}

inline ProfileEntry entry(int32_t index, int32_t in_menu, const char* file_name,
                          int32_t location = 4, int32_t profile_class = 1, const char* name = "") {
    ProfileEntry e;
    std::memset(&e, 0, sizeof e);
    e.IndexOnDevice = index;
    e.InMenu = in_menu;
    e.ProfileClass = profile_class;
    std::strncpy(e.FileName, file_name, sizeof e.FileName - 1);
    std::strncpy(e.ProfileName, name, sizeof e.ProfileName - 1);
    e.Location = location;
    return e;
}

template <typename T>
bool same_bytes(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// Points the path globals into a fresh temporary folder.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        TZ_PLIST_PROFILE_PATH = current_.c_str();
        TZ_PLIST_PROFILE_PREV_PATH = previous_.c_str();
    }
    void TearDown() override { TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = nullptr; }
    int32_t read_all() { return TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()); }

    TempDir dir_;
    std::string current_ = dir_.file("user-T48Q-profile.plist");
    std::string previous_ = dir_.file("user-T48Q-profile.prev.plist");
    std::unique_ptr<ProfileTable> rgb_ = table(), sim_ = table(), dst_ = table();
};

// One category of a hand-made file: the slots given (no other slot keys),
// "iNum" only when set, field dictionaries left out by name, and single
// values replaced by raw XML ("Field/Key" -> "<true/>"; "" drops the key),
// and extra raw entries of the category.
struct Category {
    Category(std::map<int, ProfileEntry> slots_ = {}, std::string inum_ = "",
             std::set<std::string> omit_ = {}, std::map<std::string, std::string> raw_ = {},
             std::string extra_ = "")
        : slots(std::move(slots_)),
          inum(std::move(inum_)),
          omit(std::move(omit_)),
          raw(std::move(raw_)),
          extra(std::move(extra_)) {}
    std::map<int, ProfileEntry> slots;
    std::string inum;
    std::set<std::string> omit;
    std::map<std::string, std::string> raw;
    std::string extra;
};

inline std::string category_xml(const Category& c) {
    const char* fields[] = {"IndexOnDevice", "InMenu",      "ProfileClass",
                            "FileName",      "ProfileName", "Location"};
    std::string xml = "<dict>" + c.extra;
    if (!c.inum.empty()) xml += "<key>iNum</key><integer>" + c.inum + "</integer>";
    for (int f = 0; f < 6; ++f) {
        const char* field = fields[f];
        if (c.omit.count(field)) continue;
        std::map<std::string, std::string> values;
        for (const auto& [n, e] : c.slots) {
            char key[32];
            std::snprintf(key, sizeof key, "%s%04d", field, n);
            const int32_t numbers[] = {e.IndexOnDevice, e.InMenu, e.ProfileClass, 0, 0, e.Location};
            values[key] = f == 3   ? "<string>" + std::string(e.FileName) + "</string>"
                          : f == 4 ? "<string>" + std::string(e.ProfileName) + "</string>"
                                   : "<integer>" + std::to_string(numbers[f]) + "</integer>";
        }
        for (const auto& [path, value] : c.raw)
            if (path.rfind(std::string(field) + "/", 0) == 0)
                values[path.substr(path.find('/') + 1)] = value;
        xml += std::string("<key>") + field + "</key><dict>";
        for (const auto& [key, value] : values)
            if (!value.empty()) xml += "<key>" + key + "</key>" + value;
        xml += "</dict>";
    }
    return xml + "</dict>";
}

// A file of the given categories ("RGB" -> category).
inline std::string file_xml(const std::map<std::string, Category>& categories) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
    for (const auto& [name, c] : categories) xml += "<key>" + name + "</key>" + category_xml(c);
    return xml + "</dict></plist>\n";
}

}  // namespace tz::test
