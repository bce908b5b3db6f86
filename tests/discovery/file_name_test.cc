#include <gtest/gtest.h>

#include <string>

#include "tz_discovery.h"

namespace {

TEST(FileName, AcceptsBaseUpTo27AndExtensionUpTo3) {
    EXPECT_TRUE(bJudgement8point3Format("ABCDEFGH.ICM"));
    EXPECT_TRUE(bJudgement8point3Format("A.B"));
    EXPECT_TRUE(bJudgement8point3Format("ABC."));
    EXPECT_TRUE(bJudgement8point3Format("A.B.C"));  // further dots count as extension
    EXPECT_TRUE(bJudgement8point3Format(std::string(27, 'A').c_str()));
    EXPECT_TRUE(bJudgement8point3Format((std::string(27, 'A') + ".ICC").c_str()));
    EXPECT_TRUE(bJudgement8point3Format("a-b_(1)~{x}.i!c"));
}

TEST(FileName, RefusesWrongLengths) {
    EXPECT_FALSE(bJudgement8point3Format(nullptr));
    EXPECT_FALSE(bJudgement8point3Format(""));
    EXPECT_FALSE(bJudgement8point3Format(".ICM"));
    EXPECT_FALSE(bJudgement8point3Format("ABC.ICMX"));
    EXPECT_FALSE(bJudgement8point3Format("A.B.CD"));
    EXPECT_FALSE(bJudgement8point3Format(std::string(28, 'A').c_str()));
    EXPECT_FALSE(bJudgement8point3Format((std::string(28, 'A') + ".ICC").c_str()));
}

TEST(FileName, RefusesCharactersOutsideTheSet) {
    for (const char* name : {"A B.ICC", "A+B.ICC", "A\"B", "A@B", "A*B", "A,B", "A/B", "A:B",
                             "A;B", "A<B", "A=B", "A>B", "A?B", "A[B", "A\\B", "A]B", "A|B"})
        EXPECT_FALSE(bJudgement8point3Format(name)) << name;
    EXPECT_FALSE(bJudgement8point3Format("CAF\xC3\x89.ICC"));  // any byte above 0x7F
}

TEST(FileName, FilterTakesTheSignExtendedCharacter) {
    std::string accepted;
    for (int c = -128; c < 128; ++c)
        if (FileNameFilter(c)) accepted += static_cast<char>(c);
    EXPECT_EQ(accepted,
              "!#$%&'()-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`abcdefghijklmnopqrstuvwxyz{}~");
    EXPECT_FALSE(FileNameFilter(0xE9));  // never arrives unsigned, refused all the same
}

}  // namespace
