// The plist codec: the only module that knows the XML parser and libplist.
// This header is its whole interface; the tree (plist_tree.cc), the XML
// reader, the binary reader and the XML writer share plist_internal.h.
//
// It reads property lists into a compact tree of reference-counted
// dictionaries (TZDictionary) and writes such a tree as an XML property list.
// The tree models what the profile file uses: dictionaries, integers and
// strings. Every other value (<true/>, <false/>, <real>, <date>, <data>,
// <array>, unknown elements) is kept as an opaque "other" value: a reader
// looking for an integer or a string skips it, and the writer leaves its key
// out.
//
// Reading
//  - XML is parsed in place from the file's bytes (pugixml); strings and keys
//    of the tree point into that buffer, which the tree keeps alive.
//    Entities and character references are decoded; CDATA sections count as
//    text; an empty <string/> is the empty string. A key or string whose
//    decoded text is not UTF-8 (a stray byte, a reference to a surrogate)
//    makes the document malformed: it is refused.
//  - Binary property lists ("bplist00") go through libplist. Their object
//    graph is checked first for nesting and cycles, because libplist's reader
//    recurses without a bound. A 16-byte integer outside the signed 64-bit
//    range, which libplist would cut to its low 64 bits, is found there too
//    and read as an "other" value; the rest of the file is read.
//  - Integers: optional surrounding whitespace, an optional sign, then decimal
//    digits or "0x"/"0X" and hex digits. Text that is not such a number, or a
//    number outside the signed 64-bit range, is an "other" value. A value
//    outside the signed 32-bit range is NOT an int32: as_int32() answers
//    nothing for it (the low 32 bits are never taken), so a profile reader
//    skips it like a value of the wrong type.
//  - Refused (null result): unreadable files, files above kMaxFileBytes, XML
//    that is not well formed, a <dict> whose children are not key/value
//    pairs, dictionaries nested deeper than kMaxDepth, and a root that is not
//    a dictionary. Refusal never crashes and never reads out of bounds.
//  - Duplicate keys in a dictionary: the last one wins.
//
// Writing
//  - The XML form of the platform writer: XML declaration, the Apple DOCTYPE,
//    <plist version="1.0">, one tab per nesting level, keys of every
//    dictionary in byte order, text escaped (&amp; &lt; &gt;, and a carriage
//    return as &#13; so that it reads back as itself), integers in decimal.
//    An entry whose key or text XML cannot hold (not UTF-8, a control
//    character other than tab, line feed and carriage return, or U+FFFE or
//    U+FFFF) is left out, so the file stays readable by every XML reader.
//    The file is written with one write() after open(O_WRONLY | O_CREAT |
//    O_TRUNC, 0666); no temporary file.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tz_profile_store.h"
#include "utf8.h"

namespace tz::plist {

inline constexpr std::size_t kMaxFileBytes = 64u << 20;  // larger files are refused
inline constexpr int kMaxDepth = 64;                     // dictionaries within dictionaries

// Append-only storage for key and text bytes. Views it hands out stay valid
// for its lifetime; it never moves bytes once stored.
class TextStore {
public:
    TextStore() = default;
    TextStore(const TextStore&) = delete;
    TextStore& operator=(const TextStore&) = delete;

    // Stores a copy of `text` and returns a view of the copy.
    std::string_view copy(std::string_view text);
    // Keeps `owner` (for example a buffer parsed in place) alive as long as
    // the store, so that views into it stay valid.
    void keep_alive(std::shared_ptr<void> owner);

private:
    std::shared_ptr<void> keep_;
    std::vector<std::unique_ptr<char[]>> chunks_;
    std::size_t used_ = 0;
    std::size_t capacity_ = 0;
};

class DictRef;

}  // namespace tz::plist

// The dictionary behind the C header's opaque handle.
struct TZDictionary;

namespace tz::plist {

// An owning handle: one reference to a dictionary (or none).
class DictRef {
public:
    DictRef() = default;
    DictRef(const DictRef& other);
    DictRef(DictRef&& other) noexcept : dict_(other.dict_) { other.dict_ = nullptr; }
    DictRef& operator=(DictRef other) noexcept {
        std::swap(dict_, other.dict_);
        return *this;
    }
    ~DictRef();

    // A new empty dictionary whose texts live in `store`.
    static DictRef make(std::shared_ptr<TextStore> store);
    // Takes over one reference the caller holds.
    static DictRef adopt(TZDictionary* dict) {
        DictRef ref;
        ref.dict_ = dict;
        return ref;
    }
    // Takes a new reference to a dictionary that stays owned elsewhere.
    static DictRef retain(TZDictionary* dict);

    TZDictionary* get() const { return dict_; }
    TZDictionary* operator->() const { return dict_; }
    TZDictionary& operator*() const { return *dict_; }
    explicit operator bool() const { return dict_ != nullptr; }
    // Gives up the reference without dropping it.
    TZDictionary* release() {
        TZDictionary* dict = dict_;
        dict_ = nullptr;
        return dict;
    }

private:
    TZDictionary* dict_ = nullptr;
};

enum class Kind : std::uint8_t { Integer, String, Dict, Other };

struct Value {
    Kind kind = Kind::Other;
    std::int64_t integer = 0;  // Kind::Integer
    std::string_view text;     // Kind::String, in the owning dictionary's TextStore
    DictRef dict;              // Kind::Dict

    // The integer if this is an integer in the signed 32-bit range.
    std::optional<std::int32_t> as_int32() const;
};

struct Entry {
    std::string_view key;
    Value value;
};

}  // namespace tz::plist

struct TZDictionary {
    std::atomic<int> refs{1};
    std::shared_ptr<tz::plist::TextStore> store;
    std::vector<tz::plist::Entry> entries;  // strictly ascending by key bytes

    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    // The value under `key`, or null.
    const tz::plist::Value* find(std::string_view key) const;
    // The position of `key` in entries, or npos.
    std::size_t find_index(std::string_view key) const;
    // Sets `key` (copied into the store) to `value`, replacing an old value.
    // Appending keys in ascending order costs no search.
    void set(std::string_view key, tz::plist::Value value);
    void set_integer(std::string_view key, std::int64_t value);
    // The text is copied into the store.
    void set_string(std::string_view key, std::string_view text);
    void set_dict(std::string_view key, tz::plist::DictRef dict);
    // A new dictionary with the same keys and values; nested dictionaries are
    // shared, not copied.
    tz::plist::DictRef shallow_copy() const;
};

namespace tz::plist {

// Parses an XML or binary property list from `bytes` (an XML buffer is
// parsed in place and becomes the tree's storage). Returns the root
// dictionary, or null when refused (see the file comment).
DictRef parse(std::string bytes);

// Reads the whole file at `path` and parses it. Null when the file cannot be
// opened or read, is not a regular file of this user reached without a link
// (the profile file is the service's own), is larger than kMaxFileBytes, or is
// refused by parse().
DictRef read_file(const char* path);

// The XML property list of `root`, as the writer puts it in a file.
std::string to_xml(const TZDictionary& root);

// Writes to_xml(root) to `path` in one write. Returns false when the file
// cannot be opened, is not a regular file of this user reached without a link
// (then it is not touched), or the write or close fails (the file may then be
// cut).
bool write_file(const char* path, const TZDictionary& root);

}  // namespace tz::plist
