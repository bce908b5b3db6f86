// The profile store on files: reads, writes, the mapping, the tidy passes and the library file functions.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <vector>

#include "profile_tables.h"

namespace tz::test {
namespace {

const char* const kFields[] = {"IndexOnDevice", "InMenu", "ProfileClass", "FileName", "ProfileName", "Location"};
// A hand-made file: "RGB/InMenu/InMenu0007" -> "<integer>3</integer>"; a path ending in '/' an empty dictionary.
using Doc = std::map<std::string, std::string>;
std::string dict_xml(const Doc& doc, const std::string& prefix = "") {
    std::string out = "<dict>";
    for (auto it = doc.lower_bound(prefix); it != doc.end() && it->first.rfind(prefix, 0) == 0;) {
        const std::string rest = it->first.substr(prefix.size()), key = rest.substr(0, rest.find('/'));
        if (!rest.empty()) out += "<key>" + key + "</key>" + (key == rest ? it->second : dict_xml(doc, prefix + key + "/"));
        do ++it;
        while (key != rest && it != doc.end() && it->first.rfind(prefix + key + "/", 0) == 0);
    }
    return out + "</dict>";
}
Doc doc(const std::map<std::string, std::map<int, ProfileEntry>>& categories) {
    Doc d;
    for (const auto& [name, slots] : categories)
        for (int f = 0; f < 6; ++f) {
            d[name + "/" + kFields[f] + "/"] = "";
            for (const auto& [n, e] : slots) {
                char key[48];
                std::snprintf(key, sizeof key, "%s/%s/%s%04d", name.c_str(), kFields[f], kFields[f], n);
                const int32_t numbers[] = {e.IndexOnDevice, e.InMenu, e.ProfileClass, 0, 0, e.Location};
                d[key] = f == 3 || f == 4 ? "<string>" + std::string(f == 3 ? e.FileName : e.ProfileName) + "</string>"
                                          : "<integer>" + std::to_string(numbers[f]) + "</integer>";
            }
        }
    return d;
}
void prefill(ProfileTable& t) {
    for (int n = 0; n < 5; ++n) t.Entry[n] = entry(n + 1, 1, "OLD.ICC", 5, 2, "old");
    t.iNum = 5;
}
std::unique_ptr<ProfileTable> table() { return std::make_unique<ProfileTable>(); }

class Store : public ::testing::Test, protected ProfilePaths, protected Tables {
protected:
    void write_doc(const Doc& d) { write_file(current, "<plist>" + dict_xml(d) + "</plist>"); }
};

TEST_F(Store, ReadChecksPresenceBeforeAnyTableIsWritten) {
    prefill(rgb);
    const ProfileTable before = rgb;
    EXPECT_EQ(read(), -1);  // no file
    const Doc full = doc({{"RGB", {{0, entry(3, 2, "A.ICC")}}}, {"SIM", {}}, {"DST", {}}});
    std::vector<std::string> cuts{"RGB", "SIM", "DST"};
    for (const char* field : kFields) cuts.push_back(std::string("DST/") + field);
    for (const std::string& cut : cuts) {  // missing, or of another type
        Doc d = full;
        for (auto it = d.lower_bound(cut); it != d.end() && it->first.rfind(cut, 0) == 0;) it = d.erase(it);
        write_doc(d);
        EXPECT_EQ(read(), -1) << cut;
        d[cut] = "<true/>";
        write_doc(d);
        EXPECT_EQ(read(), -1) << cut;
        EXPECT_EQ(TZPListReadProfile_Dict(&rgb, cut == "RGB" ? 0 : cut == "SIM" ? 1 : 2), -1) << cut;
        EXPECT_EQ(TZPListReadProfile_Dict_Pap(&rgb, cut == "RGB" ? 0 : cut == "SIM" ? 1 : 2), -1) << cut;
    }
    EXPECT_TRUE(same_bytes(rgb, before));
    Doc empty = doc({{"RGB", {}}, {"SIM", {}}, {"DST", {}}});
    empty["RGB/iNum"] = "<integer>5</integer>";
    write_doc(empty);  // empty field dictionaries: every slot kept
    EXPECT_EQ(read(), 0);
    EXPECT_TRUE(same_bytes(rgb, before));
}

// Values missing or of another type, or outside 32 bits, leave the field; texts are cut at 31 bytes.
TEST_F(Store, ReadValuesAndTheCountCheck) {
    const std::string name = std::string(30, 'n') + "\xC3\xA9" + "tail";
    Doc d = doc({{"RGB", {{0, entry(3, 2, "A.ICC")}, {1, entry(INT32_MIN, 1, "B.ICC", INT32_MAX)},
                          {2, entry(5, 1, "C.ICC")}}},
                 {"SIM", {{0, entry(1, 1, "A.ICC")}, {1, entry(2, 1, "B.ICC")}, {7, entry(8, 1, "H.ICC")}}},
                 {"DST", {{0, entry(1, 1, "A.ICC")}, {7, entry(8, 1, "H.ICC")}}}});
    for (const auto& [path, value] : Doc{{"IndexOnDevice/IndexOnDevice0000", "<string>12</string>"},
                                         {"FileName/FileName0000", "<integer>77</integer>"},
                                         {"Location/Location0000", "<integer>4294967301</integer>"},
                                         {"ProfileClass/ProfileClass0000", "<true/>"},
                                         {"ProfileClass/ProfileClass0001", "<integer>2147483648</integer>"},
                                         {"ProfileClass/ProfileClass0002", "<integer>-2147483649</integer>"},
                                         {"ProfileName/ProfileName0001", "<string>" + name + "</string>"}})
        d["RGB/" + path] = value;
    d.erase("RGB/ProfileName/ProfileName0000");
    d["SIM/iNum"] = "<integer>5</integer>";  // in use 0, 1, 7: the slots from 3 on are cleared
    d["DST/iNum"] = "<integer>2</integer>";  // agrees: the gap stays
    d["SIM/InMenu/InMenu0500"] = d["SIM/InMenu/InMenu7"] = "<integer>3</integer>";  // no slot keys
    write_doc(d);
    rgb.Entry[0] = entry(8, 0, "KEEP.ICC", 6, 2, "kept");
    rgb.Entry[1].ProfileClass = 9, rgb.Entry[2].ProfileClass = 7;
    std::memset(rgb.Entry[1].ProfileName, 'x', 32);
    ASSERT_EQ(read(), 0);
    EXPECT_TRUE(same_bytes(rgb.Entry[0], entry(8, 2, "KEEP.ICC", 6, 2, "kept")));
    EXPECT_TRUE(same_bytes(rgb.Entry[1], entry(INT32_MIN, 1, "B.ICC", INT32_MAX, 9, name.substr(0, 31).c_str())));
    EXPECT_EQ(rgb.Entry[2].ProfileClass, 7);
    EXPECT_EQ(rgb.iNum, 3);  // no "iNum": the count check sets it
    EXPECT_EQ(sim.iNum, 3);
    EXPECT_TRUE(same_bytes(sim.Entry[7], ProfileEntry{}));
    EXPECT_EQ(dst.iNum, 2);
    EXPECT_STREQ(dst.Entry[7].FileName, "H.ICC");
}

TEST_F(Store, CategoryReadsNeedOnlyTheirCategory) {
    write_doc(doc({{"SIM", {{0, entry(5, 1, "S.ICC")}}}}));
    for (int32_t selector : {0, 2, 3, -1}) EXPECT_EQ(TZPListReadProfile_Dict(&rgb, selector), -1);
    EXPECT_TRUE(same_bytes(rgb, ProfileTable{}));
    ASSERT_EQ(TZPListReadProfile_Dict(&rgb, TZ_CATEGORY_SIM), 0);
    EXPECT_STREQ(rgb.Entry[0].FileName, "S.ICC");
    // Over a table of five, with no "iNum": slots 3-4 keep theirs, and the count 5 agrees.
    write_doc(doc({{"DST", {{0, entry(7, 2, "N0.ICC")}, {1, entry(8, 2, "N1.ICC")}, {2, entry(9, 2, "N2.ICC")}}}}));
    prefill(sim);
    ASSERT_EQ(TZPListReadProfile_Dict(&sim, TZ_CATEGORY_DST), 0);
    EXPECT_STREQ(sim.Entry[2].FileName, "N2.ICC");
    EXPECT_STREQ(sim.Entry[3].FileName, "OLD.ICC");
    EXPECT_EQ(sim.iNum, 5);
}

// File slot 1 (mark 2) is dropped, 4 is stored as 6; file slot 5 has no InMenu and keeps the table's.
TEST_F(Store, PapReadDropsMarkTwoAndStoresFourAsSix) {
    Doc d = doc({{"RGB", {{0, entry(1, 1, "F0.ICC")}, {1, entry(2, 2, "F1.ICC")}, {2, entry(3, 4, "F2.ICC")},
                          {3, entry(4, 3, "F3.ICC")}, {4, entry(5, 6, "F4.ICC")}}}});
    d["RGB/FileName/FileName0005"] = "<string>F5.ICC</string>";
    d["RGB/iNum"] = "<integer>5</integer>";
    write_doc(d);
    rgb.Entry[4].InMenu = 9;
    rgb.Entry[499] = entry(0, 1, "LAST.ICC");  // not written: the count check clears it
    ASSERT_EQ(TZPListReadProfile_Dict_Pap(&rgb, TZ_CATEGORY_RGB), 0);
    const char* files[] = {"F0.ICC", "F2.ICC", "F3.ICC", "F4.ICC", "F5.ICC"};
    const int32_t marks[] = {1, 6, 3, 6, 9};
    for (int n = 0; n < 5; ++n) EXPECT_TRUE(rgb.Entry[n].InMenu == marks[n] && !strcmp(rgb.Entry[n].FileName, files[n]));
    EXPECT_EQ(rgb.iNum, 6);
    EXPECT_EQ(rgb.Entry[499].FileName[0], '\0');
}

std::unique_ptr<ProfileTable> sample(int count, const char* prefix) {
    auto t = table();
    for (int n = 0; n < count; ++n)
        t->Entry[n] = entry(n % 7 ? n + 1 : INT32_MIN, 1 + n % 6, (prefix + std::to_string(n) + ".ICC").c_str(),
                            4 + n % 2, n % 3, ("Profil \xC3\xA9 & <" + std::to_string(n) + ">").c_str());
    t->iNum = count;
    return t;
}

TEST_F(Store, WriteRoundTripsAndCategoryWriteKeepsTheOthers) {
    const auto r = sample(500, "R"), s = sample(3, "S"), d = sample(4, "D"), x = sample(1, "X");
    ProfileTable* tables[] = {&rgb, &sim, &dst};
    for (int32_t c : {TZ_CATEGORY_RGB, TZ_CATEGORY_SIM, TZ_CATEGORY_DST}) {
        ASSERT_EQ(TZPListWriteProfile_All(r.get(), s.get(), d.get()), 0);
        std::unique_ptr<ProfileTable> outs[] = {table(), table(), table()};
        ASSERT_EQ(TZPListWriteProfile_Dict(x.get(), c, outs[0].get(), outs[1].get(), outs[2].get()), 0);
        ASSERT_EQ(read(), 0);
        const ProfileTable* expected[] = {r.get(), s.get(), d.get()};
        expected[c] = x.get();
        for (int t = 0; t < 3; ++t) EXPECT_TRUE(same_bytes(*outs[t], *expected[t]) && same_bytes(*tables[t], *expected[t]));
    }
    const std::string before = read_file(current);
    EXPECT_EQ(TZPListWriteProfile_Dict(x.get(), 3, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read_file(current), before);
    write_file(current, "<plist><dict><key>RGB</key>");  // damaged: the other two are written back empty
    ASSERT_EQ(TZPListWriteProfile_Dict(d.get(), TZ_CATEGORY_DST, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(read(), 0);
    EXPECT_TRUE(same_bytes(rgb, ProfileTable{}) && same_bytes(dst, *d));
}

TEST_F(Store, WrittenFileLayout) {
    rgb.Entry[0] = entry(1, 1, "A.ICC", 4, 1, "bad \xC3\x28");  // not UTF-8: key left out
    rgb.Entry[0].DriverAvail = 5;                               // memory only
    rgb.Entry[1] = entry(2, 1, "B.ICC");
    rgb.Entry[5] = entry(6, 1, "F.ICC");
    rgb.iNum = 2;  // written as it stands
    ASSERT_EQ(write(), 0);
    const std::string file = read_file(current);
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
                             "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n"
                             "<dict>\n\t<key>DST</key>\n\t<dict>\n\t\t<key>FileName</key>\n\t\t<dict>\n\t\t\t<key>"
                             "FileName0000</key>\n\t\t\t<string></string>\n";
    EXPECT_EQ(file.substr(0, head.size()), head);
    EXPECT_EQ(file.substr(file.size() - 17), "</dict>\n</plist>\n");
    size_t slot_keys = 0;
    for (size_t at = file.find("<key>InMenu0"); at != std::string::npos; at = file.find("<key>InMenu0", at + 1)) ++slot_keys;
    EXPECT_EQ(slot_keys, 1500u);  // all slots, whatever iNum says
    EXPECT_NE(file.find("<key>InMenu0499</key>\n\t\t\t<integer>0</integer>\n\t\t</dict>\n\t\t<key>IndexOnDevice</key>"), std::string::npos);
    EXPECT_LT(file.find("<key>ProfileName</key>"), file.find("<key>iNum</key>\n\t\t<integer>0</integer>"));
    EXPECT_LT(file.find("<key>DST</key>"), file.find("<key>PlistVersion</key>\n\t<integer>1</integer>"));
    EXPECT_GT(file.find("<key>ProfileName0000</key>", file.find("<key>RGB</key>")), file.find("<key>SIM</key>"));
    EXPECT_EQ(file.find("DriverAvail"), std::string::npos);
    std::strcpy(rgb.Entry[0].ProfileName, "caller");
    ASSERT_EQ(read(), 0);
    EXPECT_TRUE(!strcmp(rgb.Entry[0].ProfileName, "caller") && rgb.iNum == 3);
}

TEST(Mapping, DeviceEntriesFirstThenTheNewTable) {
    auto current = table(), fresh = table(), exclusion = table(), result = table();
    const ProfileEntry cur[] = {entry(1, 2, "DEV.ICC"), entry(2, 1, "USER.ICC"),  // not device-marked: dropped
                                entry(3, 4, "BOTH.ICC"),                         // the new table's copy wins
                                entry(4, 2, "EXCL.ICC"), entry(5, 2, "EXCL.ICC", 5),  // excluded; another Location
                                entry(6, 2, "DEV.ICC"), entry(7, 4, "NEXT.ICC"),     // duplicates are kept
                                entry(8, 2, "PAST.ICC")};                            // beyond iNum
    std::copy(std::begin(cur), std::end(cur), current->Entry);
    current->iNum = 7;
    fresh->Entry[0] = entry(0, 1, "NEW.ICC");
    fresh->Entry[1] = entry(0, 3, "BOTH.ICC", 4, 2, "new copy");
    fresh->Entry[2] = entry(0, 1, "NEXT.ICC");  // beyond iNum, as is the exclusion's second
    fresh->iNum = 2;
    exclusion->Entry[0] = entry(0, 0, "EXCL.ICC");
    exclusion->Entry[0].FileName[20] = 'z';  // bytes after the terminator do not count
    exclusion->Entry[1] = entry(0, 0, "DEV.ICC");
    exclusion->iNum = 1;
    std::memset(&result->Entry[9], 0x5A, sizeof(ProfileEntry));
    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), exclusion.get());
    ASSERT_EQ(result->iNum, 6);
    const ProfileEntry expected[] = {cur[0], cur[4], cur[5], cur[6], fresh->Entry[0], fresh->Entry[1]};
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(same_bytes(result->Entry[i], expected[i])) << i;
    EXPECT_EQ(result->Entry[9].InMenu, 0x5A5A5A5A);  // not written
    for (int i = 0; i < 500; ++i) fresh->Entry[i] = entry(0, 1, ("N" + std::to_string(i)).c_str());
    fresh->iNum = 500;  // at most 500: the device entries first
    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), table().get());
    EXPECT_EQ(result->iNum, 500);
    EXPECT_STREQ(result->Entry[499].FileName, "N493");
}

TEST_F(Store, PapWriteAndTheFileDictionaries) {
    rgb.Entry[0] = entry(1, 2, "R-DEV.ICC"), rgb.Entry[1] = entry(0, 1, "R-USER.ICC");
    rgb.Entry[2] = entry(2, 4, "R-DEV4.ICC"), rgb.iNum = 3;
    sim.Entry[0] = entry(3, 2, "S-DEV.ICC"), sim.iNum = 1;
    ASSERT_EQ(write(), 0);
    TZDictionary *cats[3] = {}, *fields[6] = {};
    ASSERT_EQ(TZPListMappingGetMainDict_FromPlist(&cats[0], &cats[1], &cats[2]), 0);
    int32_t count = -7;
    ASSERT_EQ(TZPListMappingGetSubDict(cats[1], &fields[0], &fields[1], &fields[2], &fields[3], &fields[4], &fields[5], &count), 0);
    char name[32] = {};
    ReadDictionaryStringEntry(fields[4], "FileName0000", name);  // FileName is the 5th
    EXPECT_TRUE(count == 1 && !strcmp(name, "S-DEV.ICC") && TZDictionaryGetCount(cats[1]) == 7);
    EXPECT_TRUE(TZDictionaryContainsKey(cats[1], "iNum") && !TZDictionaryContainsKey(cats[1], "iNum0"));
    EXPECT_TRUE(TZDictionaryGetDictionary(cats[1], "InMenu") && !TZDictionaryGetDictionary(cats[1], "iNum"));
    ReadDictionaryIntEntry(fields[1], "InMenu0000", &count);
    EXPECT_EQ(count, 2);
    TZDictionaryRelease(TZDictionaryRetain(cats[0]));
    for (TZDictionary* c : cats) TZDictionaryRelease(c);
    write_file(previous, "<plist><dict><key>RGB</key><dict/></dict></plist>");
    for (const std::string& path : {previous, current + "x"}) {
        TZ_PLIST_PROFILE_PATH = path.c_str();
        EXPECT_EQ(TZPListMappingGetMainDict_FromPlist(&cats[0], &cats[1], &cats[2]), -1);
    }
    EXPECT_EQ(TZPListMappingGetSubDict(cats[0], &fields[0], &fields[1], &fields[2], &fields[3], &fields[4], &fields[5], &count), -1);
    TZDictionaryRelease(cats[0]);
    point();

    auto new_rgb = table(), none = table(), exclusion = table();
    new_rgb->Entry[0] = entry(9, 3, "R-DEV4.ICC", 4, 3, "from caller"), new_rgb->iNum = 1;
    exclusion->Entry[0] = entry(0, 0, "S-DEV.ICC"), exclusion->iNum = 1;
    ASSERT_EQ(TZPListWriteProfile_All_Pap(new_rgb.get(), none.get(), none.get(), exclusion.get(), none.get(), none.get()), 0);
    ASSERT_EQ(read(), 0);  // excluding S-DEV from RGB has no effect on SIM
    EXPECT_TRUE(rgb.iNum == 2 && !strcmp(rgb.Entry[0].FileName, "R-DEV.ICC") && same_bytes(rgb.Entry[1], new_rgb->Entry[0]));
    ASSERT_EQ(TZPListWriteProfile_All_Pap(none.get(), none.get(), none.get(), none.get(), exclusion.get(), none.get()), 0);
    ASSERT_EQ(read(), 0);
    EXPECT_TRUE(sim.iNum == 0 && rgb.iNum == 1);  // R-DEV4 was the caller's: now only R-DEV is marked
    TZ_PLIST_PROFILE_PATH = previous.c_str();  // without a file each result is a copy of its new table
    auto r = table(), s = table(), d = table();
    EXPECT_EQ(TZPListMappingProfile_All_Pap(new_rgb.get(), none.get(), none.get(), r.get(), s.get(), d.get(), none.get(),
                                            none.get(), none.get()), 0);
    EXPECT_TRUE(same_bytes(*r, *new_rgb));
}

TEST(TidyPasses, CleanPaddingAndSalvage) {
    auto t = table();  // clean keeps states 3 and 4 without a device row, and does not recount
    const ProfileEntry in[] = {entry(0, 4, "A.ICC", 5, 2, "Alpha"), entry(0, 2, "B.ICC"), entry(0, 0, "C.ICC"),
                               entry(0, 2, ""), entry(7, 1, "E.ICC"), entry(0, 3, "F.ICC")};
    std::copy(std::begin(in), std::end(in), t->Entry);
    t->iNum = 1;
    TZPListCleanProfile_Dict(t.get());
    const ProfileEntry cleaned[] = {entry(501, 3, "A.ICC", 5, 2, "Alpha"), {}, {}, in[3], in[4], entry(501, 3, "F.ICC")};
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(same_bytes(t->Entry[i], cleaned[i])) << i;
    EXPECT_EQ(t->iNum, -1);

    t = table();  // padding compacts in order and leaves ProfileClass behind
    t->Entry[0] = entry(0, 0, "STALE.ICC");  // free but named: overwritten
    t->Entry[2] = entry(1, 1, "C.ICC", 4, 11), t->Entry[5] = entry(2, 2, "F.ICC", 4, 12);
    t->Entry[499] = entry(3, 3, "J.ICC", 5, 13);
    t->Entry[12] = entry(0, 0, "TAIL.ICC", 0, 0);  // free: never moved
    t->iNum = 42;
    TZPListPaddingProfile_Dict(t.get());
    const ProfileEntry padded[] = {entry(1, 1, "C.ICC", 4, 11), entry(2, 2, "F.ICC", 4, 12), entry(3, 3, "J.ICC", 5, 13)};
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(same_bytes(t->Entry[i], padded[i])) << i;
    EXPECT_TRUE(same_bytes(t->Entry[5], entry(0, 0, "", 0, 12)) && same_bytes(t->Entry[499], entry(0, 0, "", 0, 13)));
    EXPECT_TRUE(!strcmp(t->Entry[12].FileName, "TAIL.ICC") && t->iNum == 42);

    t = table();  // salvage: named device rows in state 3 become 6
    const ProfileEntry rows[] = {entry(0, 3, "KEEP.ICC"), entry(9, 3, "DEV.ICC"), entry(8, 4, "DEV4.ICC"), entry(5, 3, "")};
    std::copy(std::begin(rows), std::end(rows), t->Entry);
    TZPListSalvage_Dict(t.get());
    const int32_t marks[] = {3, 6, 4, 3};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(t->Entry[i].InMenu, marks[i]) << i;
}

TEST_F(Store, LibraryFileFunctionsUseTheirPaths) {
    EXPECT_EQ(TZPListIsAdminProfile(), 1);
    EXPECT_FALSE(exists(current));  // the probe's file is gone again
    EXPECT_EQ(TZPListExistProfile(), 0);
    write_file(current, "current");
    EXPECT_EQ(TZPListExistProfile(), 1);
    TZPListSwapProfile(2);  // current copied to previous
    EXPECT_EQ(read_file(previous), "current");
    write_file(previous, "previous");
    TZPListSwapProfile(0);  // previous becomes current
    EXPECT_TRUE(read_file(current) == "previous" && !exists(previous));
    write_file(previous, "p");
    for (int selector : {0, 1, 4, -1}) EXPECT_EQ(TZPListRemove(selector), 0);
    EXPECT_EQ(TZPListRemove(2), 1);
    EXPECT_TRUE(!exists(previous) && exists(current));
    EXPECT_EQ(TZPListRemove(3), 1);
    EXPECT_EQ(TZPListRemove(3), 0);
    const std::string elsewhere = dir.file("no/such.plist");  // a folder that is not there
    TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = elsewhere.c_str();
    EXPECT_EQ(TZPListIsAdminProfile() + TZPListExistProfile() + TZPListRemove(3) + TZPListRemove(2), 0);
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(TZPListWriteProfile_All_Pap(&rgb, &sim, &dst, &rgb, &sim, &dst), -1);
    TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = nullptr;
    EXPECT_EQ(TZPListIsAdminProfile() + TZPListRemove(3) + read() + 1, 0);
}

TEST(LibraryFileOpsDeathTest, PathOf255BytesAborts) {
    static const std::string too_long = "/" + std::string(254, 'a');
    EXPECT_DEATH((TZ_PLIST_PROFILE_PATH = too_long.c_str(), TZPListIsAdminProfile()), "");
    EXPECT_DEATH((TZ_PLIST_PROFILE_PATH = too_long.c_str(), TZPListReadProfile_Dict(table().get(), 0)), "");
}

}  // namespace
}  // namespace tz::test
