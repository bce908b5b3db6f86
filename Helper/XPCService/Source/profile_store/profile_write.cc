// Writing tables to the profile file: the category dictionary of one table,
// the whole file from three tables, and the replacement of one category.
#include <cstring>

#include "profile_file.h"
#include "profile_store.h"

namespace tz::store {

namespace {

using plist::DictRef;

// The text of a 32-byte field up to its terminator (all 32 bytes if none).
std::string_view field_text(const char* field) {
    return std::string_view(field, strnlen(field, TZ_PROFILE_TEXT));
}

}  // namespace

CategoryDicts make_category_dicts(uint32_t category, const ProfileTable& table) {
    auto store = std::make_shared<plist::TextStore>();
    CategoryDicts out{DictRef::make(store), DictRef::make(store), {}};
    for (DictRef& dict : out.fields) {
        dict = DictRef::make(store);
        dict->entries.reserve(TZ_PROFILE_SLOTS);
    }

    FieldSlotKeys keys;
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        const ProfileEntry& slot = table.Entry[n];
        for (std::size_t f = 0; f < kFieldCount; ++f) {
            const Field& field = kFields[f];
            if (field.kind == FieldKind::Integer) {
                out.fields[f]->set_integer(keys.key(f), int_field(slot, field));
                continue;
            }
            // A text that is not UTF-8 makes no string: its slot key is left out.
            const std::string_view text = field_text(text_field(slot, field));
            if (is_valid_utf8(text)) out.fields[f]->set_string(keys.key(f), text);
        }
    }
    out.category->set_integer("iNum", table.iNum);
    for (std::size_t f = 0; f < kFieldCount; ++f)
        out.category->set_dict(kFields[f].name, out.fields[f]);
    if (const char* name = category_name(category)) out.result->set_dict(name, out.category);
    return out;
}

int32_t write_profile_tables(const ProfileTable& rgb, const ProfileTable& sim,
                             const ProfileTable& dst) {
    KeyBuffer path;
    if (!copy_path(TZ_PLIST_PROFILE_PATH, path)) return -1;
    DictRef root = DictRef::make(std::make_shared<plist::TextStore>());
    const ProfileTable* tables[3] = {&rgb, &sim, &dst};
    for (uint32_t c = 0; c < 3; ++c)
        root->set_dict(category_name(c), make_category_dicts(c, *tables[c]).category);
    root->set_integer(cPlistVersionKey, 1);
    return plist::write_file(path.data(), *root) ? 0 : -1;
}

int32_t write_all(const ProfileTable& rgb, const ProfileTable& sim, const ProfileTable& dst) {
    if (!is_admin_profile()) return -1;
    return write_profile_tables(rgb, sim, dst);
}

int32_t write_category(const ProfileTable& table, uint32_t category, ProfileTable* rgb_out,
                       ProfileTable* sim_out, ProfileTable* dst_out) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    // A file that cannot be read leaves the other categories empty: they are
    // then written back empty.
    (void)read_all(rgb, sim, dst);
    if (rgb_out != nullptr) *rgb_out = rgb;
    if (sim_out != nullptr) *sim_out = sim;
    if (dst_out != nullptr) *dst_out = dst;

    int32_t result = -1;
    ProfileTable* replaced_out = nullptr;
    switch (category) {
        case TZ_CATEGORY_DST:
            result = write_all(rgb, sim, table);
            replaced_out = dst_out;
            break;
        case TZ_CATEGORY_SIM:
            result = write_all(rgb, table, dst);
            replaced_out = sim_out;
            break;
        case TZ_CATEGORY_RGB:
            result = write_all(table, sim, dst);
            replaced_out = rgb_out;
            break;
        default:
            return -1;
    }
    if (replaced_out != nullptr) *replaced_out = table;
    return result;
}

}  // namespace tz::store
