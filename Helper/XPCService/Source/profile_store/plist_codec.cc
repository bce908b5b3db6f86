#include "plist_codec.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <pugixml.hpp>

#include "file_ops.h"

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

namespace {

// ---- Shared helpers of both readers ----------------------------------------------

// Sorts freshly parsed entries by key and keeps the last of equal keys.
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

bool is_xml_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Decimal with an optional sign, or "0x" hex, surrounded by optional
// whitespace; anything else, or a value outside int64, is not an integer.
std::optional<std::int64_t> parse_integer(std::string_view text) {
    while (!text.empty() && is_xml_space(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_xml_space(text.back())) text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return std::nullopt;
    std::uint64_t magnitude = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    constexpr std::uint64_t kMaxPositive = std::numeric_limits<std::int64_t>::max();
    if (negative) {
        if (magnitude > kMaxPositive + 1) return std::nullopt;
        return magnitude == kMaxPositive + 1 ? std::numeric_limits<std::int64_t>::min()
                                             : -static_cast<std::int64_t>(magnitude);
    }
    if (magnitude > kMaxPositive) return std::nullopt;
    return static_cast<std::int64_t>(magnitude);
}

// ---- XML ----------------------------------------------------------------------

// Owns a parsed file's bytes and, for input that pugixml had to convert
// (UTF-16 or UTF-32), the document that holds the converted text.
struct XmlSource {
    std::string bytes;
    pugi::xml_document document;
};

enum class Element { Key, Dict, String, Integer, Other };

// The element names of a property list, told apart without a library call
// per element (this runs once per element of a 500 KB file).
Element classify(const char* name) {
    switch (name[0]) {
        case 'k':
            return name[1] == 'e' && name[2] == 'y' && name[3] == '\0' ? Element::Key
                                                                       : Element::Other;
        case 'd':
            return std::strcmp(name + 1, "ict") == 0 ? Element::Dict : Element::Other;
        case 's':
            return std::strcmp(name + 1, "tring") == 0 ? Element::String : Element::Other;
        case 'i':
            return std::strcmp(name + 1, "nteger") == 0 ? Element::Integer : Element::Other;
        default:
            return Element::Other;
    }
}

class XmlConverter {
public:
    explicit XmlConverter(std::shared_ptr<TextStore> store) : store_(std::move(store)) {}

    // Null when the element is not a well-formed dictionary.
    DictRef dict(pugi::xml_node node, int depth) {
        if (depth > kMaxDepth) return {};
        DictRef result = DictRef::make(store_);
        pugi::xml_node child = next_element(node.first_child());
        while (child) {
            if (classify(child.name()) != Element::Key) return {};
            const std::optional<std::string_view> key = text_of(child);
            if (!key) return {};
            const pugi::xml_node value_node = next_element(child.next_sibling());
            if (!value_node) return {};
            std::optional<Value> value = this->value(value_node, depth);
            if (!value) return {};
            result->entries.push_back(Entry{*key, std::move(*value)});
            child = next_element(value_node.next_sibling());
        }
        finish_entries(result->entries);
        return result;
    }

private:
    static pugi::xml_node next_element(pugi::xml_node node) {
        while (node && node.type() != pugi::node_element) node = node.next_sibling();
        return node;
    }

    // The character data of an element: a view into the parsed buffer, or,
    // when it comes in several pieces, their concatenation. Nothing when the
    // element holds child elements.
    std::optional<std::string_view> text_of(pugi::xml_node node) {
        const pugi::xml_node first = node.first_child();
        if (!first) return std::string_view();
        if (!first.next_sibling() &&
            (first.type() == pugi::node_pcdata || first.type() == pugi::node_cdata))
            return std::string_view(first.value());
        std::string joined;
        for (pugi::xml_node piece = first; piece; piece = piece.next_sibling()) {
            if (piece.type() == pugi::node_element) return std::nullopt;
            if (piece.type() == pugi::node_pcdata || piece.type() == pugi::node_cdata)
                joined += piece.value();
        }
        return store_->copy(joined);
    }

    // Nothing when the value makes the document malformed (a misplaced <key>
    // or a malformed nested dictionary).
    std::optional<Value> value(pugi::xml_node node, int depth) {
        Value v;
        switch (classify(node.name())) {
            case Element::Dict:
                v.dict = dict(node, depth + 1);
                if (!v.dict) return std::nullopt;
                v.kind = Kind::Dict;
                break;
            case Element::String:
                if (const auto text = text_of(node)) {
                    v.kind = Kind::String;
                    v.text = *text;
                }
                break;
            case Element::Integer: {
                const auto text = text_of(node);
                if (const auto number = text ? parse_integer(*text) : std::nullopt) {
                    v.kind = Kind::Integer;
                    v.integer = *number;
                }
                break;
            }
            case Element::Key:
                return std::nullopt;
            case Element::Other:
                break;
        }
        return v;
    }

    std::shared_ptr<TextStore> store_;
};

DictRef parse_xml(std::string bytes) {
    auto source = std::make_shared<XmlSource>();
    source->bytes = std::move(bytes);
    constexpr unsigned kOptions = pugi::parse_minimal | pugi::parse_escapes | pugi::parse_cdata |
                                  pugi::parse_eol | pugi::parse_ws_pcdata_single;
    const pugi::xml_parse_result parsed = source->document.load_buffer_inplace(
        source->bytes.data(), source->bytes.size(), kOptions, pugi::encoding_auto);
    if (!parsed) return {};
    pugi::xml_node root = source->document.document_element();
    if (std::strcmp(root.name(), "plist") == 0) {
        root = root.first_child();
        while (root && root.type() != pugi::node_element) root = root.next_sibling();
    }
    if (!root || std::strcmp(root.name(), "dict") != 0) return {};

    // The tree's texts point into the store's keep-alive: the source bytes
    // (parsed in place) or, for converted input, the document's own buffer.
    std::shared_ptr<void> keep = source;
    auto store = std::make_shared<TextStore>();
    XmlConverter converter(store);
    DictRef result = converter.dict(root, 1);
    if (!result) return {};
    if (parsed.encoding == pugi::encoding_utf8) source->document.reset();  // DOM no longer needed
    store->keep_alive(std::move(keep));
    return result;
}

// ---- Binary (through libplist) ---------------------------------------------------

constexpr std::uint64_t kMaxExpandedNodes = 1u << 22;

std::uint64_t read_be(const unsigned char* p, unsigned size) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

// Checks the object graph of a binary property list before libplist sees it:
// libplist recurses once per nesting level and expands shared objects, so a
// deep or heavily shared graph would exhaust its stack or memory. Accepts only
// graphs without cycles whose expanded tree is at most kMaxDepth * 2 levels
// deep and kMaxExpandedNodes nodes large, and whose dictionary keys are
// strings without a zero character (libplist aborts on a key of another type
// and on a key with a zero in it). Malformed tables are refused too.
bool binary_graph_is_safe(std::string_view bytes) {
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
    if (size < 8 + 32) return false;
    const unsigned char* trailer = data + size - 32;
    const unsigned offset_size = trailer[6];
    const unsigned ref_size = trailer[7];
    const std::uint64_t count = read_be(trailer + 8, 8);
    const std::uint64_t top = read_be(trailer + 16, 8);
    const std::uint64_t table = read_be(trailer + 24, 8);
    const std::size_t limit = size - 32;
    if (offset_size < 1 || offset_size > 8 || ref_size < 1 || ref_size > 8) return false;
    if (count == 0 || top >= count || table < 8 || table > limit) return false;
    if (count > (limit - table) / offset_size) return false;

    // libplist keeps only the low 64 bits of a 16-byte integer: a file with
    // one outside the signed 64-bit range would be misread (2^64 - 1 as -1),
    // so it is refused.
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t offset = read_be(data + table + i * offset_size, offset_size);
        if (offset >= limit || data[offset] != 0x14) continue;
        if (offset + 17 > limit) return false;
        const std::uint64_t high = read_be(data + offset + 1, 8);
        const bool negative = (data[offset + 9] & 0x80) != 0;
        if (high != (negative ? ~std::uint64_t{0} : 0)) return false;
    }

    struct Node {
        std::uint64_t first_ref = 0;  // byte offset of the first reference
        std::uint64_t refs = 0;
        std::uint64_t keys = 0;      // leading references that must be strings
        std::uint8_t state = 0;      // 0 new, 1 on the path, 2 done
        std::uint32_t height = 0;    // levels below and including this node
        std::uint64_t expanded = 1;  // nodes of the expanded subtree (saturated)
    };
    std::vector<Node> nodes(count);
    // Where object `index` starts, or 0 when the offset table points outside.
    auto offset_of = [&](std::uint64_t index) -> std::uint64_t {
        const std::uint64_t offset = read_be(data + table + index * offset_size, offset_size);
        return offset < 8 || offset >= limit ? 0 : offset;
    };
    // An object's count (of bytes, units or items) and where its body starts:
    // the marker's low four bits, or an integer object after it when they are
    // all set. False when the count does not fit the file.
    auto count_of = [&](std::uint64_t offset, std::uint64_t& count, std::uint64_t& at) {
        count = data[offset] & 0xF;
        at = offset + 1;
        if (count != 0xF) return true;
        if (at >= limit || (data[at] >> 4) != 0x1) return false;
        const unsigned width = 1u << (data[at] & 0xF);
        if (width > 8 || at + 1 + width > limit) return false;
        count = read_be(data + at + 1, width);
        at += 1 + width;
        return true;
    };
    // An ASCII or UTF-16 string object that fits the file and holds no zero
    // character.
    auto is_key_string = [&](std::uint64_t index) {
        const std::uint64_t offset = offset_of(index);
        const unsigned type = offset == 0 ? 0 : data[offset] >> 4;
        if (type != 0x5 && type != 0x6) return false;
        const unsigned unit = type == 0x5 ? 1 : 2;
        std::uint64_t length = 0;
        std::uint64_t at = 0;
        if (!count_of(offset, length, at) || length > (limit - at) / unit) return false;
        for (std::uint64_t i = 0; i < length; ++i)
            if (read_be(data + at + i * unit, unit) == 0) return false;
        return true;
    };
    // Finds an object's references; false for an object that does not fit.
    auto load = [&](std::uint64_t index) {
        const std::uint64_t offset = offset_of(index);
        if (offset == 0) return false;
        const unsigned type = data[offset] >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) return true;  // not a container
        std::uint64_t items = 0;
        std::uint64_t at = 0;
        if (!count_of(offset, items, at)) return false;
        const std::uint64_t refs = type == 0xD ? items * 2 : items;
        if (items > limit || refs > (limit - at) / ref_size) return false;
        nodes[index].first_ref = at;
        nodes[index].refs = refs;
        nodes[index].keys = type == 0xD ? items : 0;
        return true;
    };

