// The one-shot write, the piecewise write through "<target>.dummy" and the
// rename, on real files.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "as_unprivileged.h"
#include "request.h"
#include "service_call.h"
#include "temp_dir.h"
#include "tz_writes.h"

namespace tz::test {
namespace {

namespace fs = std::filesystem;

class Writes : public ::testing::Test {
protected:
    std::string url(const std::string& name) const { return "file://" + dir.file(name); }
    static std::string write_plist(const std::string& target_url, const std::string& text) {
        return call(&Service::writeDictionaryToPlistFile_XPC, protocol::write_request(target_url, text));
    }
    static std::string write_piece(const std::string& target_url, const std::string& piece) {
        return call(&Service::writeDataToPlistFile_XPC, protocol::write_request(target_url, piece));
    }
    static std::string finish(const std::string& target_url) {
        return call(&Service::writeDataToPlistFileRename_XPC, target_url);
    }
    // Files in the folder, to catch leftovers.
    int file_count() const {
        int n = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir.path())) ++n;
        return n;
    }

    TempDir dir;
    const std::string target = dir.file("alice-ModelX-profile.plist");
    const std::string target_url = url("alice-ModelX-profile.plist");
};

TEST_F(Writes, OneShotCreatesAndReplaces) {
    ::umask(002);
    EXPECT_EQ(write_plist(target_url, "<plist>first, longer</plist>"), "TRUE");
    struct stat st;
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    EXPECT_EQ(write_plist(target_url, "<x>:AddURL:END</x>"), "TRUE");
    EXPECT_EQ(read_file(target), "<x>:AddURL:END</x>");
    EXPECT_EQ(file_count(), 1);
}

TEST_F(Writes, PiecesCollectAndRenameIntoPlace) {
    write_file(target, "old target");
    EXPECT_EQ(write_piece(target_url, "AB"), "TRUE");
    EXPECT_EQ(write_piece(target_url, ""), "TRUE");
    EXPECT_EQ(write_piece(target_url, "CD\xc3\xa9"), "TRUE");
    EXPECT_EQ(read_file(target), "old target");  // untouched until the rename
    EXPECT_EQ(finish(target_url), "TRUE");
    EXPECT_EQ(read_file(target), "ABCD\xc3\xa9");
    EXPECT_EQ(file_count(), 1);  // the temporary file is gone

    write_file(target + ".dummy", "\xff\xfe not UTF-8");
    EXPECT_EQ(write_piece(target_url, "fresh"), "TRUE");  // unreadable old content is replaced
    EXPECT_EQ(write_piece(target_url, "\xc3"), "FALSE");  // a piece with no UTF-8 form
    EXPECT_EQ(read_file(target + ".dummy"), "fresh");

    ASSERT_EQ(::unlink((target + ".dummy").c_str()), 0);
    EXPECT_EQ(finish(target_url), "TRUE");  // no temporary file: the target is deleted
    EXPECT_FALSE(exists(target));
}

TEST_F(Writes, PiecesFollowTheTemporaryFilesLinkEvenWhenItDangles) {
    fs::create_directory(dir.file("kept"));
    fs::create_symlink("kept/pieces.txt", target + ".dummy");  // relative, dangling
    EXPECT_EQ(write_piece(target_url, "AB"), "TRUE");
    EXPECT_EQ(write_piece(target_url, "CD"), "TRUE");
    EXPECT_TRUE(fs::is_symlink(target + ".dummy"));
    EXPECT_EQ(read_file(dir.file("kept/pieces.txt")), "ABCD");
}

TEST_F(Writes, UrlsAreParsedAsUrls) {
    EXPECT_EQ(write_plist(url("caf%C3%A9%20menu.plist"), "x"), "TRUE");
    EXPECT_EQ(read_file(dir.file("caf\xc3\xa9 menu.plist")), "x");
    EXPECT_EQ(write_plist("FILE://localhost" + dir.file("b.plist"), "y"), "TRUE");
    EXPECT_EQ(read_file(dir.file("b.plist")), "y");
    const int before = file_count();

    for (const std::string& bad :
         {url("with space.plist"), dir.file("bare-path.plist"), "file://otherhost" + dir.file("c.plist"),
          std::string("file:relative.plist"), url("caf\xc3\xa9.plist"), url("nul%00byte.plist")}) {
        EXPECT_EQ(write_plist(bad, "z"), "FALSE") << bad;
        EXPECT_EQ(write_piece(bad, "z"), "FALSE") << bad;
        EXPECT_EQ(finish(bad), "FALSE") << bad;
    }
    EXPECT_EQ(file_count(), before);
}

TEST_F(Writes, FailuresAnswerFalse) {
    EXPECT_EQ(write_plist(url("no/such/folder/a.plist"), "x"), "FALSE");
    EXPECT_EQ(write_piece(url("no/such/folder/a.plist"), "x"), "FALSE");
    EXPECT_EQ(write_plist("file://" + dir.path().string(), "x"), "FALSE");  // a folder

    // Disk full: the target is a link to /dev/full.
    fs::create_symlink("/dev/full", dir.file("full.plist"));
    EXPECT_EQ(write_plist(url("full.plist"), "x"), "FALSE");
    fs::create_symlink("/dev/full", dir.file("full.plist.dummy"));
    EXPECT_EQ(write_piece(url("full.plist"), "piece"), "FALSE");
    // A device behind the temporary file is never read (/dev/zero would not end).
    fs::create_symlink("/dev/zero", dir.file("zero.plist.dummy"));
    EXPECT_EQ(write_piece(url("zero.plist"), "piece"), "TRUE");

    fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
    write_file(target + ".dummy", "AB");
    fs::permissions(target + ".dummy", fs::perms::all);
    EXPECT_EQ(run_unprivileged([&] {
                  return write_plist(target_url, "x") == "FALSE" && write_piece(target_url, "CD") == "FALSE"
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(read_file(target + ".dummy"), "AB");
    EXPECT_FALSE(exists(target));
}

TEST_F(Writes, ExportedFunctionWritesBytes) {
    const std::string bytes("bin\0\xff", 5);  // any bytes, not only text
    EXPECT_EQ(writeDictionaryToPlistFile_XPC(target_url.c_str(), bytes.data(), bytes.size()), 1);
    EXPECT_EQ(read_file(target), bytes);
    EXPECT_EQ(writeDictionaryToPlistFile_XPC(url("bad name").c_str(), "x", 1), 0);
    EXPECT_EQ(writeDictionaryToPlistFile_XPC(nullptr, "x", 1), 0);
}

}  // namespace
}  // namespace tz::test
