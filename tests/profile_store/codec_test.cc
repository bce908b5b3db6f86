// The plist codec on its own: values it reads and writes, parity with two
// independent implementations (libplist in process, Python's plistlib in a
// child process) in both directions, and files that must be refused safely.
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "plist_codec.h"
#include "store_fixture.h"

namespace tz::test {
namespace {

using plist::DictRef;
using plist::Kind;

// ---- helpers ------------------------------------------------------------------

// JSON text of a tree as Python's json.dumps(sort_keys=True,
// ensure_ascii=False) writes it; values the codec does not model are "?".
std::string json(const TZDictionary& dict);

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string json(const TZDictionary& dict) {
    std::string out = "{";
    for (const auto& entry : dict.entries) {
        if (out.size() > 1) out += ", ";
        out += json_string(entry.key) + ": ";
        const auto& v = entry.value;
        if (v.kind == Kind::Integer)
            out += std::to_string(v.integer);
        else if (v.kind == Kind::String)
            out += json_string(v.text);
        else if (v.kind == Kind::Dict)
            out += json(*v.dict);
        else
            out += "\"?\"";
    }
    return out + "}";
}

DictRef parse_text(const std::string& text) { return plist::parse(text); }

// A document with `body` as the value of key "v" in the root dictionary.
DictRef parse_value(const std::string& body) {
    return parse_text("<plist version=\"1.0\"><dict><key>v</key>" + body + "</dict></plist>");
}

const plist::Value* value_of(const DictRef& root) { return root ? root->find("v") : nullptr; }

// Runs a Python snippet with argv[1..]; returns its standard output.
std::string run_python(const TempDir& dir, const std::string& code, const std::string& args) {
    const std::string script = dir.file("script.py");
    write_file(script, code);
    const std::string command = std::string(TZ_PYTHON3) + " " + script + " " + args;
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return "popen failed";
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, got);
    const int status = ::pclose(pipe);
    if (status != 0) out += "\nexit status " + std::to_string(status);
    return out;
}

// A tree with every kind of value the profile file uses and some awkward text.
DictRef sample_tree() {
    auto store = std::make_shared<plist::TextStore>();
    DictRef root = DictRef::make(store);
    DictRef inner = DictRef::make(store);
    inner->set_integer("min", -2147483647 - 1);
    inner->set_integer("max", 2147483647);
    inner->set_integer("zero", 0);
    inner->set_string("escaped", "a & b < c > d \"q\" 'a'");
    inner->set_string("utf8", "Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8");
    inner->set_string("empty", "");
    inner->set_dict("nothing", DictRef::make(store));
    root->set_dict("inner", inner);
    root->set_integer("PlistVersion", 1);
    root->set_string("spaces", "  two  ");
    return root;
}

const char* const kSampleJson =
    "{\"PlistVersion\": 1, \"inner\": {\"empty\": \"\", \"escaped\": \"a & b < c > d \\\"q\\\" "
    "'a'\", \"max\": 2147483647, \"min\": -2147483648, \"nothing\": {}, \"utf8\": \"Caf\xC3\xA9 "
    "\xE2\x82\xAC \xF0\x9F\x96\xA8\", \"zero\": 0}, \"spaces\": \"  two  \"}";

// ---- values --------------------------------------------------------------------

TEST(CodecValues, IntegersAcceptSignHexAndWhitespaceOnly) {
    const std::pair<const char*, long long> accepted[] = {
        {"<integer>+5</integer>", 5},        {"<integer>-5</integer>", -5},
        {"<integer> 7\n</integer>", 7},      {"<integer>0x1F</integer>", 31},
        {"<integer>-0</integer>", 0},        {"<integer>4294967301</integer>", 4294967301LL},
        {"<integer>-9223372036854775808</integer>", -9223372036854775807LL - 1}};
    for (const auto& [xml, expected] : accepted) {
        const DictRef root = parse_value(xml);
        ASSERT_NE(value_of(root), nullptr) << xml;
        EXPECT_EQ(value_of(root)->kind, Kind::Integer) << xml;
        EXPECT_EQ(value_of(root)->integer, expected) << xml;
    }
    for (const char* xml : {"<integer>1.5</integer>", "<integer/>", "<integer>abc</integer>",
                            "<integer>12abc</integer>", "<integer>99999999999999999999</integer>",
                            "<integer>- 5</integer>", "<integer>0x</integer>"}) {
        const DictRef root = parse_value(xml);
        ASSERT_NE(value_of(root), nullptr) << xml;
        EXPECT_EQ(value_of(root)->kind, Kind::Other) << xml;
    }
    // Wider than 32 bits: never cut to the low 32 bits.
    int32_t target = 17;
    ReadDictionaryIntEntry(parse_value("<integer>4294967301</integer>").get(), "v", &target);
    EXPECT_EQ(target, 17);
    ReadDictionaryIntEntry(parse_value("<string>5</string>").get(), "v", &target);
    EXPECT_EQ(target, 17);
}

TEST(CodecValues, StringsDecodeEntitiesCdataAndKeepWhitespace) {
    const std::pair<const char*, const char*> cases[] = {
        {"<string>&lt;a&gt; &amp; &#233; &#x41; &quot;&apos;</string>", "<a> & \xC3\xA9 A \"'"},
        {"<string><![CDATA[<x> & y]]></string>", "<x> & y"},
        {"<string>a<![CDATA[b]]>c</string>", "abc"},
        {"<string/>", ""},
        {"<string></string>", ""},
        {"<string> </string>", " "},
        {"<string>line\r\nnext</string>", "line\nnext"}};
    for (const auto& [xml, expected] : cases) {
        const DictRef root = parse_value(xml);
        ASSERT_NE(value_of(root), nullptr) << xml;
        ASSERT_EQ(value_of(root)->kind, Kind::String) << xml;
        EXPECT_EQ(value_of(root)->text, expected) << xml;
    }
}

TEST(CodecValues, OtherValuesAreSkippedAndNotWritten) {
    const char* body =
        "<dict><key>t</key><true/><key>f</key><false/><key>r</key><real>1.5</real>"
        "<key>d</key><data>AAE=</data><key>date</key><date>2020-01-01T00:00:00Z</date>"
        "<key>a</key><array><integer>1</integer><dict><key>x</key></dict></array>"
        "<key>u</key><unknown>5</unknown><key>n</key><integer>3</integer></dict>";
    const DictRef root = parse_value(body);
    ASSERT_NE(value_of(root), nullptr);
    const TZDictionary& inner = *value_of(root)->dict;
    EXPECT_EQ(TZDictionaryGetCount(&inner), 8u);
    EXPECT_EQ(inner.find("u")->kind, Kind::Other);
    int32_t n = 0;
    ReadDictionaryIntEntry(&inner, "t", &n);
    ReadDictionaryIntEntry(&inner, "n", &n);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(json(*parse_text(plist::to_xml(*root))), "{\"v\": {\"n\": 3}}");
}

TEST(CodecValues, DuplicateKeysLastOneWins) {
    const DictRef root = parse_text(
        "<plist><dict><key>b</key><integer>1</integer><key>a</key><integer>2</integer>"
        "<key>b</key><integer>3</integer></dict></plist>");
    ASSERT_TRUE(root);
    EXPECT_EQ(json(*root), "{\"a\": 2, \"b\": 3}");
}

TEST(CodecValues, Utf16InputIsConverted) {
    const std::string utf8 =
        "<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><dict><key>k</key>"
        "<string>value</string></dict></plist>";
    std::string utf16 = "\xFF\xFE";
    for (char c : utf8) utf16 += std::string{c, '\0'};
    DictRef root = plist::parse(utf16);
    ASSERT_TRUE(root);
    EXPECT_EQ(json(*root), "{\"k\": \"value\"}");
}

TEST(CodecValues, Utf8Validation) {
    EXPECT_TRUE(plist::is_valid_utf8("plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8"));
    for (const char* bad : {"\xC3", "\xC3\x28", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                            "\xF4\x90\x80\x80", "\xFF", "\x80"})
        EXPECT_FALSE(plist::is_valid_utf8(bad)) << bad;
}

// ---- parity with libplist ---------------------------------------------------------

TEST(CodecParity, LibplistReadsWhatWeWrite) {
    const std::string xml = plist::to_xml(*sample_tree());
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    ASSERT_NE(root, nullptr);
    plist_t inner = plist_dict_get_item(root, "inner");
    ASSERT_NE(inner, nullptr);
    uint64_t number = 0;
    plist_get_uint_val(plist_dict_get_item(inner, "min"), &number);
    EXPECT_EQ(static_cast<int64_t>(number), -2147483648LL);
    plist_get_uint_val(plist_dict_get_item(inner, "max"), &number);
    EXPECT_EQ(number, 2147483647u);
    char* text = nullptr;
    plist_get_string_val(plist_dict_get_item(inner, "escaped"), &text);
    EXPECT_STREQ(text, "a & b < c > d \"q\" 'a'");
    std::free(text);
    plist_get_string_val(plist_dict_get_item(inner, "utf8"), &text);
    EXPECT_STREQ(text, "Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8");
    std::free(text);
    EXPECT_EQ(plist_dict_get_size(plist_dict_get_item(inner, "nothing")), 0u);
    plist_free(root);
}

TEST(CodecParity, WeReadWhatLibplistWritesInBothForms) {
    plist_t root = plist_new_dict();
    plist_t inner = plist_new_dict();
    plist_dict_set_item(inner, "min", plist_new_uint(static_cast<uint64_t>(-2147483648LL)));
    plist_dict_set_item(inner, "max", plist_new_uint(2147483647));
    plist_dict_set_item(inner, "zero", plist_new_uint(0));
    plist_dict_set_item(inner, "escaped", plist_new_string("a & b < c > d \"q\" 'a'"));
    plist_dict_set_item(inner, "utf8", plist_new_string("Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x96\xA8"));
    plist_dict_set_item(inner, "empty", plist_new_string(""));
    plist_dict_set_item(inner, "nothing", plist_new_dict());
    plist_dict_set_item(root, "inner", inner);
    plist_dict_set_item(root, "PlistVersion", plist_new_uint(1));
    plist_dict_set_item(root, "spaces", plist_new_string("  two  "));
    char* xml = nullptr;
    char* bin = nullptr;
    uint32_t xml_length = 0, bin_length = 0;
    plist_to_xml(root, &xml, &xml_length);
    plist_to_bin(root, &bin, &bin_length);
    const std::string xml_text(xml, xml_length), bin_bytes(bin, bin_length);
    plist_to_xml_free(xml);
    plist_to_bin_free(bin);
    plist_free(root);

    const DictRef from_xml = plist::parse(xml_text);
    ASSERT_TRUE(from_xml);
    EXPECT_EQ(json(*from_xml), kSampleJson);
    const DictRef from_bin = plist::parse(bin_bytes);
    ASSERT_TRUE(from_bin);
    EXPECT_EQ(json(*from_bin), kSampleJson);
}

// ---- parity with Python's plistlib --------------------------------------------------

const char* const kPythonDump = R"(import json, plistlib, sys
with open(sys.argv[1], 'rb') as f:
    print(json.dumps(plistlib.load(f), sort_keys=True, ensure_ascii=False), end='')
)";

