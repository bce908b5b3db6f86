// What the profile-store operations share: the copy of the current profile
// path, the per-slot keys, the reading of the current file, the lookup of a
// category's six field dictionaries, the readers of one slot value, and the
// write of three tables without the probe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "plist_codec.h"
#include "profile_fields.h"
#include "tz_profile_store.h"

namespace tz::store {

using KeyBuffer = std::array<char, TZ_PATH_BUFFER>;

// Copies `path` (one of the path globals) with "%s" into a zeroed 255-byte
// buffer (a path of 255 bytes or more ends the process). False, leaving
// `out` alone, while it is unset (null).
bool copy_path(const char* path, KeyBuffer& out);

// The key of one slot of one field: "%s%04d" of the field's key text and the
// slot number, formatted into a zeroed 255-byte buffer (a key that does not
// fit ends the process). Returns the key.
std::string_view format_slot_key(KeyBuffer& out, const char* field_key, int slot);

// The keys of one field for slot 0, 1, 2, ... in turn, for loops over all
// slots: slot 0's key comes from format_slot_key, and each step counts its
// four-digit number up in place, which gives the same text as formatting
// again (slot numbers stay below 10000) without a printf per key.
class SlotKeys {
public:
    explicit SlotKeys(const char* field_key)
        : length_(format_slot_key(buffer_, field_key, 0).size()) {}
    std::string_view key() const { return {buffer_.data(), length_}; }
    void next();

private:
    KeyBuffer buffer_;
    std::size_t length_;
};

// The slot keys of the six fields (in kFields order), stepped together.
class FieldSlotKeys {
public:
    FieldSlotKeys() : keys_(make(std::make_index_sequence<kFieldCount>{})) {}
    std::string_view key(std::size_t field) const { return keys_[field].key(); }
    void next() {
        for (SlotKeys& keys : keys_) keys.next();
    }

private:
    template <std::size_t... I>
    static std::array<SlotKeys, kFieldCount> make(std::index_sequence<I...>) {
        return {SlotKeys(kFields[I].key)...};
    }
    std::array<SlotKeys, kFieldCount> keys_;
};

// Reads and parses the current profile file. Null when the path is unset or
// the file cannot be read or parsed.
plist::DictRef read_current_profile();

// The root key of a category number (0 "RGB", 1 "SIM", 2 "DST"), or null.
const char* category_name(std::int64_t category);

// A category dictionary under `name` in `root`, or null when it is missing or
// is not a dictionary.
const TZDictionary* find_dict(const TZDictionary& root, std::string_view name);

// The six field dictionaries of a category, in kFields order.
using FieldDicts = std::array<const TZDictionary*, kFieldCount>;

// Looks the six up in kFields order. False at the first one missing (or not
// a dictionary), the ones before it written.
bool find_field_dicts(const TZDictionary& category, FieldDicts& out);

// Builds the file from three tables and writes it to the current path, with
// no writability probe of its own (the caller has run it). 0, or -1 when the
// path is unset or the write fails.
int32_t write_profile_tables(const ProfileTable& rgb, const ProfileTable& sim,
                             const ProfileTable& dst);

// The readers of one slot value by key, as ReadDictionaryIntEntry and
// ReadDictionaryStringEntry.
void read_int(const plist::Value* found, int32_t& value);
void read_text(const plist::Value* found, char* field);
inline void read_int(const TZDictionary& dict, std::string_view key, int32_t& value) {
    read_int(dict.find(key), value);
}
inline void read_text(const TZDictionary& dict, std::string_view key, char* field) {
    read_text(dict.find(key), field);
}

// Looks keys up in one dictionary in ascending order, as the slot loops do:
// a key that follows the last one found costs one comparison instead of a
// search. Any order still gives the right answer.
class KeyCursor {
public:
    KeyCursor() = default;
    explicit KeyCursor(const TZDictionary& dict) : dict_(&dict) {}
    const plist::Value* find(std::string_view key) {
        const auto& entries = dict_->entries;
        if (next_ < entries.size() && entries[next_].key == key) return &entries[next_++].value;
        const std::size_t at = dict_->find_index(key);
        if (at == TZDictionary::npos) return nullptr;
        next_ = at + 1;
        return &entries[at].value;
    }

private:
    const TZDictionary* dict_ = nullptr;
    std::size_t next_ = 0;
};

// Copies a string value into a 32-byte field: at most 31 bytes, cut even
// inside a multi-byte character, zero-filled after the text.
void copy_text_field(std::string_view text, char* field);

}  // namespace tz::store
