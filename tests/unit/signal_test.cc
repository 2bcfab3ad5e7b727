// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/signal.h"

#include <cerrno>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

volatile sig_atomic_t seen = 0;
volatile sig_atomic_t depth = 0;
volatile sig_atomic_t deepest = 0;
volatile sig_atomic_t defaultInHandler = 0;

void Count(int) { seen = seen + 1; }
void Other(int) {}
void FailInHandler(int) { errno = ENOENT; }

bool IsHeld(int sig)
{
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    return sigismember(&held, sig) == 1;
}

sigset_t SetOf(int sig)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    return set;
}

void LookAtDisposition(int sig)
{
    struct sigaction now;
    sigaction(sig, nullptr, &now);
    defaultInHandler = now.sa_handler == SIG_DFL;
}

void Nest(int sig)
{
    depth = depth + 1;
    deepest = deepest < depth ? depth : deepest;
    if (depth < 3) {
        svr4::signal(sig, Nest);
        raise(sig);
    }
    depth = depth - 1;
}

TEST(Signal, GivesTheEarlierDisposition)
{
    EXPECT_EQ(svr4::signal(SIGUSR1, Count), SIG_DFL);
    EXPECT_EQ(svr4::signal(SIGUSR1, Other), Count);
    EXPECT_EQ(svr4::signal(SIGUSR1, SIG_IGN), Other);
    EXPECT_EQ(svr4::signal(SIGUSR1, SIG_DFL), SIG_IGN);
}

TEST(Signal, RefusesWhatIsNoSignal)
{
    for (const int sig : {0, -1, 65, SIGKILL, SIGSTOP}) {
        errno = 0;
        EXPECT_EQ(svr4::signal(sig, Count), SIG_ERR) << sig;
        EXPECT_EQ(errno, EINVAL) << sig;
    }
}

TEST(Signal, AHandlerIsOneShot)
{
    seen = 0;
    svr4::signal(SIGUSR1, Count);
    raise(SIGUSR1);
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(svr4::signal(SIGUSR1, SIG_DFL), SIG_DFL);

    svr4::signal(SIGUSR1, LookAtDisposition);
    raise(SIGUSR1);
    EXPECT_TRUE(defaultInHandler) << "the disposition is the default when the handler runs";

    EXPECT_EQ(RunInChild([] {
                  svr4::signal(SIGUSR1, Count);
                  raise(SIGUSR1);
                  raise(SIGUSR1);
              }).signal,
              SIGUSR1);
}

TEST(Signal, TheSignalIsNotBlockedWhileItsHandlerRuns)
{
    depth = deepest = 0;
    svr4::signal(SIGUSR1, Nest);
    raise(SIGUSR1);
    EXPECT_EQ(deepest, 3);
    svr4::signal(SIGUSR1, SIG_DFL);
}

TEST(Signal, IgnoringIsNotOneShot)
{
    svr4::signal(SIGUSR1, SIG_IGN);
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(svr4::signal(SIGUSR1, SIG_DFL), SIG_IGN);
}

TEST(Signal, InterruptsACall)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    svr4::signal(SIGALRM, Count);
    struct itimerval soon = {{0, 0}, {0, 50000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    char byte;
    const ssize_t result = read(ends[0], &byte, 1);
    const int error = errno;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    svr4::signal(SIGALRM, SIG_DFL);
    close(ends[0]);
    close(ends[1]);
}

TEST(Signal, ChildrenOfAProcessThatIgnoresThemLeaveNoZombies)
{
    svr4::signal(SIGCHLD, SIG_IGN);
    const pid_t child = StartChild([] {});
    EXPECT_TRUE(WaitUntil([&] { return kill(child, 0) != 0; }));
    EXPECT_EQ(waitpid(child, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    svr4::signal(SIGCHLD, SIG_DFL);
    const pid_t next = StartChild([] { _exit(3); });
    EXPECT_EQ(WaitForExit(next), 3) << "the default keeps the status of a child";
}

TEST(SavedSignal, RestoresHandlerFlagsAndMask)
{
    struct sigaction mine = {};
    mine.sa_handler = Count;
    mine.sa_flags = SA_RESTART | SA_NODEFER;
    sigemptyset(&mine.sa_mask);
    sigaddset(&mine.sa_mask, SIGHUP);
    ASSERT_EQ(sigaction(SIGUSR1, &mine, nullptr), 0);
    errno = EXDEV;
    {
        svr4::SavedSignal saved(SIGUSR1);
        EXPECT_EQ(errno, EXDEV);
        svr4::signal(SIGUSR1, SIG_IGN);
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV);
    struct sigaction after;
    sigaction(SIGUSR1, nullptr, &after);
    EXPECT_EQ(after.sa_handler, Count);
    EXPECT_EQ(after.sa_flags & (SA_RESTART | SA_NODEFER), SA_RESTART | SA_NODEFER);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGHUP), 1);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGTERM), 0);
    svr4::signal(SIGUSR1, SIG_DFL);
}

TEST(SavedSignal, KeepsErrnoForWhatIsNoSignal)
{
    errno = EXDEV;
    {
        svr4::SavedSignal saved(0);
        EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_EQ(errno, EXDEV);
}

TEST(SignalsHeld, DeliversWhatCameWhenItDies)
{
    seen = 0;
    svr4::signal(SIGUSR1, Count);
    svr4::signal(SIGTERM, Count);
    {
        const svr4::SignalsHeld held;
        raise(SIGUSR1);
        raise(SIGTERM);
        EXPECT_EQ(seen, 0);
    }
    EXPECT_EQ(seen, 2);
    EXPECT_FALSE(IsHeld(SIGUSR1));
    EXPECT_FALSE(IsHeld(SIGTERM));
}

TEST(SignalsHeld, HoldsThoseOfASetOnly)
{
    seen = 0;
    svr4::signal(SIGUSR1, Count);
    svr4::signal(SIGUSR2, Count);
    {
        const svr4::SignalsHeld held(SetOf(SIGUSR1));
        raise(SIGUSR1);
        EXPECT_EQ(seen, 0);
        raise(SIGUSR2);
        EXPECT_EQ(seen, 1);
    }
    EXPECT_EQ(seen, 2);
}

TEST(SignalsHeld, LeavesHeldWhatWasHeldBefore)
{
    seen = 0;
    svr4::signal(SIGUSR1, Count);
    {
        const svr4::SignalsHeld outer(SetOf(SIGUSR1));
        {
            const svr4::SignalsHeld inner;
            raise(SIGUSR1);
        }
        EXPECT_TRUE(IsHeld(SIGUSR1));
        EXPECT_FALSE(IsHeld(SIGUSR2));
        EXPECT_EQ(seen, 0);
    }
    EXPECT_EQ(seen, 1);
}

TEST(SignalsHeld, KeepsErrnoEvenFromTheHandlersThatItLetsRun)
{
    svr4::signal(SIGUSR1, FailInHandler);
    errno = EXDEV;
    {
        const svr4::SignalsHeld held;
        EXPECT_EQ(errno, EXDEV);
        raise(SIGUSR1);
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(svr4::signal(SIGUSR1, SIG_DFL), SIG_DFL) << "the handler has run";
}

TEST(Signal, TheEmulatorTrapIsASignalOrNone)
{
#ifdef SIGEMT
    EXPECT_EQ(svr4::sigemt, SIGEMT);
#else
    EXPECT_EQ(svr4::sigemt, 0);
#endif
}

} // namespace
