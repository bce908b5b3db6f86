// Facts that hold only in a process where no walk has yet accepted a
// variable: this program's tests run in one process, in this order.
#include <gtest/gtest.h>

#include "discovery_support.h"

namespace tz::test {
namespace {

const std::string kRoot = "1.3.6.1.4.1.99991.1";
const std::string kScript = R"([{"oid": "1.3.6.1.4.1.99992.1", "int": 1},
                                {"oid": "1.3.6.1.4.1.99991.1", "int": 7}])";

TEST(FreshProcess, FirstAnswerOutsideTheSubtreeBringsOneGetOfTheRoot) {
    ASSERT_EQ(numprinted, 0);
    const ProfilePaths paths;
    ScriptedAgent agent(kScript);
    EXPECT_EQ(walk(v1(agent.peer(), kRoot)), 0);
    EXPECT_EQ(agent.requests(), (std::vector<std::string>{"getnext " + kRoot, "get " + kRoot}));
    EXPECT_EQ(numprinted, 1);          // the GET's answer is counted...
    EXPECT_EQ(PlistForSpool.iNum, 0);  // ...but not spooled
}

TEST(FreshProcess, LaterWalksNeverSendIt) {
    ASSERT_GT(numprinted, 0);
    const ProfilePaths paths;
    ScriptedAgent agent(kScript);
    EXPECT_EQ(walk(v1(agent.peer(), kRoot)), 0);
    EXPECT_EQ(agent.requests(), std::vector<std::string>{"getnext " + kRoot});
}

}  // namespace
}  // namespace tz::test
