// Writing the profile file: round trips through the reader, what the file
// holds, and the category write.
#include "store_fixture.h"

namespace tz::test {
namespace {

using WriteTest = StoreTest;

std::unique_ptr<ProfileTable> sample(int count, const char* prefix) {
    auto t = table();
    for (int n = 0; n < count; ++n) {
        const std::string file = prefix + std::to_string(n) + ".ICC";
        const std::string name = "Profil \xC3\xA9 & <" + std::to_string(n) + ">";
        t->Entry[n] =
            entry(n % 7 ? n + 1 : INT32_MIN, 1 + n % 6, file.c_str(), 4 + n % 2, n % 3, name.c_str());
    }
    t->iNum = count;
    return t;
}

TEST_F(WriteTest, RoundTripGivesTheSameTables) {
    const auto rgb = sample(500, "R"), sim = sample(3, "S"), dst = table();
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), sim.get(), dst.get()), 0);
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *rgb));
    EXPECT_TRUE(same_bytes(*sim_, *sim));
    EXPECT_TRUE(same_bytes(*dst_, *dst));
}

TEST_F(WriteTest, RoundTripExceptionsAndTheFileLayout) {
    auto rgb = table();
    rgb->Entry[0] = entry(1, 1, "A.ICC", 4, 1, "bad \xC3\x28");  // not UTF-8: key left out
    rgb->Entry[0].DriverAvail = 5;                               // memory only
    rgb->Entry[1] = entry(2, 1, "B.ICC");
    rgb->Entry[5] = entry(6, 1, "F.ICC");
    rgb->iNum = 2;  // written as it stands; the reader's count check changes it
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), table().get(), table().get()), 0);

    const std::string file = read_file(current_);
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n\t<key>DST</key>\n\t<dict>\n\t\t<key>FileName</key>\n"
        "\t\t<dict>\n\t\t\t<key>FileName0000</key>\n\t\t\t<string></string>\n";
    EXPECT_EQ(file.substr(0, head.size()), head);
    EXPECT_EQ(file.substr(file.size() - 17), "</dict>\n</plist>\n");
    size_t slot_keys = 0;
    for (size_t at = file.find("<key>InMenu0"); at != std::string::npos;
         at = file.find("<key>InMenu0", at + 1))
        ++slot_keys;
    EXPECT_EQ(slot_keys, 1500u);  // all slots, whatever iNum says
    // Keys in byte order: "iNum" after the upper-case keys.
    EXPECT_LT(file.find("<key>ProfileName</key>"), file.find("<key>iNum</key>"));
    EXPECT_LT(file.find("<key>DST</key>"), file.find("<key>PlistVersion</key>\n\t<integer>1</integer>"));
    // RGB's first name is left out: the next one found after RGB is SIM's.
    const size_t rgb_at = file.find("<key>RGB</key>"), sim_at = file.find("<key>SIM</key>");
    EXPECT_GT(file.find("<key>ProfileName0000</key>", rgb_at), sim_at);
    EXPECT_EQ(file.find("DriverAvail"), std::string::npos);

    std::strcpy(rgb_->Entry[0].ProfileName, "caller");
    ASSERT_EQ(read_all(), 0);
    EXPECT_EQ(rgb_->Entry[0].DriverAvail, 0);
    EXPECT_STREQ(rgb_->Entry[0].ProfileName, "caller");
    EXPECT_EQ(rgb_->iNum, 3);
}

TEST_F(WriteTest, CategoryWriteKeepsTheOtherCategories) {
    const auto rgb = sample(2, "R"), sim = sample(3, "S"), dst = sample(4, "D"), x = sample(1, "X");
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), sim.get(), dst.get()), 0);
    auto sim_out = table(), dst_out = table();
    ASSERT_EQ(TZPListWriteProfile_Dict(x.get(), TZ_CATEGORY_SIM, nullptr, sim_out.get(), dst_out.get()), 0);
    EXPECT_TRUE(same_bytes(*sim_out, *x));
    EXPECT_TRUE(same_bytes(*dst_out, *dst));
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *rgb) && same_bytes(*sim_, *x) && same_bytes(*dst_, *dst));

    const std::string before = read_file(current_);  // above 2: nothing written
    EXPECT_EQ(TZPListWriteProfile_Dict(x.get(), 3, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read_file(current_), before);

    // On a damaged file the other two categories are written back empty.
    write_file(current_, "<plist><dict><key>RGB</key>");
    ASSERT_EQ(TZPListWriteProfile_Dict(dst.get(), TZ_CATEGORY_DST, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *table()) && same_bytes(*dst_, *dst));
}

}  // namespace
}  // namespace tz::test
