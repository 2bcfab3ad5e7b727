// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/process.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// The distance of the break from the start of the mapping that the host calls the heap; 0 without such a mapping.
long DistanceFromHeapMapping()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find("[heap]") != std::string::npos)
            return static_cast<long>(reinterpret_cast<uintptr_t>(sbrk(0)) - std::stoull(line, nullptr, 16));
    return 0;
}

void Exec(const char* file, const char* zero, const char* one = nullptr, const char* two = nullptr)
{
    const char* argv[] = {zero, one, two, nullptr};
    errno = 0;
    const int result = svr4::execvp(file, const_cast<char* const*>(argv));
    std::cout << "returned " << result << " errno " << errno;
}

// First, before anything in this process has asked for the size: the name of the program is read with it.
TEST(HeapSize, IsRightWhateverTheNameOfTheProgram)
{
    const ChildResult child = RunInChild([] {
        prctl(PR_SET_NAME, "a) 1 2 (b) 3 (");
        sbrk(1 << 20);
        const long difference = svr4::heap_size() - DistanceFromHeapMapping();
        std::cout << (std::labs(difference) < sysconf(_SC_PAGESIZE) ? "right" : std::to_string(difference));
    });
    EXPECT_EQ(child.out, "right");
}

TEST(HeapSize, IsWhatTheBreakHasGrownSinceItsRealBeginning)
{
    const long before = svr4::heap_size();
    EXPECT_GE(before, 0);
    ASSERT_NE(sbrk(123456), reinterpret_cast<void*>(-1));
    EXPECT_EQ(svr4::heap_size(), before + 123456);
    EXPECT_LT(std::labs(svr4::heap_size() - DistanceFromHeapMapping()), sysconf(_SC_PAGESIZE));
    EXPECT_LT(svr4::heap_size(), 1L << 30) << "the random distance from the data segment must not count";
}

TEST(HeapSize, KeepsErrno)
{
    errno = EXDEV;
    svr4::heap_size();
    EXPECT_EQ(errno, EXDEV);
}

