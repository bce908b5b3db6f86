// Only while no walk of the process has accepted a variable does a first answer outside the subtree
// bring one GET of the root: one process, these tests in this order.
#include <gtest/gtest.h>

#include "discovery_support.h"

namespace tz::test {
namespace {

const std::string kRoot = cell(1, 1);
const std::string kScript = R"("rows": 1, "answers": {")" + kRoot + R"(": {"oid": "1.3.6.1.4.1.99992.1", "value": 1}})";

TEST(FreshProcess, FirstAnswerOutsideTheSubtreeBringsOneGetOfTheRootThenNeverAgain) {
    ASSERT_EQ(numprinted, 0);
    const ProfilePaths paths;
    for (const bool first : {true, false}) {
        ScriptedAgent agent(kScript);
        EXPECT_EQ(walk(v1(agent.peer(), kRoot)), 0);
        EXPECT_EQ(agent.requests().size(), first ? 2u : 1u);
        EXPECT_EQ(agent.requests().back(), (first ? "get " : "getnext ") + kRoot);
        EXPECT_EQ(numprinted, 1);          // the GET's answer is counted...
        EXPECT_EQ(PlistForSpool.iNum, 0);  // ...but not spooled
    }
}

}  // namespace
}  // namespace tz::test
