// The library file functions on the path globals.
#include "store_fixture.h"

namespace tz::test {
namespace {

using LibraryFileOps = StoreTest;

TEST_F(LibraryFileOps, ProbeExistSwapAndRemoveUseTheirPaths) {
    EXPECT_EQ(TZPListIsAdminProfile(), 1);
    EXPECT_FALSE(exists(current_));  // the probe's file is gone again
    EXPECT_EQ(TZPListExistProfile(), 0);
    write_file(current_, "current");
    EXPECT_EQ(TZPListExistProfile(), 1);
    TZPListSwapProfile(2);  // current copied to previous
    EXPECT_EQ(read_file(previous_), "current");
    write_file(previous_, "previous");
    TZPListSwapProfile(0);  // previous becomes current
    EXPECT_EQ(read_file(current_), "previous");
    EXPECT_FALSE(exists(previous_));

    write_file(previous_, "p");
    for (int selector : {0, 1, 4, -1}) EXPECT_EQ(TZPListRemove(selector), 0);
    EXPECT_EQ(TZPListRemove(2), 1);
    EXPECT_FALSE(exists(previous_));
    EXPECT_TRUE(exists(current_));
    EXPECT_EQ(TZPListRemove(3), 1);
    EXPECT_FALSE(exists(current_));
    EXPECT_EQ(TZPListRemove(3), 0);
}

TEST(LibraryFileOpsDeathTest, PathOf255BytesAborts) {
    static const std::string too_long = "/" + std::string(254, 'a');
    EXPECT_DEATH((TZ_PLIST_PROFILE_PATH = too_long.c_str(), TZPListIsAdminProfile()), "");
    EXPECT_DEATH((TZ_PLIST_PROFILE_PATH = too_long.c_str(), TZPListReadProfile_Dict(table().get(), 0)), "");
}

}  // namespace
}  // namespace tz::test
