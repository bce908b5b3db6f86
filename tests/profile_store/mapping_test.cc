// The mapping of a caller's table with the file's device-marked entries, the
// write built on it, and the hand-out of the file's dictionaries.
#include "store_fixture.h"

namespace tz::test {
namespace {

TEST(Mapping, DeviceEntriesFirstThenTheNewTable) {
    auto current = empty_table(), fresh = empty_table(), exclusion = empty_table();
    auto result = empty_table();
    current->Entry[0] = entry(1, 2, "DEV.ICC", 4);
    current->Entry[1] = entry(2, 1, "USER.ICC", 4);    // not device-marked: dropped
    current->Entry[2] = entry(3, 4, "BOTH.ICC", 4);    // the new table's copy wins
    current->Entry[3] = entry(4, 2, "EXCL.ICC", 4);    // excluded
    current->Entry[4] = entry(5, 2, "EXCL.ICC", 5);    // other Location: kept
    current->Entry[5] = entry(6, 2, "DEV.ICC", 4);     // duplicates are kept
    current->Entry[6] = entry(7, 2, "PAST.ICC", 4);    // beyond iNum
    current->iNum = 6;
    fresh->Entry[0] = entry(0, 1, "NEW.ICC", 4);
    fresh->Entry[1] = entry(0, 3, "BOTH.ICC", 4, 2, "new copy");
    fresh->Entry[2] = entry(0, 1, "HIDDEN.ICC", 4);    // beyond iNum
    fresh->iNum = 2;
    exclusion->Entry[0] = entry(0, 0, "EXCL.ICC", 4);
    // Bytes after the terminator do not count.
    exclusion->Entry[0].FileName[20] = 'z';
    exclusion->iNum = 1;
    std::memset(&result->Entry[9], 0x5A, sizeof(ProfileEntry));

    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), exclusion.get());
    const char* expected[] = {"DEV.ICC", "EXCL.ICC", "DEV.ICC", "NEW.ICC", "BOTH.ICC"};
    ASSERT_EQ(result->iNum, 5);
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(result->Entry[i].FileName, expected[i]) << i;
    EXPECT_EQ(result->Entry[1].Location, 5);
    EXPECT_STREQ(result->Entry[4].ProfileName, "new copy");
    EXPECT_EQ(result->Entry[9].InMenu, 0x5A5A5A5A);  // not written
}

TEST(Mapping, AtMostFiveHundredEntries) {
    auto current = empty_table(), fresh = empty_table(), none = empty_table();
    auto result = empty_table();
    current->Entry[0] = entry(1, 2, "DEV0.ICC");
    current->Entry[1] = entry(2, 4, "DEV1.ICC");
    current->iNum = 2;
    for (int i = 0; i < 500; ++i) fresh->Entry[i] = entry(0, 1, ("N" + std::to_string(i)).c_str());
    fresh->iNum = 500;
    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), none.get());
    EXPECT_EQ(result->iNum, 500);
    EXPECT_STREQ(result->Entry[1].FileName, "DEV1.ICC");
    EXPECT_STREQ(result->Entry[499].FileName, "N497");
}

class MappingFileTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        auto rgb = empty_table(), sim = empty_table();
        rgb->Entry[0] = entry(1, 2, "R-DEV.ICC");
        rgb->Entry[1] = entry(0, 1, "R-USER.ICC");
        rgb->Entry[2] = entry(2, 4, "R-DEV4.ICC");
        rgb->iNum = 3;
        sim->Entry[0] = entry(3, 2, "S-DEV.ICC");
        sim->iNum = 1;
        ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), sim.get(), empty_table().get()), 0);
    }
};

