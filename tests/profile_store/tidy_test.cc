// The tidy passes on small tables whose result can be seen at a glance.
#include "store_fixture.h"

namespace tz::test {
namespace {

TEST(TidyPasses, CleanKeepsStatesThreeAndFourWithoutDeviceRowAndDoesNotRecount) {
    auto t = table();
    t->Entry[0] = entry(0, 4, "A.ICC", 5, 2, "Alpha");
    t->Entry[1] = entry(0, 2, "B.ICC");
    t->Entry[2] = entry(0, 0, "C.ICC");  // free already: counted down all the same
    t->Entry[3] = entry(0, 2, "");       // no file name: left alone
    t->Entry[4] = entry(7, 1, "E.ICC");  // a device row: left alone
    t->iNum = 1;
    TZPListCleanProfile_Dict(t.get());
    EXPECT_TRUE(same_bytes(t->Entry[0], entry(501, 3, "A.ICC", 5, 2, "Alpha")));
    EXPECT_TRUE(same_bytes(t->Entry[1], ProfileEntry{}));
    EXPECT_TRUE(same_bytes(t->Entry[2], ProfileEntry{}));
    EXPECT_TRUE(same_bytes(t->Entry[3], entry(0, 2, "")));
    EXPECT_TRUE(same_bytes(t->Entry[4], entry(7, 1, "E.ICC")));
    EXPECT_EQ(t->iNum, -1);
}

TEST(TidyPasses, PaddingCompactsInOrderAndLeavesProfileClassBehind) {
    auto t = table();
    t->Entry[0] = entry(0, 0, "STALE.ICC");  // free but named: overwritten
    t->Entry[2] = entry(1, 1, "C.ICC", 4, 11);
    t->Entry[5] = entry(2, 2, "F.ICC", 4, 12);
    t->Entry[9] = entry(3, 3, "J.ICC", 5, 13);
    t->Entry[12] = entry(0, 0, "TAIL.ICC", 0, 0);  // free, after the last in use: kept
    t->iNum = 42;
    TZPListPaddingProfile_Dict(t.get());
    EXPECT_TRUE(same_bytes(t->Entry[0], entry(1, 1, "C.ICC", 4, 11)));
    EXPECT_TRUE(same_bytes(t->Entry[1], entry(2, 2, "F.ICC", 4, 12)));
    EXPECT_TRUE(same_bytes(t->Entry[2], entry(3, 3, "J.ICC", 5, 13)));
    EXPECT_TRUE(same_bytes(t->Entry[5], entry(0, 0, "", 0, 12)));
    EXPECT_TRUE(same_bytes(t->Entry[9], entry(0, 0, "", 0, 13)));
    EXPECT_STREQ(t->Entry[12].FileName, "TAIL.ICC");
    EXPECT_EQ(t->iNum, 42);
}

TEST(TidyPasses, SalvageAndTheRebuildOrder) {
    auto t = table();
    t->Entry[0] = entry(0, 2, "GONE.ICC");
    t->Entry[1] = entry(0, 4, "KEEP.ICC");  // row 501, state 3, then 6
    t->Entry[2] = entry(9, 3, "DEV.ICC");   // 6
    t->Entry[3] = entry(8, 4, "DEV4.ICC");  // stays 4
    t->Entry[4] = entry(5, 3, "");          // no name: stays 3
    t->iNum = 5;
    TZPListCleanProfile_Dict(t.get());
    TZPListPaddingProfile_Dict(t.get());
    TZPListSalvage_Dict(t.get());
    EXPECT_EQ(t->iNum, 4);
    EXPECT_TRUE(same_bytes(t->Entry[0], entry(501, 6, "KEEP.ICC")));
    const int32_t marks[] = {6, 6, 4, 3, 0};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(t->Entry[i].InMenu, marks[i]) << i;
}

}  // namespace
}  // namespace tz::test
