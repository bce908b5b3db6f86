// The profile store tests' fixture (the path globals pointed into a temporary
// folder) and XML for files the store's own writer would never produce.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>

#include "profile_tables.h"

namespace tz::test {

inline std::unique_ptr<ProfileTable> table() { return std::make_unique<ProfileTable>(); }

class StoreTest : public ::testing::Test {
protected:
    int32_t read_all() { return tables_->read(); }

    ProfilePaths paths_;
    const std::string& current_ = paths_.current;
    const std::string& previous_ = paths_.previous;
    const std::unique_ptr<Tables> tables_ = std::make_unique<Tables>();
    ProfileTable *rgb_ = &tables_->rgb, *sim_ = &tables_->sim, *dst_ = &tables_->dst;
};

// One category of a hand-made file: the slots given (no other slot keys),
// "iNum" only when set, field dictionaries left out by name, single values
// replaced by raw XML ("Field/Key" -> "<true/>"; "" drops the key), and extra
// raw entries of the category.
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
    const char* fields[] = {"IndexOnDevice", "InMenu", "ProfileClass", "FileName", "ProfileName", "Location"};
    std::string xml = "<dict>" + c.extra;
    if (!c.inum.empty()) xml += "<key>iNum</key><integer>" + c.inum + "</integer>";
    for (int f = 0; f < 6; ++f) {
        const std::string field = fields[f];
        if (c.omit.count(field)) continue;
        std::map<std::string, std::string> values;
        for (const auto& [n, e] : c.slots) {
            char key[32];
            std::snprintf(key, sizeof key, "%s%04d", field.c_str(), n);
            const int32_t numbers[] = {e.IndexOnDevice, e.InMenu, e.ProfileClass, 0, 0, e.Location};
            values[key] = f == 3   ? "<string>" + std::string(e.FileName) + "</string>"
                          : f == 4 ? "<string>" + std::string(e.ProfileName) + "</string>"
                                   : "<integer>" + std::to_string(numbers[f]) + "</integer>";
        }
        for (const auto& [path, value] : c.raw)
            if (path.rfind(field + "/", 0) == 0) values[path.substr(field.size() + 1)] = value;
        xml += "<key>" + field + "</key><dict>";
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
