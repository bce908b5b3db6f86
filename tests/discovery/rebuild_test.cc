#include <gtest/gtest.h>

#include "discovery_support.h"

namespace tz::test {
namespace {

TEST(DeviceMarks, ComeOffAfterACompleteWalkAndDropAfterAFailedOne) {
    for (const int status : {0, 1, 2}) {
        ProfileTable table{};
        for (int i = 0; i < 8; ++i) table.Entry[i].InMenu = i;
        table.iNum = 3;
        vDeleteMIBprofilesTemporary(status, &table);
        const int after[2][8] = {{0, 1, 1, 3, 3, 5, 6, 7}, {0, 0, 0, 3, 6, 5, 6, 7}};
        for (int i = 0; i < 8; ++i) EXPECT_EQ(table.Entry[i].InMenu, after[status != 0][i]) << status << " " << i;
        EXPECT_EQ(table.iNum, 3);
    }
}

class Rebuild : public ::testing::Test {
protected:
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    ProfilePaths paths;
    Tables before, after;
    ProfileTable table{};
};

TEST_F(Rebuild, MergeMarksAKnownEntryOrAddsTheRowToTheFirstFreeSlot) {
    spool_row(1, 9, 5, "ABC.ICM", 1, "Device name");
    for (const auto& [in_menu, marked] : {std::pair{1, 2}, {5, 2}, {3, 4}, {6, 4}, {2, 2}, {4, 4}}) {
        table.Entry[0] = entry(3, in_menu, "ABC.ICM", 5, 2, "Plist name");
        table.iNum = 1;
        vRestructDetail(0, &table);  // keeps the entry's own fields
        EXPECT_TRUE(same_bytes(table.Entry[0], entry(3, marked, "ABC.ICM", 5, 2, "Plist name"))) << in_menu;
        EXPECT_EQ(table.iNum, 1);
    }
    table.Entry[0] = entry(1, 1, "ABC.ICM", 4);  // another location: another profile
    table.Entry[1] = entry(2, 1, "ABC.ICM", 5);  // past iNum: not looked at
    for (const int row : {-1, 500, 0}) vRestructDetail(row, &table);  // rows outside 0..499 ignored
    EXPECT_EQ(table.iNum, 2);
    EXPECT_EQ(table.Entry[1].InMenu, 1);
    ProfileEntry added = entry(9, 2, "ABC.ICM", 5, 1, "Device name");
    added.DriverAvail = 1;
    EXPECT_TRUE(same_bytes(table.Entry[2], added));

    for (auto& e : table.Entry) e = entry(1, 1, "OLD.ICM");
    table.iNum = TZ_PROFILE_SLOTS;
    vRestructDetail(0, &table);  // a full table drops the row
    EXPECT_EQ(table.iNum, TZ_PROFILE_SLOTS);
    EXPECT_STREQ(table.Entry[499].FileName, "OLD.ICM");
}

TEST_F(Rebuild, CompleteWalkRemarksReportedProfilesAndDropsRefusedNamesBeforeTheMerge) {
    Tables::add(before.rgb, entry(6, 1, "A+B.ICC"));  // refused: RGB closes up before new rows come in
    Tables::add(before.rgb, entry(3, 2, "ABC.ICM", 4, 1, "Plist name"));
    Tables::add(before.rgb, entry(5, 4, "KEPT.ICM", 5, 2));
    Tables::add(before.sim, entry(1, 1, "TOOLONGEXT.ICCX", 4, 3));
    ASSERT_EQ(before.write(), 0);
    spool_row(1, 3, 4, "ABC.ICM", 1, "Device name");
    spool_row(2, 5, 5, "KEPT.ICM", 2);
    spool_row(3, 7, 4, "NEW.ICM", 1);
    EXPECT_EQ(vRestructPlistSpool2Current(0), 0);
    ASSERT_EQ(after.read(), 0);
    ASSERT_EQ(after.rgb.iNum, 3);
    EXPECT_TRUE(same_bytes(after.rgb.Entry[0], before.rgb.Entry[1]));
    EXPECT_EQ(after.rgb.Entry[1].InMenu, 4);
    EXPECT_STREQ(after.rgb.Entry[2].FileName, "NEW.ICM");
    EXPECT_EQ(after.sim.iNum, 0);
}

TEST_F(Rebuild, FailedWalkFreesDeviceEntriesAndSalvagesMarkedOnes) {
    for (const auto& [mark, file] : {std::pair{1, "ONE.ICC"}, {2, "TWO.ICC"}, {4, "FOUR.ICC"}, {5, "FIVE.ICC"}})
        Tables::add(before.sim, entry(mark, mark, file, 4, 3));
    ASSERT_EQ(before.write(), 0);
    vRestructPlistSpool2Current(1);
    ASSERT_EQ(after.read(), 0);
    ASSERT_EQ(after.sim.iNum, 2);
    EXPECT_TRUE(same_bytes(after.sim.Entry[0], entry(4, 6, "FOUR.ICC", 4, 3)));
    EXPECT_TRUE(same_bytes(after.sim.Entry[1], entry(5, 5, "FIVE.ICC", 4, 3)));
}

TEST_F(Rebuild, TakesCountedRowsOfSource4Or5AndClass1To3WithAcceptedNames) {
    spool_row(1, 1, 4, "SIMDST.ICC", 3);
    spool_row(2, 2, 3, "SOURCE3.ICC", 1);
    spool_row(3, 3, 6, "SOURCE6.ICC", 1);
    spool_row(4, 4, 4, "CLASS0.ICC", 0);
    spool_row(5, 5, 4, "CLASS4.ICC", 4);
    spool_row(6, 6, 5, "BAD NAME.ICC", 2);
    spool_row(7, 7, 5, "RGB2.ICC", 2);
    spool_row(8, -1, 5, "UNCOUNTED.ICC", 1);  // past the count of index cells
    EXPECT_EQ(vRestructPlistSpool2Current(0), 0);  // no file yet: written from scratch
    ASSERT_EQ(after.read(), 0);
    ASSERT_EQ(std::tuple(after.rgb.iNum, after.sim.iNum, after.dst.iNum), std::tuple(1, 1, 1));
    EXPECT_STREQ(after.sim.Entry[0].FileName, "SIMDST.ICC");
    EXPECT_STREQ(after.dst.Entry[0].FileName, "SIMDST.ICC");
    EXPECT_EQ(after.dst.Entry[0].InMenu, 2);
    EXPECT_STREQ(after.rgb.Entry[0].FileName, "RGB2.ICC");
    EXPECT_EQ(after.rgb.Entry[0].Location, 5);
}

}  // namespace
}  // namespace tz::test
