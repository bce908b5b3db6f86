// The tidy passes on small tables whose result can be seen at a glance.
#include "store_fixture.h"

namespace tz::test {
namespace {

TEST(CleanPass, KeepsStatesThreeAndFourWithoutDeviceRowAndClearsTheRest) {
    auto table = empty_table();
    table->Entry[0] = entry(0, 4, "A.ICC", 5, 2, "Alpha");
    table->Entry[1] = entry(0, 2, "B.ICC");
    table->Entry[2] = entry(0, 0, "C.ICC");      // already free: still counted down
    table->Entry[3] = entry(0, 2, "");           // no file name: left alone
    table->Entry[4] = entry(7, 1, "E.ICC");      // device row: left alone
    table->iNum = 1;
    TZPListCleanProfile_Dict(table.get());

    ProfileEntry kept = entry(501, 3, "A.ICC", 5, 2, "Alpha");
    EXPECT_TRUE(same_bytes(table->Entry[0], kept));
    EXPECT_TRUE(same_bytes(table->Entry[1], ProfileEntry{}));
    EXPECT_TRUE(same_bytes(table->Entry[2], ProfileEntry{}));
    EXPECT_EQ(table->Entry[3].InMenu, 2);
    EXPECT_STREQ(table->Entry[4].FileName, "E.ICC");
    EXPECT_EQ(table->iNum, -1);  // the pass does not recount
}

TEST(PaddingPass, CompactsInOrderAndLeavesProfileClassBehind) {
    auto table = empty_table();
    table->Entry[0] = entry(0, 0, "STALE.ICC");  // free but named: overwritten
    table->Entry[2] = entry(1, 1, "C.ICC", 4, 11);
    table->Entry[5] = entry(2, 2, "F.ICC", 4, 12);
    table->Entry[9] = entry(3, 3, "J.ICC", 5, 13);
    table->Entry[12] = entry(0, 0, "TAIL.ICC", 0, 0);  // free after the last in use
    table->iNum = 42;
    TZPListPaddingProfile_Dict(table.get());

    EXPECT_STREQ(table->Entry[0].FileName, "C.ICC");
    EXPECT_STREQ(table->Entry[1].FileName, "F.ICC");
    EXPECT_STREQ(table->Entry[2].FileName, "J.ICC");
    EXPECT_EQ(table->Entry[2].Location, 5);
    for (int moved : {5, 9}) {
        EXPECT_EQ(table->Entry[moved].InMenu, 0);
        EXPECT_EQ(table->Entry[moved].FileName[0], '\0');
    }
    EXPECT_EQ(table->Entry[5].ProfileClass, 12);
    EXPECT_EQ(table->Entry[9].ProfileClass, 13);
    EXPECT_STREQ(table->Entry[12].FileName, "TAIL.ICC");
    EXPECT_EQ(table->iNum, 42);
}

TEST(SalvagePass, MovesNamedStateThreeWithDeviceRowToSix) {
    auto table = empty_table();
    table->Entry[0] = entry(501, 3, "A.ICC");
    table->Entry[1] = entry(5, 3, "");
    table->Entry[2] = entry(5, 4, "C.ICC");
    table->Entry[3] = entry(0, 3, "D.ICC");
    TZPListSalvage_Dict(table.get());
    EXPECT_EQ(table->Entry[0].InMenu, 6);
    EXPECT_EQ(table->Entry[1].InMenu, 3);
    EXPECT_EQ(table->Entry[2].InMenu, 4);
    EXPECT_EQ(table->Entry[3].InMenu, 3);
}

TEST(TidyPasses, InTheRebuildOrder) {
    auto table = empty_table();
    table->Entry[0] = entry(0, 2, "GONE.ICC");
    table->Entry[1] = entry(0, 4, "KEEP.ICC");
    table->Entry[2] = entry(9, 3, "DEV.ICC");
    table->Entry[3] = entry(8, 4, "DEV4.ICC");
    table->iNum = 4;
    TZPListCleanProfile_Dict(table.get());
    TZPListPaddingProfile_Dict(table.get());
    TZPListSalvage_Dict(table.get());
    EXPECT_EQ(table->iNum, 3);
    EXPECT_STREQ(table->Entry[0].FileName, "KEEP.ICC");
    EXPECT_EQ(table->Entry[0].IndexOnDevice, 501);
    EXPECT_EQ(table->Entry[0].InMenu, 6);
    EXPECT_EQ(table->Entry[1].InMenu, 6);
    EXPECT_EQ(table->Entry[2].InMenu, 4);
    EXPECT_EQ(table->Entry[3].InMenu, 0);
}

}  // namespace
}  // namespace tz::test
