// The plist reader on arbitrary bytes, checked against libplist: whenever
// libplist parses the input to a tree whose root is a dictionary, every
// dictionary, integer and string in libplist's tree must be in ours with the
// same value (other values are not compared: our reader keeps them as
// opaque). A difference traps.
//
// libplist recurses without a bound, so it is asked only about inputs whose
// nesting stays shallow.
#include <plist/plist.h>

#include <cstddef>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "plist_codec.h"
#include "utf8.h"

namespace {

using tz::plist::Kind;
using tz::plist::Value;

#define check(condition) \
    do { \
        if (!(condition)) { \
            std::fprintf(stderr, "difference: %s (line %d)\n", #condition, __LINE__); \
            __builtin_trap(); \
        } \
    } while (0)

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};

// Rough bound on how deep the input nests: opening tags of containers.
bool shallow(std::string_view bytes) {
    int opens = 0;
    for (std::size_t at = bytes.find('<'); at != std::string_view::npos; at = bytes.find('<', at + 1))
        if (++opens > 2000) return false;
    return true;
}

// libplist reads integer text loosely: "010" as octal, "922,5" as 922, an
// empty element as 0, and more than 64 bits by saturating. Property-list
// integers are decimal or "0x" hex, whole, within 64 bits, and we read
// nothing else as an integer; inputs with other integer texts are not
// compared.
bool plain_integer(std::string_view text) {
    auto space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && space(text.front())) text.remove_prefix(1);
    while (!text.empty() && space(text.back())) text.remove_suffix(1);
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        if (text.size() > 15) return false;
        return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
    }
    if (text.empty() || text.size() > 18 || (text.size() > 1 && text[0] == '0')) return false;
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool all_integers_plain(std::string_view bytes) {
    constexpr std::string_view open = "<integer", close = "</integer>";
    for (std::size_t at = bytes.find(open); at != std::string_view::npos; at = bytes.find(open, at + 1)) {
        const std::size_t begin = bytes.find('>', at);
        const std::size_t end = bytes.find(close, at);
        if (begin == std::string_view::npos || end == std::string_view::npos || end < begin ||
            bytes[begin - 1] == '/' || !plain_integer(bytes.substr(begin + 1, end - begin - 1)))
            return false;
    }
    return true;
}

// libplist reads a <plist> element inside a value as the value it wraps; to
// us it is an unknown element, skipped. Such inputs are not compared.
bool nested_plist(std::string_view bytes) {
    const std::size_t first = bytes.find("<plist");
    return first != std::string_view::npos && bytes.find("<plist", first + 1) != std::string_view::npos;
}

// An '&' that does not start a reference ("&amp" with no ';') makes the XML
// malformed; libplist and we each read it leniently, differently. Such
// inputs are not compared.
bool loose_ampersand(std::string_view bytes) {
    for (std::size_t at = bytes.find('&'); at != std::string_view::npos; at = bytes.find('&', at + 1)) {
        std::string_view rest = bytes.substr(at + 1);
        const std::size_t semicolon = rest.find(';');
        if (semicolon == std::string_view::npos) return true;
        const std::string_view name = rest.substr(0, semicolon);
        if (name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos") continue;
        if (name.size() > 2 && name.substr(0, 2) == "#x" &&
            name.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos)
            continue;
        if (name.size() > 1 && name[0] == '#' &&
            name.find_first_not_of("0123456789", 1) == std::string_view::npos)
            continue;
        return true;
    }
    return false;
}

void compare_dict(plist_t theirs, const TZDictionary& ours, int depth, bool binary);

// In a binary list, libplist keeps the low 64 bits of a 16-byte integer that
// does not fit 64 bits, which we read as an "other" value; libplist's tree
// does not tell such an integer from one that fits.
void compare_value(plist_t theirs, const Value& ours, int depth, bool binary) {
    switch (plist_get_node_type(theirs)) {
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(theirs, &value);
            if (binary && ours.kind == Kind::Other) break;
            check(ours.kind == Kind::Integer);
            check(static_cast<uint64_t>(ours.integer) == value);
            break;
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(theirs, &length);
            check(ours.kind == Kind::String);
            check(ours.text == std::string_view(text, length));
            break;
        }
        case PLIST_DICT:
            check(ours.kind == Kind::Dict && ours.dict);
            compare_dict(theirs, *ours.dict, depth + 1, binary);
            break;
        default:
            break;
    }
}

void compare_dict(plist_t theirs, const TZDictionary& ours, int depth, bool binary) {
    check(depth <= tz::plist::kMaxDepth);
    // A key given twice: the last value counts, as on the platform.
    std::map<std::string, plist_t> last;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(theirs, &it);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(theirs, it, &key, &value);
        if (value == nullptr) {
            std::free(key);
            break;
        }
        last[key] = value;
        std::free(key);
    }
    std::free(it);
    for (const auto& [key, value] : last) {
        const Value* mine = ours.find(key);
        check(mine != nullptr);
        compare_value(value, *mine, depth, binary);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const tz::plist::DictRef ours = tz::plist::parse(bytes);
    if (ours) {
        // Whatever we read must be writable and read back the same way.
        const tz::plist::DictRef again = tz::plist::parse(tz::plist::to_xml(*ours));
        check(static_cast<bool>(again));
    }
    // A binary list we refuse may be one that would crash libplist (deep or
    // cyclic): ask libplist only about those we read.
    const bool binary = plist_is_binary(bytes.data(), static_cast<uint32_t>(bytes.size()));
    if ((binary && !ours) || !shallow(bytes)) return 0;

    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    std::unique_ptr<void, PlistFree> owner(root);
    if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) return 0;
    // XML readers turn a carriage return in the text into a line feed;
    // libplist keeps it.
    if (!binary && (!all_integers_plain(bytes) || nested_plist(bytes) || loose_ampersand(bytes) ||
                    bytes.find('\r') != std::string::npos))
        return 0;

    if (ours) {
        compare_dict(root, *ours, 1, binary);
        return 0;
    }
    // We refused what libplist read. libplist is lenient with XML that is
    // not well formed (unclosed elements, zero bytes), which we refuse on
    // purpose; but whatever tree it made, written out by libplist, we must
    // read to the same values.
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    const std::string written(xml, length);
    std::free(xml);
    // libplist writes control characters inside texts as they stand: a zero
    // byte no XML may hold, and a carriage return an XML reader turns into a
    // line feed. Such a tree has no XML form to compare.
    for (const char c : written)
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') return 0;
    // It also writes texts that are not UTF-8 (read from a file that was not
    // well formed), which no XML reader may take.
    if (!tz::is_valid_utf8(written)) return 0;
    const tz::plist::DictRef reread = tz::plist::parse(written);
    check(static_cast<bool>(reread));
    compare_dict(root, *reread, 1, false);
    return 0;
}