TEST(HeapSize, EndsAtTheLargestInt)
{
    const ChildResult child = RunInChild([] {
        for (int i = 0; i < 3; i++)
            ChildNeeds(sbrk(1 << 30) != reinterpret_cast<void*>(-1));
        std::cout << svr4::heap_size();
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no 3 GB of address space behind the break";
    EXPECT_EQ(child.out, std::to_string(INT_MAX));
}

void CheckHasEnded()
{
    const pid_t zombie = ZombieProcess();
    const pid_t living = IdleProcess();
    const pid_t odd = StartChild([] { prctl(PR_SET_NAME, ") R (x) S"); });
    CHILD_CHECK(svr4::has_ended(zombie));
    CHILD_CHECK(!svr4::has_ended(living));
    CHILD_CHECK(!svr4::has_ended(getpid()));
    CHILD_CHECK(WaitUntil([&] { return svr4::has_ended(odd); }));
    EndChild(living);
    WaitForExit(zombie);
    WaitForExit(odd);
    errno = EXDEV;
    for (const long pid : {long(living), long(zombie), 0L, -1L, static_cast<long>(99999999999)})
        CHILD_CHECK(svr4::has_ended(pid));
    CHILD_CHECK(errno == EXDEV);
}

TEST(HasEnded, IsWhoIsNotThereOrNotWaitedFor)
{
    const ChildResult result = RunInChild(CheckHasEnded);
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(HasEnded, NeedsNoDescriptorOfTheProcess)
{
    const ChildResult result = RunInChild([] {
        MakeCallsFail({SYS_pidfd_open}, EMFILE);
        CheckHasEnded();
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make system calls fail here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(Setpgrp, MakesASessionAndAGroupOfItsOwn)
{
    const ChildResult child = RunInChild([] {
        const int group = svr4::setpgrp();
        std::cout << (group == getpid()) << (getpgrp() == getpid()) << (getsid(0) == getpid());
        errno = 0;
        const int again = svr4::setpgrp();
        std::cout << " " << again << " " << (errno == EPERM);
    });
    EXPECT_EQ(child.out, "111 -1 1");
}

TEST(Setpgrp, ReleasesTheTerminal)
{
    const ChildResult child = RunInChild([] {
        setsid();
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        ChildNeeds(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
        const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
        ChildNeeds(terminal >= 0 && ioctl(terminal, TIOCSCTTY, 0) == 0);
        testing_support::WaitForExit(testing_support::StartChild([] {
            const int before = open("/dev/tty", O_RDWR);
            svr4::setpgrp();
            const int after = open("/dev/tty", O_RDWR);
            std::cout << (before >= 0) << (after < 0);
        }));
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no pseudo-terminal here";
    EXPECT_EQ(child.out, "11");
}

// Unlike a stream, allowed in a handler and after a fork.
template <size_t N>
void Say(const char (&text)[N])
{
    EXPECT_EQ(write(STDOUT_FILENO, text, N - 1), static_cast<ssize_t>(N - 1));
}

// The signals that the process holds back, as a row of 0 and 1.
std::string HeldSignals()
{
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    std::string row;
    for (int sig = 1; sig < NSIG; sig++)
        row += sigismember(&held, sig) == 1 ? '1' : '0';
    return row;
}

TEST(ForkHeld, TheChildRunsNoHandlerOfItsParent)
{
    const ChildResult child = RunInChild([] {
        signal(SIGTERM, [](int) { Say("parent's handler "); });
        pthread_atfork(nullptr, nullptr, [] { kill(getpid(), SIGTERM); }); // as early as a child can get one
        const int pid = svr4::fork_held([] {
            kill(getpid(), SIGTERM);
            Say("callback ");
            signal(SIGTERM, [](int) { Say("child's handler "); });
        });
        if (pid == 0) {
            Say("child ");
            _exit(7);
        }
        std::cout << "parent " << testing_support::WaitForExit(pid) << std::flush;
        raise(SIGTERM);
    });
    EXPECT_EQ(child.out, "callback child's handler child parent 7parent's handler ");
}

TEST(ForkHeld, AfterwardsBothHoldBackWhatTheCallerDid)
{
    const ChildResult child = RunInChild([] {
        sigset_t mine;
        sigemptyset(&mine);
        sigaddset(&mine, SIGUSR1);
        sigaddset(&mine, SIGTERM);
        sigprocmask(SIG_SETMASK, &mine, nullptr);
        const std::string before = HeldSignals();
        const int pid = svr4::fork_held([] {
            sigset_t held;
            sigprocmask(SIG_BLOCK, nullptr, &held);
            if (sigismember(&held, SIGHUP) == 1)
                Say("held ");
        });
        if (pid == 0)
            _exit(HeldSignals() == before ? 7 : 8);
        std::cout << (HeldSignals() == before) << " " << testing_support::WaitForExit(pid);
    });
    EXPECT_EQ(child.out, "held 1 7");
}

TEST(ForkHeld, TellsWhyThereIsNoChild)
{
    const ChildResult child = RunInChild([] {
        testing_support::MakeForksFail();
        const std::string before = HeldSignals();
        errno = 0;
        const int pid = svr4::fork_held([] { Say("called "); });
        std::cout << pid << " " << (errno == ENOMEM) << " " << (HeldSignals() == before);
    });
    if (child.exitCode == testing_support::NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    EXPECT_EQ(child.out, "-1 1 1");
}

TEST(Execvp, RunsTheShellOfTheHost)
{
    const ChildResult child = RunInChild([] { Exec("/sbin/sh", "/sbin/sh", "-c", "echo $0; exit 3"); });
    EXPECT_EQ(child.out, "/sbin/sh\n") << "the arguments are passed on as they are";
    EXPECT_EQ(child.exitCode, 3);
}

TEST(Execvp, PrefersAShellThatIsThere)
{
    const ChildResult child = RunInChild([] {
        ChildNeeds(unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", "/sbin/", "tmpfs", 0, nullptr) == 0);
        testing_support::WriteFile("/sbin/sh", "#!/bin/sh\necho the one in /sbin: \"$@\"\n");
        chmod("/sbin/sh", 0755);
        Exec("/sbin/sh", "/sbin/sh", "-c", "echo the other");
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no mounts here";
    EXPECT_EQ(child.out, "the one in /sbin: -c echo the other\n");
}

TEST(Execvp, LooksOnThePath)
{
    const ChildResult child = RunInChild([] { Exec("echo", "echo", "found"); });
    EXPECT_EQ(child.out, "found\n");
}

TEST(Execvp, FailsWithTheErrorOfTheHost)
{
    const auto failure = [](int error) { return "returned -1 errno " + std::to_string(error); };
    EXPECT_EQ(RunInChild([] { Exec("/no/such/program", "x"); }).out, failure(ENOENT));
    EXPECT_EQ(RunInChild([] { Exec("/sbin/no-such-shell", "x"); }).out, failure(ENOENT));
    EXPECT_EQ(RunInChild([] { Exec("/etc/passwd", "x"); }).out, failure(EACCES));
    EXPECT_EQ(RunInChild([] { Exec(nullptr, nullptr); }).out, failure(EFAULT));
}

} // namespace
