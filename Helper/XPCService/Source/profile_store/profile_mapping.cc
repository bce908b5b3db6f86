// The mapping: a caller's table merged with the current file's device-marked
// entries (InMenu 2 or 4), the write built on it, and the hand-out of the
// file's raw dictionaries.
#include <cstring>

#include "profile_file.h"

using tz::plist::DictRef;

namespace {

// The same profile for the mapping: FileName equal up to its terminator
// (bytes after it do not count) and the same Location.
bool same_profile(const ProfileEntry& a, const ProfileEntry& b) {
    return std::strncmp(a.FileName, b.FileName, TZ_PROFILE_TEXT) == 0 && a.Location == b.Location;
}

bool holds_profile(const ProfileTable& table, const ProfileEntry& entry) {
    for (int32_t i = 0; i < table.iNum && i < TZ_PROFILE_SLOTS; ++i)
        if (same_profile(table.Entry[i], entry)) return true;
    return false;
}

}  // namespace

extern "C" {

void TZPListMapping_Pap(const ProfileTable* new_table, const ProfileTable* current,
                        ProfileTable* result, const ProfileTable* exclusion) {
    int32_t used = 0;
    for (int32_t i = 0; i < current->iNum && i < TZ_PROFILE_SLOTS; ++i) {
        if (used >= TZ_PROFILE_SLOTS) continue;
        const ProfileEntry& entry = current->Entry[i];
        if (entry.InMenu != 2 && entry.InMenu != 4) continue;
        if (holds_profile(*new_table, entry) || holds_profile(*exclusion, entry)) continue;
        result->Entry[used++] = entry;
    }
    for (int32_t j = 0; j < new_table->iNum && j < TZ_PROFILE_SLOTS; ++j)
        if (used < TZ_PROFILE_SLOTS) result->Entry[used++] = new_table->Entry[j];
    result->iNum = used;
}

int32_t TZPListMappingProfile_All_Pap(const ProfileTable* new_rgb, const ProfileTable* new_sim,
                                      const ProfileTable* new_dst, ProfileTable* result_rgb,
                                      ProfileTable* result_sim, ProfileTable* result_dst,
                                      const ProfileTable* exclusion_rgb,
                                      const ProfileTable* exclusion_sim,
                                      const ProfileTable* exclusion_dst) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    // A missing or incomplete file leaves the scratch tables empty, so each
    // result becomes a copy of its new table.
    (void)TZPListReadProfile_All(&rgb, &sim, &dst);
    TZPListMapping_Pap(new_rgb, &rgb, result_rgb, exclusion_rgb);
    TZPListMapping_Pap(new_sim, &sim, result_sim, exclusion_sim);
    TZPListMapping_Pap(new_dst, &dst, result_dst, exclusion_dst);
    return 0;
}

int32_t TZPListMappingGetMainDict_FromPlist(TZDictionary** rgb, TZDictionary** sim,
                                            TZDictionary** dst) {
    const DictRef root = tz::store::read_current_profile();
    if (!root) return -1;
    TZDictionary** outputs[3] = {rgb, sim, dst};
    for (int c = 0; c < 3; ++c) {
        const TZDictionary* category = tz::store::find_dict(*root, tz::store::category_name(c));
        if (category == nullptr) return -1;
        *outputs[c] = category->shallow_copy().release();
    }
    return 0;
}

int32_t TZPListMappingGetSubDict(const TZDictionary* category_dict,
                                 TZDictionary** index_on_device_dict, TZDictionary** in_menu_dict,
                                 TZDictionary** profile_class_dict, TZDictionary** location_dict,
                                 TZDictionary** file_name_dict, TZDictionary** profile_name_dict,
                                 int32_t* count) {
    // Looked up in kFields order, each written as soon as it is found.
    TZDictionary** const outputs[tz::store::kFieldCount] = {
        index_on_device_dict, in_menu_dict,      profile_class_dict,
        file_name_dict,       profile_name_dict, location_dict};
    tz::store::FieldDicts found{};
    const bool all_found = tz::store::find_field_dicts(*category_dict, found);
    for (std::size_t f = 0; f < tz::store::kFieldCount && found[f] != nullptr; ++f)
        *outputs[f] = const_cast<TZDictionary*>(found[f]);  // borrowed
    if (!all_found) return -1;
    ReadDictionaryIntEntry(category_dict, "iNum", count);
    return 0;
}

int32_t TZPListWriteProfile_All_Pap(const ProfileTable* new_rgb, const ProfileTable* new_sim,
                                    const ProfileTable* new_dst, const ProfileTable* exclusion_rgb,
                                    const ProfileTable* exclusion_sim,
                                    const ProfileTable* exclusion_dst) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    if (TZPListIsAdminProfile() == 0) return -1;
    TZPListMappingProfile_All_Pap(new_rgb, new_sim, new_dst, &rgb, &sim, &dst, exclusion_rgb,
                                  exclusion_sim, exclusion_dst);
    return tz::store::write_profile_tables(&rgb, &sim, &dst);
}

}  // extern "C"
