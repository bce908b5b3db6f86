// Reading the profile file into tables: all three categories at once, or one
// chosen category (plain or with the device marks rewritten), and the count
// check that follows every read. Tables are never cleared here: a slot or
// count the file does not hold keeps the caller's value.
#include <array>
#include <cstring>

#include "profile_file.h"

using tz::plist::Value;
using tz::store::FieldDicts;

namespace {

using tz::store::kFieldCount;
using tz::store::kFields;
using tz::store::kInMenuField;

// Cursors over the six field dictionaries of one category, in kFields order.
struct FieldCursors {
    explicit FieldCursors(const FieldDicts& fields) {
        for (std::size_t f = 0; f < kFieldCount; ++f) at[f] = tz::store::KeyCursor(*fields[f]);
    }
    std::array<tz::store::KeyCursor, kFieldCount> at;
};

// Reads one field of a slot from the value found under its slot key.
void read_field(const Value* found, std::size_t f, ProfileEntry& slot) {
    const tz::store::Field& field = kFields[f];
    if (field.kind == tz::store::FieldKind::Integer)
        tz::store::read_int(found, tz::store::int_field(slot, field));
    else
        tz::store::read_text(found, tz::store::text_field(slot, field));
}

// Fills one table from a category whose field dictionaries were found, each
// slot's fields in kFields order.
void fill_table(const FieldDicts& fields, ProfileTable& table) {
    tz::store::FieldSlotKeys keys;
    FieldCursors in(fields);
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        ProfileEntry& slot = table.Entry[n];
        for (std::size_t f = 0; f < kFieldCount; ++f) read_field(in.at[f].find(keys.key(f)), f, slot);
    }
}

// As fill_table, but file slots marked 2 are left out (later slots move up)
// and the mark 4 is stored as 6. InMenu is read first: it decides whether
// the file slot takes a table slot; the other five follow in kFields order.
void fill_table_pap(const FieldDicts& fields, ProfileTable& table) {
    tz::store::FieldSlotKeys keys;
    FieldCursors in(fields);
    int d = 0;
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        ProfileEntry& slot = table.Entry[d];
        const Value* in_menu = in.at[kInMenuField].find(keys.key(kInMenuField));
        if (const auto mark = in_menu != nullptr ? in_menu->as_int32() : std::nullopt) {
            if (*mark == 2) continue;
            slot.InMenu = *mark == 4 ? 6 : *mark;
        }
        for (std::size_t f = 0; f < kFieldCount; ++f)
            if (f != kInMenuField) read_field(in.at[f].find(keys.key(f)), f, slot);
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
    FieldDicts fields{};
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
    FieldDicts fields[3]{};
    for (int c = 0; c < 3; ++c)
        if (categories[c] == nullptr) return -1;
    // Field by field across the categories, so that a miss anywhere is found
    // before any table is written.
    for (const tz::store::Field& field : kFields)
        for (const TZDictionary* category : categories)
            if (tz::store::find_dict(*category, field.name) == nullptr) return -1;
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