    struct Frame {
        std::uint64_t index;
        std::uint64_t next = 0;
    };
    constexpr std::uint32_t kMaxLevels = kMaxDepth * 2;
    std::vector<Frame> path;
    if (!load(top)) return false;
    nodes[top].state = 1;
    path.push_back({top});
    while (!path.empty()) {
        Frame& frame = path.back();
        Node& node = nodes[frame.index];
        if (frame.next == node.refs) {
            node.state = 2;
            node.height += 1;
            path.pop_back();
            if (!path.empty()) {
                Node& parent = nodes[path.back().index];
                parent.height = std::max(parent.height, node.height);
                parent.expanded = std::min(parent.expanded + node.expanded, kMaxExpandedNodes + 1);
                if (parent.expanded > kMaxExpandedNodes) return false;
            }
            continue;
        }
        const std::uint64_t child =
            read_be(data + node.first_ref + frame.next * ref_size, ref_size);
        const bool is_key = frame.next < node.keys;
        ++frame.next;
        if (child >= count) return false;
        if (is_key && !is_key_string(child)) return false;
        Node& c = nodes[child];
        if (c.state == 1) return false;  // a cycle
        if (c.state == 2) {
            if (path.size() + c.height > kMaxLevels) return false;
            node.height = std::max(node.height, c.height);
            node.expanded = std::min(node.expanded + c.expanded, kMaxExpandedNodes + 1);
            if (node.expanded > kMaxExpandedNodes) return false;
            continue;
        }
        if (path.size() + 1 > kMaxLevels) return false;
        if (!load(child)) return false;
        c.state = 1;
        path.push_back({child});
    }
    return true;
}

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};

