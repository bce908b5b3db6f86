// The walk summary's comparison of the tables before and after a walk.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "profile_tables.h"
#include "walk_summary.h"

namespace {

using tz::test::entry;

// "+NAME@LOC:NEW" added, "-NAME@LOC:OLD" dropped, "~NAME@LOC:OLD>NEW" re-marked.
std::vector<std::string> changes_of(const tz::ctl::CategoryChanges& changes) {
    std::vector<std::string> out;
    const auto at = [](const tz::ctl::ProfileChange& c) { return c.file_name + "@" + std::to_string(c.location); };
    for (const auto& c : changes.added) out.push_back("+" + at(c) + ":" + std::to_string(c.new_in_menu));
    for (const auto& c : changes.dropped) out.push_back("-" + at(c) + ":" + std::to_string(c.old_in_menu));
    for (const auto& c : changes.remarked)
        out.push_back("~" + at(c) + ":" + std::to_string(c.old_in_menu) + ">" + std::to_string(c.new_in_menu));
    return out;
}

struct Slot {
    int slot;
    ProfileEntry e;
};

ProfileTable table_of(const std::vector<Slot>& slots, int32_t count) {
    ProfileTable t{};
    for (const Slot& s : slots) t.Entry[s.slot] = s.e;
    t.iNum = count;
    return t;
}

TEST(WalkSummary, NamesProfilesAddedDroppedAndReMarkedByFileNameAndLocation) {
    struct Case {
        const char* what;
        std::vector<Slot> before, after;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"unchanged, moved to another slot", {{0, entry(1, 2, "A.ICC")}}, {{7, entry(9, 2, "A.ICC")}}, {}},
        {"added, dropped and re-marked",
         {{0, entry(1, 2, "A.ICC")}, {1, entry(2, 3, "B.ICC")}},
         {{0, entry(1, 4, "A.ICC")}, {1, entry(3, 2, "C.ICC")}},
         {"+C.ICC@4:2", "-B.ICC@4:3", "~A.ICC@4:2>4"}},
        {"another location is another profile",
         {{0, entry(1, 2, "A.ICC", 4)}},
         {{0, entry(1, 2, "A.ICC", 5)}},
         {"+A.ICC@5:2", "-A.ICC@4:2"}},
        {"free slots do not count, whatever they hold or iNum says",
         {{0, entry(1, 0, "A.ICC")}, {3, entry(1, 2, "B.ICC")}},
         {{0, entry(1, 2, "A.ICC")}, {3, entry(1, 0, "B.ICC")}},
         {"+A.ICC@4:2", "-B.ICC@4:2"}},
        {"a profile held twice pairs once",
         {{0, entry(1, 2, "A.ICC")}, {1, entry(1, 3, "A.ICC")}},
         {{0, entry(1, 3, "A.ICC")}},
         {"-A.ICC@4:3", "~A.ICC@4:2>3"}},
    };
    for (const Case& c : cases) {
        // iNum 0 and 500: the comparison looks at the slots only.
        const ProfileTable before = table_of(c.before, 0);
        const ProfileTable after = table_of(c.after, 500);
        EXPECT_EQ(changes_of(tz::ctl::compare_profiles(before, after)), c.expected) << c.what;
    }
}

TEST(WalkSummary, AFullTextFieldIsReadAsThirtyTwoBytes) {
    ProfileTable before{}, after{};
    before.Entry[0] = entry(1, 2, "");
    std::memset(before.Entry[0].FileName, 'X', sizeof before.Entry[0].FileName);
    std::memset(before.Entry[0].ProfileName, 'Y', sizeof before.Entry[0].ProfileName);
    const auto changes = tz::ctl::compare_profiles(before, after);
    ASSERT_EQ(changes.dropped.size(), 1u);
    EXPECT_EQ(changes.dropped[0].file_name, std::string(32, 'X'));
    EXPECT_EQ(changes.dropped[0].profile_name, std::string(32, 'Y'));
}

}  // namespace
