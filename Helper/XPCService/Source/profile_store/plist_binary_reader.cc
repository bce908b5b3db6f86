// The binary reader of the plist codec: a "bplist00" file goes to libplist
// once its object graph has been checked, and libplist's tree is converted
// into ours with the graph at hand, so that a value libplist would misread
// (a 16-byte integer outside 64 bits) becomes an "other" value.
#include <plist/plist.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "plist_codec.h"
#include "plist_internal.h"

namespace tz::plist::detail {

namespace {

std::uint64_t read_be(const unsigned char* p, unsigned size) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

// The object graph of a binary property list, checked before libplist sees
// it: libplist recurses once per nesting level and expands shared objects, so
// a deep or heavily shared graph would exhaust its stack or memory. check()
// accepts only graphs without cycles whose expanded tree is at most
// kMaxDepth * 2 levels deep and kMaxExpandedNodes nodes large, and whose
// dictionary keys are strings without a zero character (libplist aborts on a
// key of another type and on a key with a zero in it). Malformed tables are
// refused too.
//
// It also finds the 16-byte integers outside the signed 64-bit range:
// libplist keeps only their low 64 bits (it would read 2^64 - 1 as -1), so
// the conversion asks is_wide_integer() and makes them "other" values.
class BinaryGraph {
public:
    explicit BinaryGraph(std::string_view bytes)
        : data_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

    bool check() { return read_trailer() && mark_wide_integers() && walk(); }

    // After check(): the root object, the object that is the value of item
    // `item` of dictionary `index` (libplist keeps a dictionary's items in
    // the file's order), and whether an object is a wide integer.
    std::uint64_t top() const { return top_; }
    std::optional<std::uint64_t> dict_value(std::uint64_t index, std::uint64_t item) const {
        const Node& node = nodes_[index];
        if (node.keys == 0 || item >= node.keys) return std::nullopt;
        return read_be(data_ + node.first_ref + (node.keys + item) * ref_size_, ref_size_);
    }
    bool is_wide_integer(std::uint64_t index) const { return nodes_[index].wide; }

private:
    static constexpr std::uint64_t kMaxExpandedNodes = 1u << 22;
    static constexpr std::uint32_t kMaxLevels = kMaxDepth * 2;

    struct Node {
        std::uint64_t first_ref = 0;  // byte offset of the first reference
        std::uint64_t refs = 0;
        std::uint64_t keys = 0;      // leading references that must be strings
        std::uint8_t state = 0;      // 0 new, 1 on the path, 2 done
        bool wide = false;           // a 16-byte integer outside int64
        std::uint32_t height = 0;    // levels below and including this node
        std::uint64_t expanded = 1;  // nodes of the expanded subtree (saturated)
    };

    // The sizes and positions of the trailer, within the file.
    bool read_trailer() {
        if (size_ < 8 + 32) return false;
        const unsigned char* trailer = data_ + size_ - 32;
        offset_size_ = trailer[6];
        ref_size_ = trailer[7];
        count_ = read_be(trailer + 8, 8);
        top_ = read_be(trailer + 16, 8);
        table_ = read_be(trailer + 24, 8);
        limit_ = size_ - 32;
        if (offset_size_ < 1 || offset_size_ > 8 || ref_size_ < 1 || ref_size_ > 8) return false;
        if (count_ == 0 || top_ >= count_ || table_ < 8 || table_ > limit_) return false;
        if (count_ > (limit_ - table_) / offset_size_) return false;
        nodes_.resize(count_);
        return true;
    }

    // Marks the 16-byte integers whose value does not fit int64: the high
    // eight bytes are not the sign extension of the low eight. False for one
    // cut short by the end of the objects.
    bool mark_wide_integers() {
        for (std::uint64_t i = 0; i < count_; ++i) {
            const std::uint64_t offset = offset_of(i);
            if (offset == 0 || data_[offset] != 0x14) continue;
            if (offset + 17 > limit_) return false;
            const std::uint64_t high = read_be(data_ + offset + 1, 8);
            const bool negative = (data_[offset + 9] & 0x80) != 0;
            nodes_[i].wide = high != (negative ? ~std::uint64_t{0} : 0);
        }
        return true;
    }

    // Where object `index` starts, or 0 when the offset table points outside.
    std::uint64_t offset_of(std::uint64_t index) const {
        const std::uint64_t offset = read_be(data_ + table_ + index * offset_size_, offset_size_);
        return offset < 8 || offset >= limit_ ? 0 : offset;
    }

    // An object's count (of bytes, units or items) and where its body starts:
    // the marker's low four bits, or an integer object after it when they are
    // all set. False when the count does not fit the file.
    bool count_of(std::uint64_t offset, std::uint64_t& count, std::uint64_t& at) const {
        count = data_[offset] & 0xF;
        at = offset + 1;
        if (count != 0xF) return true;
        if (at >= limit_ || (data_[at] >> 4) != 0x1) return false;
        const unsigned width = 1u << (data_[at] & 0xF);
        if (width > 8 || at + 1 + width > limit_) return false;
        count = read_be(data_ + at + 1, width);
        at += 1 + width;
        return true;
    }

    // An ASCII or UTF-16 string object that fits the file and holds no zero
    // character.
    bool is_key_string(std::uint64_t index) const {
        const std::uint64_t offset = offset_of(index);
        const unsigned type = offset == 0 ? 0 : data_[offset] >> 4;
        if (type != 0x5 && type != 0x6) return false;
        const unsigned unit = type == 0x5 ? 1 : 2;
        std::uint64_t length = 0;
        std::uint64_t at = 0;
        if (!count_of(offset, length, at) || length > (limit_ - at) / unit) return false;
        for (std::uint64_t i = 0; i < length; ++i)
            if (read_be(data_ + at + i * unit, unit) == 0) return false;
        return true;
    }

