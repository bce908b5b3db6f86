// The mapping of a caller's table with the file's device-marked entries, the
// write built on it, and the hand-out of the file's dictionaries.
#include "store_fixture.h"

namespace tz::test {
namespace {

TEST(Mapping, DeviceEntriesFirstThenTheNewTable) {
    auto current = table(), fresh = table(), exclusion = table(), result = table();
    current->Entry[0] = entry(1, 2, "DEV.ICC");
    current->Entry[1] = entry(2, 1, "USER.ICC");     // not device-marked: dropped
    current->Entry[2] = entry(3, 4, "BOTH.ICC");     // the new table's copy wins
    current->Entry[3] = entry(4, 2, "EXCL.ICC");     // excluded
    current->Entry[4] = entry(5, 2, "EXCL.ICC", 5);  // another Location: kept
    current->Entry[5] = entry(6, 2, "DEV.ICC");      // duplicates are kept
    current->Entry[6] = entry(7, 2, "PAST.ICC");     // beyond iNum
    current->iNum = 6;
    fresh->Entry[0] = entry(0, 1, "NEW.ICC");
    fresh->Entry[1] = entry(0, 3, "BOTH.ICC", 4, 2, "new copy");
    fresh->Entry[2] = entry(0, 1, "HIDDEN.ICC");  // beyond iNum
    fresh->iNum = 2;
    exclusion->Entry[0] = entry(0, 0, "EXCL.ICC");
    exclusion->Entry[0].FileName[20] = 'z';  // bytes after the terminator do not count
    exclusion->iNum = 1;
    std::memset(&result->Entry[9], 0x5A, sizeof(ProfileEntry));

    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), exclusion.get());
    ASSERT_EQ(result->iNum, 5);
    const ProfileEntry expected[] = {current->Entry[0], current->Entry[4], current->Entry[5], fresh->Entry[0],
                                     fresh->Entry[1]};
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(same_bytes(result->Entry[i], expected[i])) << i;
    EXPECT_EQ(result->Entry[9].InMenu, 0x5A5A5A5A);  // not written

    // At most 500: the device entries first, the new table's last ones dropped.
    for (int i = 0; i < 500; ++i) fresh->Entry[i] = entry(0, 1, ("N" + std::to_string(i)).c_str());
    fresh->iNum = 500;
    TZPListMapping_Pap(fresh.get(), current.get(), result.get(), table().get());
    EXPECT_EQ(result->iNum, 500);
    EXPECT_STREQ(result->Entry[499].FileName, "N494");
}

class MappingFileTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        rgb_->Entry[0] = entry(1, 2, "R-DEV.ICC");
        rgb_->Entry[1] = entry(0, 1, "R-USER.ICC");
        rgb_->Entry[2] = entry(2, 4, "R-DEV4.ICC");
        rgb_->iNum = 3;
        sim_->Entry[0] = entry(3, 2, "S-DEV.ICC");
        sim_->iNum = 1;
        ASSERT_EQ(TZPListWriteProfile_All(rgb_, sim_, dst_), 0);
    }
};

TEST_F(MappingFileTest, PapWriteKeepsDeviceEntriesUnlessAccountedFor) {
    auto new_rgb = table(), none = table(), exclusion = table();
    new_rgb->Entry[0] = entry(9, 3, "R-DEV4.ICC", 4, 3, "from caller");
    new_rgb->iNum = 1;
    exclusion->Entry[0] = entry(0, 0, "S-DEV.ICC");
    exclusion->iNum = 1;
    // Excluding S-DEV from RGB has no effect on SIM.
    ASSERT_EQ(TZPListWriteProfile_All_Pap(new_rgb.get(), none.get(), none.get(), exclusion.get(), none.get(),
                                          none.get()),
              0);
    ASSERT_EQ(read_all(), 0);
    EXPECT_EQ(rgb_->iNum, 2);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "R-DEV.ICC");
    EXPECT_TRUE(same_bytes(rgb_->Entry[1], new_rgb->Entry[0]));
    EXPECT_STREQ(sim_->Entry[0].FileName, "S-DEV.ICC");
    ASSERT_EQ(TZPListWriteProfile_All_Pap(none.get(), none.get(), none.get(), none.get(), exclusion.get(),
                                          none.get()),
              0);
    ASSERT_EQ(read_all(), 0);
    EXPECT_EQ(sim_->iNum, 0);
    EXPECT_EQ(rgb_->iNum, 1);  // R-DEV4 was the caller's: now only R-DEV is marked

    // Without a file each result is a copy of its new table.
    TZ_PLIST_PROFILE_PATH = previous_.c_str();
    auto r = table(), s = table(), d = table();
    EXPECT_EQ(TZPListMappingProfile_All_Pap(new_rgb.get(), none.get(), none.get(), r.get(), s.get(), d.get(),
                                            none.get(), none.get(), none.get()),
              0);
    EXPECT_TRUE(same_bytes(*r, *new_rgb));
}

TEST_F(MappingFileTest, MainAndSubDictionaries) {
    TZDictionary *rgb = nullptr, *sim = nullptr, *dst = nullptr, *fields[6] = {};
    ASSERT_EQ(TZPListMappingGetMainDict_FromPlist(&rgb, &sim, &dst), 0);
    int32_t count = -7;
    ASSERT_EQ(TZPListMappingGetSubDict(sim, &fields[0], &fields[1], &fields[2], &fields[3], &fields[4],
                                       &fields[5], &count),
              0);
    EXPECT_EQ(count, 1);
    char name[32] = {};
    ReadDictionaryStringEntry(fields[4], "FileName0000", name);  // FileName is the 5th
    EXPECT_STREQ(name, "S-DEV.ICC");
    for (TZDictionary* d : {rgb, sim, dst}) TZDictionaryRelease(d);
}

}  // namespace
}  // namespace tz::test
