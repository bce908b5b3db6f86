// The library file functions on the path globals.
#include <sys/stat.h>

#include "store_fixture.h"

namespace tz::test {
namespace {

using LibraryFileOps = StoreTest;

TEST_F(LibraryFileOps, ProbeAndExistDoNotLeaveAFileBehind) {
    EXPECT_EQ(TZPListIsAdminProfile(), 1);
    EXPECT_FALSE(exists(current_));
    EXPECT_EQ(TZPListExistProfile(), 0);
    write_file(current_, "x");
    EXPECT_EQ(TZPListExistProfile(), 1);
    EXPECT_EQ(read_file(current_), "x");

    TZ_PLIST_PROFILE_PATH = nullptr;
    EXPECT_EQ(TZPListIsAdminProfile(), 0);
    EXPECT_EQ(TZPListExistProfile(), 0);
}

TEST_F(LibraryFileOps, SwapTypes) {
    write_file(current_, "current");
    TZPListSwapProfile(2);  // current copied to previous
    EXPECT_EQ(read_file(previous_), "current");
    write_file(previous_, "previous");
    TZPListSwapProfile(0);  // previous becomes current
    EXPECT_EQ(read_file(current_), "previous");
    EXPECT_FALSE(exists(previous_));
    write_file(previous_, "again");
    TZPListSwapProfile(7);  // nothing
    EXPECT_TRUE(exists(previous_));
    TZPListSwapProfile(1);  // previous removed
    EXPECT_FALSE(exists(previous_));
    EXPECT_EQ(read_file(current_), "previous");
}

TEST_F(LibraryFileOps, RemoveOnlyWithSelectorsTwoAndThree) {
    write_file(current_, "c");
    write_file(previous_, "p");
    for (int selector : {0, 1, 4, -1}) EXPECT_EQ(TZPListRemove(selector), 0);
    EXPECT_TRUE(exists(current_));
    EXPECT_TRUE(exists(previous_));
    EXPECT_EQ(TZPListRemove(2), 1);
    EXPECT_FALSE(exists(previous_));
    EXPECT_TRUE(exists(current_));
    EXPECT_EQ(TZPListRemove(3), 1);
    EXPECT_FALSE(exists(current_));
    EXPECT_EQ(TZPListRemove(3), 0);
}

TEST(LibraryFileOpsDeathTest, PathThatDoesNotFitAborts) {
    const std::string fits(254, 'a');
    const std::string too_long = "/" + std::string(254, 'a');  // 255 bytes
    ASSERT_EXIT(
        {
            TZ_PLIST_PROFILE_PATH = fits.c_str();
            TZPListIsAdminProfile();
            TZ_PLIST_PROFILE_PATH = too_long.c_str();
            TZPListIsAdminProfile();
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGABRT), "");
    ASSERT_EXIT(
        {
            TZ_PLIST_PROFILE_PATH = too_long.c_str();
            auto table = empty_table();
            TZPListReadProfile_Dict(table.get(), 0);
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace tz::test
