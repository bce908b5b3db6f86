// Writing the profile file: round trips through the reader, what the file
// holds, the category write, and the refusals.
#include <sys/stat.h>

#include <string>

#include "as_unprivileged.h"
#include "store_fixture.h"

namespace tz::test {
namespace {

class WriteTest : public StoreTest {
protected:
    int32_t read_all() { return TZPListReadProfile_All(rgb_.get(), sim_.get(), dst_.get()); }

    std::unique_ptr<ProfileTable> rgb_ = empty_table();
    std::unique_ptr<ProfileTable> sim_ = empty_table();
    std::unique_ptr<ProfileTable> dst_ = empty_table();
};

std::unique_ptr<ProfileTable> sample_table(int count, const char* prefix) {
    auto table = empty_table();
    for (int n = 0; n < count; ++n) {
        const std::string file = std::string(prefix) + std::to_string(n) + ".ICC";
        const std::string name = "Profil \xC3\xA9 & <" + std::to_string(n) + ">";
        table->Entry[n] = entry(n + 1, 1 + n % 6, file.c_str(), 4 + n % 2, 1 + n % 3, name.c_str());
        table->Entry[n].IndexOnDevice = n % 7 == 0 ? -2147483647 - 1 : n + 1;
    }
    table->iNum = count;
    return table;
}

TEST_F(WriteTest, RoundTripGivesTheSameTables) {
    const auto rgb = sample_table(500, "R");
    const auto sim = sample_table(3, "S");
    const auto dst = empty_table();
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), sim.get(), dst.get()), 0);
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *rgb));
    EXPECT_TRUE(same_bytes(*sim_, *sim));
    EXPECT_TRUE(same_bytes(*dst_, *dst));
}

TEST_F(WriteTest, RoundTripExceptions) {
    auto rgb = empty_table();
    rgb->Entry[0] = entry(1, 1, "A.ICC");
    rgb->Entry[0].DriverAvail = 5;                            // memory only
    std::strcpy(rgb->Entry[0].ProfileName, "bad \xC3\x28");   // not UTF-8
    rgb->Entry[1] = entry(2, 1, "B.ICC");
    rgb->Entry[5] = entry(6, 1, "F.ICC");
    rgb->iNum = 2;  // written as it stands; the reader's count check changes it
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), empty_table().get(), empty_table().get()), 0);

    const std::string file = read_file(current_);
    const size_t rgb_at = file.find("<key>RGB</key>");
    const std::string xml = file.substr(rgb_at, file.find("<key>SIM</key>") - rgb_at);
    EXPECT_NE(xml.find("<key>ProfileName0001</key>"), std::string::npos);
    EXPECT_EQ(xml.find("<key>ProfileName0000</key>"), std::string::npos);
    EXPECT_NE(xml.find("<key>FileName0005</key>\n\t\t\t<string>F.ICC</string>"), std::string::npos);
    EXPECT_EQ(xml.find("DriverAvail"), std::string::npos);

    std::strcpy(rgb_->Entry[0].ProfileName, "caller");
    ASSERT_EQ(read_all(), 0);
    EXPECT_EQ(rgb_->Entry[0].DriverAvail, 0);
    EXPECT_STREQ(rgb_->Entry[0].ProfileName, "caller");
    EXPECT_EQ(rgb_->iNum, 3);
}

TEST_F(WriteTest, EveryFileHoldsAllSlotsAndTheWritersLayout) {
    auto rgb = empty_table();
    rgb->Entry[0] = entry(3, 2, "OFFICE.ICC", 4, 1, "Office RGB");
    rgb->iNum = 1;
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), empty_table().get(), empty_table().get()), 0);
    const std::string xml = read_file(current_);
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n\t<key>DST</key>\n\t<dict>\n\t\t<key>FileName</key>\n"
        "\t\t<dict>\n\t\t\t<key>FileName0000</key>\n\t\t\t<string></string>\n";
    EXPECT_EQ(xml.substr(0, head.size()), head);
    EXPECT_EQ(xml.substr(xml.size() - 17), "</dict>\n</plist>\n");
    auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = xml.find(what); at != std::string::npos; at = xml.find(what, at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("<key>InMenu0"), 1500u);
    EXPECT_EQ(count("<key>ProfileName0"), 1500u);
    EXPECT_EQ(count("<key>iNum</key>"), 3u);
    // Keys in byte order: upper case before "iNum", the root's four sorted.
    EXPECT_LT(xml.find("<key>ProfileName</key>"), xml.find("<key>iNum</key>"));
    EXPECT_LT(xml.find("<key>PlistVersion</key>\n\t<integer>1</integer>"), xml.find("<key>RGB</key>"));
    EXPECT_LT(xml.find("<key>DST</key>"), xml.find("<key>PlistVersion</key>"));
}

