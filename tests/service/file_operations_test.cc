// The probe, swap, exist and remove operations on real files.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "call.h"
#include "guarded_format.h"
#include "temp_dir.h"

namespace tz::test {
namespace {

namespace fs = std::filesystem;

class FileOperations : public ::testing::Test {
protected:
    std::string is_admin(const std::string& path) { return call(&Service::tzPListIsAdminProfile_XPC, path); }
    std::string exist(const std::string& path) { return call(&Service::tzPListExistProfile_XPC, path); }
    std::string remove(const std::string& path) { return call(&Service::tzPListRemove_XPC, path); }
    std::string swap(const std::string& type, const std::string& current, const std::string& previous) {
        return call(&Service::tzPListSwapProfile_XPC, type + ":ARG_iSwapType" + current +
                                                          ":ARG_cFooCurrentString" + previous +
                                                          ":ARG_cFooPrevString");
    }

    TempDir dir;
    const std::string current = dir.file("alice-ModelX-profile.plist");
    const std::string previous = dir.file("alice-ModelX-profile.prev.plist");
};

TEST_F(FileOperations, ProbeLeavesNoTraceAndSetsUmask) {
    ::umask(022);
    EXPECT_EQ(is_admin(current), "TRUE");
    EXPECT_FALSE(exists(current));  // created by the probe, then unlinked
    const mode_t now = ::umask(022);
    EXPECT_EQ(now, 002u);  // set for good

    write_file(current, "keep me");
    EXPECT_EQ(is_admin(current), "TRUE");
    EXPECT_EQ(read_file(current), "keep me");
}

TEST_F(FileOperations, ProbeRefusesFoldersMissingFoldersAndBadPaths) {
    EXPECT_EQ(is_admin(dir.path().string()), "FALSE");
    EXPECT_EQ(is_admin(dir.file("no/such/folder/x.plist")), "FALSE");
    EXPECT_FALSE(exists(dir.file("no")));  // the probe never creates folders
    EXPECT_EQ(is_admin(""), "FALSE");
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
    const int result = run_unprivileged([&] {
        const bool ok = call(&Service::tzPListIsAdminProfile_XPC, current) == "FALSE" &&
                        call(&Service::tzPListIsAdminProfile_XPC, locked_file) == "FALSE" &&
                        call(&Service::tzPListExistProfile_XPC, current) == "TRUE";
        return ok ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(read_file(current), "read only");
    EXPECT_FALSE(exists(locked_file));
}

TEST_F(FileOperations, SwapTypes) {
    write_file(current, "current");
    write_file(previous, "a much longer previous copy");
    EXPECT_EQ(swap("2", current, previous), "TRUE");
    EXPECT_EQ(read_file(previous), "current");  // a fresh copy, not appended
    EXPECT_EQ(read_file(current), "current");

    write_file(previous, "previous");
    EXPECT_EQ(swap("0", current, previous), "TRUE");
    EXPECT_EQ(read_file(current), "previous");
    EXPECT_FALSE(exists(previous));

    write_file(previous, "previous");
    EXPECT_EQ(swap("1", current, previous), "TRUE");
    EXPECT_FALSE(exists(previous));
    EXPECT_EQ(read_file(current), "previous");
}

TEST_F(FileOperations, SwapCopiesLargeFilesExactly) {
    std::string big;
    for (int i = 0; big.size() < 200000; ++i) big += "line " + std::to_string(i) + "\n";
    big[70000] = '\0';  // a zero byte in the second block is copied too
    write_file(current, big);
    ::umask(002);
    EXPECT_EQ(swap("2", current, previous), "TRUE");
    EXPECT_EQ(read_file(previous), big);
    struct stat st;
    ASSERT_EQ(::stat(previous.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);  // mode 0664 under umask 002
}

TEST_F(FileOperations, SwapThatCannotWorkStillRepliesTrue) {
    write_file(current, "current");
    EXPECT_EQ(swap("0", current, previous), "TRUE");  // no previous: current is lost
    EXPECT_FALSE(exists(current));
    EXPECT_FALSE(exists(previous));

    write_file(current, "current");
    write_file(previous, "previous");
    for (const char* type : {"5", "-1"}) {
        EXPECT_EQ(swap(type, current, previous), "TRUE");
        EXPECT_EQ(read_file(current), "current");
        EXPECT_EQ(read_file(previous), "previous");
    }
    EXPECT_EQ(swap("NULL", "NULL", "NULL"), "TRUE");
    EXPECT_EQ(call(&Service::tzPListSwapProfile_XPC, "no markers"), "TRUE");
    EXPECT_EQ(read_file(current), "current");
}

TEST_F(FileOperations, SwapTwoFromFolderEnds) {
    // A folder opens read-only but cannot be read: the copy must end, empty.
    const std::string folder = dir.file("folder");
    fs::create_directory(folder);
    EXPECT_EQ(swap("2", folder, previous), "TRUE");
    EXPECT_EQ(read_file(previous), "");
}

TEST_F(FileOperations, ExistAndRemove) {
    write_file(current, "x");
    EXPECT_EQ(exist(current), "TRUE");
    EXPECT_EQ(exist(dir.path().string()), "TRUE");  // a folder opens for reading
    EXPECT_EQ(exist(previous), "FALSE");
    EXPECT_EQ(exist(current + "\xff"), "FALSE");

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

TEST_F(FileOperations, PathsPassThroughUnchanged) {
    const std::string odd = dir.file("caf\xc3\xa9 with spaces:ARG.plist");
    write_file(odd, "x");
    EXPECT_EQ(exist(odd), "TRUE");
    EXPECT_EQ(is_admin(odd), "TRUE");
    EXPECT_EQ(remove(odd), "TRUE");
}

TEST(GuardedFormat, FitsOrEndsTheProcess) {
    char buffer[8];
    guarded_format(buffer, sizeof buffer, "%s", "1234567");
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_DEATH(guarded_format(buffer, sizeof buffer, "%s", "12345678"), "");
}

}  // namespace
}  // namespace tz::test
