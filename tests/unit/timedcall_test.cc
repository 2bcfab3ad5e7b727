#include "Misc/detail/timedcall.h"

#include <cerrno>

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
