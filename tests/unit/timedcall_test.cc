// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/timedcall.h"

#include <cerrno>
#include <chrono>
#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

int seen = 0;
void CountAlarm(int) { seen++; }

TEST(TimedCall, InterruptsACallThatBlocks)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char byte;
    ssize_t result;
    int error;
    {
        zeloo::TimedCall limit(1);
        result = read(ends[0], &byte, 1);
        error = errno;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    close(ends[0]);
    close(ends[1]);
}

TEST(TimedCall, RestoresHandlerFlagsAndTheWholeRemainingAlarm)
{
    struct sigaction mine = {};
    mine.sa_handler = CountAlarm;
    mine.sa_flags = SA_RESTART | SA_NODEFER;
    sigemptyset(&mine.sa_mask);
    sigaddset(&mine.sa_mask, SIGUSR1);
    ASSERT_EQ(sigaction(SIGALRM, &mine, nullptr), 0);
    alarm(100);
    {
        zeloo::TimedCall limit(0);
        struct itimerval now;
        getitimer(ITIMER_REAL, &now);
        EXPECT_EQ(now.it_value.tv_sec, 0) << "a limit of 0 suspends the caller's alarm";
        usleep(1100000);
    }
    EXPECT_GE(alarm(0), 100u);
    struct sigaction after;
    ASSERT_EQ(sigaction(SIGALRM, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, CountAlarm);
    EXPECT_EQ(after.sa_flags & (SA_RESTART | SA_NODEFER), SA_RESTART | SA_NODEFER);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR1), 1);
    EXPECT_EQ(seen, 0);
    signal(SIGALRM, SIG_DFL);
}

TEST(TimedCall, RestoresAnAlarmOfLessThanASecond)
{
    const struct itimerval soon = {{}, {0, 900000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    {
        const zeloo::TimedCall limit(0, 100000);
    }
    struct itimerval rest;
    const struct itimerval never = {};
    setitimer(ITIMER_REAL, &never, &rest);
    EXPECT_EQ(rest.it_value.tv_sec, 0);
    EXPECT_GT(rest.it_value.tv_usec, 0);
}

TEST(TimedCall, AnAlarmThatComesBeforeTheCallBlocksIsNotLost)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char byte;
    ssize_t result;
    {
        zeloo::TimedCall limit(1);
        usleep(1000);
        raise(SIGALRM); // as though the limit had run out here
        result = read(ends[0], &byte, 1);
    }
    EXPECT_EQ(result, -1);
    close(ends[0]);
    close(ends[1]);
}

// Reads what never comes, for a second at most; the seconds that it took.
double BlockForASecond()
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    char byte;
    const auto start = std::chrono::steady_clock::now();
    {
        zeloo::TimedCall limit(1);
        EXPECT_EQ(read(ends[0], &byte, 1), -1);
    }
    close(ends[0]);
    close(ends[1]);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool IsWaiting(int sig)
{
    sigset_t waiting;
    sigpending(&waiting);
    return sigismember(&waiting, sig) == 1;
}

TEST(TimedCall, LimitsACallOfACallerWhoHoldsTheAlarmBack)
{
    sigset_t alarm, earlier;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, &earlier);
    EXPECT_LT(BlockForASecond(), 10);
    EXPECT_FALSE(IsWaiting(SIGALRM)) << "none of the call's own is left";
    sigset_t now;
    sigprocmask(SIG_SETMASK, &earlier, &now);
    EXPECT_EQ(sigismember(&now, SIGALRM), 1) << "it is held back again";
}

TEST(TimedCall, ASignalOfTheCallersThatWasHeldBackWaitsOn)
{
    seen = 0;
    signal(SIGALRM, CountAlarm);
    sigset_t alarm, earlier;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, &earlier);
    kill(getpid(), SIGALRM);
    EXPECT_LT(BlockForASecond(), 10);
    EXPECT_EQ(seen, 0);
    EXPECT_TRUE(IsWaiting(SIGALRM));
    sigprocmask(SIG_SETMASK, &earlier, nullptr);
    EXPECT_EQ(seen, 1);
    signal(SIGALRM, SIG_DFL);
}

double secondsInHandler = -1;
void CallFromHandler(int) { secondsInHandler = BlockForASecond(); }

TEST(TimedCall, LimitsACallWithinAHandlerOfTheAlarm)
{
    struct sigaction mine = {};
    mine.sa_handler = CallFromHandler;
    sigemptyset(&mine.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &mine, nullptr), 0);
    raise(SIGALRM);
    EXPECT_GT(secondsInHandler, 0);
    EXPECT_LT(secondsInHandler, 10);
    signal(SIGALRM, SIG_DFL);
}

TEST(TimedCall, AnAlarmInMillisecondsComesAgainAndCanBeSetAnew)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char byte;
    zeloo::TimedCall limit(0, 5);
    for (const long milliseconds : {5, 50, 1200}) {
        limit.Arm(0, milliseconds);
        const int64_t start = zeloo::MillisecondsNow();
        EXPECT_EQ(read(ends[0], &byte, 1), -1);
        EXPECT_GE(zeloo::MillisecondsNow() - start, milliseconds - 1);
        EXPECT_EQ(read(ends[0], &byte, 1), -1) << "again";
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(TimedCall, KeepsErrno)
{
    errno = EXDEV;
    {
        zeloo::TimedCall limit(1);
        EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_EQ(errno, EXDEV);
}

} // namespace