TEST(CodecParity, PlistlibReadsWhatWeWrite) {
    TempDir dir;
    const std::string path = dir.file("ours.plist");
    ASSERT_TRUE(plist::write_file(path.c_str(), *sample_tree()));
    EXPECT_EQ(run_python(dir, kPythonDump, path), kSampleJson);
}

TEST(CodecParity, PlistlibReadsAFullProfileFile) {
    TempDir dir;
    const std::string path = dir.file("profile.plist");
    TZ_PLIST_PROFILE_PATH = path.c_str();
    auto rgb = empty_table();
    rgb->Entry[0] = entry(3, 2, "OFFICE.ICC", 4, 1, "Office RGB");
    rgb->Entry[1] = entry(7, 2, "PRESS2.ICM", 5, 2, "Press 2");
    rgb->iNum = 2;
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), empty_table().get(), empty_table().get()), 0);
    TZ_PLIST_PROFILE_PATH = nullptr;
    const std::string summary = run_python(dir, R"(import plistlib, sys
p = plistlib.load(open(sys.argv[1], 'rb'))
r = p['RGB']
print(p['PlistVersion'], r['iNum'], r['FileName']['FileName0001'], r['ProfileName']['ProfileName0000'],
      r['Location']['Location0001'], len(r['InMenu']), len(p['SIM']['ProfileName']),
      repr(p['DST']['FileName']['FileName0499']), sorted(r.keys()), end='')
)",
                                           path);
    EXPECT_EQ(summary,
              "1 2 PRESS2.ICM Office RGB 5 500 500 '' ['FileName', 'InMenu', 'IndexOnDevice', "
              "'Location', 'ProfileClass', 'ProfileName', 'iNum']");
}

