#include <gtest/gtest.h>

#include <cstring>

#include "discovery_support.h"

namespace {

using tz::test::entry;
using tz::test::ProfileFiles;
using tz::test::spool_row;
using tz::test::Tables;

enum { RGB = 0, SIM = 1, DST = 2 };

TEST(DeviceMarks, ComeOffAfterACompleteWalkAndDropAfterAFailedOne) {
    for (const int status : {0, 1, 2}) {
        ProfileTable table;
        std::memset(&table, 0, sizeof table);
        for (int i = 0; i < 8; ++i) table.Entry[i].InMenu = i;
        table.iNum = 3;
        vDeleteMIBprofilesTemporary(status, &table);
        const int after_complete[] = {0, 1, 1, 3, 3, 5, 6, 7};
        const int after_failed[] = {0, 0, 0, 3, 6, 5, 6, 7};
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(table.Entry[i].InMenu, status == 0 ? after_complete[i] : after_failed[i])
                << "status " << status << " InMenu " << i;
        EXPECT_EQ(table.iNum, 3);
    }
}

class Merge : public ::testing::Test {
protected:
    void SetUp() override {
        vSpoolPlist(nullptr, 0, nullptr, 1);
        std::memset(&table, 0, sizeof table);
    }
    ProfileTable table;
};

TEST_F(Merge, MarksAKnownEntryAndKeepsItsOwnFields) {
    spool_row(1, 9, 4, "ABC.ICM", 1, "Device name");
    for (const auto& [before, after] : {std::pair{1, 2}, {5, 2}, {3, 4}, {6, 4}, {2, 2}, {4, 4}}) {
        table.Entry[0] = entry(before, 3, 2, "ABC.ICM", 4, "Plist name");
        table.iNum = 1;
        vRestructDetail(0, &table);
        EXPECT_EQ(table.Entry[0].InMenu, after) << "from " << before;
        EXPECT_STREQ(table.Entry[0].ProfileName, "Plist name");
        EXPECT_EQ(table.Entry[0].IndexOnDevice, 3);
        EXPECT_EQ(table.iNum, 1);
    }
}

TEST_F(Merge, AddsTheRowWholeToTheFirstFreeSlot) {
    spool_row(1, 9, 5, "ABC.ICM", 1, "Device name");
    table.Entry[0] = entry(1, 1, 1, "ABC.ICM", 4);  // another location: not the same profile
    table.Entry[2] = entry(1, 2, 1, "ABC.ICM", 5);  // beyond iNum: not looked at
    table.iNum = 1;
    vRestructDetail(0, &table);
    EXPECT_EQ(table.iNum, 2);
    const ProfileEntry& added = table.Entry[1];
    EXPECT_EQ(added.InMenu, 2);
    EXPECT_EQ(added.IndexOnDevice, 9);
    EXPECT_EQ(added.Location, 5);
    EXPECT_EQ(added.DriverAvail, 1);
    EXPECT_STREQ(added.ProfileName, "Device name");
}

TEST_F(Merge, AFullTableDropsTheRow) {
    spool_row(1, 9, 4, "NEW.ICM", 1);
    for (auto& e : table.Entry) e = entry(1, 1, 1, "OLD.ICM", 4);
    table.iNum = TZ_PROFILE_SLOTS;
    vRestructDetail(0, &table);
    EXPECT_EQ(table.iNum, TZ_PROFILE_SLOTS);
    EXPECT_STREQ(table.Entry[499].FileName, "OLD.ICM");
    vRestructDetail(500, &table);  // a row outside the spool is ignored
}

class Rebuild : public ::testing::Test {
protected:
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    Tables rebuilt() {
        Tables t;
        EXPECT_EQ(t.read(), 0);
        return t;
    }
    ProfileFiles files;
};

TEST_F(Rebuild, CompleteWalkRemarksReportedProfilesOnly) {
    Tables before;
    before.add(RGB, entry(2, 3, 1, "ABC.ICM", 4, "Plist name"));
    before.add(RGB, entry(2, 4, 1, "GONE.ICM", 4));
    before.add(RGB, entry(4, 5, 2, "KEPT.ICM", 5));
    ASSERT_EQ(before.write(), 0);
    spool_row(1, 3, 4, "ABC.ICM", 1, "Device name");
    spool_row(2, 5, 5, "KEPT.ICM", 2);

    EXPECT_EQ(vRestructPlistSpool2Current(0), 0);
    Tables after = rebuilt();
    ASSERT_EQ(after.rgb.iNum, 3);
    EXPECT_EQ(after.rgb.Entry[0].InMenu, 2);
    EXPECT_STREQ(after.rgb.Entry[0].ProfileName, "Plist name");
    EXPECT_EQ(after.rgb.Entry[1].InMenu, 1);
    EXPECT_EQ(after.rgb.Entry[2].InMenu, 4);
}

TEST_F(Rebuild, FailedWalkFreesDeviceEntriesAndSalvagesMarkedOnes) {
    Tables before;
    before.add(SIM, entry(1, 1, 3, "ONE.ICC", 4));
    before.add(SIM, entry(2, 2, 3, "TWO.ICC", 4));
    before.add(SIM, entry(4, 3, 3, "FOUR.ICC", 4));
    before.add(SIM, entry(5, 4, 3, "FIVE.ICC", 4));
    ASSERT_EQ(before.write(), 0);

    vRestructPlistSpool2Current(1);
    Tables after = rebuilt();
    ASSERT_EQ(after.sim.iNum, 2);
    EXPECT_STREQ(after.sim.Entry[0].FileName, "FOUR.ICC");
    EXPECT_EQ(after.sim.Entry[0].InMenu, 6);
    EXPECT_STREQ(after.sim.Entry[1].FileName, "FIVE.ICC");
    EXPECT_EQ(after.sim.Entry[1].InMenu, 5);
}

TEST_F(Rebuild, TakesAcceptedRowsIntoTheirCategories) {
    spool_row(1, 1, 4, "SIMDST.ICC", 3);
    spool_row(2, 2, 3, "SOURCE3.ICC", 1);  // source type not taken
    spool_row(3, 3, 6, "SOURCE6.ICC", 1);
    spool_row(4, 4, 4, "CLASS0.ICC", 0);   // class not filed
    spool_row(5, 5, 4, "CLASS4.ICC", 4);
    spool_row(6, 6, 5, "BAD NAME.ICC", 2);  // refused name
    spool_row(7, 7, 5, "RGB2.ICC", 2);

    EXPECT_EQ(vRestructPlistSpool2Current(0), 0);  // no file yet: written from scratch
    Tables after = rebuilt();
    ASSERT_EQ(after.sim.iNum, 1);
    ASSERT_EQ(after.dst.iNum, 1);
    EXPECT_STREQ(after.sim.Entry[0].FileName, "SIMDST.ICC");
    EXPECT_STREQ(after.dst.Entry[0].FileName, "SIMDST.ICC");
    EXPECT_EQ(after.dst.Entry[0].InMenu, 2);
    ASSERT_EQ(after.rgb.iNum, 1);
    EXPECT_STREQ(after.rgb.Entry[0].FileName, "RGB2.ICC");
    EXPECT_EQ(after.rgb.Entry[0].Location, 5);
}

TEST_F(Rebuild, DropsEntriesWithRefusedNamesInEveryCategory) {
    Tables before;
    before.add(RGB, entry(1, 1, 1, "A+B.ICC", 4));
    before.add(RGB, entry(1, 2, 1, "RGB.ICC", 4));
    before.add(SIM, entry(1, 1, 3, "TOOLONGEXT.ICCX", 4));
    before.add(SIM, entry(1, 2, 3, "SIM.ICC", 4));
    ASSERT_EQ(before.write(), 0);

    vRestructPlistSpool2Current(0);
    Tables after = rebuilt();
    ASSERT_EQ(after.rgb.iNum, 1);
    EXPECT_STREQ(after.rgb.Entry[0].FileName, "RGB.ICC");
    ASSERT_EQ(after.sim.iNum, 1);
    EXPECT_STREQ(after.sim.Entry[0].FileName, "SIM.ICC");
}

}  // namespace
