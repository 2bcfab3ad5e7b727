// SPDX-License-Identifier: BSD-2-Clause
// Questions about processes that are not children, and waiting for them.
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include <sys/prctl.h>
#include <sys/syscall.h>

#include "tests/unit/unixproc_testing.h"

using namespace unixproc_testing;

namespace {

// From here on this process may not signal the others, as though they belonged to another user.
bool BecomeAStranger()
{
    if (setuid(65534) == 0)
        return true;
    struct { // the host's header may be older than the member `scoped`
        uint64_t handledFileAccess, handledNetAccess, scoped;
    } rules = {0, 0, 2 /* signals */};
    const long fd = syscall(SYS_landlock_create_ruleset, &rules, sizeof rules, 0);
    return fd >= 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && syscall(SYS_landlock_restrict_self, fd, 0) == 0;
}

TEST(UnixProcess, ProcessExistsTellsWhetherAnIdIsThatOfAProcess)
{
    EXPECT_FALSE(UnixProcess::ProcessExists(-5));
    EXPECT_FALSE(UnixProcess::ProcessExists(-1));
    EXPECT_FALSE(UnixProcess::ProcessExists(LONG_MIN));
    EXPECT_FALSE(UnixProcess::ProcessExists(LONG_MAX));
    const long wide = sizeof(long) > 4 ? static_cast<long>((1LL << 32) + getpid()) : -1;
    EXPECT_FALSE(UnixProcess::ProcessExists(wide)) << "not cut to the width of a process id";
    EXPECT_TRUE(UnixProcess::ProcessExists(getpid()));
    EXPECT_TRUE(UnixProcess::ProcessExists(0));

    const pid_t child = StartChild([] {});
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(UnixProcess::ProcessExists(child)) << "ended, but not waited for";
    Reap(child);
    EXPECT_FALSE(UnixProcess::ProcessExists(child));
}

TEST(UnixProcess, AProcessThatMayNotBeSignalledExists)
{
    const pid_t parent = getpid();
    const ChildResult child = RunInChild([&] {
        ChildNeeds(BecomeAStranger());
        const int refused = kill(parent, 0) == -1 && errno == EPERM;
        std::cout << refused << UnixProcess::ProcessExists(parent);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no other user and no signal domain here";
    EXPECT_EQ(child.out, "11");
}

class WaitForProcessToStart : public testing::Test {
protected:
    void SetUp() override
    {
        if (access("/usr/bin/ps", X_OK) != 0 || access("/usr/bin/grep", X_OK) != 0)
            GTEST_SKIP() << "no /usr/bin/ps here";
        MonitoredObject::SetDebugLevel(2);
    }
    void TearDown() override { MonitoredObject::SetDebugLevel(0); }

    // A name that is never found and whose search adds a line to `file`.
    static std::string CountingName(const std::string& file) { return "q;echo>>" + file + ";false"; }

    TemporaryDirectory directory;
};

TEST_F(WaitForProcessToStart, LooksExactlyOnceWithATimeOf0)
{
    const std::string name = CountingName(directory.File("n"));
    ASSERT_LE(name.size(), 48u);
    const std::string out =
        CaptureStdout([&] { EXPECT_EQ(UnixProcess::WaitForProcessToStart(name.c_str(), 0, 5), 0); });
    EXPECT_EQ(ReadFile(directory.File("n")), "\n");
    EXPECT_EQ(out, "Waiting for process " + name + " to start...\nWaited a total of 0 seconds...\n" +
                       "Time expired waiting for " + name + " to start...\n");
}

TEST_F(WaitForProcessToStart, LooksEveryTwoSecondsUntilTheTimeIsReached)
{
    const std::string name = CountingName(directory.File("n"));
    const std::string out =
        CaptureStdout([&] { EXPECT_EQ(UnixProcess::WaitForProcessToStart(name.c_str(), 3, 0), 0); });
    EXPECT_EQ(ReadFile(directory.File("n")), "\n\n\n");
    EXPECT_EQ(out, "Waiting for process " + name + " to start...\nWaited a total of 4 seconds...\n" +
                       "Time expired waiting for " + name + " to start...\n");
}

TEST_F(WaitForProcessToStart, FindsARunningProgramAtOnce)
{
    UnixProcess process(Sleeper);
    ASSERT_TRUE(WaitUntil([&] { return ReadFile("/proc/" + std::to_string(process.pid()) + "/comm") == "sleep\n"; }));
    const std::string out = CaptureStdout([] { EXPECT_EQ(UnixProcess::WaitForProcessToStart("lee", 10, 1000), 1); });
    EXPECT_EQ(out, "Waiting for process lee to start...\nWaited a total of 0 seconds...\n");

    // The name is cut behind its 48th character.
    const std::string cut = "sleep" + std::string(43, ' ');
    MonitoredObject::SetDebugLevel(0);
    EXPECT_EQ(UnixProcess::WaitForProcessToStart((cut + "/no/such/file").c_str(), 0, 0), 1);
    const std::string err = CaptureStderr(
        [&] { EXPECT_EQ(UnixProcess::WaitForProcessToStart((cut.substr(1) + "/no/such/file").c_str(), 0, 0), 0); });
    EXPECT_EQ(err, "/usr/bin/grep: /: Is a directory\n");
    KillAndReap(process.pid());
}

TEST_F(WaitForProcessToStart, FindsAProgramThatStartsLaterAndLetsItSettle)
{
    const pid_t later = StartChild([] {
        usleep(700000);
        prctl(PR_SET_NAME, "latecomer");
        pause();
    });
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const std::string out = CaptureStdout([] { EXPECT_EQ(UnixProcess::WaitForProcessToStart("latecomer", 20, 2), 1); });
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_EQ(out, "Waiting for process latecomer to start...\nWaited a total of 2 seconds...\n");
    EXPECT_GE(end.tv_sec - start.tv_sec, 3) << "two seconds of waiting and two to settle";
    KillAndReap(later);
}

TEST_F(WaitForProcessToStart, IsSilentBelowDebugLevel2)
{
    MonitoredObject::SetDebugLevel(1);
    const std::string out = CaptureStdout([] { UnixProcess::WaitForProcessToStart("nosuchprogram", 0, 0); });
    EXPECT_EQ(out, "");
}

TEST_F(WaitForProcessToStart, UsesTheGlobalLimitForTheSearch)
{
    const ChildResult child = RunInChild([] {
        MonitoredObject::SetDebugLevel(0);
        UnixProcess::SetGlobalMaxWaitTime(1);
        std::cout << UnixProcess::WaitForProcessToStart("q;exec sleep 60", 0, 0);
        int status = 0;
        std::cout << (::wait(&status) > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    });
    EXPECT_EQ(child.out, "01");
    ExpectReport(child.err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: /sbin/sh -c /usr/bin/ps -e | /usr/bin/grep q;exec sleep 60");
}

TEST(WaitForProcessToTerminate, ReturnsWhenTheProcessIsGone)
{
    signal(SIGCLD, SIG_IGN);
    UnixProcess process("sleep 1", UnixProcess::leave_alone_at_destruction);
    UnixProcess::WaitForProcessToTerminate(process.pid(), 1000, 1);
    EXPECT_FALSE(process.exists());
    UnixProcess::WaitForProcessToTerminate(process.pid(), 1000, 1);
    UnixProcess::WaitForProcessToTerminate(-1, 1000, 1);
    signal(SIGCLD, SIG_DFL);
}

TEST(WaitForProcessToTerminate, DoesNotWaitWithoutTime)
{
    UnixProcess process(Sleeper);
    UnixProcess::WaitForProcessToTerminate(process.pid(), 0, 1);
    UnixProcess::WaitForProcessToTerminate(process.pid(), -7, 1);
    EXPECT_TRUE(Running(process.pid()));
    KillAndReap(process.pid());
}

// The first SIGTERM goes out after 20 seconds. The waits for it run beside all other tests, from the start of the
// program on, and write their results into pipes.
class LongWaits : public testing::Environment {
public:
    struct Wait {
        const char* name;
        long time;
        short sendKill;
        bool ignoresSigterm;
        const char* expected; // seconds at the least, and how the process was found
        pid_t pid;
        int result;
    };

    void SetUp() override
    {
        for (Wait& wait : waits) {
            int ends[2];
            if (pipe(ends) != 0)
                continue;
            wait.result = ends[0];
            wait.pid = StartChild([&] {
                const std::string text = Perform(wait);
                if (write(ends[1], text.data(), text.size()) < 0)
                    _exit(1);
            });
            close(ends[1]);
        }
    }
    void TearDown() override
    {
        for (Wait& wait : waits)
            Result(wait);
    }
    static std::string Result(Wait& wait)
    {
        std::string text;
        if (wait.pid > 0) {
            char byte;
            while (read(wait.result, &byte, 1) == 1)
                text += byte;
            close(wait.result);
            Reap(wait.pid); // a test that ignored SIGCLD when it ended has done so already
            wait.pid = 0;
        }
        return text;
    }

    std::vector<Wait> waits = {
        {"at the tenth step", 19, 1, false, "20 ended by SIGTERM", 0, -1},
        {"not at the ninth step", 18, 1, false, "18 running", 0, -1},
        {"not without being told to", 21, 0, false, "22 running", 0, -1},
        {"never more than SIGTERM", 22, 1, true, "22 running", 0, -1},
    };

private:
    static std::string Perform(const Wait& wait)
    {
        int ready[2];
        if (pipe(ready) != 0)
            return "no pipe";
        const pid_t target = StartChild([&] {
            signal(SIGTERM, wait.ignoresSigterm ? SIG_IGN : SIG_DFL);
            if (write(ready[1], "", 1) == 1)
                for (;;)
                    pause();
        });
        char byte;
        if (read(ready[0], &byte, 1) != 1)
            return "no target";
        struct timespec start, end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        UnixProcess::WaitForProcessToTerminate(target, wait.time, wait.sendKill);
        clock_gettime(CLOCK_MONOTONIC, &end);
        usleep(300000); // for the signal of the last step
        const bool running = Running(target);
        std::string how = "running";
        if (running)
            KillAndReap(target);
        else
            how = "ended by SIGTERM";
        // The steps are whole seconds of sleep: a busy machine only adds to them.
        const long passed = end.tv_sec - start.tv_sec + (end.tv_nsec < start.tv_nsec ? -1 : 0);
        return std::to_string(passed / 2 * 2) + " " + how;
    }
};

LongWaits* const StartedWaits =
    static_cast<LongWaits*>(testing::AddGlobalTestEnvironment(new LongWaits)); // owned by the framework

TEST(WaitForProcessToTerminate, SendsSigtermEvery20Seconds)
{
    for (LongWaits::Wait& wait : StartedWaits->waits)
        EXPECT_EQ(StartedWaits->Result(wait), wait.expected) << wait.name;
}

} // namespace