TEST(CodecParity, WeReadWhatPlistlibWritesInBothForms) {
    TempDir dir;
    const std::string written = run_python(dir, R"(import plistlib, sys
tree = {'PlistVersion': 1, 'spaces': '  two  ', 'inner': {
    'min': -2147483648, 'max': 2147483647, 'zero': 0, 'empty': '', 'nothing': {},
    'escaped': 'a & b < c > d "q" \'a\'', 'utf8': 'Caf\u00e9 \u20ac \U0001F5A8'}}
plistlib.dump(tree, open(sys.argv[1], 'wb'), fmt=plistlib.FMT_XML)
plistlib.dump(tree, open(sys.argv[2], 'wb'), fmt=plistlib.FMT_BINARY)
)",
                                           dir.file("x.plist") + " " + dir.file("b.plist"));
    ASSERT_EQ(written, "");
    for (const char* name : {"x.plist", "b.plist"}) {
        const DictRef root = plist::read_file(dir.file(name).c_str());
        ASSERT_TRUE(root) << name;
        EXPECT_EQ(json(*root), kSampleJson) << name;
    }
}

// ---- bad files -------------------------------------------------------------------------

TEST(CodecBadFiles, MalformedXmlAndWrongShapesAreRefused) {
    for (const char* text :
         {"", "garbage", "<plist>", "<plist><dict><key>a</key><integer>1</integer></plist>",
          "<plist><dict><key>a</key></dict></plist>",                       // key without value
          "<plist><dict><integer>1</integer></dict></plist>",               // value without key
          "<plist><dict><key>a</key><key>b</key></dict></plist>",           // key as a value
          "<plist><dict><key>a</key><dict><key>x</key></dict></dict></plist>",  // nested malformed
          "<plist><array/></plist>", "<plist></plist>", "<plist><string>x</string></plist>",
          "<plist><dict><key>a<b/></key><integer>1</integer></dict></plist>"})
        EXPECT_FALSE(parse_text(text)) << text;
    // A bare dictionary without <plist> is accepted.
    EXPECT_TRUE(parse_text("<dict><key>a</key><integer>1</integer></dict>"));
}

