// Reading the profile file into tables: all three categories at once, or one
// chosen category (plain or with the device marks rewritten), and the count
// check that follows every read. Tables are never cleared here: a slot or
// count the file does not hold keeps the caller's value.
#include <array>
#include <cstring>

#include "profile_file.h"
#include "profile_store.h"

namespace tz::store {

namespace {

using plist::Value;

// Cursors over the six field dictionaries of one category, in kFields order.
struct FieldCursors {
    explicit FieldCursors(const FieldDicts& fields) {
        for (std::size_t f = 0; f < kFieldCount; ++f) at[f] = KeyCursor(*fields[f]);
    }
    std::array<KeyCursor, kFieldCount> at;
};

// Reads one field of a slot from the value found under its slot key.
void read_field(const Value* found, std::size_t f, ProfileEntry& slot) {
    const Field& field = kFields[f];
    if (field.kind == FieldKind::Integer)
        read_int(found, int_field(slot, field));
    else
        read_text(found, text_field(slot, field));
}

// Fills one table from a category whose field dictionaries were found, each
// slot's fields in kFields order.
void fill_table(const FieldDicts& fields, ProfileTable& table) {
    FieldSlotKeys keys;
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
    FieldSlotKeys keys;
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

// Reads "iNum" into the table's count if present, then makes the count agree
// with the slots in use.
void finish_category(const TZDictionary& category, ProfileTable& table) {
    read_int(category, "iNum", table.iNum);
    check_with_in_menu(table);
}

// The shared part of the single-category reads: everything is checked before
// the table is touched.
int32_t read_one_category(ProfileTable& table, int32_t category, bool pap) {
    const char* name = category_name(category);
    if (name == nullptr) return -1;
    const plist::DictRef root = read_current_profile();
    if (!root) return -1;
    const TZDictionary* dict = find_dict(*root, name);
    FieldDicts fields{};
    if (dict == nullptr || !find_field_dicts(*dict, fields)) return -1;
    if (pap)
        fill_table_pap(fields, table);
    else
        fill_table(fields, table);
    finish_category(*dict, table);
    return 0;
}

}  // namespace

int32_t read_all(ProfileTable& rgb, ProfileTable& sim, ProfileTable& dst) {
    return read_all(read_current_profile(), rgb, sim, dst);
}

int32_t read_all(const plist::DictRef& root, ProfileTable& rgb, ProfileTable& sim, ProfileTable& dst) {
    if (!root) return -1;
    const TZDictionary* categories[3] = {find_dict(*root, "RGB"), find_dict(*root, "SIM"),
                                         find_dict(*root, "DST")};
    FieldDicts fields[3]{};
    for (int c = 0; c < 3; ++c)
        if (categories[c] == nullptr) return -1;
    // Field by field across the categories, so that a miss anywhere is found
    // before any table is written.
    for (const Field& field : kFields)
        for (const TZDictionary* category : categories)
            if (find_dict(*category, field.name) == nullptr) return -1;
    for (int c = 0; c < 3; ++c) find_field_dicts(*categories[c], fields[c]);

    ProfileTable* tables[3] = {&rgb, &sim, &dst};
    for (int c = 0; c < 3; ++c) {
        fill_table(fields[c], *tables[c]);
        finish_category(*categories[c], *tables[c]);
    }
    return 0;
}

void check_with_in_menu(ProfileTable& table) {
    int32_t in_use = 0;
    for (const ProfileEntry& slot : table.Entry)
        if (slot.InMenu != 0) ++in_use;
    if (in_use == table.iNum) return;
    // The slots in use are trusted to come first: everything from slot k on
    // is cleared, even a slot in use behind a gap.
    for (int32_t n = in_use; n < TZ_PROFILE_SLOTS; ++n)
        std::memset(&table.Entry[n], 0, sizeof(ProfileEntry));
    table.iNum = in_use;
}

int32_t read_category(ProfileTable& table, int32_t category) {
    return read_one_category(table, category, false);
}

int32_t read_category_pap(ProfileTable& table, int32_t category) {
    return read_one_category(table, category, true);
}

}  // namespace tz::store
