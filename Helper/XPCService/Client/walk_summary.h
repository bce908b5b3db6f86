// What a walk did to a user's profile plist: per category, the profiles it
// added, dropped and re-marked, from the three tables read before the walk
// and the three read after it. This is the first thing a support engineer
// asks about a walk.
//
// A profile is the same profile before and after when the rebuild's merge
// takes it for one (same_profile.h). Only slots in use count
// (InMenu not 0), wherever they stand and whatever iNum says. When a table
// holds the same profile twice, the copies are paired in slot order and the
// ones left over count as added or dropped.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tz_profile_store.h"

namespace tz::ctl {

struct ProfileChange {
    std::string file_name;
    int32_t location = 0;
    std::string profile_name;  // as after the walk; as before it for a dropped profile
    int32_t old_in_menu = 0;   // 0 for an added profile
    int32_t new_in_menu = 0;   // 0 for a dropped profile
};

struct CategoryChanges {
    std::vector<ProfileChange> added;     // in slot order after the walk
    std::vector<ProfileChange> dropped;   // in slot order before the walk
    std::vector<ProfileChange> remarked;  // InMenu changed; in slot order after the walk
    bool empty() const { return added.empty() && dropped.empty() && remarked.empty(); }
};

CategoryChanges compare_profiles(const ProfileTable& before, const ProfileTable& after);

// The three categories in the order RGB, SIM, DST.
inline constexpr std::array<const char*, 3> kCategoryNames = {"RGB", "SIM", "DST"};

}  // namespace tz::ctl
