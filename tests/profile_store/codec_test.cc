// The plist codec on its own: values it reads, parity with two independent
// implementations (libplist in process, Python's plistlib in a child
// process) in both directions, and files that must be refused safely.
#include <plist/plist.h>
#include <unistd.h>

#include "plist_codec.h"
#include "store_fixture.h"

namespace tz::test {
namespace {

using plist::DictRef;
using plist::Kind;

// A tree as Python's json.dumps(sort_keys=True, ensure_ascii=False) writes
// it; values the codec does not model are "?".
std::string json(const TZDictionary& dict) {
    auto quoted = [](std::string_view text) {
        std::string out = "\"";
        for (char c : text) out += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        return out + "\"";
    };
    std::string out = "{";
    for (const auto& [key, v] : dict.entries) {
        out += (out.size() > 1 ? ", " : "") + quoted(key) + ": ";
        out += v.kind == Kind::Integer  ? std::to_string(v.integer)
               : v.kind == Kind::String ? quoted(v.text)
               : v.kind == Kind::Dict   ? json(*v.dict)
                                        : "\"?\"";
    }
    return out + "}";
}

// The document {"v": <body>} as json() writes it, or "refused".
std::string json_of(const std::string& body) {
    const DictRef root = plist::parse("<plist><dict><key>v</key>" + body + "</dict></plist>");
    return root ? json(*root) : "refused";
}

const char* const kUtf8 = "Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8";
const char* const kEscaped = "a & b < c > d \"q\" 'a'";
const std::string kSampleJson = std::string("{\"PlistVersion\": 1, \"inner\": {\"empty\": \"\", ") +
                                "\"escaped\": \"a & b < c > d \\\"q\\\" 'a'\", \"max\": 2147483647, " +
                                "\"min\": -2147483648, \"nothing\": {}, \"utf8\": \"" + kUtf8 + "\"}}";

DictRef sample_tree() {
    auto store = std::make_shared<plist::TextStore>();
    DictRef root = DictRef::make(store), inner = DictRef::make(store);
    inner->set_integer("min", INT32_MIN);
    inner->set_integer("max", INT32_MAX);
    inner->set_string("escaped", kEscaped);
    inner->set_string("utf8", kUtf8);
    inner->set_string("empty", "");
    inner->set_dict("nothing", DictRef::make(store));
    root->set_dict("inner", inner);
    root->set_integer("PlistVersion", 1);
    return root;
}

TEST(CodecValues, WhatIsReadAndWhatIsSkipped) {
    EXPECT_EQ(json_of("<integer> -5\n</integer>"), R"({"v": -5})");
    EXPECT_EQ(json_of("<integer>0x1F</integer>"), R"({"v": 31})");
    for (const char* text : {"1.5", "", "12abc", "99999999999999999999", "0x"})
        EXPECT_EQ(json_of(std::string("<integer>") + text + "</integer>"), R"({"v": "?"})") << text;
    for (const char* other : {"<true/>", "<real>1.5</real>", "<data>AAE=</data>", "<array><dict/></array>"})
        EXPECT_EQ(json_of(other), R"({"v": "?"})") << other;
    EXPECT_EQ(json_of("<string>&lt;a&gt; &amp; &#233; &#x41; &quot;</string>"),
              "{\"v\": \"<a> & \xC3\xA9 A \\\"\"}");
    EXPECT_EQ(json_of("<string><![CDATA[<x>]]>&amp;<![CDATA[y]]></string>"), R"({"v": "<x>&y"})");
    EXPECT_EQ(json_of("<string>a\r\nb</string>"), "{\"v\": \"a\nb\"}");
    EXPECT_EQ(json_of("<string/>"), R"({"v": ""})");
    const DictRef twice = plist::parse(
        "<plist><dict><key>n</key><integer>3</integer><key>n</key>"
        "<integer>4</integer><key>t</key><true/></dict></plist>");
    ASSERT_TRUE(twice);
    EXPECT_EQ(json(*twice), R"({"n": 4, "t": "?"})");                          // the last of equal keys wins
    EXPECT_EQ(plist::to_xml(*twice).find("<key>t</key>"), std::string::npos);  // not written
}

TEST(CodecValues, OtherEncodingsAndUtf8Validation) {
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><dict><key>k</key>"
        "<string>value</string></dict></plist>";
    std::string utf16 = "\xFF\xFE";
    for (char c : xml) utf16 += std::string{c, '\0'};
    const DictRef root = plist::parse(utf16);  // its texts outlive the converted document
    ASSERT_TRUE(root);
    EXPECT_EQ(json(*root), R"({"k": "value"})");
    // Declared Latin-1: its byte E9 is no UTF-8 but reads as U+00E9.
    const DictRef latin1 = plist::parse(
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><dict><key>k</key>"
        "<string>caf\xE9</string></dict></plist>");
    ASSERT_TRUE(latin1);
    EXPECT_EQ(json(*latin1), "{\"k\": \"caf\xC3\xA9\"}");
    // After no, eight and nine ASCII bytes: the validator skips ASCII a word at a time.
    for (const std::string ascii : {"", "12345678", "123456789"}) {
        EXPECT_TRUE(is_valid_utf8(ascii + kUtf8 + ascii));
        for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE9"})
            EXPECT_FALSE(is_valid_utf8(ascii + bad + ascii)) << ascii << bad;
    }
}

TEST(CodecValues, WriterLeavesOutWhatXmlCannotHold) {
    auto store = std::make_shared<plist::TextStore>();
    DictRef root = DictRef::make(store);
    root->set_string("cr", "a\rb\r\nc");
    root->set_string("control", std::string("a\x01b"));
    root->set_string("zero", std::string("a\0b", 3));
    root->set_string("latin1", "caf\xE9");
    root->set_integer(std::string("key\x02"), 1);
    root->set_string("fffe", "a\xEF\xBF\xBE");  // U+FFFE and U+FFFF: no XML character
    root->set_integer("\xEF\xBF\xBF", 2);
    root->set_string("kept", "\xEF\xBF\xBD \xEF\xB7\x90 \xF4\x8F\xBF\xBF");  // U+FFFD, U+FDD0, U+10FFFF
    const std::string xml = plist::to_xml(*root);
    const DictRef back = plist::parse(xml);
    ASSERT_TRUE(back) << xml;
    EXPECT_EQ(json(*back),
              "{\"cr\": \"a\rb\r\nc\", \"kept\": \"\xEF\xBF\xBD \xEF\xB7\x90 \xF4\x8F\xBF\xBF\"}");
    TempDir dir;
    write_file(dir.file("out.plist"), xml);
    EXPECT_EQ(run_python("import plistlib,sys\n"
                         "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
                         "print(sorted(d), repr(d['cr']), ascii(d['kept']))\n",
                         dir.file("out.plist")),
              "['cr', 'kept'] 'a\\rb\\r\\nc' '\\ufffd \\ufdd0 \\U0010ffff'\n");
}

// libplist reads our XML, and we read what it writes of that tree, as XML
// and as a binary list: a value either side misread would not come back.
TEST(CodecParity, LibplistBothWays) {
    const std::string ours = plist::to_xml(*sample_tree());
    plist_t root = nullptr;
    plist_from_xml(ours.data(), static_cast<uint32_t>(ours.size()), &root);
    ASSERT_NE(root, nullptr);
    char *xml = nullptr, *bin = nullptr;
    uint32_t xml_length = 0, bin_length = 0;
    plist_to_xml(root, &xml, &xml_length);
    plist_to_bin(root, &bin, &bin_length);
    const std::string theirs_xml(xml, xml_length), theirs_bin(bin, bin_length);
    plist_to_xml_free(xml);
    plist_to_bin_free(bin);
    plist_free(root);
    ASSERT_TRUE(plist::parse(theirs_xml) && plist::parse(theirs_bin));
    EXPECT_EQ(json(*plist::parse(theirs_xml)), kSampleJson);
    EXPECT_EQ(json(*plist::parse(theirs_bin)), kSampleJson);
}

TEST(CodecParity, PlistlibBothWays) {
    TempDir dir;
    const std::string ours = dir.file("ours.plist"), x = dir.file("x.plist"), b = dir.file("b.plist");
    ASSERT_TRUE(plist::write_file(ours.c_str(), *sample_tree()));
    EXPECT_EQ(run_python(R"(import json, plistlib, sys
tree = plistlib.load(open(sys.argv[1], 'rb'))
print(json.dumps(tree, sort_keys=True, ensure_ascii=False), end='')
plistlib.dump(tree, open(sys.argv[2], 'wb'), fmt=plistlib.FMT_XML)
plistlib.dump(tree, open(sys.argv[3], 'wb'), fmt=plistlib.FMT_BINARY)
)",
                         ours + " " + x + " " + b),
              kSampleJson);
    for (const std::string& path : {x, b}) {
        const DictRef root = plist::read_file(path.c_str());
        ASSERT_TRUE(root) << path;
        EXPECT_EQ(json(*root), kSampleJson) << path;
    }
}

TEST(CodecBadFiles, MalformedAndTruncatedInputIsRefused) {
    // Texts that are not UTF-8 make the document malformed: raw bytes, and
    // references to a surrogate or beyond U+10FFFF, in a string or a key.
    for (const char* body : {"", "<key>a</key>", "<integer>1</integer><integer>2</integer>",
                             "<integer>1</integer></plist>", "<dict><key>x</key></dict>",
                             "<string>caf\xE9</string>", "<string>\xF4\x90\x80\x80</string>",
                             "<string>&#xD800;</string>", "<string>&#x110000;</string>",
                             "<dict><key>\xC3</key><integer>1</integer></dict>"})
        EXPECT_EQ(json_of(body), "refused") << body;
    EXPECT_FALSE(plist::parse("<plist><array/></plist>"));
    const std::string xml = plist::to_xml(*sample_tree());
    for (size_t cut = 0; cut < xml.rfind("</plist>"); ++cut) EXPECT_FALSE(plist::parse(xml.substr(0, cut)));

    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    const std::string bytes(bin, length);
    plist_to_bin_free(bin);
    plist_free(root);
    for (size_t cut = 0; cut < bytes.size(); ++cut) (void)plist::parse(bytes.substr(0, cut));
    for (size_t at = bytes.size() - 40; at < bytes.size(); ++at)  // damaged trailer and offsets
        (void)plist::parse(bytes.substr(0, at) + '\xFF' + bytes.substr(at + 1));
}

// `count` binary arrays, each referring `refs` times to the next, the last
// one empty (or, for a cycle, referring back to the first).
std::string nested_binary(uint32_t count, int refs, bool cycle = false) {
    std::string out = "bplist00";
    auto be = [&](uint64_t v, int bytes) {
        for (int s = 8 * (bytes - 1); s >= 0; s -= 8) out += static_cast<char>(v >> s);
    };
    std::vector<uint32_t> offsets;
    for (uint32_t i = 0; i < count; ++i) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        out += static_cast<char>(0xA0 + refs);
        for (int r = 0; r < refs; ++r) be(cycle && i + 1 == count ? 0 : i + 1, 4);
    }
    if (!cycle) offsets.push_back(static_cast<uint32_t>(out.size())), out += '\xA0';
    const size_t table_at = out.size();
    for (uint32_t o : offsets) be(o, 4);
    out += std::string(6, '\0') + "\x04\x04";
    be(offsets.size(), 8), be(0, 8), be(table_at, 8);
    return out;
}

