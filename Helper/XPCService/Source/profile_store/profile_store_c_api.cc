// The C entry points of the profile store (tz_profile_store.h), each a thin
// call into the C++ core (profile_store.h) or the codec: pointers become
// references, truth values become 1 or 0, and dictionaries handed out become
// references the caller owns.
#include "profile_file.h"
#include "profile_store.h"

namespace store = tz::store;
using tz::plist::DictRef;

extern "C" {

// ---- Library file functions

int TZPListIsAdminProfile(void) { return store::is_admin_profile() ? 1 : 0; }

void TZPListSwapProfile(int32_t swap_type) { store::swap_profile(swap_type); }

int TZPListExistProfile(void) { return store::exist_profile() ? 1 : 0; }

int TZPListRemove(int32_t selector) { return store::remove_profile(selector) ? 1 : 0; }

// ---- Codec dictionaries

TZDictionary* TZDictionaryRetain(TZDictionary* dict) { return DictRef::retain(dict).release(); }

void TZDictionaryRelease(TZDictionary* dict) { (void)DictRef::adopt(dict); }

size_t TZDictionaryGetCount(const TZDictionary* dict) { return dict->entries.size(); }

int TZDictionaryContainsKey(const TZDictionary* dict, const char* key) {
    return dict->find(key) != nullptr ? 1 : 0;
}

TZDictionary* TZDictionaryGetDictionary(const TZDictionary* dict, const char* key) {
    return const_cast<TZDictionary*>(store::find_dict(*dict, key));
}

void ReadDictionaryIntEntry(const TZDictionary* dict, const char* key, int32_t* value) {
    store::read_int(*dict, key, *value);
}

void ReadDictionaryStringEntry(const TZDictionary* dict, const char* key, char* field) {
    store::read_text(*dict, key, field);
}

// ---- Reading

int32_t TZPListReadProfile_All(ProfileTable* rgb, ProfileTable* sim, ProfileTable* dst) {
    return store::read_all(*rgb, *sim, *dst);
}

void TZPlistCheckWithInMenu_Dict(ProfileTable* table) { store::check_with_in_menu(*table); }

int32_t TZPListReadProfile_Dict(ProfileTable* table, int32_t category) {
    return store::read_category(*table, category);
}

int32_t TZPListReadProfile_Dict_Pap(ProfileTable* table, int32_t category) {
    return store::read_category_pap(*table, category);
}

// ---- Writing

int32_t TZPListWriteProfile_All(const ProfileTable* rgb, const ProfileTable* sim,
                                const ProfileTable* dst) {
    return store::write_all(*rgb, *sim, *dst);
}

TZDictionary* CreatePropsDictionary(uint32_t category, const ProfileTable* table,
                                    TZDictionary** category_dict,
                                    TZDictionary** index_on_device_dict,
                                    TZDictionary** in_menu_dict, TZDictionary** profile_class_dict,
                                    TZDictionary** location_dict, TZDictionary** file_name_dict,
                                    TZDictionary** profile_name_dict) {
    store::CategoryDicts made = store::make_category_dicts(category, *table);
    TZDictionary** const fields[store::kFieldCount] = {
        index_on_device_dict, in_menu_dict,      profile_class_dict,
        file_name_dict,       profile_name_dict, location_dict};  // in kFields order
    *category_dict = made.category.release();
    for (std::size_t f = 0; f < store::kFieldCount; ++f) *fields[f] = made.fields[f].release();
    return made.result.release();
}

int32_t TZPListWriteProfile_Dict(const ProfileTable* table, uint32_t category,
                                 ProfileTable* rgb_out, ProfileTable* sim_out,
                                 ProfileTable* dst_out) {
    return store::write_category(*table, category, rgb_out, sim_out, dst_out);
}

// ---- Tidy passes

void TZPListCleanProfile_Dict(ProfileTable* table) { store::clean(*table); }

void TZPListPaddingProfile_Dict(ProfileTable* table) { store::pad(*table); }

void TZPListSalvage_Dict(ProfileTable* table) { store::salvage(*table); }

// ---- Mapping

void TZPListMapping_Pap(const ProfileTable* new_table, const ProfileTable* current,
                        ProfileTable* result, const ProfileTable* exclusion) {
    store::map_pap(*new_table, *current, *result, *exclusion);
}

int32_t TZPListMappingProfile_All_Pap(const ProfileTable* new_rgb, const ProfileTable* new_sim,
                                      const ProfileTable* new_dst, ProfileTable* result_rgb,
                                      ProfileTable* result_sim, ProfileTable* result_dst,
                                      const ProfileTable* exclusion_rgb,
                                      const ProfileTable* exclusion_sim,
                                      const ProfileTable* exclusion_dst) {
    store::map_all_pap(*new_rgb, *new_sim, *new_dst, *result_rgb, *result_sim, *result_dst,
                       *exclusion_rgb, *exclusion_sim, *exclusion_dst);
    return 0;
}

int32_t TZPListMappingGetMainDict_FromPlist(TZDictionary** rgb, TZDictionary** sim,
                                            TZDictionary** dst) {
    std::array<DictRef, 3> copies;
    const int32_t result = store::main_dicts_from_plist(copies);
    TZDictionary** const outputs[3] = {rgb, sim, dst};
    for (int c = 0; c < 3; ++c)
        if (copies[c]) *outputs[c] = copies[c].release();
    return result;
}

int32_t TZPListMappingGetSubDict(const TZDictionary* category_dict,
                                 TZDictionary** index_on_device_dict, TZDictionary** in_menu_dict,
                                 TZDictionary** profile_class_dict, TZDictionary** location_dict,
                                 TZDictionary** file_name_dict, TZDictionary** profile_name_dict,
                                 int32_t* count) {
    store::FieldDicts found{};
    const int32_t result = store::sub_dicts(*category_dict, found, *count);
    TZDictionary** const outputs[store::kFieldCount] = {
        index_on_device_dict, in_menu_dict,      profile_class_dict,
        file_name_dict,       profile_name_dict, location_dict};  // in kFields order
    for (std::size_t f = 0; f < store::kFieldCount && found[f] != nullptr; ++f)
        *outputs[f] = const_cast<TZDictionary*>(found[f]);  // borrowed
    return result;
}

int32_t TZPListWriteProfile_All_Pap(const ProfileTable* new_rgb, const ProfileTable* new_sim,
                                    const ProfileTable* new_dst, const ProfileTable* exclusion_rgb,
                                    const ProfileTable* exclusion_sim,
                                    const ProfileTable* exclusion_dst) {
    return store::write_all_pap(*new_rgb, *new_sim, *new_dst, *exclusion_rgb, *exclusion_sim,
                                *exclusion_dst);
}

}  // extern "C"
