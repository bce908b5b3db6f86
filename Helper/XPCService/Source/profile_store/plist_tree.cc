// The tree of the plist codec: the text store, dictionary references, values
// and the sorted dictionary itself, and the entry points that read bytes or a
// file into a tree (parse() hands the bytes to the XML or the binary reader).
#include <algorithm>
#include <cstring>
#include <limits>

#include "file_ops.h"
#include "plist_codec.h"
#include "plist_internal.h"

namespace tz::plist {

// ---- TextStore ---------------------------------------------------------------

std::string_view TextStore::copy(std::string_view text) {
    if (text.empty()) return {};
    if (capacity_ - used_ < text.size()) {
        const std::size_t size = std::max<std::size_t>(text.size(), 16 * 1024);
        chunks_.push_back(std::make_unique<char[]>(size));
        used_ = 0;
        capacity_ = size;
    }
    char* at = chunks_.back().get() + used_;
    std::memcpy(at, text.data(), text.size());
    used_ += text.size();
    return {at, text.size()};
}

void TextStore::keep_alive(std::shared_ptr<void> owner) { keep_ = std::move(owner); }

// ---- References ----------------------------------------------------------------

DictRef::DictRef(const DictRef& other) : dict_(other.dict_) {
    if (dict_ != nullptr) dict_->refs.fetch_add(1, std::memory_order_relaxed);
}

DictRef::~DictRef() {
    if (dict_ != nullptr && dict_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete dict_;
}

DictRef DictRef::make(std::shared_ptr<TextStore> store) {
    DictRef ref;
    ref.dict_ = new TZDictionary;
    ref.dict_->store = std::move(store);
    return ref;
}

DictRef DictRef::retain(TZDictionary* dict) {
    if (dict != nullptr) dict->refs.fetch_add(1, std::memory_order_relaxed);
    return adopt(dict);
}

std::optional<std::int32_t> Value::as_int32() const {
    if (kind != Kind::Integer || integer < std::numeric_limits<std::int32_t>::min() ||
        integer > std::numeric_limits<std::int32_t>::max())
        return std::nullopt;
    return static_cast<std::int32_t>(integer);
}

}  // namespace tz::plist

// ---- TZDictionary --------------------------------------------------------------

using tz::plist::DictRef;
using tz::plist::Entry;
using tz::plist::Kind;
using tz::plist::Value;

namespace {

bool key_less(const Entry& entry, std::string_view key) { return entry.key < key; }

}  // namespace

std::size_t TZDictionary::find_index(std::string_view key) const {
    const auto it = std::lower_bound(entries.begin(), entries.end(), key, key_less);
    if (it == entries.end() || it->key != key) return npos;
    return static_cast<std::size_t>(it - entries.begin());
}

const Value* TZDictionary::find(std::string_view key) const {
    const std::size_t at = find_index(key);
    return at == npos ? nullptr : &entries[at].value;
}

void TZDictionary::set(std::string_view key, Value value) {
    if (entries.empty() || entries.back().key < key) {
        entries.push_back(Entry{store->copy(key), std::move(value)});
        return;
    }
    const auto it = std::lower_bound(entries.begin(), entries.end(), key, key_less);
    if (it != entries.end() && it->key == key) {
        it->value = std::move(value);
        return;
    }
    entries.insert(it, Entry{store->copy(key), std::move(value)});
}

void TZDictionary::set_integer(std::string_view key, std::int64_t value) {
    Value v;
    v.kind = Kind::Integer;
    v.integer = value;
    set(key, std::move(v));
}

void TZDictionary::set_string(std::string_view key, std::string_view text) {
    Value v;
    v.kind = Kind::String;
    v.text = store->copy(text);
    set(key, std::move(v));
}

void TZDictionary::set_dict(std::string_view key, DictRef dict) {
    Value v;
    v.kind = Kind::Dict;
    v.dict = std::move(dict);
    set(key, std::move(v));
}

DictRef TZDictionary::shallow_copy() const {
    DictRef copy = DictRef::make(store);
    copy->entries = entries;
    return copy;
}

namespace tz::plist {

namespace detail {

void finish_entries(std::vector<Entry>& entries) {
    const auto less = [](const Entry& a, const Entry& b) { return a.key < b.key; };
    if (std::adjacent_find(entries.begin(), entries.end(), [&](const Entry& a, const Entry& b) {
            return !less(a, b);
        }) == entries.end())
        return;  // already strictly ascending: the usual case
    std::stable_sort(entries.begin(), entries.end(), less);
    // Among equal keys the last one parsed sits last: keep it.
    std::vector<Entry> kept;
    kept.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i + 1 < entries.size() && entries[i].key == entries[i + 1].key) continue;
        kept.push_back(std::move(entries[i]));
    }
    entries = std::move(kept);
}

}  // namespace detail

DictRef parse(std::string bytes) {
    if (bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist00", 8) == 0)
        return detail::parse_binary(bytes);
    return detail::parse_xml(std::move(bytes));
}

DictRef read_file(const char* path) {
    std::optional<std::string> bytes = read_regular_file(path, kMaxFileBytes, Opening::own);
    return bytes ? parse(std::move(*bytes)) : DictRef();
}

}  // namespace tz::plist
