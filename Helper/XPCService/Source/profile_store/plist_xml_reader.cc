// The XML reader of the plist codec: pugixml parses the file's bytes in
// place, and the converter turns the <plist> document's root dictionary into
// a tree whose texts point into that buffer.
#include <charconv>
#include <cstring>
#include <limits>
#include <pugixml.hpp>

#include "plist_codec.h"
#include "plist_internal.h"

namespace tz::plist::detail {

namespace {

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

// Owns a parsed file's bytes and, for input that pugixml had to convert
// (UTF-16, UTF-32, Latin-1), the document that holds the converted text.
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

    // Null when the element is not a well-formed dictionary. Keys and string
    // texts are checked for UTF-8 once references are decoded: a raw byte
    // that is no UTF-8, and a reference to a surrogate or to a number above
    // U+10FFFF (pugixml encodes those as they stand), both make the document
    // malformed. Other texts never reach the tree and are not checked.
    DictRef dict(pugi::xml_node node, int depth) {
        if (depth > kMaxDepth) return {};
        DictRef result = DictRef::make(store_);
        pugi::xml_node child = next_element(node.first_child());
        while (child) {
            if (classify(child.name()) != Element::Key) return {};
            const std::optional<std::string_view> key = text_of(child);
            if (!key || !is_valid_utf8(*key)) return {};
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

    // Nothing when the value makes the document malformed (a misplaced <key>,
    // a text that is not UTF-8, or a malformed nested dictionary).
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
                    if (!is_valid_utf8(*text)) return std::nullopt;
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

}  // namespace

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

}  // namespace tz::plist::detail
