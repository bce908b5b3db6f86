// Reading the profile file: the presence checks, what missing or odd values
// leave alone, the count check, and the single-category and Pap reads.
#include "store_fixture.h"

namespace tz::test {
namespace {

class ReadTest : public StoreTest {
protected:
    void write(const std::map<std::string, Category>& categories) {
        write_file(current_, file_xml(categories));
    }
    // RGB as given, SIM and DST empty but complete.
    void write_rgb(const Category& rgb) { write({{"RGB", rgb}, {"SIM", {}}, {"DST", {}}}); }
};

void prefill(ProfileTable& t) {
    for (int n = 0; n < 5; ++n) t.Entry[n] = entry(n + 1, 1, "OLD.ICC", 5, 2, "old");
    t.iNum = 5;
}

TEST_F(ReadTest, PresenceChecksComeBeforeAnyTableIsWritten) {
    prefill(*rgb_);
    const ProfileTable before = *rgb_;
    EXPECT_EQ(read_all(), -1);  // no file
    const Category full{{{0, entry(3, 2, "A.ICC")}}, "1"};
    write({{"RGB", full}, {"SIM", {{}, "", {"Location"}}}, {"DST", {}}});
    EXPECT_EQ(read_all(), -1);
    write({{"RGB", full}, {"SIM", {}}});
    EXPECT_EQ(read_all(), -1);
    // A field "dictionary" of another type counts as missing.
    write({{"RGB", full}, {"SIM", {}}, {"DST", {{}, "", {"InMenu"}, {}, "<key>InMenu</key><true/>"}}});
    EXPECT_EQ(read_all(), -1);
    EXPECT_TRUE(same_bytes(*rgb_, before));

    write_rgb({{}, "5"});  // six empty field dictionaries: every slot kept
    EXPECT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, before));
}

TEST_F(ReadTest, MissingAndWrongTypedValuesLeaveTheFieldAndTextIsCutAt31Bytes) {
    const std::string name = std::string(30, 'n') + "\xC3\xA9" + "tail";  // cut inside the é
    write_rgb({{{0, entry(3, 2, "A.ICC", 4, 1, "Alpha")}, {1, entry(1, 1, "B.ICC")}},
               "",
               {},
               {{"ProfileName/ProfileName0000", ""},
                {"IndexOnDevice/IndexOnDevice0000", "<string>12</string>"},
                {"FileName/FileName0000", "<integer>77</integer>"},
                {"Location/Location0000", "<integer>4294967301</integer>"},  // 2^32 + 5
                {"ProfileClass/ProfileClass0000", "<true/>"},
                {"ProfileName/ProfileName0001", "<string>" + name + "</string>"}}});
    rgb_->Entry[0] = entry(8, 0, "KEEP.ICC", 6, 2, "kept");
    std::memset(rgb_->Entry[1].ProfileName, 'x', 32);
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(rgb_->Entry[0], entry(8, 2, "KEEP.ICC", 6, 2, "kept")));
    EXPECT_EQ(std::string(rgb_->Entry[1].ProfileName, 32), name.substr(0, 31) + '\0');
    EXPECT_EQ(rgb_->iNum, 2);  // no "iNum": the count check sets it
}

TEST_F(ReadTest, CountCheckTrustsSlotsInUseToComeFirst) {
    // iNum 5, in use 0, 1, 7: k = 3 clears 3..499 and slot 7 is lost. "InMenu0500"
    // and "InMenu7" are no slot keys.
    write({{"RGB",
            {{{0, entry(1, 1, "A.ICC")}, {1, entry(2, 1, "B.ICC")}, {7, entry(8, 1, "H.ICC")}},
             "5",
             {},
             {{"InMenu/InMenu0500", "<integer>3</integer>"}, {"InMenu/InMenu7", "<integer>3</integer>"}}}},
           // iNum 2, in use 0 and 7: the counts agree and the gap stays.
           {"SIM", {{{0, entry(1, 1, "A.ICC")}, {7, entry(8, 1, "H.ICC")}}, "2"}},
           {"DST", {}}});
    for (auto& e : dst_->Entry) e = entry(1, 1, "FULL.ICC");  // k = 500: nothing cleared
    ASSERT_EQ(read_all(), 0);
    EXPECT_EQ(rgb_->iNum, 3);
    EXPECT_TRUE(same_bytes(rgb_->Entry[7], ProfileEntry{}));
    EXPECT_EQ(sim_->iNum, 2);
    EXPECT_STREQ(sim_->Entry[7].FileName, "H.ICC");
    EXPECT_EQ(dst_->iNum, 500);
    EXPECT_STREQ(dst_->Entry[499].FileName, "FULL.ICC");
}

