// SPDX-License-Identifier: BSD-2-Clause
// The time limits of children, and what a caller finds as it left it.
#include <cerrno>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "tests/support/failing_calls.h"
#include "tests/unit/unixproc_testing.h"

using namespace unixproc_testing;

namespace {

const std::string Banner = "\n\n******** Process max wait time exceeded **********\n";

// ---- Time limits

TEST(UnixProcess, AChildThatOutlivesTheLimitOfWaitIsKilled)
{
    UnixProcess process(Sleeper, UnixProcess::leave_alone_at_destruction, 1);
    const std::string err = CaptureStderr([&] { EXPECT_EQ(process.wait(), -1); });
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: sleep 60");
    EXPECT_EQ(process.wait(), -1);
    EXPECT_EQ(Reap(process.pid()), -SIGKILL) << "killed, but not waited for";
}

TEST(UnixProcess, AChildThatOutlivesTheLimitOfTheCaptureIsKilled)
{
    Buffer output;
    output.Append("old");
    const std::string err = CaptureStderr([&] {
        UnixProcess process("printf 'a\\000b\\n'; exec sleep 60", output, 1);
        EXPECT_EQ(process.wait(), -1);
        EXPECT_EQ(Reap(process.pid()), -SIGKILL) << "killed, but not waited for";
    });
    EXPECT_EQ(Bytes(output), std::string("a\0b\n", 4) + Banner);
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: /sbin/sh -c printf 'a\\000b\\n'; exec sleep 60");
}

TEST(UnixProcess, ACaptureThatTimesOutWithoutOutputHoldsTheBannerOnly)
{
    Buffer output;
    CaptureStderr([&] {
        UnixProcess process(Sleeper, output, 1);
        EXPECT_EQ(Reap(process.pid()), -SIGKILL);
    });
    EXPECT_EQ(Bytes(output), Banner);
}

TEST(UnixProcess, AChildThatFloodsItsOutputIsKilledAtTheLimit)
{
    UnixProcess::SetGlobalMaxOutput(1000);
    Buffer output;
    const std::string err = CaptureStderr([&] {
        UnixProcess process("yes & yes & exec yes", output, 1);
        EXPECT_EQ(process.wait(), -1);
        const int end = Reap(process.pid());
        EXPECT_TRUE(end == -SIGKILL || end == -SIGPIPE) << end;
    });
    UnixProcess::SetGlobalMaxOutput(0);
    EXPECT_EQ(Bytes(output).substr(output.Size() - Banner.size()), Banner);
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: /sbin/sh -c yes & yes & exec yes");
}

TEST(UnixProcess, ALimitHoldsWhileNoReadEverBlocks)
{
    FailingCalls calls({SYS_read}, {EIO});
    const ChildResult child = calls.Run([&] {
        Buffer output;
        calls.Begin();
        UnixProcess process(Sleeper, output, 1);
        calls.End();
        CHILD_CHECK(process.wait() == -1 && Bytes(output) == Banner);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make reads fail here";
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_NE(child.err.find("Process killed: sleep 60"), std::string::npos) << child.err;
    EXPECT_LT(calls.Failed(), 1000) << "nor are they made without a pause";
}

TEST(UnixProcess, AChildThatRunsOnWithItsOutputClosedIsKilledAtTheLimit)
{
    Buffer output;
    const std::string err = CaptureStderr([&] {
        UnixProcess process("echo x; exec >&-; exec sleep 60", output, 1);
        EXPECT_EQ(process.wait(), -1);
        EXPECT_EQ(Reap(process.pid()), -SIGKILL);
    });
    EXPECT_EQ(Bytes(output), "x\n" + Banner);
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: /sbin/sh -c echo x; exec >&-; exec sleep 60");

    UnixProcess inTime("echo y; exec >&-; sleep 0.2; exit 5", output, 60);
    EXPECT_EQ(inTime.wait(), 5);
    EXPECT_EQ(Bytes(output), "y\n");
}

TEST(UnixProcess, ALimitThatIsNegativeOrBeyondAllTimeIsNone)
{
    for (const long limit : {-1L, LONG_MIN, LONG_MAX}) {
        alarm(100);
        Buffer output;
        UnixProcess process("echo x; sleep 0.1; echo y; exit 3", output, limit);
        EXPECT_EQ(process.wait(), 3);
        EXPECT_EQ(Bytes(output), "x\ny\n");
        UnixProcess waited("sleep 0.1; exit 4", UnixProcess::wait_at_construction, limit);
        EXPECT_EQ(waited.wait(), 4);
        EXPECT_GE(alarm(0), 99u);
    }
}

// While it lives, SIGALRM is held back and has a handler that counts.
class HeldAlarm {
public:
    HeldAlarm()
    {
        Handle(SIGALRM, Count, 0);
        seen = 0;
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGALRM);
        sigprocmask(SIG_BLOCK, &mask, &before);
    }
    ~HeldAlarm()
    {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        signal(SIGALRM, SIG_DFL);
    }
    static bool Waits()
    {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGALRM) == 1;
    }

private:
    sigset_t before;
};

TEST(UnixProcess, ACallerThatHoldsTheAlarmBackHasLimitsAndGetsNoStrayAlarm)
{
    {
        const HeldAlarm held;
        CaptureStderr([] {
            UnixProcess process(Sleeper, UnixProcess::wait_at_construction, 1);
            EXPECT_EQ(process.wait(), -1);
            EXPECT_EQ(Reap(process.pid()), -SIGKILL);
            Buffer output;
            UnixProcess captured(Sleeper, output, 1);
            EXPECT_EQ(Reap(captured.pid()), -SIGKILL);
            EXPECT_EQ(Bytes(output), Banner);
            UnixProcess closed("exec >&-; exec sleep 60", output, 1);
            EXPECT_EQ(Reap(closed.pid()), -SIGKILL);
        });
        EXPECT_FALSE(HeldAlarm::Waits());
    }
    EXPECT_EQ(seen, 0);
}

TEST(UnixProcess, AnAlarmOfTheCallersThatWaitsWaitsStillAfterwards)
{
    const HeldAlarm held;
    raise(SIGALRM);
    Buffer output;
    UnixProcess captured("sleep 0.1; echo x", output, 60);
    UnixProcess process("sleep 0.1; exit 3", UnixProcess::wait_at_construction, 60);
    EXPECT_EQ(Bytes(output), "x\n") << "it is not taken for the end of the limit";
    EXPECT_EQ(process.wait(), 3);
    EXPECT_EQ(seen, 0);
    EXPECT_TRUE(HeldAlarm::Waits());
}

TEST(UnixProcess, ALimitOf0StandsForTheGlobalLimit)
{
    EXPECT_EQ(UnixProcess::GlobalUnixProcessMaxWaitTime, 0);
    const char* argv[] = {"true", nullptr};
    const auto limitOf = [](UnixProcess& process) {
        const std::string dump = Dump(process);
        return ReportField(dump, "maxwaittime: ");
    };
    {
        UnixProcess process(argv, UnixProcess::wait_at_construction);
        EXPECT_EQ(limitOf(process), "0");
    }
    UnixProcess::SetGlobalMaxWaitTime(17);
    EXPECT_EQ(UnixProcess::GlobalUnixProcessMaxWaitTime, 17);
    {
        Buffer output;
        UnixProcess vector(argv, UnixProcess::wait_at_construction, 0);
        UnixProcess text("true", UnixProcess::wait_at_construction, 0);
        UnixProcess vectorCaptured(argv, output, 0);
        UnixProcess textCaptured("true", output, 0);
        UnixProcess ownLimit(argv, UnixProcess::wait_at_construction, 5);
        UnixProcess::SetGlobalMaxWaitTime(0);
        EXPECT_EQ(limitOf(vector), "17");
        EXPECT_EQ(limitOf(text), "17");
        EXPECT_EQ(limitOf(vectorCaptured), "17");
        EXPECT_EQ(limitOf(textCaptured), "17");
        EXPECT_EQ(limitOf(ownLimit), "5");
    }
}

TEST(UnixProcess, WithoutALimitAnyInterruptingSignalEndsTheWait)
{
    Handle(SIGALRM, Count, 0);
    seen = 0;
    struct itimerval soon = {{0, 0}, {0, 200000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    const std::string err = CaptureStderr([&] {
        UnixProcess process(Sleeper, UnixProcess::wait_at_construction);
        EXPECT_EQ(seen, 1) << "the caller's alarm goes on";
        EXPECT_EQ(process.wait(), -1);
        EXPECT_EQ(Reap(process.pid()), -SIGKILL);
    });
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: sleep 60");

    setitimer(ITIMER_REAL, &soon, nullptr);
    Buffer output;
    CaptureStderr([&] {
        UnixProcess process(Sleeper, output);
        EXPECT_EQ(seen, 2);
        EXPECT_EQ(Reap(process.pid()), -SIGKILL);
    });
    EXPECT_EQ(Bytes(output), Banner);
    signal(SIGALRM, SIG_DFL);
}

TEST(UnixProcess, WithoutALimitItWaitsForTheEnd)
{
    Handle(SIGALRM, Count, SA_RESTART);
    seen = 0;
    struct itimerval soon = {{0, 0}, {0, 100000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    Buffer output;
    UnixProcess process("sleep 0.5; echo end", output);
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(Bytes(output), "end\n");
    signal(SIGALRM, SIG_DFL);
}

// ---- What is restored

struct Operation {
    const char* name;
    std::function<void()> body;
};

std::vector<Operation> EveryOperation()
{
    return {
        {"wait", [] { UnixProcess("exit 3", UnixProcess::wait_at_destruction, 20); }},
        {"wait that blocks", [] { UnixProcess("sleep 0.3", UnixProcess::wait_at_construction, 20); }},
        {"wait that times out",
         [] {
             UnixProcess process(Sleeper, UnixProcess::wait_at_construction, 1);
             Reap(process.pid());
         }},
        {"capture",
         [] {
             Buffer output;
             UnixProcess("echo x", output, 20);
         }},
        {"capture that times out",
         [] {
             Buffer output;
             UnixProcess process(Sleeper, output, 1);
             Reap(process.pid());
         }},
        {"capture without a pipe",
         [] {
             struct rlimit limit, none = {3, 3};
             getrlimit(RLIMIT_NOFILE, &limit);
             none.rlim_max = limit.rlim_max;
             setrlimit(RLIMIT_NOFILE, &none);
             Buffer output;
             UnixProcess("echo x", output, 20);
             setrlimit(RLIMIT_NOFILE, &limit);
         }},
        {"no waiting",
         [] {
             UnixProcess process(Sleeper, UnixProcess::leave_alone_at_destruction, 1);
             KillAndReap(process.pid());
         }},
    };
}

TEST(UnixProcess, SignalsAndAlarmAreRestored)
{
    for (const Operation& operation : EveryOperation()) {
        SCOPED_TRACE(operation.name);
        Handle(SIGALRM, Count, SA_NODEFER | SA_RESTART);
        Handle(SIGCLD, SIG_DFL, SA_NOCLDSTOP);
        const std::string alarmBefore = Disposition(SIGALRM);
        const std::string childBefore = Disposition(SIGCLD);
        sigset_t maskBefore, maskAfter;
        sigprocmask(SIG_BLOCK, nullptr, &maskBefore);
        seen = 0;
        alarm(100);
        CaptureStderr(operation.body);
        EXPECT_GE(alarm(0), 99u);
        EXPECT_EQ(seen, 0);
        EXPECT_EQ(Disposition(SIGALRM), alarmBefore);
        EXPECT_EQ(Disposition(SIGCLD), childBefore);
        sigprocmask(SIG_BLOCK, nullptr, &maskAfter);
        for (int sig = 1; sig < 65; sig++)
            EXPECT_EQ(sigismember(&maskAfter, sig), sigismember(&maskBefore, sig)) << sig;
        signal(SIGALRM, SIG_DFL);
        signal(SIGCLD, SIG_DFL);
    }
}

TEST(UnixProcess, ACallerThatIgnoresItsChildrenGetsTheStatus)
{
    for (const int flags : {0, SA_NOCLDWAIT}) {
        Handle(SIGCLD, SIG_IGN, flags);
        const std::string before = Disposition(SIGCLD);
        UnixProcess process("exit 3", UnixProcess::wait_at_construction);
        EXPECT_EQ(process.wait(), 3);
        Buffer output;
        UnixProcess captured("exit 4", output);
        EXPECT_EQ(captured.wait(), 4);
        EXPECT_EQ(Disposition(SIGCLD), before);
        signal(SIGCLD, SIG_DFL);
    }
}

volatile sig_atomic_t slowForks = 0;
void AfterFork()
{
    if (slowForks != 0)
        usleep(300000);
}

TEST(UnixProcess, TheStatusOfAChildThatEndsAtOnceIsKept)
{
    ASSERT_EQ(pthread_atfork(nullptr, AfterFork, nullptr), 0);
    signal(SIGCLD, SIG_IGN);
    slowForks = 1; // the child has ended before fork returns
    UnixProcess process("exit 3", UnixProcess::wait_at_construction);
    Buffer output;
    UnixProcess captured("exit 4", output);
    slowForks = 0;
    signal(SIGCLD, SIG_DFL);
    EXPECT_EQ(process.wait(), 3);
    EXPECT_EQ(captured.wait(), 4);
}

TEST(UnixProcess, ACallerWithAHandlerForItsChildrenIsNotDisturbed)
{
    Handle(SIGCLD, Count, SA_RESTART | SA_NOCLDWAIT);
    seen = 0;
    const std::string before = Disposition(SIGCLD);
    UnixProcess process("exit 3", UnixProcess::wait_at_construction, 20);
    EXPECT_EQ(process.wait(), 3);
    Buffer output;
    UnixProcess captured("exit 4", output);
    EXPECT_EQ(captured.wait(), 4);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(Disposition(SIGCLD), before);
    signal(SIGCLD, SIG_DFL);
}

TEST(UnixProcess, TheStatusOfAChildThatTheCallerIgnoredIsLost)
{
    signal(SIGCLD, SIG_IGN);
    UnixProcess process("exit 3", UnixProcess::leave_alone_at_destruction);
    EXPECT_TRUE(WaitUntil([&] { return !process.exists(); }));
    EXPECT_EQ(process.wait(), -1);
    signal(SIGCLD, SIG_DFL);
}

TEST(UnixProcess, NoDescriptorIsLeftOpen)
{
    const int before = OpenDescriptors();
    for (const Operation& operation : EveryOperation())
        CaptureStderr(operation.body);
    for (int i = 0; i < 100; i++) {
        Buffer output;
        UnixProcess captured("echo x", output);
        UnixProcess plain("true", UnixProcess::wait_at_construction);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

} // namespace
