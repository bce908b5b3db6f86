#include "walk_summary.h"

#include <cstring>
#include <string_view>

#include "same_profile.h"

namespace tz::ctl {
namespace {

// A full 32-byte field has no terminator.
std::string_view text_of(const char (&field)[TZ_PROFILE_TEXT]) {
    return {field, ::strnlen(field, TZ_PROFILE_TEXT)};
}

ProfileChange change_of(const ProfileEntry& entry, int32_t old_in_menu, int32_t new_in_menu) {
    return {std::string(text_of(entry.FileName)), entry.Location,
            std::string(text_of(entry.ProfileName)), old_in_menu, new_in_menu};
}

}  // namespace

CategoryChanges compare_profiles(const ProfileTable& before, const ProfileTable& after) {
    CategoryChanges changes;
    std::array<bool, TZ_PROFILE_SLOTS> paired{};  // slots of `before` already matched
    for (const ProfileEntry& now : after.Entry) {
        if (now.InMenu == 0) continue;
        int match = -1;
        for (int slot = 0; slot < TZ_PROFILE_SLOTS && match < 0; ++slot) {
            const ProfileEntry& old = before.Entry[slot];
            if (!paired[slot] && old.InMenu != 0 && tz::store::same_profile_for_merge(old, now)) match = slot;
        }
        if (match < 0) {
            changes.added.push_back(change_of(now, 0, now.InMenu));
            continue;
        }
        paired[match] = true;
        const int32_t old_in_menu = before.Entry[match].InMenu;
        if (old_in_menu != now.InMenu) changes.remarked.push_back(change_of(now, old_in_menu, now.InMenu));
    }
    for (int slot = 0; slot < TZ_PROFILE_SLOTS; ++slot) {
        const ProfileEntry& old = before.Entry[slot];
        if (old.InMenu != 0 && !paired[slot]) changes.dropped.push_back(change_of(old, old.InMenu, 0));
    }
    return changes;
}

}  // namespace tz::ctl