std::string be8(uint64_t v) {
    std::string out;
    for (int s = 56; s >= 0; s -= 8) out += static_cast<char>(v >> s);
    return out;
}

// A binary list of one dictionary, its keys and values given as the bytes of
// their objects ("\x51u" is the string "u", "\x10\x05" the integer 5).
std::string binary_dict(const std::vector<std::pair<std::string, std::string>>& items) {
    std::string out = "bplist00";
    std::vector<size_t> offsets{out.size()};
    out += static_cast<char>(0xD0 + items.size());
    for (size_t ref = 1; ref <= 2 * items.size(); ++ref) out += static_cast<char>(ref);
    for (const bool keys : {true, false})
        for (const auto& [key, value] : items) offsets.push_back(out.size()), out += keys ? key : value;
    const size_t table_at = out.size();
    for (size_t o : offsets) out += static_cast<char>(o);
    return out + std::string(6, '\0') + "\x01\x01" + be8(offsets.size()) + be8(0) + be8(table_at);
}

// libplist keeps the low 64 bits of a 16-byte integer: one outside int64 is
// skipped like any integer outside 32 bits, and the rest of the file is read.
TEST(CodecBinary, WideIntegersAreSkippedOneByOne) {
    const auto wide = [](uint64_t high, uint64_t low) { return "\x14" + be8(high) + be8(low); };
    const struct {
        std::string value;
        const char* json;
    } cases[] = {
        {wide(0, ~0ull), R"("?")"},       // 2^64 - 1, which libplist reads as -1
        {wide(0, 1ull << 63), R"("?")"},  // 2^63
        {wide(~0ull, 0), R"("?")"},       // -2^64
        {wide(~0ull, ~0ull), "-1"},       // sign-extended: fits
        {wide(~0ull, 1ull << 63), "-9223372036854775808"},
        {wide(0, INT64_MAX), "9223372036854775807"},
    };
    for (const auto& c : cases) {
        const DictRef root =
            plist::parse(binary_dict({{"\x51" "a", "\x10\x05"}, {"\x51v", c.value}, {"\x51z", "\x51x"}}));
        ASSERT_TRUE(root) << c.json;
        EXPECT_EQ(json(*root), std::string(R"({"a": 5, "v": )") + c.json + R"(, "z": "x"})");
    }
    // Each value is matched to its own object: of equal keys the last wins.
    const DictRef first = plist::parse(binary_dict({{"\x51" "d", wide(0, ~0ull)}, {"\x51" "d", "\x10\x07"}}));
    const DictRef last = plist::parse(binary_dict({{"\x51" "d", "\x10\x07"}, {"\x51" "d", wide(0, ~0ull)}}));
    ASSERT_TRUE(first && last);
    EXPECT_EQ(json(*first), R"({"d": 7})");
    EXPECT_EQ(json(*last), R"({"d": "?"})");
    // In a nested dictionary, as plistlib writes it.
    TempDir dir;
    run_python("import plistlib, sys\nplistlib.dump({'a': 1, 'n': {'big': 2**64 - 1, 'k': -3}}, "
               "open(sys.argv[1], 'wb'), fmt=plistlib.FMT_BINARY)\n",
               dir.file("wide.plist"));
    const DictRef nested = plist::read_file(dir.file("wide.plist").c_str());
    ASSERT_TRUE(nested);
    EXPECT_EQ(json(*nested), R"({"a": 1, "n": {"big": "?", "k": -3}})");
    // Refused: a key that is not a string or holds a zero (libplist would
    // abort on either), and a 16-byte integer cut short.
    for (const auto& items : std::vector<std::vector<std::pair<std::string, std::string>>>{
             {{"\x10\x75", "\x10\x01"}},
             {{std::string("\x51\0", 2), "\x10\x01"}},
             {{"\x51u", "\x14" + be8(0)}}})
        EXPECT_FALSE(plist::parse(binary_dict(items)));
}

