// The profile store on files: reads, writes, the mapping, the tidy passes and the library file functions.
#include <gtest/gtest.h>

#include <array>
#include <variant>

#include "folder_text.h"
#include "plist_codec.h"
#include "profile_tables.h"

namespace tz::test {
namespace {

ProfileTable table(const std::vector<ProfileEntry>& rows = {}, int32_t count = 0) {
    ProfileTable t{};
    std::copy(rows.begin(), rows.end(), t.Entry);
    t.iNum = count;
    return t;
}

// Writes `file`, then each path of its tree ("RGB/InMenu/InMenu0007") set to an integer or a text, or taken out.
using Value = std::variant<std::monostate, int64_t, std::string>;
using Edits = std::vector<std::pair<std::string, Value>>;
void write_edited(const Tables& file, const Edits& edits) {
    ASSERT_EQ(file.write(), 0);
    const plist::DictRef root = plist::read_file(TZ_PLIST_PROFILE_PATH);
    for (const auto& [path, value] : edits) {
        TZDictionary* dict = root.get();
        std::string key = path;
        for (std::size_t slash; (slash = key.find('/')) != key.npos; key.erase(0, slash + 1))
            dict = dict->find(key.substr(0, slash))->dict.get();
        if (const auto* number = std::get_if<int64_t>(&value)) dict->set_integer(key, *number);
        else if (const auto* text = std::get_if<std::string>(&value)) dict->set_string(key, *text);
        else dict->entries.erase(dict->entries.begin() + static_cast<long>(dict->find_index(key)));
    }
    ASSERT_TRUE(plist::write_file(TZ_PLIST_PROFILE_PATH, *root));
}

struct Store : ::testing::Test, ProfilePaths, Tables {};

// A category or field dictionary missing fails a read before any table is written. Values
// missing or of another type, or outside 32 bits, leave the field; texts are cut at 31 bytes.
TEST_F(Store, ReadChecksPresenceValuesAndCountAndCategoryReads) {
    const std::string name = std::string(30, 'n') + "\xC3\xA9" + "tail";
    Tables file;
    file.rgb = table({entry(3, 2, "A"), entry(INT32_MIN, 1, "B", INT32_MAX), entry(5, 1, "C")});
    (file.sim = table({entry(1, 1, "A"), entry(2, 2, "B")}, 5)).Entry[7] = entry(8, 1, "H");  // 0, 1, 7 in use
    (file.dst = table({entry(1, 1, "A")}, 2)).Entry[7] = entry(8, 1, "H");                    // DST agrees
    for (const std::string path : {"RGB", "SIM", "DST", "DST/IndexOnDevice", "DST/InMenu", "DST/ProfileClass",
                                   "DST/FileName", "DST/ProfileName", "DST/Location"}) {
        write_edited(file, {{path, {}}});
        const ProfileTable before = rgb = table(std::vector<ProfileEntry>(5, entry(1, 1, "OLD", 5, 2, "old")), 5);
        const int32_t c = path == "RGB" ? 0 : path == "SIM" ? 1 : 2;
        EXPECT_TRUE(read() == -1 && TZPListReadProfile_Dict(&rgb, c) == -1 &&
                    TZPListReadProfile_Dict_Pap(&rgb, c) == -1 && same_bytes(rgb, before)) << path;
    }
    write_edited(file, {{"RGB/IndexOnDevice/IndexOnDevice0000", "12"}, {"RGB/FileName/FileName0000", 7},
                        {"RGB/ProfileClass/ProfileClass0000", {}}, {"RGB/ProfileClass/ProfileClass0001", 2147483648},
                        {"RGB/ProfileClass/ProfileClass0002", -2147483649}, {"RGB/ProfileName/ProfileName0000", {}},
                        {"RGB/ProfileName/ProfileName0001", name}, {"RGB/iNum", {}}, {"DST/InMenu/InMenu0500", 3},
                        {"DST/InMenu/InMenu7", 3}});  // no slot keys
    rgb = table({entry(8, 0, "KEEP", 6, 2, "kept"), entry(0, 0, "", 0, 9, "xx"), entry(0, 0, "", 0, 7)});
    ASSERT_EQ(read(), 0);
    EXPECT_TRUE(same_bytes(rgb.Entry[0], entry(8, 2, "KEEP", 4, 2, "kept")));
    EXPECT_TRUE(same_bytes(rgb.Entry[1], entry(INT32_MIN, 1, "B", INT32_MAX, 9, name.substr(0, 31).c_str())));
    EXPECT_TRUE(rgb.Entry[2].ProfileClass == 7 && rgb.iNum == 3);  // no "iNum": the count check sets it
    EXPECT_TRUE(sim.iNum == 3 && same_bytes(sim.Entry[7], ProfileEntry{}) &&  // the gap stays
                dst.iNum == 2 && dst.Entry[7].InMenu == 1);

    // The category reads need only their category; the plain one keeps marks, the Pap one drops 2 and stores 4 as 6.
    rgb = {};
    write_edited(file, {{"RGB", {}}, {"DST", {}}});
    for (int32_t selector : {0, 2, 3, -1}) EXPECT_EQ(TZPListReadProfile_Dict(&rgb, selector), -1);
    EXPECT_TRUE(same_bytes(rgb, ProfileTable{}) && TZPListReadProfile_Dict(&rgb, TZ_CATEGORY_SIM) == 0 &&
                rgb.Entry[0].IndexOnDevice == 1 && rgb.Entry[1].InMenu == 2);

    file.rgb = table({entry(1, 1, "F0"), entry(2, 2, "F1"), entry(3, 4, "F2"), entry(4, 3, "F3"), entry(5, 6, "F4"),
                      entry(0, 0, "F5")}, 5);
    write_edited(file, {{"RGB/InMenu/InMenu0005", {}}});
    rgb.Entry[4].InMenu = 9, rgb.Entry[499] = entry(0, 1, "LAST");  // not written: the count check clears it
    ASSERT_EQ(TZPListReadProfile_Dict_Pap(&rgb, TZ_CATEGORY_RGB), 0);
    const char *files[] = {"F0", "F2", "F3", "F4", "F5"}, *marks = "16369";
    for (int n = 0; n < 5; ++n)
        EXPECT_TRUE(rgb.Entry[n].InMenu == marks[n] - '0' && !strcmp(rgb.Entry[n].FileName, files[n]));
    EXPECT_TRUE(rgb.iNum == 6 && rgb.Entry[499].FileName[0] == '\0');
}

ProfileTable sample(int count, const char* prefix) {
    ProfileTable t = table({}, count);
    for (int n = 0; n < count; ++n)
        t.Entry[n] = entry(n % 7 ? n : INT32_MIN, 1 + n % 6, (prefix + std::to_string(n)).c_str(), 4 + n % 2, n % 3);
    return t;
}

TEST_F(Store, WriteRoundTripsCategoryWriteAndTheFile) {
    const ProfileTable r = sample(500, "R"), s = sample(3, "S"), d = sample(4, "D"), x = sample(1, "X");
    ProfileTable* got[] = {&rgb, &sim, &dst};
    for (int32_t c : {TZ_CATEGORY_RGB, TZ_CATEGORY_SIM, TZ_CATEGORY_DST}) {
        ASSERT_EQ(TZPListWriteProfile_All(&r, &s, &d), 0);
        ProfileTable outs[3]{};
        ASSERT_EQ(TZPListWriteProfile_Dict(&x, c, &outs[0], &outs[1], &outs[2]) + read(), 0);
        for (int t = 0; t < 3; ++t)
            EXPECT_TRUE(same_bytes(outs[t], t == c ? x : *std::array{&r, &s, &d}[t]) && same_bytes(*got[t], outs[t]));
    }
    const std::string before = read_file(current);
    EXPECT_TRUE(TZPListWriteProfile_Dict(&x, 3, nullptr, nullptr, nullptr) == -1 && read_file(current) == before);
    write_file(current, "<plist><dict><key>RGB</key>");  // damaged: the other two are written back empty
    ASSERT_EQ(TZPListWriteProfile_Dict(&d, TZ_CATEGORY_DST, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(read() == 0 && same_bytes(rgb, ProfileTable{}) && same_bytes(dst, d));

    // Every slot is written whatever iNum says, iNum as it stands; a text that is not UTF-8 is left out.
    rgb = table({entry(1, 1, "A", 4, 1, "bad \xC3\x28"), entry(2, 1, "B"), {}, {}, {}, entry(6, 1, "F")}, 2);
    ASSERT_EQ(write(), 0);
    const std::string file = read_file(current);
    EXPECT_TRUE(file.find("<key>InMenu0499</key>") != file.npos && file.find("InMenu0500") == file.npos);
    std::strcpy(rgb.Entry[0].ProfileName, "caller");
    EXPECT_TRUE(read() == 0 && !strcmp(rgb.Entry[0].ProfileName, "caller") && rgb.iNum == 3);
}

TEST(Mapping, DeviceEntriesFirstThenTheNewTable) {
    const std::vector<ProfileEntry> cur = {
        // USER not device-marked; BOTH: the new copy wins.
        entry(1, 2, "DEV"), entry(2, 1, "USER"), entry(3, 4, "BOTH"),
        entry(4, 2, "EXCL"), entry(5, 2, "EXCL", 5),                   // excluded; another Location is not
        entry(6, 2, "DEV"), entry(7, 4, "NEXT"), entry(8, 2, "PAST")};  // duplicates kept; beyond iNum
    const ProfileTable current = table(cur, 7), none{};
    ProfileTable result{}, exclusion = table({entry(0, 0, "EXCL"), entry(0, 0, "DEV")}, 1);
    ProfileTable fresh = table({entry(0, 1, "NEW"), entry(0, 3, "BOTH", 4, 2, "new copy"), entry(0, 1, "NEXT")}, 2);
    exclusion.Entry[0].FileName[20] = 'z';  // bytes after the terminator do not count
    TZPListMapping_Pap(&fresh, &current, &result, &exclusion);
    const ProfileEntry expected[] = {cur[0], cur[4], cur[5], cur[6], fresh.Entry[0], fresh.Entry[1]};
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(same_bytes(result.Entry[i], expected[i]) && result.iNum == 6) << i;
    fresh = sample(500, "N");  // at most 500: the device entries first
    TZPListMapping_Pap(&fresh, &current, &result, &none);
    EXPECT_TRUE(result.iNum == 500 && !strcmp(result.Entry[499].FileName, "N493"));
}

TEST_F(Store, PapWriteAndTheFileDictionaries) {
    rgb = table({entry(1, 2, "R-DEV"), entry(0, 1, "R-USER"), entry(2, 4, "R-DEV4")}, 3);
    ASSERT_EQ((sim = table({entry(3, 2, "S-DEV")}, 1), write()), 0);
    TZDictionary *cats[3] = {}, *f[6] = {};
    ASSERT_EQ(TZPListMappingGetMainDict_FromPlist(&cats[0], &cats[1], &cats[2]), 0);
    int32_t count = -7, mark = 0;
    ASSERT_EQ(TZPListMappingGetSubDict(cats[1], &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &count), 0);
    char name[32] = {};
    ReadDictionaryStringEntry(f[4], "FileName0000", name);  // FileName is the 5th
    ReadDictionaryIntEntry(f[1], "InMenu0000", &mark);
    EXPECT_TRUE(count == 1 && mark == 2 && !strcmp(name, "S-DEV") && TZDictionaryGetCount(cats[1]) == 7);
    EXPECT_TRUE(TZDictionaryContainsKey(cats[1], "iNum") && TZDictionaryGetDictionary(cats[1], "InMenu"));
    EXPECT_EQ(TZPListMappingGetSubDict(f[0], &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &count), -1);
    for (TZDictionary* c : cats) TZDictionaryRelease(TZDictionaryRetain(c)), TZDictionaryRelease(c);

    const ProfileTable mine = table({entry(9, 3, "R-DEV4", 4, 3, "from caller")}, 1), none{};
    TZDictionary* made = CreatePropsDictionary(1, &mine, &cats[0], &f[0], &f[1], &f[2], &f[3], &f[4], &f[5]);  // SIM
    ReadDictionaryIntEntry(f[3], "Location0000", &mark), ReadDictionaryStringEntry(f[4], "FileName0000", name);
    EXPECT_TRUE(TZDictionaryGetDictionary(made, "SIM") == cats[0] && mark == 4 && !strcmp(name, "R-DEV4"));
    for (TZDictionary* d : {made, cats[0], f[0], f[1], f[2], f[3], f[4], f[5]}) TZDictionaryRelease(d);
    const ProfileTable exclusion = table({entry(0, 0, "S-DEV")}, 1);
    ASSERT_EQ(TZPListWriteProfile_All_Pap(&mine, &none, &none, &exclusion, &none, &none), 0);
    ASSERT_EQ(read(), 0);  // excluding S-DEV from RGB has no effect on SIM
    EXPECT_TRUE(rgb.iNum == 2 && !strcmp(rgb.Entry[0].FileName, "R-DEV") && same_bytes(rgb.Entry[1], mine.Entry[0]));
    EXPECT_TRUE(sim.iNum == 1 && !strcmp(sim.Entry[0].FileName, "S-DEV"));
    write_file(previous, "<plist><dict><key>RGB</key><dict/><key>DST</key><dict/></dict></plist>");
    for (const std::string& path : {current + "x", previous})  // no file; no SIM
        EXPECT_EQ((TZ_PLIST_PROFILE_PATH = path.c_str(),
                   TZPListMappingGetMainDict_FromPlist(&cats[0], &cats[1], &cats[2])), -1);
    TZDictionaryRelease(cats[0]);
    TZ_PLIST_PROFILE_PATH = previous.c_str();  // without SIM each result is a copy of its new table
    ProfileTable r{};
    EXPECT_EQ(TZPListMappingProfile_All_Pap(&mine, &none, &none, &r, &sim, &dst, &none, &none, &none), 0);
    EXPECT_TRUE(same_bytes(r, mine));
}

TEST(TidyPasses, CleanPaddingAndSalvage) {
    // Clean keeps states 3 and 4 without a device row, and does not recount.
    const std::vector<ProfileEntry> in = {entry(0, 4, "A", 5, 2, "Alpha"), entry(0, 2, "B"), entry(0, 0, "C"),
                                          entry(0, 2, ""), entry(7, 1, "E"), entry(0, 3, "F")};
    ProfileTable t = table(in, 1);
    TZPListCleanProfile_Dict(&t);
    const ProfileEntry cleaned[] = {entry(501, 3, "A", 5, 2, "Alpha"), {}, {}, in[3], in[4], entry(501, 3, "F")};
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(same_bytes(t.Entry[i], cleaned[i]) && t.iNum == -1) << i;

    // Padding compacts in order, leaves ProfileClass behind, and moves no free slot.
    const ProfileEntry c = entry(1, 1, "C", 4, 11), f = entry(2, 2, "F", 4, 12), j = entry(3, 3, "J", 5, 13);
    t = table({entry(0, 0, "STALE"), {}, c, {}, {}, f, {}, {}, {}, {}, {}, {}, entry(0, 0, "TAIL", 0, 0)}, 42);
    t.Entry[499] = j;
    TZPListPaddingProfile_Dict(&t);
    EXPECT_TRUE(same_bytes(t.Entry[0], c) && same_bytes(t.Entry[1], f) && same_bytes(t.Entry[2], j));
    EXPECT_TRUE(same_bytes(t.Entry[5], entry(0, 0, "", 0, 12)) && same_bytes(t.Entry[499], entry(0, 0, "", 0, 13)));
    EXPECT_TRUE(!strcmp(t.Entry[12].FileName, "TAIL") && t.iNum == 42);

    t = table({entry(0, 3, "KEEP"), entry(9, 3, "DEV"), entry(8, 4, "DEV4"), entry(5, 3, "")}, 4);
    TZPListSalvage_Dict(&t);  // named device rows in state 3 become 6
    EXPECT_TRUE(t.Entry[0].InMenu == 3 && t.Entry[1].InMenu == 6 && t.Entry[2].InMenu == 4 && t.Entry[3].InMenu == 3);
}

TEST_F(Store, LibraryFileFunctionsUseTheirPaths) {
    EXPECT_TRUE(TZPListIsAdminProfile() == 1 && !exists(current) && TZPListExistProfile() == 0);  // probe file gone
    EXPECT_EQ((write_file(current, "current"), TZPListExistProfile()), 1);
    TZPListSwapProfile(2);  // current copied to previous; the swap types are the service test's
    EXPECT_EQ(read_file(previous), "current");
    for (int selector : {0, 1, 4, -1}) EXPECT_EQ(TZPListRemove(selector), 0);
    EXPECT_TRUE(TZPListRemove(2) == 1 && !exists(previous) && exists(current));
    EXPECT_TRUE(TZPListRemove(3) == 1 && TZPListRemove(3) == 0);
    // Anything but a regular file of this user at the current name is neither probed, read nor written.
    ASSERT_EQ(write(), 0);
    std::filesystem::rename(current, dir.file("s"));
    const std::string secret = read_file(dir.file("s"));
    for (const std::string planted : {"|fifo", "|socket", "->s"}) {
        build((std::filesystem::remove(current), dir), "alice-ModelX-profile.plist" + planted);
        EXPECT_EQ(TZPListIsAdminProfile() + TZPListExistProfile() + read() + write(), -2) << planted;
    }
    EXPECT_EQ(read_file(dir.file("s")), secret);
    for (const char* unusable : {"/nonexistent-tz-folder/x.plist", static_cast<const char*>(nullptr)}) {
        TZ_PLIST_PROFILE_PATH = TZ_PLIST_PROFILE_PREV_PATH = unusable;  // no such folder; unset
        EXPECT_EQ(TZPListIsAdminProfile() + TZPListExistProfile() + TZPListRemove(3) + TZPListRemove(2), 0);
        EXPECT_TRUE(write() == -1 && TZPListWriteProfile_All_Pap(&rgb, &sim, &dst, &rgb, &sim, &dst) == -1);
    }
}

}  // namespace
}  // namespace tz::test
