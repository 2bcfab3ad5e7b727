// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/filelock.h"

#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;
using svr4::FileLock;

namespace {

volatile sig_atomic_t seen = 0;
void Note(int) { seen = seen + 1; }

double SecondsOf(const std::function<void()>& body)
{
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class FileLockTest : public testing::Test {
protected:
    FileLockTest() { WriteFile(path, ""); }

    // A process that has the lock and keeps it.
    pid_t StartHolder()
    {
        const std::string ready = directory.File("ready");
        const pid_t holder = StartChild([&] {
            const FileLock lock(path.c_str(), 0);
            CHILD_CHECK(lock.Locked());
            WriteFile(ready, "yes");
            for (;;)
                pause();
        });
        EXPECT_TRUE(WaitUntil([&] { return ReadFile(ready) == "yes"; }));
        return holder;
    }

    TemporaryDirectory directory;
    const std::string path = directory.File("file");
};

TEST_F(FileLockTest, OneProcessHasItAtATime)
{
    const pid_t holder = StartHolder();
    EXPECT_FALSE(FileLock(path.c_str(), 0).Locked());
    EndChild(holder);
    EXPECT_TRUE(FileLock(path.c_str(), 0).Locked()) << "it ends with its process";
    EXPECT_TRUE(FileLock(path.c_str(), 0).Locked()) << "and with its object";
}

TEST_F(FileLockTest, ManyProcessesTakeTurns)
{
    const std::string count = directory.File("count");
    WriteFile(count, "0");
    std::vector<pid_t> children(6);
    for (pid_t& child : children)
        child = StartChild([&] {
            for (int round = 0; round < 50; round++) {
                const FileLock lock(path.c_str(), 30000);
                CHILD_CHECK(lock.Locked());
                WriteFile(count, std::to_string(std::stoi(ReadFile(count)) + 1));
            }
        });
    for (const pid_t child : children)
        EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_EQ(ReadFile(count), "300");
}

TEST_F(FileLockTest, TheWaitHasAnEnd)
{
    const pid_t holder = StartHolder();
    const double waited = SecondsOf([&] { EXPECT_FALSE(FileLock(path.c_str(), 300).Locked()); });
    EXPECT_GE(waited, 0.29);
    EXPECT_LT(waited, 2);
    EndChild(holder);
}

TEST_F(FileLockTest, TheWaitEndsWithTheHolder)
{
    const pid_t holder = StartHolder();
    const pid_t killer = StartChild([=] {
        usleep(300000);
        kill(holder, SIGKILL);
    });
    const double waited = SecondsOf([&] { EXPECT_TRUE(FileLock(path.c_str(), 20000).Locked()); });
    EXPECT_LT(waited, 10);
    WaitForExit(killer);
    WaitForExit(holder);
}

TEST_F(FileLockTest, AFileThatCannotBeOpenedIsNotWaitedFor)
{
    EXPECT_LT(SecondsOf([&] {
                  EXPECT_FALSE(FileLock(nullptr, 5000).Locked());
                  EXPECT_FALSE(FileLock(directory.File("absent").c_str(), 5000).Locked());
              }),
              4);
}

TEST_F(FileLockTest, ReadOnlyFilesDirectoriesAndPipesCanBeLocked)
{
    chmod(path.c_str(), 0444);
    EXPECT_TRUE(FileLock(path.c_str(), 0).Locked());
    EXPECT_TRUE(FileLock(directory.Path().c_str(), 0).Locked());
    const std::string fifo = directory.File("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(FileLock(fifo.c_str(), 0).Locked()) << "without waiting for a writer";
}

TEST_F(FileLockTest, AChildForkedMeanwhileDoesNotKeepIt)
{
    pid_t child;
    {
        const FileLock lock(path.c_str(), 0);
        child = IdleProcess(); // has a copy of the descriptor
    }
    EXPECT_TRUE(FileLock(path.c_str(), 0).Locked());
    EndChild(child);
}

TEST_F(FileLockTest, AProgramRunMeanwhileDoesNotGetTheDescriptor)
{
    const FileLock lock(path.c_str(), 0);
    const std::string listed = RunProgram("/bin/ls", {"-l", "/proc/self/fd"}).out;
    EXPECT_NE(listed.find("->"), std::string::npos);
    EXPECT_EQ(listed.find(path), std::string::npos) << listed;
}

TEST_F(FileLockTest, SignalsComeWhenItEnds)
{
    svr4::signal(SIGUSR1, Note);
    {
        const FileLock lock(path.c_str(), 0);
        raise(SIGUSR1);
        EXPECT_EQ(seen, 0);
    }
    EXPECT_EQ(seen, 1);
}

TEST_F(FileLockTest, FaultsAreHandledAtOnce)
{
    svr4::signal(SIGSEGV, Note);
    seen = 0;
    const FileLock lock(path.c_str(), 0);
    raise(SIGSEGV);
    EXPECT_EQ(seen, 1);
}

TEST_F(FileLockTest, ErrnoAndDescriptorsAreKept)
{
    const int before = OpenDescriptors();
    for (const char* file : {path.c_str(), "/absent"}) {
        errno = EXDEV;
        {
            const FileLock lock(file, 0);
            EXPECT_EQ(errno, EXDEV);
        }
        EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

} // namespace