TEST(CodecBadFiles, NestingAndSizeAreBounded) {
    std::string deep = "<plist>", arrays = "<plist><dict><key>a</key>";
    for (int i = 0; i < 100000; ++i) deep += "<dict><key>a</key>", arrays += "<array>";
    deep += "<dict/>";
    for (int i = 0; i < 100000; ++i) deep += "</dict>", arrays += "</array>";
    EXPECT_FALSE(plist::parse(deep + "</plist>"));
    const DictRef kept = plist::parse(arrays + "</dict></plist>");  // arrays are not descended
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->find("a")->kind, Kind::Other);
    // Refused before libplist, whose reader recurses once per level.
    EXPECT_FALSE(plist::parse(nested_binary(1000000, 1)));
    EXPECT_FALSE(plist::parse(nested_binary(60, 2)));  // 2^60 nodes once expanded
    EXPECT_FALSE(plist::parse(nested_binary(5, 1, true)));

    TempDir dir;
    const std::string path = dir.file("huge.plist");
    write_file(path, "<plist><dict>");
    ASSERT_EQ(::truncate(path.c_str(), 100 << 20), 0);  // sparse, 100 MB
    EXPECT_FALSE(plist::read_file(path.c_str()));
    EXPECT_FALSE(plist::read_file(dir.path().c_str()));
    // A large acceptable file: one 8 MB string, cut when read into a field.
    write_file(path,
               "<plist><dict><key>s</key><string>" + std::string(8 << 20, 'x') + "</string></dict></plist>");
    char field[32];
    ReadDictionaryStringEntry(plist::read_file(path.c_str()).get(), "s", field);
    EXPECT_EQ(std::string(field), std::string(31, 'x'));
    EXPECT_FALSE(plist::write_file(dir.file("no/such.plist").c_str(), *sample_tree()));
    EXPECT_FALSE(plist::write_file("/dev/full", *sample_tree()));
}

}  // namespace
}  // namespace tz::test
