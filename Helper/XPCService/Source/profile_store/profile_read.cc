// Reading the profile file into tables: all three categories at once, or one
// chosen category (plain or with the device marks rewritten), and the count
// check that follows every read. Tables are never cleared here: a slot or
// count the file does not hold keeps the caller's value.
#include <cstring>

#include "profile_file.h"

using tz::plist::Value;
using tz::store::FieldDicts;

namespace {

// The six per-slot key sequences, in one place for both fill loops.
struct SlotKeySet {
    tz::store::SlotKeys index_on_device{cIndexOnDeviceKey};
    tz::store::SlotKeys in_menu{cInMenuKey};
    tz::store::SlotKeys profile_class{cProfileClassKey};
    tz::store::SlotKeys file_name{cFileNameKey};
    tz::store::SlotKeys profile_name{cProfileNameKey};
    tz::store::SlotKeys location{cLocationKey};

    void next() {
        for (tz::store::SlotKeys* keys :
             {&index_on_device, &in_menu, &profile_class, &file_name, &profile_name, &location})
            keys->next();
    }
};

// Cursors over the six field dictionaries of one category.
struct FieldCursors {
    explicit FieldCursors(const FieldDicts& fields)
        : index_on_device(*fields.index_on_device),
          in_menu(*fields.in_menu),
          profile_class(*fields.profile_class),
          file_name(*fields.file_name),
          profile_name(*fields.profile_name),
          location(*fields.location) {}
    tz::store::KeyCursor index_on_device, in_menu, profile_class, file_name, profile_name, location;
};

// Fills one table from a category whose field dictionaries were found.
void fill_table(const FieldDicts& fields, ProfileTable& table) {
    using tz::store::read_int;
    using tz::store::read_text;
    SlotKeySet keys;
    FieldCursors in(fields);
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        ProfileEntry& slot = table.Entry[n];
        read_int(in.index_on_device.find(keys.index_on_device.key()), slot.IndexOnDevice);
        read_int(in.in_menu.find(keys.in_menu.key()), slot.InMenu);
        read_int(in.profile_class.find(keys.profile_class.key()), slot.ProfileClass);
        read_text(in.file_name.find(keys.file_name.key()), slot.FileName);
        read_text(in.profile_name.find(keys.profile_name.key()), slot.ProfileName);
        read_int(in.location.find(keys.location.key()), slot.Location);
    }
}

// As fill_table, but file slots marked 2 are left out (later slots move up)
// and the mark 4 is stored as 6. InMenu is read first: it decides whether
// the file slot takes a table slot.
void fill_table_pap(const FieldDicts& fields, ProfileTable& table) {
    using tz::store::read_int;
    using tz::store::read_text;
    SlotKeySet keys;
    FieldCursors in(fields);
    int d = 0;
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        ProfileEntry& slot = table.Entry[d];
        const Value* in_menu = in.in_menu.find(keys.in_menu.key());
        if (const auto mark = in_menu != nullptr ? in_menu->as_int32() : std::nullopt) {
            if (*mark == 2) continue;
            slot.InMenu = *mark == 4 ? 6 : *mark;
        }
        read_int(in.index_on_device.find(keys.index_on_device.key()), slot.IndexOnDevice);
        read_int(in.profile_class.find(keys.profile_class.key()), slot.ProfileClass);
        read_text(in.file_name.find(keys.file_name.key()), slot.FileName);
        read_text(in.profile_name.find(keys.profile_name.key()), slot.ProfileName);
        read_int(in.location.find(keys.location.key()), slot.Location);
        ++d;
    }
}

// The shared part of the single-category reads: everything is checked before
// the table is touched.
int32_t read_one_category(ProfileTable* table, int32_t category, bool pap) {
    const char* name = tz::store::category_name(category);
    if (name == nullptr) return -1;
    const tz::plist::DictRef root = tz::store::read_current_profile();
    if (!root) return -1;
    const TZDictionary* dict = tz::store::find_dict(*root, name);
    FieldDicts fields;
    if (dict == nullptr || !tz::store::find_field_dicts(*dict, fields)) return -1;
    if (pap)
        fill_table_pap(fields, *table);
    else
        fill_table(fields, *table);
    tz::store::finish_category(*dict, *table);
    return 0;
}

}  // namespace

extern "C" {

void ReadDictionaryIntEntry(const TZDictionary* dict, const char* key, int32_t* value) {
    tz::store::read_int(*dict, key, *value);
}

void ReadDictionaryStringEntry(const TZDictionary* dict, const char* key, char* field) {
    tz::store::read_text(*dict, key, field);
}

int32_t TZPListReadProfile_All(ProfileTable* rgb, ProfileTable* sim, ProfileTable* dst) {
    const tz::plist::DictRef root = tz::store::read_current_profile();
    if (!root) return -1;
    const TZDictionary* categories[3] = {tz::store::find_dict(*root, "RGB"),
                                         tz::store::find_dict(*root, "SIM"),
                                         tz::store::find_dict(*root, "DST")};
    FieldDicts fields[3];
    for (int c = 0; c < 3; ++c)
        if (categories[c] == nullptr) return -1;
    // Field by field across the categories, so that a miss anywhere is found
    // before any table is written.
    const char* const field_names[] = {"IndexOnDevice", "InMenu",      "ProfileClass",
                                       "FileName",      "ProfileName", "Location"};
    for (const char* field : field_names)
        for (const TZDictionary* category : categories)
            if (tz::store::find_dict(*category, field) == nullptr) return -1;
    for (int c = 0; c < 3; ++c) tz::store::find_field_dicts(*categories[c], fields[c]);

    ProfileTable* tables[3] = {rgb, sim, dst};
    for (int c = 0; c < 3; ++c) {
        fill_table(fields[c], *tables[c]);
        tz::store::finish_category(*categories[c], *tables[c]);
    }
    return 0;
}

void TZPlistCheckWithInMenu_Dict(ProfileTable* table) {
    int32_t in_use = 0;
    for (const ProfileEntry& slot : table->Entry)
        if (slot.InMenu != 0) ++in_use;
    if (in_use == table->iNum) return;
    // The slots in use are trusted to come first: everything from slot k on
    // is cleared, even a slot in use behind a gap.
    for (int32_t n = in_use; n < TZ_PROFILE_SLOTS; ++n)
        std::memset(&table->Entry[n], 0, sizeof(ProfileEntry));
    table->iNum = in_use;
}

int32_t TZPListReadProfile_Dict(ProfileTable* table, int32_t category) {
    return read_one_category(table, category, false);
}

int32_t TZPListReadProfile_Dict_Pap(ProfileTable* table, int32_t category) {
    return read_one_category(table, category, true);
}

}  // extern "C"