DictRef convert_binary_dict(plist_t node, const std::shared_ptr<TextStore>& store, int depth);

Value convert_binary_value(plist_t node, const std::shared_ptr<TextStore>& store, int depth) {
    Value v;
    switch (plist_get_node_type(node)) {
        case PLIST_DICT:
            v.dict = convert_binary_dict(node, store, depth + 1);
            if (v.dict) v.kind = Kind::Dict;
            break;
        case PLIST_UINT: {
            // libplist hands out 64 bits; a signed value comes as its two's
            // complement bits.
            std::uint64_t bits = 0;
            plist_get_uint_val(node, &bits);
            v.kind = Kind::Integer;
            v.integer = static_cast<std::int64_t>(bits);
            break;
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            if (text != nullptr) {
                v.kind = Kind::String;
                v.text = store->copy(std::string_view(text, length));
            }
            break;
        }
        default:
            break;
    }
    return v;
}

DictRef convert_binary_dict(plist_t node, const std::shared_ptr<TextStore>& store, int depth) {
    if (depth > kMaxDepth) return {};
    DictRef result = DictRef::make(store);
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    if (iter == nullptr) return {};
    for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iter, &key, &item);
        if (item == nullptr) {
            std::free(key);
            break;
        }
        Value value = convert_binary_value(item, store, depth);
        if (key != nullptr) result->entries.push_back(Entry{store->copy(key), std::move(value)});
        std::free(key);
    }
    std::free(iter);
    finish_entries(result->entries);
    return result;
}