    // Finds an object's references; false for an object that does not fit.
    bool load(std::uint64_t index) {
        const std::uint64_t offset = offset_of(index);
        if (offset == 0) return false;
        const unsigned type = data_[offset] >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) return true;  // not a container
        std::uint64_t items = 0;
        std::uint64_t at = 0;
        if (!count_of(offset, items, at)) return false;
        const std::uint64_t refs = type == 0xD ? items * 2 : items;
        if (items > limit_ || refs > (limit_ - at) / ref_size_) return false;
        nodes_[index].first_ref = at;
        nodes_[index].refs = refs;
        nodes_[index].keys = type == 0xD ? items : 0;
        return true;
    }

    // Adds a finished subtree's size to its parent's. False once the
    // expanded tree is too large.
    static bool add_expanded(Node& parent, const Node& child) {
        parent.expanded = std::min(parent.expanded + child.expanded, kMaxExpandedNodes + 1);
        return parent.expanded <= kMaxExpandedNodes;
    }

    // Depth first from the root without recursion, each object loaded once;
    // an object met again adds its known height and size.
    bool walk() {
        struct Frame {
            std::uint64_t index;
            std::uint64_t next = 0;
        };
        std::vector<Frame> path;
        if (!load(top_)) return false;
        nodes_[top_].state = 1;
        path.push_back({top_});
        while (!path.empty()) {
            Frame& frame = path.back();
            Node& node = nodes_[frame.index];
            if (frame.next == node.refs) {
                node.state = 2;
                node.height += 1;
                path.pop_back();
                if (!path.empty()) {
                    Node& parent = nodes_[path.back().index];
                    parent.height = std::max(parent.height, node.height);
                    if (!add_expanded(parent, node)) return false;
                }
                continue;
            }
            const std::uint64_t child =
                read_be(data_ + node.first_ref + frame.next * ref_size_, ref_size_);
            const bool is_key = frame.next < node.keys;
            ++frame.next;
            if (child >= count_) return false;
            if (is_key && !is_key_string(child)) return false;
            Node& c = nodes_[child];
            if (c.state == 1) return false;  // a cycle
            if (c.state == 2) {
                if (path.size() + c.height > kMaxLevels) return false;
                node.height = std::max(node.height, c.height);
                if (!add_expanded(node, c)) return false;
                continue;
            }
            if (path.size() + 1 > kMaxLevels) return false;
            if (!load(child)) return false;
            c.state = 1;
            path.push_back({child});
        }
        return true;
    }

    const unsigned char* data_;
    std::size_t size_;
    std::size_t limit_ = 0;  // where the trailer starts
    unsigned offset_size_ = 0;
    unsigned ref_size_ = 0;
    std::uint64_t count_ = 0;
    std::uint64_t top_ = 0;
    std::uint64_t table_ = 0;
    std::vector<Node> nodes_;
};

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};

// For what libplist hands out with malloc (iterators, keys).
struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

// Converts libplist's tree, object by object alongside the checked graph.
class BinaryConverter {
public:
    BinaryConverter(const BinaryGraph& graph, std::shared_ptr<TextStore> store)
        : graph_(graph), store_(std::move(store)) {}

    // The dictionary `node`, which is object `index` of the graph. Null when
    // nested too deep, or when libplist's items do not match the graph's.
    DictRef dict(plist_t node, std::uint64_t index, int depth) {
        if (depth > kMaxDepth) return {};
        DictRef result = DictRef::make(store_);
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        if (iter == nullptr) return {};
        const std::unique_ptr<void, Free> owner(iter);
        for (std::uint64_t item = 0;; ++item) {
            char* key = nullptr;
            plist_t value_node = nullptr;
            plist_dict_next_item(node, iter, &key, &value_node);
            const std::unique_ptr<char, Free> key_owner(key);
            if (value_node == nullptr) break;
            const std::optional<std::uint64_t> value_index = graph_.dict_value(index, item);
            if (!value_index) return {};
            Value value = this->value(value_node, *value_index, depth);
            if (key != nullptr) result->entries.push_back(Entry{store_->copy(key), std::move(value)});
        }
        finish_entries(result->entries);
        return result;
    }

private:
    Value value(plist_t node, std::uint64_t index, int depth) {
        Value v;
        switch (plist_get_node_type(node)) {
            case PLIST_DICT:
                v.dict = dict(node, index, depth + 1);
                if (v.dict) v.kind = Kind::Dict;
                break;
            case PLIST_UINT: {
                if (graph_.is_wide_integer(index)) break;  // an "other" value
                // libplist hands out 64 bits; a signed value comes as its
                // two's complement bits.
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
                    v.text = store_->copy(std::string_view(text, length));
                }
                break;
            }
            default:
                break;
        }
        return v;
    }

    const BinaryGraph& graph_;
    std::shared_ptr<TextStore> store_;
};

}  // namespace

DictRef parse_binary(const std::string& bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return {};
    BinaryGraph graph(bytes);
    if (!graph.check()) return {};
    plist_t raw = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    const std::unique_ptr<void, PlistFree> root(raw);
    if (raw == nullptr || plist_get_node_type(raw) != PLIST_DICT) return {};
    return BinaryConverter(graph, std::make_shared<TextStore>()).dict(raw, graph.top(), 1);
}

}  // namespace tz::plist::detail
