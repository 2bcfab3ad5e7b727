// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/deadline.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

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
    const long before = svr4::steady_milliseconds();
    errno = EXDEV;
    svr4::pause_microseconds(20000);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_GE(svr4::steady_milliseconds() - before, 19);
}

} // namespace
