// Only until a walk of the process accepts a variable does a first answer outside the subtree bring a GET; the first
// walk of a process has no diagnostic left over to hand on.
#include <gtest/gtest.h>

#include "discovery_support.h"

namespace tz::test {
namespace {

const std::string kRoot = cell(1, 1);

TEST(FreshProcess, FirstAnswerOutsideTheSubtreeBringsOneGetOfTheRootThenNeverAgain) {
    ASSERT_EQ(numprinted, 0);
    const ProfilePaths paths;
    static int diagnostics = 0;
    TZSetWalkDebugHook([](const char*, int32_t) { ++diagnostics; });
    for (const bool first : {true, false}) {
        ScriptedAgent agent(R"("rows": 1, "answers": {")" + kRoot +
                            R"(": {"oid": "1.3.6.1.4.1.99992.1", "value": 1}})");
        EXPECT_EQ(walk(v1(agent.peer(), kRoot)), 0);
        EXPECT_EQ(agent.requests().size(), first ? 2u : 1u);
        EXPECT_EQ(agent.requests().back(), (first ? "get " : "getnext ") + kRoot);
        EXPECT_EQ(std::tuple(numprinted, PlistForSpool.iNum), std::tuple(1, 0));  // the GET's answer: not spooled
    }
    EXPECT_EQ(diagnostics, 0);
}

}  // namespace
}  // namespace tz::test