DictRef parse_binary(const std::string& bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max() || !binary_graph_is_safe(bytes))
        return {};
    plist_t raw = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    const std::unique_ptr<void, PlistFree> root(raw);
    if (raw == nullptr || plist_get_node_type(raw) != PLIST_DICT) return {};
    return convert_binary_dict(raw, std::make_shared<TextStore>(), 1);
}

// ---- Writing ----------------------------------------------------------------------

// The output is built a line at a time in a staging buffer: each line is
// reserved at its largest possible size and written through a pointer, then
// the buffer goes to the string in large appends. Escaping can make a text
// five times longer (every '&' becomes "&amp;").
class XmlOut {
public:
    explicit XmlOut(std::string& out) : out_(out) {}
    ~XmlOut() { flush(); }

    // Room for `size` bytes, or null when a line is larger than the buffer.
    char* reserve(std::size_t size) {
        if (size > kStage - used_) flush();
        return size <= kStage ? stage_ + used_ : nullptr;
    }
    void commit(const char* end) { used_ = static_cast<std::size_t>(end - stage_); }
    // A line too large for the buffer: built on its own, then appended.
    void append_large(const std::string& line) {
        flush();
        out_.append(line);
    }

private:
    static constexpr std::size_t kStage = 64 * 1024;
    void flush() {
        out_.append(stage_, used_);
        used_ = 0;
    }

    std::string& out_;
    char stage_[kStage];
    std::size_t used_ = 0;
};

template <std::size_t N>
char* put(char* at, const char (&literal)[N]) {
    std::memcpy(at, literal, N - 1);
    return at + N - 1;
}

char* put_tabs(char* at, int depth) {
    std::memset(at, '\t', static_cast<std::size_t>(depth));
    return at + depth;
}

// How the writer treats each byte of a text: copied as it is, written as a
// reference, refused (a control character XML cannot hold), or the start of
// a UTF-8 sequence to check. A carriage return is written as a reference: a
// reader would turn a literal one into a line feed.
enum ByteClass : unsigned char { kPlain, kReference, kRefused, kMultiByte };

constexpr std::array<unsigned char, 256> kByteClass = [] {
    std::array<unsigned char, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[c] = kRefused;
    table['\t'] = table['\n'] = kPlain;
    table['\r'] = table['&'] = table['<'] = table['>'] = kReference;
    for (int c = 0x80; c < 0x100; ++c) table[c] = kMultiByte;
    return table;
}();

// Writes `text` escaped, in one pass. Returns null when XML cannot hold the
// text (not UTF-8, or a control character other than tab, line feed and
// carriage return); what was written then is to be dropped.
char* put_text(char* at, std::string_view text) {
    const auto* from = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = from + text.size();
    while (from < end) {
        const unsigned char* run = from;
        while (run < end && kByteClass[*run] == kPlain) ++run;
        std::memcpy(at, from, static_cast<std::size_t>(run - from));
        at += run - from;
        if (run == end) break;
        switch (kByteClass[*run]) {
            case kReference:
                at = *run == '&'   ? put(at, "&amp;")
                     : *run == '<' ? put(at, "&lt;")
                     : *run == '>' ? put(at, "&gt;")
                                   : put(at, "&#13;");
                from = run + 1;
                break;
            case kMultiByte: {
                const std::size_t length = utf8_sequence_length(run, end);
                if (length == 0) return nullptr;
                std::memcpy(at, run, length);
                at += length;
                from = run + length;
                break;
            }
            default:
                return nullptr;
        }
    }
    return at;
}