TEST_F(ReadTest, CategoryReadNeedsOnlyItsOwnCategory) {
    write({{"SIM", {{{0, entry(5, 1, "S.ICC")}}, "1"}}});
    for (int32_t selector : {0, 2, 3, -1}) EXPECT_EQ(TZPListReadProfile_Dict(rgb_, selector), -1);
    EXPECT_TRUE(same_bytes(*rgb_, *table()));
    ASSERT_EQ(TZPListReadProfile_Dict(rgb_, TZ_CATEGORY_SIM), 0);
    EXPECT_STREQ(rgb_->Entry[0].FileName, "S.ICC");

    // Over a table of five: slots 3-4 keep theirs, and with no "iNum" the
    // count 5 agrees with the slots in use.
    write({{"RGB", {{{0, entry(7, 2, "N0.ICC")}, {1, entry(8, 2, "N1.ICC")}, {2, entry(9, 2, "N2.ICC")}}}}});
    prefill(*sim_);
    ASSERT_EQ(TZPListReadProfile_Dict(sim_, TZ_CATEGORY_RGB), 0);
    EXPECT_STREQ(sim_->Entry[2].FileName, "N2.ICC");
    EXPECT_STREQ(sim_->Entry[3].FileName, "OLD.ICC");
    EXPECT_EQ(sim_->iNum, 5);

    write({{"RGB", {{}, "", {"Location"}}}});
    const ProfileTable before = *sim_;
    EXPECT_EQ(TZPListReadProfile_Dict(sim_, TZ_CATEGORY_RGB), -1);
    EXPECT_EQ(TZPListReadProfile_Dict_Pap(sim_, TZ_CATEGORY_RGB), -1);
    EXPECT_TRUE(same_bytes(*sim_, before));
}

TEST_F(ReadTest, PapReadDropsMarkTwoAndStoresFourAsSix) {
    // File slot 5 has a FileName but no InMenu: it lands in table slot 4 and
    // keeps that slot's InMenu. One slot is skipped, so table slot 499 is not
    // written, and the count check then clears it.
    write({{"RGB",
            {{{0, entry(1, 1, "F0.ICC")},
              {1, entry(2, 2, "F1.ICC")},
              {2, entry(3, 4, "F2.ICC")},
              {3, entry(4, 3, "F3.ICC")},
              {4, entry(5, 6, "F4.ICC")}},
             "5",
             {},
             {{"FileName/FileName0005", "<string>F5.ICC</string>"}}}}});
    rgb_->Entry[4].InMenu = 9;
    rgb_->Entry[499] = entry(0, 1, "LAST.ICC");
    ASSERT_EQ(TZPListReadProfile_Dict_Pap(rgb_, TZ_CATEGORY_RGB), 0);
    const char* files[] = {"F0.ICC", "F2.ICC", "F3.ICC", "F4.ICC", "F5.ICC"};
    const int32_t marks[] = {1, 6, 3, 6, 9};
    for (int d = 0; d < 5; ++d) {
        EXPECT_STREQ(rgb_->Entry[d].FileName, files[d]) << d;
        EXPECT_EQ(rgb_->Entry[d].InMenu, marks[d]) << d;
    }
    EXPECT_EQ(rgb_->iNum, 6);  // "iNum" 5 against six in use (0-4 and 499)
    EXPECT_EQ(rgb_->Entry[499].FileName[0], '\0');
}

}  // namespace
}  // namespace tz::test
