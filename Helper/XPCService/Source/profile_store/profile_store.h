// The C++ core of the profile store: one function for each operation of
// tz_profile_store.h, with the same results and the same rules (see there).
// The C entry points (profile_store_c_api.cc) only call these; the core calls
// itself, never the C entry points.
#pragma once

#include <array>
#include <cstdint>

#include "plist_codec.h"
#include "profile_file.h"
#include "tz_profile_store.h"

namespace tz::store {

// ---- Library file functions (library_file_ops.cc)

// The writability probe of the current profile path.
bool is_admin_profile();
void swap_profile(int32_t swap_type);
bool exist_profile();
bool remove_profile(int32_t selector);

// ---- Reading (profile_read.cc)

int32_t read_all(ProfileTable& rgb, ProfileTable& sim, ProfileTable& dst);
// The same from a plist already parsed (plist::parse), for a reader that holds
// the file's bytes.
int32_t read_all(const plist::DictRef& root, ProfileTable& rgb, ProfileTable& sim, ProfileTable& dst);
void check_with_in_menu(ProfileTable& table);
int32_t read_category(ProfileTable& table, int32_t category);
int32_t read_category_pap(ProfileTable& table, int32_t category);

// ---- Writing (profile_write.cc)

// The dictionaries of one table: the result (the category dictionary under
// the category's name, empty for another number), the category dictionary
// and its six field dictionaries in kFields order.
struct CategoryDicts {
    plist::DictRef result;
    plist::DictRef category;
    std::array<plist::DictRef, kFieldCount> fields;
};
CategoryDicts make_category_dicts(uint32_t category, const ProfileTable& table);

int32_t write_all(const ProfileTable& rgb, const ProfileTable& sim, const ProfileTable& dst);
int32_t write_category(const ProfileTable& table, uint32_t category, ProfileTable* rgb_out,
                       ProfileTable* sim_out, ProfileTable* dst_out);

// ---- Tidy passes (profile_tidy.cc)

void clean(ProfileTable& table);
void pad(ProfileTable& table);
void salvage(ProfileTable& table);

// ---- Mapping (profile_mapping.cc)

void map_pap(const ProfileTable& new_table, const ProfileTable& current, ProfileTable& result,
             const ProfileTable& exclusion);
void map_all_pap(const ProfileTable& new_rgb, const ProfileTable& new_sim,
                 const ProfileTable& new_dst, ProfileTable& result_rgb, ProfileTable& result_sim,
                 ProfileTable& result_dst, const ProfileTable& exclusion_rgb,
                 const ProfileTable& exclusion_sim, const ProfileTable& exclusion_dst);
// Copies of the category dictionaries in the order RGB, SIM, DST; on -1 the
// ones before the missing category are set, the rest stay null.
int32_t main_dicts_from_plist(std::array<plist::DictRef, 3>& out);
// The field dictionaries (borrowed) in kFields order, then "iNum" into
// `count` if present; on -1 the ones before the missing field are set and
// the missing one is null.
int32_t sub_dicts(const TZDictionary& category, FieldDicts& out, int32_t& count);
int32_t write_all_pap(const ProfileTable& new_rgb, const ProfileTable& new_sim,
                      const ProfileTable& new_dst, const ProfileTable& exclusion_rgb,
                      const ProfileTable& exclusion_sim, const ProfileTable& exclusion_dst);

}  // namespace tz::store
