// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/briefwait.h"

#include <cerrno>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/detail/timedcall.h"
#include "tests/support/testing.h"

using namespace testing_support;
using svr4::BriefWait;

namespace {

// How often a wait in vain tries.
int TriesInVain()
{
    int tries = 0;
    for (BriefWait wait; wait.GivesWay();)
        tries++;
    return tries;
}

// A wait whose first try succeeds.
bool FirstTryIsMade()
{
    BriefWait wait;
    return wait.GivesWay();
}

// Each test in a process that has not waited yet.
void InFreshProcess(const std::function<void()>& body)
{
    const ChildResult result = RunInChild(body);
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(BriefWait, TriesAndEnds)
{
    InFreshProcess([] { CHILD_CHECK(TriesInVain() > 0); });
}

TEST(BriefWait, BearsSomeInVainAtFirst)
{
    // A process to which another one's turn has cost all at once may try again.
    EXPECT_TRUE(WaitUntil([] {
        return RunInChild([] {
                   TriesInVain();
                   CHILD_CHECK(FirstTryIsMade());
               }).exitCode == 0;
    }));
}

// Waits in vain until that is not done any more; others may have the processor until the pause is over.
bool IsGivenUp()
{
    return WaitUntil([] {
        for (int i = 0; i < 300; i++)
            TriesInVain();
        return !FirstTryIsMade();
    });
}

TEST(BriefWait, IsNotMadeAgainAtOnceAfterManyInVain)
{
    InFreshProcess([] { CHILD_CHECK(IsGivenUp()); });
}

TEST(BriefWait, IsMadeAgainAfterAPause)
{
    InFreshProcess([] {
        CHILD_CHECK(IsGivenUp());
        CHILD_CHECK(WaitUntil(FirstTryIsMade));
    });
}

TEST(BriefWait, BearsOneInVainWhereManyHavePaid)
{
    InFreshProcess([] {
        CHILD_CHECK(IsGivenUp());
        const auto goesOnAfterManyThatPay = [] {
            for (int i = 0; i < 1000; i++)
                FirstTryIsMade();
            TriesInVain();
            return FirstTryIsMade();
        };
        CHILD_CHECK(WaitUntil(goesOnAfterManyThatPay));
    });
}

TEST(BriefWait, KeepsErrno)
{
    InFreshProcess([] {
        errno = EBADF;
        TriesInVain();
        CHILD_CHECK(errno == EBADF);
    });
}

TEST(BriefWait, TakesOnePartInAHundredAtMostWhereNothingComes)
{
    InFreshProcess([] {
        const int64_t start = zeloo::MillisecondsNow();
        int made = 0;
        for (int i = 0; i < 1000; i++) {
            made += TriesInVain() > 0;
            usleep(100);
        }
        const int atFirst = 200; // each lasts 50 microseconds at least
        CHILD_CHECK(made <= atFirst + (zeloo::MillisecondsNow() - start) / 5 + 1);
    });
}

} // namespace
