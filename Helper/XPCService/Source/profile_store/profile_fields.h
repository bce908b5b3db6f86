// The six fields of an entry that the file holds, in one table: the name of
// the field's dictionary in a category, the key array whose text starts its
// per-slot keys, whether it holds an integer or a 32-byte text, and where it
// sits in a ProfileEntry. DriverAvail lives only in memory and is not here.
//
// The table order (IndexOnDevice, InMenu, ProfileClass, FileName,
// ProfileName, Location) is the order in which a category's field
// dictionaries are looked up and a slot's fields are read; a loop that needs
// another order says so where it runs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "tz_profile_store.h"

namespace tz::store {

enum class FieldKind : std::uint8_t { Integer, Text };

struct Field {
    const char* name;    // the field dictionary's key in a category dictionary
    const char* key;     // the modifiable key text of the per-slot keys
    FieldKind kind;
    std::size_t offset;  // of the int32_t or the 32-byte text in ProfileEntry
};

inline constexpr std::size_t kFieldCount = 6;

inline constexpr std::array<Field, kFieldCount> kFields{{
    {"IndexOnDevice", cIndexOnDeviceKey, FieldKind::Integer, offsetof(ProfileEntry, IndexOnDevice)},
    {"InMenu", cInMenuKey, FieldKind::Integer, offsetof(ProfileEntry, InMenu)},
    {"ProfileClass", cProfileClassKey, FieldKind::Integer, offsetof(ProfileEntry, ProfileClass)},
    {"FileName", cFileNameKey, FieldKind::Text, offsetof(ProfileEntry, FileName)},
    {"ProfileName", cProfileNameKey, FieldKind::Text, offsetof(ProfileEntry, ProfileName)},
    {"Location", cLocationKey, FieldKind::Integer, offsetof(ProfileEntry, Location)},
}};

// The position of InMenu in kFields: the field that marks a slot in use.
inline constexpr std::size_t kInMenuField = 1;
static_assert(kFields[kInMenuField].offset == offsetof(ProfileEntry, InMenu));

// The integer of an Integer field of `entry`.
inline std::int32_t& int_field(ProfileEntry& entry, const Field& field) {
    return *reinterpret_cast<std::int32_t*>(reinterpret_cast<char*>(&entry) + field.offset);
}
inline std::int32_t int_field(const ProfileEntry& entry, const Field& field) {
    return *reinterpret_cast<const std::int32_t*>(reinterpret_cast<const char*>(&entry) +
                                                  field.offset);
}

// The 32 bytes of a Text field of `entry`.
inline char* text_field(ProfileEntry& entry, const Field& field) {
    return reinterpret_cast<char*>(&entry) + field.offset;
}
inline const char* text_field(const ProfileEntry& entry, const Field& field) {
    return reinterpret_cast<const char*>(&entry) + field.offset;
}

}  // namespace tz::store
