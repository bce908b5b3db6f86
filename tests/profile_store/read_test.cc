// Reading the profile file: the presence checks, what missing or odd values
// leave alone, the count check, and the single-category and Pap reads.
#include <string>

#include "store_fixture.h"

namespace tz::test {
namespace {

class ReadTest : public StoreTest {
protected:
    void write(const PDict& root) { write_file(current_, plist_xml(root)); }

    // RGB with the given slots, SIM and DST empty but complete.
    static PDict file_with_rgb(const std::map<int, ProfileEntry>& slots) {
        return PDict{{"RGB", PNode{category(slots)}},
                     {"SIM", PNode{category({})}},
                     {"DST", PNode{category({})}},
                     {"PlistVersion", PNode{1LL}}};
    }

    std::unique_ptr<ProfileTable> rgb_ = empty_table();
    std::unique_ptr<ProfileTable> sim_ = empty_table();
    std::unique_ptr<ProfileTable> dst_ = empty_table();
};

ProfileTable* prefilled(ProfileTable* table) {
    for (int n = 0; n < 5; ++n) table->Entry[n] = entry(n + 1, 1, "OLD.ICC", 5, 2, "old");
    table->iNum = 5;
    return table;
}

TEST_F(ReadTest, MissingFileAndMissingDictionariesLeaveTablesUntouched) {
    prefilled(rgb_.get());
    const auto before = *rgb_;
    EXPECT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), -1);  // no file

    // A complete RGB but SIM without Location: nothing is filled.
    PDict root = file_with_rgb({{0, entry(3, 2, "A.ICC")}});
    dict_at(root, "SIM").erase("Location");
    write(root);
    EXPECT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), -1);

    root = file_with_rgb({{0, entry(3, 2, "A.ICC")}});
    root.erase("DST");
    write(root);
    EXPECT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), -1);

    // A field "dictionary" of another type counts as missing.
    root = file_with_rgb({});
    dict_at(root, "DST")["InMenu"] = PNode{7LL};
    write(root);
    EXPECT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), -1);
    EXPECT_TRUE(same_bytes(*rgb_, before));
}

TEST_F(ReadTest, EmptyFieldDictionariesKeepCallerValuesAndTakeINum) {
    prefilled(rgb_.get());
    PDict root = file_with_rgb({});
    dict_at(root, "RGB")["iNum"] = PNode{5LL};
    write(root);
    const auto before = *rgb_;
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_TRUE(same_bytes(*rgb_, before));
}

TEST_F(ReadTest, MissingSlotKeyLeavesOnlyThatField) {
    PDict root = file_with_rgb({{0, entry(3, 2, "A.ICC", 4, 1, "Alpha")}});
    dict_at(dict_at(root, "RGB"), "ProfileName").clear();
    dict_at(dict_at(root, "RGB"), "Location").clear();
    write(root);
    rgb_->Entry[0] = entry(0, 0, "", 9, 0, "kept");
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "A.ICC");
    EXPECT_STREQ(rgb_->Entry[0].ProfileName, "kept");
    EXPECT_EQ(rgb_->Entry[0].Location, 9);
    EXPECT_EQ(rgb_->Entry[0].IndexOnDevice, 3);
    EXPECT_EQ(rgb_->iNum, 1);  // no "iNum": the count check sets it
}

TEST_F(ReadTest, WrongTypedValuesAreSkippedNotConverted) {
    PDict root = file_with_rgb({{0, entry(3, 2, "A.ICC", 4, 1, "Alpha")}});
    PDict& rgb = dict_at(root, "RGB");
    dict_at(rgb, "IndexOnDevice")["IndexOnDevice0000"] = PNode{std::string("12")};
    dict_at(rgb, "FileName")["FileName0000"] = PNode{77LL};
    dict_at(rgb, "Location")["Location0000"] = PNode{4294967301LL};  // 2^32 + 5
    dict_at(rgb, "ProfileClass")["ProfileClass0000"] = PNode{RawXml{"<true/>"}};
    write(root);
    rgb_->Entry[0] = entry(8, 0, "KEEP.ICC", 6, 2, "");
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_EQ(rgb_->Entry[0].IndexOnDevice, 8);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "KEEP.ICC");
    EXPECT_EQ(rgb_->Entry[0].Location, 6);
    EXPECT_EQ(rgb_->Entry[0].ProfileClass, 2);
    EXPECT_EQ(rgb_->Entry[0].InMenu, 2);
    EXPECT_STREQ(rgb_->Entry[0].ProfileName, "Alpha");
}