TEST_F(WriteTest, CreatePropsDictionaryHandsOutEightDictionaries) {
    auto table = empty_table();
    table->Entry[1] = entry(9, 1, "B.ICC");
    table->iNum = 4;
    TZDictionary* out[7] = {};
    for (uint32_t category : {0u, 1u, 2u, 7u}) {
        TZDictionary* result = CreatePropsDictionary(category, table.get(), &out[0], &out[1],
                                                     &out[2], &out[3], &out[4], &out[5], &out[6]);
        EXPECT_EQ(TZDictionaryGetCount(result), category <= 2 ? 1u : 0u);
        if (category == 1) {
            EXPECT_EQ(TZDictionaryGetDictionary(result, "SIM"), out[0]);
        }
        EXPECT_EQ(TZDictionaryGetCount(out[0]), 7u);
        int32_t count = 0;
        ReadDictionaryIntEntry(out[0], "iNum", &count);
        EXPECT_EQ(count, 4);
        int32_t location = -1;
        ReadDictionaryIntEntry(out[4], "Location0001", &location);  // Location is the 5th output
        EXPECT_EQ(location, 4);
        char name[32] = "x";
        ReadDictionaryStringEntry(out[5], "FileName0001", name);
        EXPECT_STREQ(name, "B.ICC");
        for (int i = 1; i < 7; ++i) EXPECT_EQ(TZDictionaryGetCount(out[i]), 500u);
        // The result keeps the category dictionary alive past its release.
        for (TZDictionary* d : out) TZDictionaryRelease(d);
        TZDictionaryRelease(result);
    }
}

TEST_F(WriteTest, CategoryWriteKeepsTheOtherCategories) {
    const auto rgb = sample_table(2, "R");
    const auto sim = sample_table(3, "S");
    const auto dst = sample_table(4, "D");
    ASSERT_EQ(TZPListWriteProfile_All(rgb.get(), sim.get(), dst.get()), 0);
    const auto replacement = sample_table(1, "X");
    auto rgb_out = empty_table(), sim_out = empty_table(), dst_out = empty_table();
    ASSERT_EQ(TZPListWriteProfile_Dict(replacement.get(), TZ_CATEGORY_SIM, rgb_out.get(),
                                       sim_out.get(), dst_out.get()),
              0);
    EXPECT_TRUE(same_bytes(*sim_out, *replacement));
    EXPECT_TRUE(same_bytes(*dst_out, *dst));
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *rgb));
    EXPECT_TRUE(same_bytes(*sim_, *replacement));
    EXPECT_TRUE(same_bytes(*dst_, *dst));

    // Above 2: nothing written, and the outputs hold the file as read.
    const std::string before = read_file(current_);
    EXPECT_EQ(TZPListWriteProfile_Dict(replacement.get(), 3, nullptr, sim_out.get(), nullptr), -1);
    EXPECT_EQ(read_file(current_), before);
    EXPECT_TRUE(same_bytes(*sim_out, *replacement));
}

TEST_F(WriteTest, CategoryWriteOnADamagedFileEmptiesTheOthers) {
    write_file(current_, "<plist><dict><key>RGB</key>");
    const auto dst = sample_table(2, "D");
    ASSERT_EQ(TZPListWriteProfile_Dict(dst.get(), TZ_CATEGORY_DST, nullptr, nullptr, nullptr), 0);
    rgb_->iNum = 9;
    ASSERT_EQ(read_all(), 0);
    EXPECT_TRUE(same_bytes(*rgb_, *empty_table()));
    EXPECT_TRUE(same_bytes(*dst_, *dst));
}

TEST_F(WriteTest, WriteIsRefusedWhereTheFolderIsNotWritable) {
    const std::string folder = dir_.file("locked");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const std::string path = folder + "/user-T48Q-profile.plist";
    TZ_PLIST_PROFILE_PATH = path.c_str();
    const auto rgb = sample_table(2, "R");
    // As nobody, in a folder owned by root (or by us with no write bit).
    ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
    const int result = run_unprivileged([&] {
        const int32_t all = TZPListWriteProfile_All(rgb.get(), rgb.get(), rgb.get());
        const int32_t pap = TZPListWriteProfile_All_Pap(rgb.get(), rgb.get(), rgb.get(), rgb.get(),
                                                        rgb.get(), rgb.get());
        return all == -1 && pap == -1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(exists(path));
}

}  // namespace
}  // namespace tz::test
