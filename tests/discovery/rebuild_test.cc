// File names, the spool and the rebuild of the profile plist from it.
#include <gtest/gtest.h>

#include <tuple>

#include "discovery_support.h"

namespace tz::test {
namespace {

TEST(FileName, BaseUpTo27ExtensionUpTo3AndTheFilter) {
    const std::string a27(27, 'A');
    for (const std::string& name : std::vector<std::string>{"A.B", "ABC.", "A.B.C", a27, a27 + ".ICC"})
        EXPECT_TRUE(bJudgement8point3Format(name.c_str())) << name;
    for (const std::string& name : std::vector<std::string>{"", ".ICM", "ABC.ICMX", "A.B.CD", a27 + "A", a27 + "A.ICC",
                                                            "A B.ICC", "CAF\xC3\x89.ICC"})
        EXPECT_FALSE(bJudgement8point3Format(name.c_str())) << name;
    EXPECT_FALSE(bJudgement8point3Format(nullptr));
    std::string accepted;  // the filter takes the character sign-extended
    for (int c = -128; c < 128; ++c) accepted += FileNameFilter(c) ? std::string(1, static_cast<char>(c)) : "";
    EXPECT_EQ(accepted, "!#$%&'()-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`abcdefghijklmnopqrstuvwxyz{}~");
    EXPECT_FALSE(FileNameFilter(0xE9) || FileNameFilter(0x100 + '!'));  // past 127, whatever the low byte
}

struct Spool : ::testing::Test {
    void SetUp() override { vSpoolPlist(nullptr, 0, nullptr, 1); }
    static const SpoolRecord& row(int r) { return PlistForSpool.Entry[r - 1]; }
    ProfilePaths paths;
    Tables before, after;
    ProfileTable table{};
};

TEST_F(Spool, FilesColumnsByRowCountsIndexCellsAndIgnoresEverythingElse) {
    spool_text(cell(1, 1), "7");  // index as OCTET STRING
    spool_int(cell(4, 1), 7);     // file name as INTEGER
    for (const std::string& name : {cell(6, 1), cell(8, 1), cell(1, 0), cell(1, 501), cell(1, 70000),
                                    std::string("1.3.6.1.4.1.99992.1.1.1.1.6.13.1.1.1.1.1")})
        spool_int(name, 7);
    spool_int(cell(1, 1), 7, 17);  // 17 sub-identifiers: no row
    std::vector<oid> name = oid_of(cell(1, 1));  // a variable without its name, a name without its variable
    netsnmp_variable_list* var = nullptr;
    snmp_varlist_add_variable(&var, name.data(), name.size(), ASN_INTEGER, "\0\0\0\7", 4);
    vSpoolPlist(nullptr, 0, var, 0), vSpoolPlist(name.data(), 0, nullptr, 0), snmp_free_varbind(var);
    EXPECT_TRUE(same_bytes(PlistForSpool, SpoolTable{}));
    for (int r : {1, 2, 5, 500}) spool_row(r, 10 + r, 4 + r, "F" + std::to_string(r) + ".ICC", r % 7, "Name");
    spool_int(cell(1, 1), 1);             // the same cell again counts again
    spool_int(cell(5, 1), 0x100000003L);  // the low 32 bits
    EXPECT_EQ(PlistForSpool.iNum, 5);     // index cells, not the highest row; the columns: the merge test's row
    EXPECT_EQ(std::tuple(row(1).ProfileClass, row(2).ProfileClass, row(3).IndexOnDevice, row(500).IndexOnDevice),
              std::tuple(3, 2, 0, 510));
    // Texts overwrite in place up to a zero byte, with no terminator, and fill the field and no more.
    spool_text(cell(4, 1), "ABCDEF"), spool_text(cell(4, 1), "XY"), spool_text(cell(3, 2), std::string("\0CD", 3));
    spool_text(cell(4, 3), std::string(40, 'G'));
    EXPECT_EQ(std::tuple(std::string(row(1).FileName), std::string(row(2).ProfileName)), std::tuple("XYCDEF", "Name"));
    EXPECT_EQ(std::string(row(3).FileName, TZ_PROFILE_TEXT + 1), std::string(32, 'G') + '\0');
}

TEST_F(Spool, MarksComeOffAfterAWalkAndGoOnWhenTheRowReportsTheEntry) {
    spool_row(1, 9, 5, "ABC.ICM", 1, "Device name");
    // A mark, then what it becomes after a complete walk, after a failed one, and when row 1 reports its entry.
    for (const std::string marks : {"0000", "1102", "2102", "3334", "4364", "5552", "6664", "7777"}) {
        for (const int column : {1, 2, 3}) {
            table.Entry[0] = entry(3, marks[0] - '0', "ABC.ICM", 5), table.iNum = 1;
            if (column < 3) vDeleteMIBprofilesTemporary(column == 1 ? 0 : 2, &table);
            else vRestructDetail(0, &table);  // the entry keeps its other fields: the rebuild test's ABC.ICM
            EXPECT_EQ(std::tuple(table.Entry[0].InMenu, table.iNum), std::tuple(marks[column] - '0', 1))
                << marks << " " << column;
        }
    }
    table.Entry[0] = entry(1, 1, "ABC.ICM", 4);  // another location: another profile
    table.Entry[1] = entry(2, 1, "ABC.ICM", 5);  // past iNum: not looked at
    for (const int r : {-1, 500, 0}) vRestructDetail(r, &table);  // rows outside 0..499 ignored
    EXPECT_EQ(std::tuple(table.iNum, table.Entry[1].InMenu), std::tuple(2, 1));
    ProfileEntry added = entry(9, 2, "ABC.ICM", 5, 1, "Device name");
    added.DriverAvail = 1;
    EXPECT_TRUE(same_bytes(table.Entry[2], added));
    for (auto& e : table.Entry) e = entry(1, 1, "OLD.ICM");
    table.iNum = TZ_PROFILE_SLOTS;
    vRestructDetail(0, &table);  // a full table drops the row
    EXPECT_EQ(std::tuple(table.iNum, std::string(table.Entry[499].FileName)), std::tuple(500, "OLD.ICM"));
}

TEST_F(Spool, RebuildAfterACompleteWalkRemarksTakesAcceptedRowsAndDropsRefusedNamesBeforeTheMerge) {
    for (const auto& e :
         {entry(6, 1, "A+B.ICC"), entry(3, 2, "ABC.ICM", 4, 1, "Plist name"), entry(5, 4, "KEPT.ICM", 5, 2)})
        Tables::add(before.rgb, e);  // A+B.ICC refused: RGB closes up before new rows come in
    Tables::add(before.sim, entry(1, 1, "TOOLONGEXT.ICCX", 4, 3));
    ASSERT_EQ(before.write(), 0);
    spool_row(1, 3, 4, "ABC.ICM", 1, "Device name");
    spool_row(2, 5, 5, "KEPT.ICM", 2);
    int r = 3;  // rows of source 4 or 5, class 1 to 3, with names accepted are taken
    for (const auto& [source, file, cls] : {std::tuple{4, "NEW.ICM", 1}, {5, "SIMDST.ICC", 3}, {3, "SOURCE3.ICC", 1},
                                            {6, "SOURCE6.ICC", 1}, {4, "CLASS0.ICC", 0}, {4, "CLASS4.ICC", 4},
                                            {5, "BAD NAME.ICC", 2}})
        spool_row(r, r, source, file, cls), ++r;
    spool_row(r, -1, 5, "UNCOUNTED.ICC", 1);  // past the count of index cells
    EXPECT_EQ(vRestructPlistSpool2Current(0), 0);
    ASSERT_EQ(after.read(), 0);
    ASSERT_EQ(std::tuple(after.rgb.iNum, after.sim.iNum, after.dst.iNum), std::tuple(3, 1, 1));
    EXPECT_TRUE(same_bytes(after.rgb.Entry[0], before.rgb.Entry[1]));
    EXPECT_EQ(std::tuple(after.rgb.Entry[1].InMenu, std::string(after.rgb.Entry[2].FileName)),
              std::tuple(4, "NEW.ICM"));
    const ProfileEntry &sim = after.sim.Entry[0], &dst = after.dst.Entry[0];
    EXPECT_EQ(std::tuple(std::string(sim.FileName), std::string(dst.FileName), dst.InMenu, dst.Location),
              std::tuple("SIMDST.ICC", "SIMDST.ICC", 2, 5));
}

}  // namespace
}  // namespace tz::test
