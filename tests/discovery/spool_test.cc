#include <gtest/gtest.h>

#include <tuple>

#include "discovery_support.h"

namespace tz::test {
namespace {

TEST(FileName, BaseUpTo27ExtensionUpTo3AndTheFilter) {
    for (const std::string& name : {std::string("A.B"), std::string("ABC."), std::string("A.B.C"),
                                    std::string(27, 'A'), std::string(27, 'A') + ".ICC"})
        EXPECT_TRUE(bJudgement8point3Format(name.c_str())) << name;
    for (const std::string& name : {std::string(), std::string(".ICM"), std::string("ABC.ICMX"), std::string("A.B.CD"),
                                    std::string(28, 'A'), std::string(28, 'A') + ".ICC", std::string("A B.ICC"),
                                    std::string("CAF\xC3\x89.ICC")})
        EXPECT_FALSE(bJudgement8point3Format(name.c_str())) << name;
    EXPECT_FALSE(bJudgement8point3Format(nullptr));
    std::string accepted;  // the filter takes the character sign-extended
    for (int c = -128; c < 128; ++c)
        if (FileNameFilter(c)) accepted += static_cast<char>(c);
    EXPECT_EQ(accepted, "!#$%&'()-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`abcdefghijklmnopqrstuvwxyz{}~");
    EXPECT_FALSE(FileNameFilter(0xE9));
    EXPECT_FALSE(FileNameFilter(0x100 + '!'));  // past 127, however its low byte reads
}

class Spool : public ::testing::Test {
protected:
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    static const SpoolRecord& row(int r) { return PlistForSpool.Entry[r - 1]; }
};

TEST_F(Spool, FilesColumnsByRowCountsIndexCellsAndIgnoresEverythingElse) {
    spool_text(cell(1, 1), "7");  // index as OCTET STRING
    spool_int(cell(4, 1), 7);     // file name as INTEGER
    for (const std::string& name : {cell(6, 1), cell(8, 1), std::string("1.3.6.1.4.1.99992.1.1.1.1.6.13.1.1.1.1.1"), cell(1, 0),
                                    cell(1, 501), cell(1, 70000)})
        spool_int(name, 7);
    long seven = 7;
    spool(cell(1, 1), ASN_INTEGER, &seven, sizeof seven, 17);  // 17 sub-identifiers: no row
    EXPECT_TRUE(same_bytes(PlistForSpool, SpoolTable{}));

    for (int r : {1, 2, 5, 500}) spool_row(r, 10 + r, 4 + r, "F" + std::to_string(r) + ".ICC", r % 7, "Name");
    EXPECT_EQ(PlistForSpool.iNum, 4);  // index cells, not the highest row
    const SpoolRecord& r2 = row(2);
    EXPECT_EQ(std::tuple(r2.IndexOnDevice, r2.SourceType, r2.ProfileClass, r2.DriverAvail, r2.InMenu),
              std::tuple(12, 6, 2, 1, 0));
    EXPECT_STREQ(r2.FileName, "F2.ICC");
    EXPECT_STREQ(r2.ProfileName, "Name");
    EXPECT_EQ(std::tuple(row(3).IndexOnDevice, row(500).IndexOnDevice), std::tuple(0, 510));
    spool_int(cell(1, 1), 1);  // the same cell again counts again
    EXPECT_EQ(PlistForSpool.iNum, 5);
    spool_int(cell(5, 1), 0x100000003L);  // the low 32 bits
    EXPECT_EQ(row(1).ProfileClass, 3);
}

TEST_F(Spool, StringsOverwriteInPlaceUpToAZeroByteAndFillTheFieldAndNoMore) {
    spool_text(cell(4, 1), "ABCDEF");
    spool_text(cell(4, 1), "XY");
    EXPECT_STREQ(row(1).FileName, "XYCDEF");  // no terminator written
    spool_text(cell(3, 2), std::string("AB\0CD", 5));
    EXPECT_STREQ(row(2).ProfileName, "AB");
    spool_text(cell(4, 3), std::string(40, 'G'));
    EXPECT_EQ(std::string(row(3).FileName, TZ_PROFILE_TEXT), std::string(32, 'G'));
    EXPECT_EQ(row(3).ProfileName[0], '\0');  // the neighbour is untouched
}

}  // namespace
}  // namespace tz::test
