// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/copy.h"

#include <cerrno>
#include <csignal>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

int StatusOf(pid_t copy)
{
    int status = -1;
    EXPECT_TRUE(WaitUntil([&] { return (status = svr4::copy_status(copy)) != -1; }));
    return status;
}

TEST(Copy, HasWhatTheProcessHasAndKeepsItsChangesToItself)
{
    int value = 1;
    const pid_t copy = svr4::copy_process();
    if (copy == 0)
        _exit(++value == 2 ? 7 : 8);
    ASSERT_GT(copy, 0);
    const int status = StatusOf(copy);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(value, 1);
}

TEST(Copy, IsSeenByNobodyElse)
{
    EXPECT_EQ(RunInChild([] {
                  static int forks = 0, children = 0;
                  pthread_atfork([] { forks++; }, [] { forks++; }, [] { forks++; });
                  signal(SIGCHLD, [](int) { children++; });
                  const pid_t copy = svr4::copy_process();
                  if (copy == 0)
                      _exit(forks);
                  CHILD_CHECK(wait(nullptr) == -1 && errno == ECHILD);
                  int status = -1;
                  errno = EXDEV;
                  CHILD_CHECK(WaitUntil([&] { return (status = svr4::copy_status(copy)) != -1; }));
                  CHILD_CHECK(status == 0 && forks == 0 && children == 0);
                  CHILD_CHECK(svr4::copy_status(copy) == 0); // not there any more
              }).exitCode,
              0);
}

TEST(Copy, EndsWithItsMaker)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t maker = StartChild([&] {
        const pid_t copy = svr4::copy_process();
        (void)!write(ends[1], "x", 1);
        if (copy == 0)
            for (;;)
                pause();
        pause();
    });
    close(ends[1]);
    char byte;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    EndChild(maker);
    EXPECT_EQ(read(ends[0], &byte, 1), 0) << "the end of the last one that holds the pipe";
    close(ends[0]);
}

TEST(Copy, OutlivesTheThreadThatMadeIt)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t copy = 0;
    std::thread([&] {
        copy = svr4::copy_process();
        char byte;
        if (copy == 0)
            _exit(read(ends[0], &byte, 1) == 1 ? 7 : 8);
    }).join();
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    const int status = StatusOf(copy);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    close(ends[0]);
    close(ends[1]);
}

TEST(Copy, SharesMemoryWithItsMaker)
{
    volatile int* shared = static_cast<volatile int*>(svr4::share_memory(sizeof(int)));
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(*shared, 0);
    const pid_t copy = svr4::copy_process();
    if (copy == 0) {
        *shared = 7;
        _exit(0);
    }
    StatusOf(copy);
    EXPECT_EQ(*shared, 7);
    svr4::unshare_memory(const_cast<int*>(shared), sizeof(int));
}

TEST(HandlesSignal, TellsAHandlerFromADisposition)
{
    EXPECT_EQ(RunInChild([] {
                  CHILD_CHECK(!svr4::handles_signal(getpid(), SIGUSR1));
                  signal(SIGUSR1, [](int) {});
                  CHILD_CHECK(svr4::handles_signal(getpid(), SIGUSR1));
                  CHILD_CHECK(!svr4::handles_signal(getpid(), SIGUSR2));
                  signal(SIGUSR1, SIG_IGN);
                  CHILD_CHECK(!svr4::handles_signal(getpid(), SIGUSR1));
              }).exitCode,
              0);
    EXPECT_FALSE(svr4::handles_signal(DeadProcess(), SIGUSR1));
}

} // namespace
