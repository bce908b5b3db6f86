#include "profile_file.h"

#include <cstring>

#include "guarded_format.h"

namespace tz::store {

bool copy_path(const char* path, KeyBuffer& out) {
    if (path == nullptr) return false;
    tz::guarded_format(out.data(), out.size(), "%s", path);
    return true;
}

std::string_view format_slot_key(KeyBuffer& out, const char* field_key, int slot) {
    tz::guarded_format(out.data(), out.size(), "%s%04d", field_key, slot);
    return std::string_view(out.data());
}

void SlotKeys::next() {
    // Counts the decimal digits up from the last, carrying leftwards.
    for (std::size_t at = length_; at-- > length_ - 4;) {
        if (buffer_[at] != '9') {
            ++buffer_[at];
            return;
        }
        buffer_[at] = '0';
    }
}

void read_int(const plist::Value* found, int32_t& value) {
    if (found == nullptr) return;
    if (const auto number = found->as_int32()) value = *number;
}

void read_text(const plist::Value* found, char* field) {
    if (found == nullptr || found->kind != plist::Kind::String) return;
    copy_text_field(found->text, field);
}

plist::DictRef read_current_profile() {
    KeyBuffer path;
    if (!copy_path(TZ_PLIST_PROFILE_PATH, path)) return {};
    return plist::read_file(path.data());
}

const char* category_name(std::int64_t category) {
    switch (category) {
        case TZ_CATEGORY_DST:
            return "DST";
        case TZ_CATEGORY_SIM:
            return "SIM";
        case TZ_CATEGORY_RGB:
            return "RGB";
        default:
            return nullptr;
    }
}

const TZDictionary* find_dict(const TZDictionary& root, std::string_view name) {
    const plist::Value* value = root.find(name);
    if (value == nullptr || value->kind != plist::Kind::Dict) return nullptr;
    return value->dict.get();
}

bool find_field_dicts(const TZDictionary& category, FieldDicts& out) {
    for (std::size_t f = 0; f < kFieldCount; ++f)
        if ((out[f] = find_dict(category, kFields[f].name)) == nullptr) return false;
    return true;
}

void copy_text_field(std::string_view text, char* field) {
    // Like strncpy: the text ends at its first zero byte.
    std::size_t length = std::min<std::size_t>(text.size(), TZ_PROFILE_TEXT);
    if (length > 0) {
        if (const void* zero = std::memchr(text.data(), 0, length))
            length = static_cast<std::size_t>(static_cast<const char*>(zero) - text.data());
        std::memcpy(field, text.data(), length);
    }
    std::memset(field + length, 0, TZ_PROFILE_TEXT - length);
    field[TZ_PROFILE_TEXT - 1] = '\0';
}

}  // namespace tz::store
