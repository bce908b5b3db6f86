#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "discovery_support.h"

namespace tz::test {
namespace {

class Spool : public ::testing::Test {
protected:
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    static const SpoolRecord& row(int r) { return PlistForSpool.Entry[r - 1]; }
    static std::string file_name(int r) {
        return std::string(row(r).FileName, strnlen(row(r).FileName, TZ_PROFILE_TEXT));
    }
};

TEST_F(Spool, FilesColumnsByRowAndCountsIndexCells) {
    for (int r : {1, 2, 5}) spool_row(r, 10 + r, 4 + r, "F" + std::to_string(r) + ".ICC", r, "Name");
    EXPECT_EQ(PlistForSpool.iNum, 3);  // index cells, not the highest row
    const SpoolRecord& r2 = row(2);
    EXPECT_EQ(std::tuple(r2.IndexOnDevice, r2.SourceType, r2.ProfileClass, r2.DriverAvail, r2.InMenu),
              std::tuple(12, 6, 2, 1, 0));
    EXPECT_EQ(file_name(2), "F2.ICC");
    EXPECT_STREQ(r2.ProfileName, "Name");
    EXPECT_EQ(row(5).IndexOnDevice, 15);
    EXPECT_EQ(row(3).IndexOnDevice, 0);
    Variable::integer(cell(1, 1), 1).spool();  // the same cell again counts again
    EXPECT_EQ(PlistForSpool.iNum, 4);
    Variable::integer(cell(5, 1), 0x100000003L).spool();  // the low 32 bits
    EXPECT_EQ(row(1).ProfileClass, 3);
}

TEST_F(Spool, IgnoresWrongTypesUnknownColumnsAndCellsOutsideTheTable) {
    Variable::text(cell(1, 1), "7").spool();   // index as OCTET STRING
    Variable::integer(cell(4, 1), 7).spool();  // file name as INTEGER
    Variable::integer(cell(6, 1), 7).spool();  // column 6 is not used
    Variable::integer(cell(8, 1), 7).spool();
    Variable::integer("1.3.6.1.4.1.99992.1.1.1.1.6.13.1.1.1.1.1", 7).spool();
    Variable::integer(cell(1, 0), 1).spool();
    Variable::integer(cell(1, 501), 1).spool();
    Variable::integer(cell(1, 70000), 1).spool();
    Variable::integer(kProfileTable + ".1.1", 1).spool();  // 17 sub-identifiers
    EXPECT_TRUE(same_bytes(PlistForSpool, SpoolTable{}));
    Variable::integer(cell(1, 500), 9).spool();
    EXPECT_EQ(row(500).IndexOnDevice, 9);
}

TEST_F(Spool, StringsOverwriteInPlaceAndFillTheFieldAndNoMore) {
    Variable::text(cell(4, 1), "ABCDEF").spool();
    Variable::text(cell(4, 1), "XY").spool();
    EXPECT_EQ(file_name(1), "XYCDEF");                             // no terminator written
    Variable::text(cell(3, 2), std::string("AB\0CD", 5)).spool();  // cut at the zero byte
    EXPECT_STREQ(row(2).ProfileName, "AB");
    Variable::text(cell(4, 3), std::string(40, 'G')).spool();
    EXPECT_EQ(std::string(row(3).FileName, TZ_PROFILE_TEXT), std::string(32, 'G'));
    EXPECT_EQ(row(3).ProfileName[0], '\0');  // the neighbour is untouched
}

}  // namespace
}  // namespace tz::test