TEST(CodecBadFiles, TruncatedFilesNeverCrash) {
    const std::string xml = plist::to_xml(*sample_tree());
    const size_t end = xml.rfind("</plist>");
    for (size_t cut = 0; cut < end; ++cut)
        EXPECT_FALSE(parse_text(xml.substr(0, cut))) << cut;

    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    const std::string bytes(bin, length);
    plist_to_bin_free(bin);
    plist_free(root);
    ASSERT_TRUE(plist::parse(bytes));
    for (size_t cut = 0; cut < bytes.size(); ++cut) (void)plist::parse(bytes.substr(0, cut));
    // Damaged trailers and offset tables.
    for (size_t at = bytes.size() - 40; at < bytes.size(); ++at) {
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(0xFF);
        (void)plist::parse(damaged);
    }
}

// A binary plist of `count` arrays, each holding `refs` references to the
// next; the last one is empty. Depth `count`, and 2^count leaves when refs = 2.
std::string nested_binary(uint32_t count, int refs, bool cycle = false) {
    std::string out = "bplist00";
    std::vector<uint32_t> offsets;
    auto be32 = [&](uint32_t v) {
        for (int s = 24; s >= 0; s -= 8) out += static_cast<char>(v >> s);
    };
    for (uint32_t i = 0; i < count; ++i) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        out += static_cast<char>(0xA0 + refs);
        for (int r = 0; r < refs; ++r) be32(cycle && i + 1 == count ? 0 : i + 1);
    }
    if (!cycle) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        out += static_cast<char>(0xA0);
    }
    const uint32_t table = static_cast<uint32_t>(out.size());
    for (uint32_t o : offsets) be32(o);
    out += std::string(6, '\0') + "\x04\x04";
    auto be64 = [&](uint64_t v) {
        for (int s = 56; s >= 0; s -= 8) out += static_cast<char>(v >> s);
    };
    be64(offsets.size());
    be64(0);
    be64(table);
    return out;
}

