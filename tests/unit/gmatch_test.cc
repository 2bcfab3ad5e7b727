// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/gmatch.h"

#include <gtest/gtest.h>

namespace {

TEST(Gmatch, MatchesAPatternAgainstTheWholeText)
{
    EXPECT_NE(svr4::gmatch("a.log", "*.log"), 0);
    EXPECT_EQ(svr4::gmatch("a.logs", "*.log"), 0);
    EXPECT_NE(svr4::gmatch("abc", "a?c"), 0);
    EXPECT_EQ(svr4::gmatch("ac", "a?c"), 0);
    EXPECT_NE(svr4::gmatch("b7", "[a-c][0-9]"), 0);
    EXPECT_EQ(svr4::gmatch("d7", "[a-c][0-9]"), 0);
    EXPECT_NE(svr4::gmatch("d7", "[!a-c]7"), 0);
    EXPECT_NE(svr4::gmatch("a*", "a\\*"), 0);
    EXPECT_EQ(svr4::gmatch("ab", "a\\*"), 0);
    EXPECT_NE(svr4::gmatch("", ""), 0);
    EXPECT_NE(svr4::gmatch("", "*"), 0);
    EXPECT_EQ(svr4::gmatch("a", ""), 0);
}

TEST(Gmatch, StarAndQuestionMarkMatchSlashes)
{
    EXPECT_NE(svr4::gmatch("/var/x/a.log", "*.log"), 0);
    EXPECT_EQ(svr4::gmatch("/var/x/a.log", "a*.log"), 0);
    EXPECT_NE(svr4::gmatch("a/b", "a?b"), 0);
}

TEST(Gmatch, ALeadingPeriodIsACharacterLikeOthers)
{
    EXPECT_NE(svr4::gmatch(".profile", "*"), 0);
    EXPECT_NE(svr4::gmatch("/x/.profile", "/x/?profile"), 0);
}

} // namespace