TEST_F(ReadTest, LongTextIsCutAt31BytesEvenInsideACharacter) {
    // 30 ASCII bytes then "é" (2 bytes): the cut falls between its bytes.
    const std::string name = std::string(30, 'n') + "\xC3\xA9" + "tail";
    PDict root = file_with_rgb({{0, entry(1, 1, "A.ICC")}});
    dict_at(dict_at(root, "RGB"), "ProfileName")["ProfileName0000"] = PNode{name};
    dict_at(dict_at(root, "RGB"), "FileName")["FileName0000"] = PNode{std::string(40, 'f')};
    write(root);
    std::memset(rgb_->Entry[0].ProfileName, 'x', sizeof rgb_->Entry[0].ProfileName);
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_EQ(std::string(rgb_->Entry[0].ProfileName, 32), name.substr(0, 31) + '\0');
    EXPECT_EQ(std::string(rgb_->Entry[0].FileName), std::string(31, 'f'));
}

TEST_F(ReadTest, OnlyFourDigitSlotKeysBelow500AreRead) {
    PDict root = file_with_rgb({{0, entry(1, 1, "A.ICC")}});
    PDict& in_menu = dict_at(dict_at(root, "RGB"), "InMenu");
    in_menu["InMenu0500"] = PNode{3LL};
    in_menu["InMenu7"] = PNode{3LL};
    in_menu["InMenu00001"] = PNode{3LL};
    write(root);
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_EQ(rgb_->iNum, 1);
    EXPECT_EQ(rgb_->Entry[1].InMenu, 0);
    EXPECT_EQ(rgb_->Entry[7].InMenu, 0);
}

TEST_F(ReadTest, CountCheckTrustsSlotsInUseToComeFirst) {
    // iNum 5 with slots 0, 1 and 7 in use: k = 3 clears 3..499, slot 7 is lost.
    PDict root = file_with_rgb(
        {{0, entry(1, 1, "A.ICC")}, {1, entry(2, 1, "B.ICC")}, {7, entry(8, 1, "H.ICC")}});
    dict_at(root, "RGB")["iNum"] = PNode{5LL};
    // SIM: iNum 2 with slots 0 and 7: the counts agree, the gap stays.
    dict_at(root, "SIM") = category({{0, entry(1, 1, "A.ICC")}, {7, entry(8, 1, "H.ICC")}});
    dict_at(root, "SIM")["iNum"] = PNode{2LL};
    write(root);
    ASSERT_EQ(TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()), 0);
    EXPECT_EQ(rgb_->iNum, 3);
    EXPECT_EQ(rgb_->Entry[7].InMenu, 0);
    EXPECT_EQ(rgb_->Entry[7].FileName[0], '\0');
    EXPECT_EQ(sim_->iNum, 2);
    EXPECT_STREQ(sim_->Entry[7].FileName, "H.ICC");
}

TEST(CountCheck, ClearsFromKAndCountsAllFiveHundred) {
    auto table = empty_table();
    table->Entry[0] = entry(1, 1, "A.ICC");
    table->Entry[3] = entry(4, 0, "FREE.ICC");  // free, but at slot k: cleared
    table->iNum = 7;
    TZPlistCheckWithInMenu_Dict(table.get());
    EXPECT_EQ(table->iNum, 1);
    EXPECT_EQ(table->Entry[3].FileName[0], '\0');

    for (auto& e : table->Entry) e = entry(1, 1, "A.ICC");
    table->iNum = -3;
    TZPlistCheckWithInMenu_Dict(table.get());
    EXPECT_EQ(table->iNum, 500);
    EXPECT_STREQ(table->Entry[499].FileName, "A.ICC");
}

