#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tz_discovery.h"

namespace {

TEST(FileName, BaseUpTo27AndExtensionUpTo3) {
    for (const std::string& name : std::vector<std::string>{"A.B", "ABC.", "A.B.C", std::string(27, 'A'),
                                                            std::string(27, 'A') + ".ICC"})
        EXPECT_TRUE(bJudgement8point3Format(name.c_str())) << name;
    for (const std::string& name : std::vector<std::string>{
             "", ".ICM", "ABC.ICMX", "A.B.CD", std::string(28, 'A'), std::string(28, 'A') + ".ICC"})
        EXPECT_FALSE(bJudgement8point3Format(name.c_str())) << name;
    EXPECT_FALSE(bJudgement8point3Format(nullptr));
    EXPECT_FALSE(bJudgement8point3Format("A B.ICC"));
    EXPECT_FALSE(bJudgement8point3Format("CAF\xC3\x89.ICC"));
}

TEST(FileName, FilterTakesTheSignExtendedCharacter) {
    std::string accepted;
    for (int c = -128; c < 128; ++c)
        if (FileNameFilter(c)) accepted += static_cast<char>(c);
    EXPECT_EQ(accepted, "!#$%&'()-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`abcdefghijklmnopqrstuvwxyz{}~");
    EXPECT_FALSE(FileNameFilter(0xE9));  // never arrives unsigned, refused all the same
}

}  // namespace
