// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/assertion.h"

#include <csignal>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/assertions.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

TEST(Assertion, NamesExpressionUnitAndLineAndAborts)
{
    const ChildResult child = RunInChild([] { zeloo::AssertionFailed("a < b", "Misc/unit", 42); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "Assertion failed: a < b, file Misc/unit, line 42\n");
    EXPECT_EQ(child.out, "");
}

TEST(Assertion, PrintsTheExpressionAsItIsWritten)
{
    void* p = nullptr;
    ExpectAssertion("p != NULL", "Misc/unit", [&] { ZELOO_ASSERT(p != NULL, "Misc/unit"); });
    ExpectAssertion("p != NULL", "Misc/unit", [&] { ZELOO_REQUIRE(p != NULL, "Misc/unit"); });
}

TEST(Assertion, PercentSignsAreNoFormat)
{
    int n = 7;
    ExpectAssertion("n % 2 == 0 && \"%s%n\"", "Misc/100%s", [&] { ZELOO_ASSERT(n % 2 == 0 && "%s%n", "Misc/100%s"); });
}

TEST(Assertion, GivesTheLineOfTheAssertion)
{
    const int before = __LINE__;
    const ChildResult child = RunInChild([] { ZELOO_ASSERT(1 == 2, "Misc/unit"); });
    EXPECT_EQ(child.err, "Assertion failed: 1 == 2, file Misc/unit, line " + std::to_string(before + 1) + "\n");
}

TEST(Assertion, GoesOnWhenTheExpressionHolds)
{
    int evaluations = 0;
    const std::string err = CaptureStderr([&] {
        ZELOO_ASSERT(++evaluations == 1, "Misc/unit");
        ZELOO_REQUIRE(++evaluations == 2, "Misc/unit");
    });
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(err, "");
}

TEST(Assertion, IsAnExpression)
{
    // Both forms can stand where a statement without braces stands.
    for (const bool first : {true, false})
        if (first)
            ZELOO_ASSERT(first, "Misc/unit");
        else
            ZELOO_REQUIRE(!first, "Misc/unit");
}

TEST(Assertion, AHandlerOfSigabrtSeesTheWholeLine)
{
    const ChildResult child = RunInChild([] {
        signal(SIGABRT, [](int) { _exit(5); });
        zeloo::AssertionFailed("x", "Misc/unit", 1);
    });
    EXPECT_EQ(child.exitCode, 5);
    EXPECT_EQ(child.err, "Assertion failed: x, file Misc/unit, line 1\n");
}

} // namespace