TEST(CodecBadFiles, DeepNestingIsBoundedInBothForms) {
    std::string deep_dict = "<plist>";
    for (int i = 0; i < 100000; ++i) deep_dict += "<dict><key>a</key>";
    deep_dict += "<dict/>";
    for (int i = 0; i < 100000; ++i) deep_dict += "</dict>";
    EXPECT_FALSE(parse_text(deep_dict + "</plist>"));

    // Arrays are not descended: the value is kept as an opaque one.
    std::string deep_array = "<plist><dict><key>a</key>";
    for (int i = 0; i < 100000; ++i) deep_array += "<array>";
    for (int i = 0; i < 100000; ++i) deep_array += "</array>";
    const DictRef arrays = parse_text(deep_array + "</dict></plist>");
    ASSERT_TRUE(arrays);
    EXPECT_EQ(arrays->find("a")->kind, Kind::Other);

    // Refused before libplist, whose reader would recurse a million levels.
    EXPECT_FALSE(plist::parse(nested_binary(1000000, 1)));
    EXPECT_FALSE(plist::parse(nested_binary(60, 2)));        // 2^60 nodes once expanded
    EXPECT_FALSE(plist::parse(nested_binary(5, 1, true)));   // a cycle
}

TEST(CodecBadFiles, HugeFilesAreRefusedUnread) {
    TempDir dir;
    const std::string path = dir.file("huge.plist");
    write_file(path, "<plist><dict>");
    ASSERT_EQ(::truncate(path.c_str(), 100 << 20), 0);  // sparse, 100 MB
    EXPECT_FALSE(plist::read_file(path.c_str()));
    EXPECT_FALSE(plist::read_file(dir.path().c_str()));  // a folder
    EXPECT_FALSE(plist::read_file(dir.file("missing").c_str()));

    // A large but acceptable file: one 8 MB string, cut when read into a field.
    const std::string big = "<plist><dict><key>s</key><string>" + std::string(8 << 20, 'x') +
                            "</string></dict></plist>";
    write_file(path, big);
    const DictRef root = plist::read_file(path.c_str());
    ASSERT_TRUE(root);
    char field[32];
    ReadDictionaryStringEntry(root.get(), "s", field);
    EXPECT_EQ(std::string(field), std::string(31, 'x'));
}

TEST(CodecWrite, UnwritablePlacesFail) {
    TempDir dir;
    EXPECT_FALSE(plist::write_file(dir.file("no/such/folder.plist").c_str(), *sample_tree()));
    EXPECT_FALSE(plist::write_file(dir.path().c_str(), *sample_tree()));
    EXPECT_FALSE(plist::write_file("/dev/full", *sample_tree()));
}

}  // namespace
}  // namespace tz::test
