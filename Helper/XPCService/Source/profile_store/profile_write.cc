// Writing tables to the profile file: the category dictionary of one table,
// the whole file from three tables, and the replacement of one category.
#include <array>
#include <cstring>

#include "profile_file.h"

using tz::plist::DictRef;

namespace {

// The text of a 32-byte field up to its terminator (all 32 bytes if none).
std::string_view field_text(const char* field) {
    return std::string_view(field, strnlen(field, TZ_PROFILE_TEXT));
}

}  // namespace

int32_t tz::store::write_profile_tables(const ProfileTable* rgb, const ProfileTable* sim,
                                        const ProfileTable* dst) {
    tz::store::KeyBuffer path;
    if (!tz::store::copy_current_path(path)) return -1;
    DictRef root = DictRef::make(std::make_shared<tz::plist::TextStore>());
    const ProfileTable* tables[3] = {rgb, sim, dst};
    for (uint32_t c = 0; c < 3; ++c) {
        TZDictionary* outputs[7] = {};
        const DictRef wrapper(DictRef::adopt(
            CreatePropsDictionary(c, tables[c], &outputs[0], &outputs[1], &outputs[2], &outputs[3],
                                  &outputs[4], &outputs[5], &outputs[6])));
        root->set_dict(tz::store::category_name(c), DictRef::retain(outputs[0]));
        for (TZDictionary*& output : outputs) {
            TZDictionaryRelease(output);
            output = nullptr;
        }
    }
    root->set_integer(cPlistVersionKey, 1);
    return tz::plist::write_file(path.data(), *root) ? 0 : -1;
}

extern "C" {

void TZDictionaryRelease(TZDictionary* dict) { (void)DictRef::adopt(dict); }

TZDictionary* CreatePropsDictionary(uint32_t category, const ProfileTable* table,
                                    TZDictionary** category_dict,
                                    TZDictionary** index_on_device_dict,
                                    TZDictionary** in_menu_dict, TZDictionary** profile_class_dict,
                                    TZDictionary** location_dict, TZDictionary** file_name_dict,
                                    TZDictionary** profile_name_dict) {
    using tz::store::kFieldCount;
    using tz::store::kFields;
    auto store = std::make_shared<tz::plist::TextStore>();
    DictRef result = DictRef::make(store);
    DictRef props = DictRef::make(store);
    std::array<DictRef, kFieldCount> fields;  // in kFields order
    for (DictRef& dict : fields) {
        dict = DictRef::make(store);
        dict->entries.reserve(TZ_PROFILE_SLOTS);
    }

    tz::store::FieldSlotKeys keys;
    for (int n = 0; n < TZ_PROFILE_SLOTS; ++n, keys.next()) {
        const ProfileEntry& slot = table->Entry[n];
        for (std::size_t f = 0; f < kFieldCount; ++f) {
            const tz::store::Field& field = kFields[f];
            if (field.kind == tz::store::FieldKind::Integer) {
                fields[f]->set_integer(keys.key(f), tz::store::int_field(slot, field));
                continue;
            }
            // A text that is not UTF-8 makes no string: its slot key is left out.
            const std::string_view text = field_text(tz::store::text_field(slot, field));
            if (tz::is_valid_utf8(text)) fields[f]->set_string(keys.key(f), text);
        }
    }
    props->set_integer("iNum", table->iNum);
    for (std::size_t f = 0; f < kFieldCount; ++f) props->set_dict(kFields[f].name, fields[f]);
    if (const char* name = tz::store::category_name(category)) result->set_dict(name, props);

    *category_dict = props.release();
    TZDictionary** const field_outputs[kFieldCount] = {index_on_device_dict, in_menu_dict,
                                                       profile_class_dict,   file_name_dict,
                                                       profile_name_dict,    location_dict};
    for (std::size_t f = 0; f < kFieldCount; ++f) *field_outputs[f] = fields[f].release();
    return result.release();
}

int32_t TZPListWriteProfile_All(const ProfileTable* rgb, const ProfileTable* sim,
                                const ProfileTable* dst) {
    if (TZPListIsAdminProfile() == 0) return -1;
    return tz::store::write_profile_tables(rgb, sim, dst);
}

int32_t TZPListWriteProfile_Dict(const ProfileTable* table, uint32_t category,
                                 ProfileTable* rgb_out, ProfileTable* sim_out,
                                 ProfileTable* dst_out) {
    ProfileTable rgb{};  // all zero: empty tables
    ProfileTable sim{};
    ProfileTable dst{};
    // A file that cannot be read leaves the other categories empty: they are
    // then written back empty.
    (void)TZPListReadProfile_All(&rgb, &sim, &dst);
    if (rgb_out != nullptr) *rgb_out = rgb;
    if (sim_out != nullptr) *sim_out = sim;
    if (dst_out != nullptr) *dst_out = dst;

    int32_t result = -1;
    ProfileTable* replaced_out = nullptr;
    switch (category) {
        case TZ_CATEGORY_DST:
            result = TZPListWriteProfile_All(&rgb, &sim, table);
            replaced_out = dst_out;
            break;
        case TZ_CATEGORY_SIM:
            result = TZPListWriteProfile_All(&rgb, table, &dst);
            replaced_out = sim_out;
            break;
        case TZ_CATEGORY_RGB:
            result = TZPListWriteProfile_All(table, &sim, &dst);
            replaced_out = rgb_out;
            break;
        default:
            return -1;
    }
    if (replaced_out != nullptr) *replaced_out = *table;
    return result;
}

}  // extern "C"
