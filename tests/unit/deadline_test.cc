// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/deadline.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <thread>

#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

#ifndef CLONE_NEWTIME
#define CLONE_NEWTIME 0x80
#endif

namespace {

sigjmp_buf context;

TEST(Deadline, InterruptsWhateverTheThreadWaitsForOnce)
{
    EXPECT_EQ(RunInChild([] {
                  volatile int times = 0;
                  if (sigsetjmp(context, 1) == 0) {
                      CHILD_CHECK(svr4::set_deadline(50, [](int) { siglongjmp(context, 1); }) == 0);
                      std::thread other([] { pause(); });
                      other.join();
                  }
                  times = times + 1;
                  usleep(100000);
                  CHILD_CHECK(times == 1);
                  _exit(0);
              }).exitCode,
              0);
}

TEST(Deadline, CanBeMovedAndCleared)
{
    EXPECT_EQ(RunInChild([] {
                  CHILD_CHECK(svr4::set_deadline(1000000, [](int) { _exit(3); }) == 0);
                  CHILD_CHECK(svr4::set_deadline(50, [](int) { _exit(4); }) == 0);
                  svr4::clear_deadline();
                  usleep(200000);
                  svr4::set_deadline(1, [](int) { _exit(5); });
                  pause();
              }).exitCode,
              5);
}

TEST(Deadline, WorksWithItsSignalHeldBackAndInAForkedChild)
{
    EXPECT_EQ(RunInChild([] {
                  svr4::set_deadline(1000000, [](int) { _exit(3); });
                  const pid_t child = StartChild([] {
                      sigset_t all;
                      sigfillset(&all);
                      sigprocmask(SIG_BLOCK, &all, nullptr);
                      svr4::set_deadline(10, [](int) { _exit(4); });
                      pause();
                  });
                  CHILD_CHECK(WaitForExit(child) == 4);
              }).exitCode,
              0);
}

TEST(LastDeadline, EndsAProcessThatHoldsEverythingBack)
{
    EXPECT_EQ(RunInChild([] {
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  svr4::set_last_deadline(20);
                  for (;;)
                      pause();
              }).signal,
              SIGKILL);
}

TEST(Pause, KeepsErrnoAndTheClockGoesOn)
{
    const int64_t before = svr4::steady_milliseconds();
    errno = EXDEV;
    svr4::pause_microseconds(20000);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_GE(svr4::steady_milliseconds() - before, 19);
}

TEST(SteadyMilliseconds, GoOnOnAHostThatHasRunForMonths)
{
    const ChildResult result = RunInChild([] {
        ChildNeeds(unshare(CLONE_NEWTIME) == 0);
        WriteFile("/proc/self/timens_offsets", "monotonic 5000000 0\n");
        CHILD_CHECK(WaitForExit(StartChild([] { CHILD_CHECK(svr4::steady_milliseconds() > 5000000000); })) == 0);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "the clock cannot be moved here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

} // namespace