TEST_F(MappingFileTest, PapWriteKeepsDeviceEntriesUnlessAccountedFor) {
    auto new_rgb = empty_table(), none = empty_table(), exclusion_sim = empty_table();
    new_rgb->Entry[0] = entry(9, 3, "R-DEV4.ICC", 4, 3, "from caller");
    new_rgb->iNum = 1;
    exclusion_sim->Entry[0] = entry(0, 0, "S-DEV.ICC");
    exclusion_sim->iNum = 1;
    ASSERT_EQ(TZPListWriteProfile_All_Pap(new_rgb.get(), none.get(), none.get(), none.get(),
                                          exclusion_sim.get(), none.get()),
              0);
    auto rgb = empty_table(), sim = empty_table(), dst = empty_table();
    ASSERT_EQ(TZPListReadProfile_All(rgb.get(), sim.get(), dst.get()), 0);
    EXPECT_EQ(rgb->iNum, 2);
    EXPECT_STREQ(rgb->Entry[0].FileName, "R-DEV.ICC");
    EXPECT_STREQ(rgb->Entry[1].FileName, "R-DEV4.ICC");
    EXPECT_STREQ(rgb->Entry[1].ProfileName, "from caller");
    EXPECT_EQ(sim->iNum, 0);
}

TEST_F(MappingFileTest, MappingWithoutAFileCopiesTheNewTables) {
    TZ_PLIST_PROFILE_PATH = previous_.c_str();  // no file there
    auto new_rgb = empty_table(), none = empty_table();
    new_rgb->Entry[0] = entry(9, 1, "N.ICC");
    new_rgb->iNum = 1;
    auto r = empty_table(), s = empty_table(), d = empty_table();
    EXPECT_EQ(TZPListMappingProfile_All_Pap(new_rgb.get(), none.get(), none.get(), r.get(), s.get(),
                                            d.get(), none.get(), none.get(), none.get()),
              0);
    EXPECT_TRUE(same_bytes(*r, *new_rgb));
    EXPECT_EQ(s->iNum, 0);
}

TEST_F(MappingFileTest, MainAndSubDictionaries) {
    TZDictionary *rgb = nullptr, *sim = nullptr, *dst = nullptr;
    ASSERT_EQ(TZPListMappingGetMainDict_FromPlist(&rgb, &sim, &dst), 0);
    TZDictionary* fields[6] = {};
    int32_t count = -7;
    ASSERT_EQ(TZPListMappingGetSubDict(rgb, &fields[0], &fields[1], &fields[2], &fields[3],
                                       &fields[4], &fields[5], &count),
              0);
    EXPECT_EQ(count, 3);
    char name[32] = {};
    ReadDictionaryStringEntry(fields[4], "FileName0002", name);  // FileName is the 5th
    EXPECT_STREQ(name, "R-DEV4.ICC");
    TZDictionaryRelease(rgb);
    TZDictionaryRelease(sim);
    TZDictionaryRelease(dst);

    // A category without Location: the five before it are written, not it.
    write_file(current_, plist_xml(PDict{{"RGB", PNode{category({})}}}));
    rgb = sim = dst = nullptr;
    EXPECT_EQ(TZPListMappingGetMainDict_FromPlist(&rgb, &sim, &dst), -1);
    ASSERT_NE(rgb, nullptr);  // made before the miss: the caller's
    EXPECT_EQ(sim, nullptr);
    auto partial = category({});
    partial.erase("Location");
    write_file(current_, plist_xml(PDict{{"RGB", PNode{partial}}}));
    TZDictionary* rgb2 = nullptr;
    EXPECT_EQ(TZPListMappingGetMainDict_FromPlist(&rgb2, &sim, &dst), -1);
    TZDictionary* marker = reinterpret_cast<TZDictionary*>(&count);
    TZDictionary* out[6] = {marker, marker, marker, marker, marker, marker};
    count = 11;
    EXPECT_EQ(TZPListMappingGetSubDict(rgb2, &out[0], &out[1], &out[2], &out[3], &out[4], &out[5],
                                       &count),
              -1);
    for (int i : {0, 1, 2, 4, 5}) EXPECT_NE(out[i], marker) << i;
    EXPECT_EQ(out[3], marker);
    EXPECT_EQ(count, 11);
    TZDictionaryRelease(rgb);
    TZDictionaryRelease(rgb2);
}

}  // namespace
}  // namespace tz::test