// One key and, unless it is a dictionary, its value: the whole entry's lines.
// Null when XML cannot hold the key or the text: the entry is left out, as a
// value that cannot be made.
char* put_entry(char* at, const Entry& entry, int depth) {
    at = put_tabs(at, depth);
    at = put(at, "<key>");
    at = put_text(at, entry.key);
    if (at == nullptr) return nullptr;
    at = put(at, "</key>\n");
    if (entry.value.kind == Kind::Dict) return at;
    at = put_tabs(at, depth);
    if (entry.value.kind == Kind::Integer) {
        at = put(at, "<integer>");
        at = std::to_chars(at, at + 24, entry.value.integer).ptr;
        return put(at, "</integer>\n");
    }
    at = put(at, "<string>");
    at = put_text(at, entry.value.text);
    return at == nullptr ? nullptr : put(at, "</string>\n");
}

std::size_t entry_bound(const Entry& entry, int depth) {
    return 2 * static_cast<std::size_t>(depth) + 5 * entry.key.size() +
           5 * entry.value.text.size() + 64;
}

void append_dict(XmlOut& out, const TZDictionary& dict, int depth);

void append_entry(XmlOut& out, const Entry& entry, int depth) {
    const std::size_t bound = entry_bound(entry, depth);
    if (char* at = out.reserve(bound)) {
        char* const end = put_entry(at, entry, depth);
        if (end == nullptr) return;  // reserved, not committed: nothing written
        out.commit(end);
    } else {
        std::string line(bound, '\0');
        const char* const end = put_entry(line.data(), entry, depth);
        if (end == nullptr) return;
        line.resize(static_cast<std::size_t>(end - line.data()));
        out.append_large(line);
    }
    if (entry.value.kind == Kind::Dict) append_dict(out, *entry.value.dict, depth);
}

void append_dict(XmlOut& out, const TZDictionary& dict, int depth) {
    // Written as <dict/> when nothing in it is modelled. (A dictionary whose
    // every text XML cannot hold is written as an open and close pair.)
    const bool empty = std::none_of(dict.entries.begin(), dict.entries.end(),
                                    [](const Entry& e) { return e.value.kind != Kind::Other; });
    char* at = out.reserve(static_cast<std::size_t>(depth) + 16);
    at = put_tabs(at, depth);
    if (empty) {
        out.commit(put(at, "<dict/>\n"));
        return;
    }
    out.commit(put(at, "<dict>\n"));
    for (const Entry& entry : dict.entries)
        if (entry.value.kind != Kind::Other)  // not modelled: left out
            append_entry(out, entry, depth + 1);
    at = out.reserve(static_cast<std::size_t>(depth) + 16);
    at = put_tabs(at, depth);
    out.commit(put(at, "</dict>\n"));
}

void append_document(std::string& text, const TZDictionary& root) {
    text.append(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n");
    {
        XmlOut out(text);
        append_dict(out, root, 0);
    }
    text.append("</plist>\n");
}

// Closes the descriptor on every way out.
struct FileDescriptor {
    int fd;
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

void TextStore::keep_alive(std::shared_ptr<void> owner) { keep_ = std::move(owner); }

DictRef parse(std::string bytes) {
    if (bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist00", 8) == 0)
        return parse_binary(bytes);
    return parse_xml(std::move(bytes));
}

DictRef read_file(const char* path) {
    if (path == nullptr) return {};
    FileDescriptor file{::open(path, O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return {};
    struct stat st;
    if (::fstat(file.fd, &st) != 0 || !S_ISREG(st.st_mode)) return {};
    if (static_cast<std::uint64_t>(st.st_size) > kMaxFileBytes) return {};
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            // The file may have grown since fstat: go on until end of file.
            if (bytes.size() > kMaxFileBytes) return {};
            bytes.resize(bytes.size() + 4096);
        }
        const ssize_t got = ::read(file.fd, bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return {};
        if (got == 0) break;
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    if (bytes.size() > kMaxFileBytes) return {};
    return parse(std::move(bytes));
}

std::string to_xml(const TZDictionary& root) {
    std::string out;
    append_document(out, root);
    return out;
}

bool write_file(const char* path, const TZDictionary& root) {
    if (path == nullptr) return false;
    // The text of a profile file is about 600 KB: the buffer stays with the
    // thread between writes instead of being mapped and faulted in anew.
    thread_local std::string xml;
    xml.clear();
    if (xml.capacity() > (8u << 20)) xml.shrink_to_fit();
    append_document(xml, root);
    return write_whole_file(path, xml);
}

}  // namespace tz::plist
