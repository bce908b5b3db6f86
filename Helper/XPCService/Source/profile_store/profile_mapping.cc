// The mapping: a caller's table merged with the current file's device-marked
// entries (InMenu 2 or 4), the write built on it, and the hand-out of the
// file's raw dictionaries.
#include "profile_file.h"
#include "profile_store.h"
#include "same_profile.h"

namespace tz::store {

namespace {

bool holds_profile(const ProfileTable& table, const ProfileEntry& entry) {
    for (int32_t i = 0; i < table.iNum && i < TZ_PROFILE_SLOTS; ++i)
        if (same_profile_for_mapping(table.Entry[i], entry)) return true;
    return false;
}

}  // namespace

void map_pap(const ProfileTable& new_table, const ProfileTable& current, ProfileTable& result,
             const ProfileTable& exclusion) {
    int32_t used = 0;
    for (int32_t i = 0; i < current.iNum && i < TZ_PROFILE_SLOTS; ++i) {
        const ProfileEntry& entry = current.Entry[i];
        if (entry.InMenu != 2 && entry.InMenu != 4) continue;
        if (holds_profile(new_table, entry) || holds_profile(exclusion, entry)) continue;
        result.Entry[used++] = entry;
    }
    for (int32_t j = 0; j < new_table.iNum && j < TZ_PROFILE_SLOTS; ++j)
        if (used < TZ_PROFILE_SLOTS) result.Entry[used++] = new_table.Entry[j];
    result.iNum = used;
}

void map_all_pap(const ProfileTable& new_rgb, const ProfileTable& new_sim,
                 const ProfileTable& new_dst, ProfileTable& result_rgb, ProfileTable& result_sim,
                 ProfileTable& result_dst, const ProfileTable& exclusion_rgb,
                 const ProfileTable& exclusion_sim, const ProfileTable& exclusion_dst) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    // A missing or incomplete file leaves the scratch tables empty, so each
    // result becomes a copy of its new table.
    (void)read_all(rgb, sim, dst);
    map_pap(new_rgb, rgb, result_rgb, exclusion_rgb);
    map_pap(new_sim, sim, result_sim, exclusion_sim);
    map_pap(new_dst, dst, result_dst, exclusion_dst);
}

int32_t main_dicts_from_plist(std::array<plist::DictRef, 3>& out) {
    const plist::DictRef root = read_current_profile();
    if (!root) return -1;
    for (int c = 0; c < 3; ++c) {
        const TZDictionary* category = find_dict(*root, category_name(c));
        if (category == nullptr) return -1;
        out[c] = category->shallow_copy();
    }
    return 0;
}

int32_t sub_dicts(const TZDictionary& category, FieldDicts& out, int32_t& count) {
    if (!find_field_dicts(category, out)) return -1;
    read_int(category, "iNum", count);
    return 0;
}

int32_t write_all_pap(const ProfileTable& new_rgb, const ProfileTable& new_sim,
                      const ProfileTable& new_dst, const ProfileTable& exclusion_rgb,
                      const ProfileTable& exclusion_sim, const ProfileTable& exclusion_dst) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    if (!is_admin_profile()) return -1;
    map_all_pap(new_rgb, new_sim, new_dst, rgb, sim, dst, exclusion_rgb, exclusion_sim,
                exclusion_dst);
    return write_profile_tables(rgb, sim, dst);
}

}  // namespace tz::store
