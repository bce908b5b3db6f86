#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "discovery_support.h"

namespace {

using tz::test::cell;
using tz::test::spool_row;
using tz::test::Variable;

class Spool : public ::testing::Test {
protected:
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    static const SpoolRecord& row(int r) { return PlistForSpool.Entry[r - 1]; }
    static std::string file_name(int r) {
        return std::string(row(r).FileName, strnlen(row(r).FileName, TZ_PROFILE_TEXT));
    }
};

TEST_F(Spool, FilesTheSixColumnsByRowNumber) {
    for (int r = 1; r <= 3; ++r) spool_row(r, 10 + r, 4, "F" + std::to_string(r) + ".ICC", r, "Name");
    EXPECT_EQ(PlistForSpool.iNum, 3);
    EXPECT_EQ(row(2).IndexOnDevice, 12);
    EXPECT_EQ(row(2).SourceType, 4);
    EXPECT_EQ(row(2).ProfileClass, 2);
    EXPECT_EQ(row(2).DriverAvail, 1);
    EXPECT_EQ(row(2).InMenu, 0);
    EXPECT_EQ(file_name(2), "F2.ICC");
    EXPECT_STREQ(row(2).ProfileName, "Name");
    EXPECT_EQ(row(4).IndexOnDevice, 0);
}

TEST_F(Spool, CountsIndexCellsNotTheHighestRow) {
    for (int r : {1, 2, 5}) spool_row(r, r, 4, "A.ICC", 1);
    EXPECT_EQ(PlistForSpool.iNum, 3);
    EXPECT_EQ(row(5).IndexOnDevice, 5);
    EXPECT_EQ(row(3).IndexOnDevice, 0);
    Variable::integer(cell(1, 1), 1).spool();  // the same cell again counts again
    EXPECT_EQ(PlistForSpool.iNum, 4);
}

TEST_F(Spool, IgnoresWrongTypesUnknownColumnsAndForeignOids) {
    Variable::text(cell(1, 1), "7").spool();       // index as OCTET STRING
    Variable::integer(cell(4, 1), 7).spool();      // file name as INTEGER
    Variable::integer(cell(6, 1), 7).spool();      // column 6 is not used
    Variable::integer(cell(8, 1), 7).spool();
    Variable::integer("1.3.6.1.4.1.99992.1.1.1.1.6.13.1.1.1.1.1", 7).spool();
    SpoolTable empty;
    std::memset(&empty, 0, sizeof empty);
    EXPECT_EQ(std::memcmp(&PlistForSpool, &empty, sizeof empty), 0);
}

TEST_F(Spool, NeverWritesOutsideTheTable) {
    Variable::integer(cell(1, 0), 1).spool();
    Variable::integer(cell(1, 501), 1).spool();
    Variable::integer(cell(1, 70000), 1).spool();
    Variable::integer(tz::test::kTable + ".1.1", 1).spool();  // 17 sub-identifiers
    EXPECT_EQ(PlistForSpool.iNum, 0);
    Variable::integer(cell(1, 500), 9).spool();
    EXPECT_EQ(row(500).IndexOnDevice, 9);
}

TEST_F(Spool, StoresTheLow32BitsOfAnInteger) {
    Variable::integer(cell(5, 1), 0x100000003L).spool();
    Variable::integer(cell(2, 1), -5).spool();
    EXPECT_EQ(row(1).ProfileClass, 3);
    EXPECT_EQ(row(1).SourceType, -5);
}

TEST_F(Spool, StringsOverwriteInPlaceWithoutTerminator) {
    Variable::text(cell(4, 1), "ABCDEF").spool();
    Variable::text(cell(4, 1), "XY").spool();
    EXPECT_EQ(file_name(1), "XYCDEF");

    Variable::text(cell(3, 2), std::string("AB\0CD", 5)).spool();  // cut at the zero byte
    EXPECT_STREQ(row(2).ProfileName, "AB");
}

TEST_F(Spool, LongStringsFillTheFieldAndNoMore) {
    Variable::text(cell(4, 1), std::string(32, 'F')).spool();
    EXPECT_EQ(std::string(row(1).FileName, TZ_PROFILE_TEXT), std::string(32, 'F'));
    EXPECT_EQ(row(1).ProfileName[0], '\0');  // the neighbour is untouched

    Variable::text(cell(4, 2), std::string(40, 'G')).spool();  // cut to 32
    EXPECT_EQ(std::string(row(2).FileName, TZ_PROFILE_TEXT), std::string(32, 'G'));
    EXPECT_EQ(row(2).ProfileName[0], '\0');
}

}  // namespace