TEST_F(ReadTest, CategoryReadNeedsOnlyItsOwnCategory) {
    PDict sim = category({{0, entry(5, 1, "S.ICC")}});
    sim["iNum"] = PNode{1LL};
    write(PDict{{"SIM", PNode{sim}}});
    EXPECT_EQ(TZPListReadProfile_Dict(rgb_.get(), TZ_CATEGORY_RGB), -1);
    EXPECT_EQ(TZPListReadProfile_Dict(rgb_.get(), TZ_CATEGORY_DST), -1);
    EXPECT_EQ(TZPListReadProfile_Dict(rgb_.get(), 3), -1);
    EXPECT_EQ(TZPListReadProfile_Dict(rgb_.get(), -1), -1);
    EXPECT_TRUE(same_bytes(*rgb_, *empty_table()));
    ASSERT_EQ(TZPListReadProfile_Dict(rgb_.get(), TZ_CATEGORY_SIM), 0);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "S.ICC");
    EXPECT_EQ(rgb_->iNum, 1);

    // Without Location the category is refused and the table left alone.
    sim.erase("Location");
    write(PDict{{"SIM", PNode{sim}}});
    prefilled(sim_.get());
    const auto before = *sim_;
    EXPECT_EQ(TZPListReadProfile_Dict(sim_.get(), TZ_CATEGORY_SIM), -1);
    EXPECT_EQ(TZPListReadProfile_Dict_Pap(sim_.get(), TZ_CATEGORY_SIM), -1);
    EXPECT_TRUE(same_bytes(*sim_, before));
}

TEST_F(ReadTest, CategoryReadOverPartlyFilledTable) {
    // File slots 0-2 over a table of five: slots 3-4 keep theirs until the
    // count check, which keeps them because "iNum" is absent (count 5 = k).
    write(file_with_rgb({{0, entry(7, 2, "N0.ICC")}, {1, entry(8, 2, "N1.ICC")},
                         {2, entry(9, 2, "N2.ICC")}}));
    prefilled(rgb_.get());
    ASSERT_EQ(TZPListReadProfile_Dict(rgb_.get(), TZ_CATEGORY_RGB), 0);
    EXPECT_STREQ(rgb_->Entry[2].FileName, "N2.ICC");
    EXPECT_STREQ(rgb_->Entry[3].FileName, "OLD.ICC");
    EXPECT_EQ(rgb_->iNum, 5);
}

TEST_F(ReadTest, PapReadDropsMarkTwoAndStoresFourAsSix) {
    PDict rgb = category({{0, entry(1, 1, "F0.ICC")},
                          {1, entry(2, 2, "F1.ICC")},
                          {2, entry(3, 4, "F2.ICC")},
                          {3, entry(4, 3, "F3.ICC")},
                          {4, entry(5, 6, "F4.ICC")}});
    rgb["iNum"] = PNode{5LL};
    // File slot 5 has a FileName but no InMenu: it lands in table slot 4 and
    // keeps that slot's InMenu.
    dict_at(rgb, "FileName")["FileName0005"] = PNode{std::string("F5.ICC")};
    write(PDict{{"RGB", PNode{rgb}}});
    rgb_->Entry[4].InMenu = 9;
    rgb_->Entry[499] = entry(0, 1, "LAST.ICC");  // not written: one slot skipped
    ASSERT_EQ(TZPListReadProfile_Dict_Pap(rgb_.get(), TZ_CATEGORY_RGB), 0);
    const char* files[] = {"F0.ICC", "F2.ICC", "F3.ICC", "F4.ICC", "F5.ICC"};
    const int32_t marks[] = {1, 6, 3, 6, 9};
    for (int d = 0; d < 5; ++d) {
        EXPECT_STREQ(rgb_->Entry[d].FileName, files[d]) << d;
        EXPECT_EQ(rgb_->Entry[d].InMenu, marks[d]) << d;
    }
    // Six slots are in use (0-4 and 499) against "iNum" 5: cleared from 6 on.
    EXPECT_EQ(rgb_->iNum, 6);
    EXPECT_EQ(rgb_->Entry[499].FileName[0], '\0');
}

TEST_F(ReadTest, PapReadOfAllMarkedTwoWritesNoField) {
    PDict rgb = category({{0, entry(1, 2, "A.ICC")}, {1, entry(2, 2, "B.ICC")}});
    rgb["iNum"] = PNode{2LL};
    write(PDict{{"RGB", PNode{rgb}}});
    prefilled(rgb_.get());
    ASSERT_EQ(TZPListReadProfile_Dict_Pap(rgb_.get(), TZ_CATEGORY_RGB), 0);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "OLD.ICC");
    EXPECT_EQ(rgb_->iNum, 5);  // "iNum" 2 disagrees with five in use
}

}  // namespace
}  // namespace tz::test
