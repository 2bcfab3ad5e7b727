// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/spawn.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "svr4/errno.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// A child that ends with what it has found.
class Observer : public svr4::Newborn {
public:
    int LeaveParent() override
    {
        pid = getpid();
        sigprocmask(SIG_BLOCK, nullptr, &maskFirst);
        errno = EXDEV;
        return refusal;
    }
    void BecomeProgram() override
    {
        sigprocmask(SIG_BLOCK, nullptr, &maskThen);
        for (int sig = 1; sig < NSIG; sig++) {
            struct sigaction action;
            if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN)
                handlers++;
        }
        sigaction(SIGUSR2, nullptr, &ignored);
        kill(getpid(), suicide);
    }

    int refusal = 0;
    int suicide = 0;
    pid_t pid = 0;
    int handlers = 0;
    sigset_t maskFirst;
    sigset_t maskThen;
    struct sigaction ignored;
};

bool IsHeld(const sigset_t& mask, int sig) { return sigismember(&mask, sig) == 1; }

sigset_t MaskNow()
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

int StatusOf(long pid)
{
    int status = 0;
    return waitpid(static_cast<pid_t>(pid), &status, 0) == pid ? status : -1;
}

TEST(Spawn, TheChildSharesTheMemoryAndHasComeToItsEndByThen)
{
    Observer child;
    errno = ENOTTY;
    const long pid = svr4::spawn(child, 0);
    EXPECT_EQ(errno, ENOTTY) << "the child has another one";
    EXPECT_GT(pid, 1);
    EXPECT_EQ(child.pid, pid);
    const int status = StatusOf(pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST(Spawn, AllSignalsAreHeldBackUntilTheChildHasLeftItsParent)
{
    sigset_t mine, before;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    sigprocmask(SIG_SETMASK, &mine, &before);
    Observer child;
    StatusOf(svr4::spawn(child, 0));
    for (const int sig : {SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGRTMAX})
        EXPECT_TRUE(IsHeld(child.maskFirst, sig)) << sig;
    const sigset_t now = MaskNow();
    for (int sig = 1; sig < NSIG; sig++) {
        EXPECT_EQ(IsHeld(child.maskThen, sig), sig == SIGUSR1) << sig;
        EXPECT_EQ(IsHeld(now, sig), sig == SIGUSR1) << sig;
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST(Spawn, TheChildHasNoHandlersAndItsParentKeepsThem)
{
    const ChildResult child = RunInChild([] {
        for (const int sig : {SIGTERM, SIGHUP, SIGRTMAX, SIGWINCH})
            signal(sig, [](int) { (void)!write(1, "handler ", 8); });
        signal(SIGUSR2, SIG_IGN);
        Observer observer;
        observer.suicide = SIGTERM;
        const int status = StatusOf(svr4::spawn(observer, 0));
        std::cout << WTERMSIG(status) << " " << observer.handlers << " " << (observer.ignored.sa_handler == SIG_IGN)
                  << " " << std::flush;
        raise(SIGTERM);
    });
    EXPECT_EQ(child.out, std::to_string(SIGTERM) + " 0 1 handler ");
}

TEST(Spawn, AChildThatRefusesLeavesNothingBehind)
{
    for (const auto disposition : {SIG_DFL, SIG_IGN}) {
        signal(SIGCHLD, disposition);
        Observer child;
        child.refusal = ENOTEMPTY;
        errno = 0;
        EXPECT_EQ(svr4::spawn(child, 0), -1);
        EXPECT_EQ(errno, ENOTEMPTY);
        EXPECT_EQ(child.handlers, 0);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
    signal(SIGCHLD, SIG_DFL);
}

TEST(Spawn, TellsWhyThereIsNoChild)
{
    const ChildResult child = RunInChild([] {
        MakeForksFail();
        Observer observer;
        errno = 0;
        const long pid = svr4::spawn(observer, 0);
        std::cout << pid << " " << (errno == ENOMEM) << " " << observer.pid << IsHeld(MaskNow(), SIGTERM);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    EXPECT_EQ(child.out, "-1 1 00");
}

TEST(Spawn, WithoutMemoryForAStackThereIsNoChild)
{
    const ChildResult child = RunInChild([] {
        MakeCallsFail({SYS_mmap}, ENOMEM);
        Observer observer;
        const long pid = svr4::spawn(observer, 0);
        _exit(pid == -1 && errno == ENOMEM && observer.pid == 0 ? 0 : 1);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make mmap fail here";
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ErrorText, IsThatOfStrerror)
{
    for (int error = 0; error < 200; error++) {
        const char* text = svr4::known_error_text(error);
        if (text != nullptr)
            EXPECT_STREQ(text, std::strerror(error));
        else
            EXPECT_EQ(std::strerror(error), "Unknown error " + std::to_string(error));
    }
    EXPECT_NE(svr4::known_error_text(ENOENT), nullptr);
    EXPECT_EQ(svr4::known_error_text(-1), nullptr);
}

} // namespace
