// Shared pieces of the profile store tests: a temporary folder with the path
// globals pointed into it, table builders, and a small independent writer of
// XML property lists for files the store's own writer would never produce.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <variant>

#include "temp_dir.h"
#include "tz_profile_store.h"

namespace tz::test {

// Zero-initialised tables live on the heap: three of them are 126 KB.
inline std::unique_ptr<ProfileTable> empty_table() {
    auto table = std::make_unique<ProfileTable>();
    std::memset(table.get(), 0, sizeof(ProfileTable));
    return table;
}

inline ProfileEntry entry(int32_t index, int32_t in_menu, const char* file_name,
                          int32_t location = 4, int32_t profile_class = 1,
                          const char* profile_name = "") {
    ProfileEntry e;
    std::memset(&e, 0, sizeof e);
    e.IndexOnDevice = index;
    e.InMenu = in_menu;
    e.ProfileClass = profile_class;
    std::strncpy(e.FileName, file_name, sizeof e.FileName - 1);
    std::strncpy(e.ProfileName, profile_name, sizeof e.ProfileName - 1);
    e.Location = location;
    return e;
}

inline bool same_bytes(const ProfileTable& a, const ProfileTable& b) {
    return std::memcmp(&a, &b, sizeof(ProfileTable)) == 0;
}

inline bool same_bytes(const ProfileEntry& a, const ProfileEntry& b) {
    return std::memcmp(&a, &b, sizeof(ProfileEntry)) == 0;
}

// Points the three path globals into a fresh temporary folder.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        current_ = dir_.file("user-T48Q-profile.plist");
        previous_ = dir_.file("user-T48Q-profile.prev.plist");
        spool_ = dir_.file("user-T48Q-profile.spool.plist");
        TZ_PLIST_PROFILE_PATH = current_.c_str();
        TZ_PLIST_PROFILE_PREV_PATH = previous_.c_str();
        TZ_PLIST_PROFILE_SPOOL_PATH = spool_.c_str();
    }
    void TearDown() override {
        TZ_PLIST_PROFILE_PATH = nullptr;
        TZ_PLIST_PROFILE_PREV_PATH = nullptr;
        TZ_PLIST_PROFILE_SPOOL_PATH = nullptr;
    }

    TempDir dir_;
    std::string current_;
    std::string previous_;
    std::string spool_;
};

// ---- A tiny plist model and XML writer, independent of the codec ----------

struct PNode;
using PDict = std::map<std::string, PNode>;
// Raw XML stands for any value element written as given ("<true/>").
struct RawXml {
    std::string xml;
};
struct PNode {
    std::variant<long long, std::string, PDict, RawXml> value;
};

inline std::string escape_xml(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

inline void node_xml(const PNode& node, std::string& out) {
    if (const auto* i = std::get_if<long long>(&node.value)) {
        out += "<integer>" + std::to_string(*i) + "</integer>\n";
    } else if (const auto* s = std::get_if<std::string>(&node.value)) {
        out += "<string>" + escape_xml(*s) + "</string>\n";
    } else if (const auto* raw = std::get_if<RawXml>(&node.value)) {
        out += raw->xml + "\n";
    } else {
        out += "<dict>\n";
        for (const auto& [key, value] : std::get<PDict>(node.value)) {
            out += "<key>" + escape_xml(key) + "</key>\n";
            node_xml(value, out);
        }
        out += "</dict>\n";
    }
}

inline std::string plist_xml(const PDict& root) {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    node_xml(PNode{root}, out);
    return out + "</plist>\n";
}

// A category as the writer lays it out, with only the slots given (the
// other slot keys are absent) and no "iNum" unless set.
inline PDict category(const std::map<int, ProfileEntry>& slots) {
    PDict index, in_menu, cls, file, name, location;
    char key[32];
    for (const auto& [n, e] : slots) {
        std::snprintf(key, sizeof key, "IndexOnDevice%04d", n);
        index[key] = PNode{(long long)e.IndexOnDevice};
        std::snprintf(key, sizeof key, "InMenu%04d", n);
        in_menu[key] = PNode{(long long)e.InMenu};
        std::snprintf(key, sizeof key, "ProfileClass%04d", n);
        cls[key] = PNode{(long long)e.ProfileClass};
        std::snprintf(key, sizeof key, "FileName%04d", n);
        file[key] = PNode{std::string(e.FileName)};
        std::snprintf(key, sizeof key, "ProfileName%04d", n);
        name[key] = PNode{std::string(e.ProfileName)};
        std::snprintf(key, sizeof key, "Location%04d", n);
        location[key] = PNode{(long long)e.Location};
    }
    return PDict{{"IndexOnDevice", PNode{index}}, {"InMenu", PNode{in_menu}},
                 {"ProfileClass", PNode{cls}},    {"FileName", PNode{file}},
                 {"ProfileName", PNode{name}},    {"Location", PNode{location}}};
}

inline PDict& dict_at(PDict& d, const std::string& key) { return std::get<PDict>(d.at(key).value); }

}  // namespace tz::test
