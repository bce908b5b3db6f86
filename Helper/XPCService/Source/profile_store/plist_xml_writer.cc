// The XML writer of the plist codec: a tree becomes the text of an XML
// property list, appended to a string, and write_file() puts that text in a
// file with one write. Entries whose key or text XML cannot hold are left out.
#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <string_view>

#include "file_ops.h"
#include "plist_codec.h"
#include "plist_internal.h"

namespace tz::plist {

namespace {

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

std::string_view reference(unsigned char c) {
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        default:
            return "&#13;";
    }
}

// The length of the UTF-8 sequence at `p` when it encodes a character XML
// can hold, or 0. Of the code points UTF-8 can encode, XML's Char leaves out
// only U+FFFE and U+FFFF (EF BF BE, EF BF BF) besides the control
// characters, which the byte table refuses.
std::size_t xml_char_length(const unsigned char* p, const unsigned char* end) {
    const std::size_t length = utf8_sequence_length(p, end);
    if (length == 3 && p[0] == 0xEF && p[1] == 0xBF && p[2] >= 0xBE) return 0;
    return length;
}

// Appends `text` escaped, in one pass: each run of bytes that need no
// reference goes to `out` in one append. False when XML cannot hold the text
// (not UTF-8, a control character other than tab, line feed and carriage
// return, U+FFFE or U+FFFF); what was appended then is to be dropped.
bool append_text(std::string& out, std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = p + text.size();
    const auto* run = p;  // the first byte not yet appended
    while (p < end) {
        while (p < end && kByteClass[*p] == kPlain) ++p;
        if (p == end) break;
        switch (kByteClass[*p]) {
            case kMultiByte: {
                const std::size_t length = xml_char_length(p, end);
                if (length == 0) return false;
                p += length;
                break;
            }
            case kReference:
                out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
                out.append(reference(*p));
                run = ++p;
                break;
            default:
                return false;
        }
    }
    out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
    return true;
}

void append_dict(std::string& out, const TZDictionary& dict, int depth);

// The fixed text around the keys and values of one dictionary's entries, made
// once per dictionary so that an entry costs few appends.
struct EntryPieces {
    explicit EntryPieces(int level) : depth(level) {
        const std::string tabs(static_cast<std::size_t>(level), '\t');
        key_open = tabs + "<key>";
        integer_open = "</key>\n" + tabs + "<integer>";
        string_open = "</key>\n" + tabs + "<string>";
    }
    int depth;
    std::string key_open;
    std::string integer_open;
    std::string string_open;
};

// One key and its value. The entry is left out, as a value that cannot be
// made, when XML cannot hold the key or the text: what was appended of it is
// cut off again.
void append_entry(std::string& out, const Entry& entry, const EntryPieces& pieces) {
    const std::size_t start = out.size();
    out.append(pieces.key_open);
    if (!append_text(out, entry.key)) {
        out.resize(start);
        return;
    }
    switch (entry.value.kind) {
        case Kind::Dict:
            out.append("</key>\n");
            append_dict(out, *entry.value.dict, pieces.depth);
            return;
        case Kind::Integer: {
            out.append(pieces.integer_open);
            constexpr std::string_view kClose = "</integer>\n";
            char line[24 + kClose.size()];
            char* at = std::to_chars(line, line + 24, entry.value.integer).ptr;
            at = std::copy(kClose.begin(), kClose.end(), at);
            out.append(line, static_cast<std::size_t>(at - line));
            return;
        }
        default:
            out.append(pieces.string_open);
            if (!append_text(out, entry.value.text)) {
                out.resize(start);
                return;
            }
            out.append("</string>\n");
    }
}

void append_dict(std::string& out, const TZDictionary& dict, int depth) {
    // Written as <dict/> when nothing in it is modelled. (A dictionary whose
    // every text XML cannot hold is written as an open and close pair.)
    const bool empty = std::none_of(dict.entries.begin(), dict.entries.end(),
                                    [](const Entry& e) { return e.value.kind != Kind::Other; });
    out.append(static_cast<std::size_t>(depth), '\t');
    if (empty) {
        out.append("<dict/>\n");
        return;
    }
    out.append("<dict>\n");
    const EntryPieces pieces(depth + 1);
    for (const Entry& entry : dict.entries)
        if (entry.value.kind != Kind::Other)  // not modelled: left out
            append_entry(out, entry, pieces);
    out.append(static_cast<std::size_t>(depth), '\t');
    out.append("</dict>\n");
}

}  // namespace

namespace detail {

void append_xml(std::string& out, const TZDictionary& root) {
    out.append(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n");
    append_dict(out, root, 0);
    out.append("</plist>\n");
}

}  // namespace detail

std::string to_xml(const TZDictionary& root) {
    std::string out;
    detail::append_xml(out, root);
    return out;
}

bool write_file(const char* path, const TZDictionary& root) {
    if (path == nullptr) return false;
    // The text of a profile file is about 600 KB: the buffer stays with the
    // thread between writes instead of being mapped and faulted in anew.
    thread_local std::string xml;
    xml.clear();
    if (xml.capacity() > (8u << 20)) xml.shrink_to_fit();
    detail::append_xml(xml, root);
    return write_whole_file(path, xml, Opening::own);
}

}  // namespace tz::plist
