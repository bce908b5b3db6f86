// The plist codec: values read and skipped, files refused, bounds, and the writer's output read back by plistlib.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "plist_codec.h"
#include "profile_tables.h"
#include "utf8.h"

namespace tz::test {
namespace {

using plist::DictRef;
using Items = std::vector<std::pair<std::string, std::string>>;

// A tree as Python's json.dumps(sort_keys=True, ensure_ascii=False) writes it; values not modelled are "?".
std::string json(const TZDictionary& dict) {
    auto quoted = [](std::string_view text, std::string out = "\"") {
        for (char c : text) out += c == '\r' ? "\\r" : c == '\n' ? "\\n" : c == '"' ? "\\\"" : std::string{c};
        return out + "\"";
    };
    std::string out = "{";
    for (const auto& [key, v] : dict.entries)
        out += (out.size() > 1 ? ", " : "") + quoted(key) + ": " +
            (v.kind == plist::Kind::Integer ? std::to_string(v.integer) : v.kind == plist::Kind::String ? quoted(v.text)
             : v.kind == plist::Kind::Dict  ? json(*v.dict) : "\"?\"");
    return out + "}";
}
std::string json_of(const std::string& bytes) {
    const DictRef root = plist::parse(bytes); return root ? json(*root) : "refused";
}
std::string v(const std::string& body) { return "<plist><dict><key>v</key>" + body + "</dict></plist>"; }
std::string be(uint64_t value, int bytes, std::string out = "") {
    for (int s = 8 * (bytes - 1); s >= 0; s -= 8) out += static_cast<char>(s < 64 ? value >> s : 0);
    return out;
}
// A binary list of the given objects, object 0 the root; references `w` bytes wide, offsets `ow`.
std::string bplist(const std::vector<std::string>& objects, int w = 4, int ow = 4, std::string out = "bplist00",
                   std::string table = "") {
    for (const std::string& o : objects) table += be(out.size(), ow), out += o;
    return out + table + std::string(6, '\0') + be(ow, 1) + be(w, 1) + be(objects.size(), 8) + be(0, 8) +
           be(out.size(), 8);
}
// One dictionary, its keys and values given as objects ("\x51u" is "u", "\x10\x05" the integer 5).
std::string binary_dict(const Items& items, int w = 4, int ow = 4) {
    std::vector<std::string> objects{std::string(1, static_cast<char>(0xD0 + items.size()))};
    for (size_t r = 1; r <= 2 * items.size(); ++r) objects[0] += be(r, w);
    for (const bool keys : {true, false}) for (const auto& [key, value] : items) objects.push_back(keys ? key : value);
    return bplist(objects, w, ow);
}
// {"a": x, "b": [x]} or the reverse; x: n arrays (or dicts), each referring `refs` times to the next (cyclic: to x).
std::string chain(uint32_t n, int refs = 1, bool cycle = false, bool dicts = false, bool wrapped_first = false) {
    std::vector<std::string> o{"\xD2" + be(1, 4) + be(2, 4) + be(wrapped_first ? 3 : 4, 4) +
                                   be(wrapped_first ? 4 : 3, 4), "\x51" "a", "\x51" "b", "\xA1" + be(4, 4)};
    for (uint32_t i = 0; i + 1 < n; ++i)
        for (int r = 0; r < refs; ++r)
            (r ? o.back() : o.emplace_back(dicts ? "\xD1" + be(1, 4) : std::string(1, static_cast<char>(0xA0 + refs))))
                += be(5 + i, 4);
    o.push_back(cycle ? "\xA1" + be(4, 4) : dicts ? "\xD0" : "\xA0");
    return bplist(o);
}
std::string xml_dicts(int n, std::string open = "<plist>", std::string close = "") {
    for (int i = 0; i < n; ++i) open += "<dict><key>a</key>", close += "</dict>";
    return open + "<dict/>" + close + "</plist>";
}

TEST(CodecValues, XmlReadSkippedAndRefusedAndUtf8Validation) {
    Items rows = {
        {v("<integer> -5\n</integer>"), R"({"v": -5})"}, {v("<integer>+0x1F</integer>"), R"({"v": 31})"},
        {v("<integer>-9223372036854775808</integer>"), R"({"v": -9223372036854775808})"},
        {v("<integer>9223372036854775807</integer>"), R"({"v": 9223372036854775807})"},
        {v("<string>&lt;a&gt; &amp; &#233; &#x41; &quot;</string>"), "{\"v\": \"<a> & \xC3\xA9 A \\\"\"}"},
        {v("<string><![CDATA[<x>]]>&amp;<![CDATA[y]]></string>"), R"({"v": "<x>&y"})"},
        {v("<string>a\r\nb</string>"), R"({"v": "a\nb"})"},
        {v("<integer>3</integer><key>a</key><string/><key>v</key><integer>4</integer>"), R"({"a": "", "v": 4})"},
        {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + v("<string>caf\xE9</string>"), "{\"v\": \"caf\xC3\xA9\"}"},
        {"<dict/>", "{}"}, {"<plist><array/></plist>", "refused"}};
    for (const char* other : {"<integer>9223372036854775808</integer>", "<integer>-9223372036854775809</integer>",
                              "<integer></integer>", "<integer>12abc</integer>", "<data>AAE=</data>",
                              "<array><dict/></array>", "<string>a<b/>c</string>", "<keys/>"})
        rows.emplace_back(v(other), R"({"v": "?"})");
    for (const char* malformed : {
         "", "<key>a</key>", "<integer>1</integer><integer>2</integer>", "<integer>1</integer></plist>",
         "<dict><key>x</key></dict>", "<string>caf\xE9</string>", "<string>&#xD800;</string>",  // not UTF-8
         "<dict><key>\xC3</key><integer>1</integer></dict>", "<dict><key>k<b/></key><integer>1</integer></dict>"})
        rows.emplace_back(v(malformed), "refused");
    for (const auto& [bytes, expected] : rows) EXPECT_EQ(json_of(bytes), expected) << bytes;
    const char* good[] = {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
                          "\xF4\x8F\xBF\xBF"};
    const char* bad[] = {"\x80", "\xC3", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
                         "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xC3\xC0", "\xE2\x82\xC0"};
    for (const std::string ascii : {"", "12345678", "123456789"}) {  // the validator skips ASCII 8 bytes at a time
        for (const char* g : good) EXPECT_TRUE(is_valid_utf8(ascii + g + ascii)) << ascii << g;
        for (const char* b : bad) EXPECT_FALSE(is_valid_utf8(ascii + b + ascii)) << ascii << b;
    }
}

// The writer's file as plistlib reads it, and plistlib's binary form of it as we read it.
TEST(CodecParity, PlistlibReadsWhatIsWrittenAndWritesWhatIsRead) {
    auto store = std::make_shared<plist::TextStore>();
    DictRef root = DictRef::make(store), inner = DictRef::make(store);
    inner->set_integer("max", 1), inner->set_integer("max", INT64_MAX), inner->set_integer("min", INT64_MIN);
    inner->set_string("escaped", "a & b < c > d \"q\" 'a'"), inner->set_string("cr", "a\rb\r\nc");
    inner->set_string("kept", "\xEF\xBF\xBD \xEF\xB7\x90 \xF4\x8F\xBF\xBF");  // U+FFFD, U+FDD0, U+10FFFF
    inner->set_string("empty", ""), inner->set_dict("nothing", DictRef::make(store));
    inner->set("other", plist::Value{});  // not modelled: not written
    root->set_dict("inner", inner), root->set_integer("PlistVersion", 1);
    for (const char* text : {"a\x01" "b", "caf\xE9", "a\xEF\xBF\xBE", "a\xEF\xBF\xBF"})  // no XML text
        root->set_string(text, "x"), root->set_string(std::string("t") + text, text);
    root->set_string(std::string("z\0", 2), "x"), root->set_string("zero", std::string("a\0b", 3));
    const std::string expected =
        R"({"PlistVersion": 1, "inner": {"cr": "a\rb\r\nc", "empty": "", "escaped": "a & b < c > d \"q\" 'a'", )"
        "\"kept\": \"\xEF\xBF\xBD \xEF\xB7\x90 \xF4\x8F\xBF\xBF\", \"max\": 9223372036854775807, "
        "\"min\": -9223372036854775808, \"nothing\": {}}}";
    const TempDir dir;
    const std::string ours = dir.file("o.plist"), b = dir.file("b.plist");
    ASSERT_TRUE(plist::write_file(ours.c_str(), *root));
    EXPECT_EQ(json_of(read_file(ours)), expected);
    ASSERT_EQ(std::system(("/usr/bin/python3 -c '" R"(import json, plistlib, sys
tree = plistlib.load(open(sys.argv[1], "rb"))
open(sys.argv[2], "w", encoding="utf-8").write(json.dumps(tree, sort_keys=True, ensure_ascii=False))
plistlib.dump(tree, open(sys.argv[3], "wb"), fmt=plistlib.FMT_BINARY)
)" "' " + ours + " " + dir.file("j") + " " + b).c_str()), 0);
    EXPECT_EQ(read_file(dir.file("j")), expected);
    EXPECT_EQ(json_of(read_file(b)), expected);  // a damaged binary file is the plist fuzzer's

    const std::string xml = read_file(ours);  // cut short: refused
    for (size_t cut = 0; cut < xml.rfind("</plist>"); ++cut) EXPECT_FALSE(plist::parse(xml.substr(0, cut)));
    ASSERT_EQ(::truncate(ours.c_str(), 100 << 20), 0);  // sparse, 100 MB
    EXPECT_FALSE(plist::read_file(ours.c_str()) || plist::read_file(dir.path().c_str()));
}

// libplist keeps the low 64 bits of a 16-byte integer: one outside int64 is skipped, the rest read.
TEST(CodecBadFiles, WideIntegersSkippedBadKeysRefusedNestingAndSizeBounded) {
    const auto wide = [](uint64_t high, uint64_t low) { return "\x14" + be(high, 8) + be(low, 8); };
    const std::string a = "\x51" "a", five = "\x10\x05";
    const std::pair<Items, std::string> rows[] = {
        {{{a, five}, {"\x51v", wide(0, 1ull << 63)}, {"\x51z", "\x51x"}}, R"({"a": 5, "v": "?", "z": "x"})"},
        {{{a, wide(~0ull, 0)}}, R"({"a": "?"})"}, {{{a, wide(~0ull, ~0ull)}}, R"({"a": -1})"},
        {{{a, wide(~0ull, 1ull << 63)}}, R"({"a": -9223372036854775808})"},
        {{{a, wide(0, INT64_MAX)}}, R"({"a": 9223372036854775807})"},
        {{{a, "\x13" + be(~0ull - 4, 8)}}, R"({"a": -5})"},  // 8-byte widths, this row and the next
        {{{"\x5F\x13" + be(15, 8) + "fifteen letters", five}}, R"({"fifteen letters": 5})"},
        {{{a, wide(0, ~0ull)}, {a, "\x10\x07"}}, R"({"a": 7})"},  // each value matched to its own object
        {{{a, "\x10\x07"}, {a, wide(0, ~0ull)}}, R"({"a": "?"})"}, {{{std::string("\x61\0a", 3), five}}, R"({"a": 5})"},
        {{{"\x10\x75", five}}, "refused"}, {{{std::string("\x51\0", 2), five}}, "refused"},  // keys libplist aborts on
        {{{std::string("\x62\0a\0\0", 5), five}}, "refused"}, {{{a, "\x14"}}, "refused"}};  // the last cut short
    for (const auto& [items, expected] : rows) EXPECT_EQ(json_of(binary_dict(items)), expected) << expected;
    const auto one = [&](int w, int ow, uint64_t table = 0) {  // {"a": 5}; `table` moves the offset table's start
        std::string bytes = binary_dict({{a, five}}, w, ow);
        return table ? bytes.replace(bytes.size() - 8, 8, be(table, 8)) : bytes;
    };
    const std::pair<std::string, const char*> files[] = {  // widths 1 to 8; a table in the header or far past the end
        {one(1, 8), R"({"a": 5})"}, {one(8, 1), R"({"a": 5})"}, {one(9, 8), "refused"}, {one(8, 9), "refused"},
        {one(0, 1), "refused"}, {one(1, 0), "refused"}, {one(4, 4, 7), "refused"}, {one(4, 4, 1ull << 40), "refused"},
        {bplist({"\xA0"}), "refused"}};  // the root an array
    for (const auto& [bytes, read] : files) EXPECT_EQ(json_of(bytes), read) << ::testing::PrintToString(bytes);

    EXPECT_TRUE(plist::parse(xml_dicts(63)) && !plist::parse(xml_dicts(64)) && !plist::parse(xml_dicts(100000)));
    std::string arrays = "<plist><dict><key>a</key>";
    for (int i = 0; i < 200000; ++i) arrays += i < 100000 ? "<array>" : "</array>";
    EXPECT_EQ(json_of(arrays + "</dict></plist>"), R"({"a": "?"})");  // arrays are not descended
    for (const std::string& bytes : {chain(126), chain(126, 1, false, false, true)})
        EXPECT_EQ(json_of(bytes), R"({"a": "?", "b": "?"})");
    const auto unknown = [](const std::string& text) { return std::count(text.begin(), text.end(), '?'); };  // "b"
    EXPECT_TRUE(unknown(json_of(chain(63, 1, false, true))) == 1 && unknown(json_of(chain(64, 1, false, true))) == 2);
    // Refused before libplist, whose reader recurses once per level and expands shared objects (21 arrays of two
    // references each: the shortest such chain past the expansion limit).
    for (const std::string& bytes : {chain(127), chain(1000000), chain(21, 2), chain(5, 1, true)})
        EXPECT_FALSE(plist::parse(bytes));
}

}  // namespace
}  // namespace tz::test
