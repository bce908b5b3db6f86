// The probe, swap, exist and remove operations on real files.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "service_call.h"
#include "guarded_format.h"
#include "request.h"
#include "temp_dir.h"

namespace tz::test {
namespace {

namespace fs = std::filesystem;

class FileOperations : public ::testing::Test {
protected:
    static std::string is_admin(const std::string& path) {
        return call(&Service::tzPListIsAdminProfile_XPC, path);
    }
    static std::string exist(const std::string& path) {
        return call(&Service::tzPListExistProfile_XPC, path);
    }
    static std::string remove(const std::string& path) { return call(&Service::tzPListRemove_XPC, path); }
    static std::string swap(int32_t type, const std::string& current, const std::string& previous) {
        return call(&Service::tzPListSwapProfile_XPC, protocol::swap_request(type, current, previous));
    }

    TempDir dir;
    const std::string current = dir.file("alice-ModelX-profile.plist");
    const std::string previous = dir.file("alice-ModelX-profile.prev.plist");
};

TEST_F(FileOperations, ProbeLeavesNoTraceAndSetsUmask) {
    ::umask(022);
    EXPECT_EQ(is_admin(current), "TRUE");
    EXPECT_FALSE(exists(current));
    EXPECT_EQ(::umask(022), 002u);  // set for good

    write_file(current, "keep me");
    EXPECT_EQ(is_admin(current), "TRUE");
    EXPECT_EQ(read_file(current), "keep me");

    EXPECT_EQ(is_admin(dir.path().string()), "FALSE");
    EXPECT_EQ(is_admin(dir.file("no/such/folder/x.plist")), "FALSE");
    EXPECT_FALSE(exists(dir.file("no")));  // never creates folders
    EXPECT_EQ(is_admin(dir.file("bad\xff.plist")), "FALSE");
    EXPECT_FALSE(exists(dir.file("bad\xff.plist")));
}

// Permission bits do not stop root: these checks run as nobody.
TEST_F(FileOperations, ProbeRefusesReadOnlyFileAndUnwritableFolder) {
    fs::permissions(dir.path(), fs::perms::all);
    write_file(current, "read only");
    fs::permissions(current, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    const fs::path locked = dir.path() / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);

    const std::string locked_file = (locked / "new.plist").string();
    EXPECT_EQ(run_unprivileged([&] {
                  return is_admin(current) == "FALSE" && is_admin(locked_file) == "FALSE" &&
                                 exist(current) == "TRUE"
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(read_file(current), "read only");
    EXPECT_FALSE(exists(locked_file));
}

TEST_F(FileOperations, SwapTypes) {
    std::string big;  // several copy blocks, with a zero byte in the second
    for (int i = 0; big.size() < 200000; ++i) big += "line " + std::to_string(i) + "\n";
    big[70000] = '\0';
    write_file(current, big);
    write_file(previous, big + big);
    ::umask(002);
    EXPECT_EQ(swap(2, current, previous), "TRUE");
    EXPECT_EQ(read_file(previous), big);  // a fresh copy, not appended
    EXPECT_EQ(read_file(current), big);
    struct stat st;
    ASSERT_EQ(::stat(previous.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);

    write_file(previous, "previous");
    EXPECT_EQ(swap(0, current, previous), "TRUE");
    EXPECT_EQ(read_file(current), "previous");
    EXPECT_FALSE(exists(previous));

    write_file(previous, "to be removed");
    EXPECT_EQ(swap(1, current, previous), "TRUE");
    EXPECT_FALSE(exists(previous));
    EXPECT_EQ(read_file(current), "previous");
}

TEST_F(FileOperations, SwapsThatCannotWorkStillReplyTrue) {
    write_file(current, "current");
    EXPECT_EQ(swap(0, current, previous), "TRUE");  // no previous: current is lost
    EXPECT_FALSE(exists(current));

    write_file(current, "current");
    write_file(previous, "previous");
    for (const int32_t type : {5, -1}) EXPECT_EQ(swap(type, current, previous), "TRUE");
    EXPECT_EQ(swap(0, "", ""), "TRUE");
    EXPECT_EQ(read_file(current), "current");
    EXPECT_EQ(read_file(previous), "previous");

    // A folder opens read-only but cannot be read: the copy ends, empty.
    EXPECT_EQ(swap(2, dir.path().string(), previous), "TRUE");
    EXPECT_EQ(read_file(previous), "");
}

TEST_F(FileOperations, ExistAndRemove) {
    write_file(current, "x");
    EXPECT_EQ(exist(current), "TRUE");
    EXPECT_EQ(exist(dir.path().string()), "TRUE");  // a folder opens for reading
    EXPECT_EQ(exist(previous), "FALSE");

    EXPECT_EQ(remove(current), "TRUE");
    EXPECT_FALSE(exists(current));
    EXPECT_EQ(remove(current), "FALSE");
    const fs::path full = dir.path() / "full";
    fs::create_directory(full);
    write_file((full / "f").string(), "");
    EXPECT_EQ(remove(full.string()), "FALSE");
    fs::remove(full / "f");
    EXPECT_EQ(remove(full.string()), "TRUE");
}

TEST(GuardedFormatDeathTest, FitsOrEndsTheProcess) {
    char buffer[8];
    guarded_format(buffer, sizeof buffer, "%s", "1234567");
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_DEATH(guarded_format(buffer, sizeof buffer, "%s", "12345678"), "");
}

}  // namespace
}  // namespace tz::test
