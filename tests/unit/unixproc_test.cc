// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/unixproc.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/unixproc_testing.h"

using namespace unixproc_testing;

// ---- What the tests below share

// The process id in an object, to give it values that no fork gives.
template <long UnixProcess::*member>
struct PidAccess {
    friend long& PidOf(UnixProcess& process) { return process.*member; }
};
long& PidOf(UnixProcess& process);
template struct PidAccess<&UnixProcess::mypid>;

namespace {

// ---- Starting and waiting

TEST(UnixProcess, RunsAnArgumentVector)
{
    const char* argv[] = {"echo", "a  b", "", "c", nullptr};
    const std::string out = CaptureStdout([&] {
        UnixProcess process(argv, UnixProcess::wait_at_construction);
        EXPECT_STREQ(process.cmd(), "echo a  b  c");
        EXPECT_GT(process.pid(), 1);
        EXPECT_EQ(process.wait(), 0);
        EXPECT_EQ(Reap(process.pid()), -1000) << "waited for already";
    });
    EXPECT_EQ(out, "a  b  c\n");
}

TEST(UnixProcess, RunsACommandTextThroughTheShell)
{
    const std::string out = CaptureStdout([&] {
        UnixProcess process("echo $0 \"$HOME\" | tr a-z A-Z; exit 7", UnixProcess::wait_at_construction);
        EXPECT_STREQ(process.cmd(), "/sbin/sh -c echo $0 \"$HOME\" | tr a-z A-Z; exit 7");
        EXPECT_EQ(process.wait(), 7);
    });
    std::string expected = std::string("/sbin/sh ") + (getenv("HOME") ? getenv("HOME") : "") + "\n";
    std::transform(expected.begin(), expected.end(), expected.begin(), toupper);
    EXPECT_EQ(out, expected);
}

TEST(UnixProcess, AConstructorWithoutWaitReturnsAtOnce)
{
    UnixProcess process(Sleeper);
    EXPECT_TRUE(process.exists());
    EXPECT_TRUE(Running(process.pid()));
    KillAndReap(process.pid());
    EXPECT_FALSE(process.exists());
}

TEST(UnixProcess, WaitGivesTheExitCode)
{
    for (const int code : {0, 1, 7, 127, 128, 255}) {
        UnixProcess process(("exit " + std::to_string(code)).c_str(), UnixProcess::leave_alone_at_destruction);
        EXPECT_EQ(process.wait(), code);
    }
}

TEST(UnixProcess, AChildEndedByASignalHasStatus0)
{
    UnixProcess process("kill -KILL $$", UnixProcess::leave_alone_at_destruction);
    EXPECT_EQ(process.wait(), 0);
    Buffer output;
    UnixProcess captured("echo x; kill -KILL $$", output);
    EXPECT_EQ(captured.wait(), 0);
    EXPECT_EQ(Bytes(output), "x\n");
}

TEST(UnixProcess, WaitCollectsOnce)
{
    UnixProcess process("exit 5", UnixProcess::leave_alone_at_destruction, 20);
    EXPECT_EQ(process.wait(), 5);
    EXPECT_EQ(process.wait(), 5) << "a second waitpid would fail and give -1";
    EXPECT_GT(process.pid(), 1) << "the process id stays";
}

TEST(UnixProcess, WaitGivesTheCodeOfAChildThatEndedBefore)
{
    UnixProcess process("exit 6", UnixProcess::leave_alone_at_destruction, 20);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process.pid()), &info, WEXITED | WNOWAIT), 0);
    alarm(100);
    EXPECT_EQ(process.wait(), 6);
    EXPECT_GE(alarm(0), 99u);
}

TEST(UnixProcess, AWaitThatFailsGivesMinusOneAndKillsNothing)
{
    const std::string err = CaptureStderr([] {
        UnixProcess process("exit 5", UnixProcess::leave_alone_at_destruction, 20);
        EXPECT_EQ(Reap(process.pid()), 5);
        EXPECT_EQ(process.wait(), -1);
        EXPECT_EQ(process.wait(), -1);
        EXPECT_EQ(ReportField(Dump(process), "exit status: "), "-1");
    });
    EXPECT_EQ(err, "");
}

TEST(UnixProcess, AVectorOfManyArgumentsIsJoinedWhole)
{
    std::vector<const char*> argv(100001, "x");
    argv[0] = "true";
    argv.push_back(nullptr);
    UnixProcess process(argv.data(), UnixProcess::wait_at_construction);
    EXPECT_EQ(process.wait(), 0);
    std::string expected = "true";
    for (int i = 0; i < 100000; i++)
        expected += " x";
    EXPECT_EQ(static_cast<const char*>(process.cmd()), expected);
}

TEST(UnixProcess, ANullVectorStopsTheProgram)
{
    const ChildResult child = RunInChild([] { UnixProcess process(static_cast<const char**>(nullptr)); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err.substr(0, child.err.find(", line")), "Assertion failed: argv != NULL, file Misc/unixproc");
}

// ---- A command that cannot be executed

TEST(UnixProcess, ACommandThatDoesNotExistEndsWithStatus0)
{
    const char* argv[] = {"/no/such/program", "x", nullptr};
    const ChildResult child = RunInChild([&] {
        UnixProcess process(argv, UnixProcess::wait_at_construction);
        std::cout << process.wait() << " " << (process.pid() > 1);
    });
    EXPECT_EQ(child.out, "0 1");
    ExpectReport(child.err, "System call exec() failed", ENOENT, "exec() failed attempting: /no/such/program x");
}

TEST(UnixProcess, ACapturedCommandThatDoesNotExistHasNoOutput)
{
    const char* argv[] = {"no-such-program-on-the-path", nullptr};
    const ChildResult child = RunInChild([&] {
        setenv("PATH", "/usr/bin:/bin", 1); // a directory that may not be searched would change the error
        Buffer output;
        UnixProcess process(argv, output);
        std::cout << process.wait() << " " << output.Size();
    });
    EXPECT_EQ(child.out, "0 0");
    ExpectReport(child.err, "System call exec() failed", ENOENT,
                 "exec() failed attempting: no-such-program-on-the-path");
}

TEST(UnixProcess, AnEmptyVectorCannotBeExecuted)
{
    const char* argv[] = {nullptr};
    const ChildResult child = RunInChild([&] {
        UnixProcess process(argv, UnixProcess::wait_at_construction);
        std::cout << process.wait() << "<" << process.cmd() << ">";
    });
    EXPECT_EQ(child.out, "0<>");
    ExpectReport(child.err, "System call exec() failed", EFAULT, "exec() failed attempting: ");
}

TEST(UnixProcess, TheBufferedOutputOfTheParentIsWrittenOnce)
{
    const char* argv[] = {"/no/such/program", nullptr};
    const ChildResult child = RunInChild([&] {
        std::ios::sync_with_stdio(false);
        std::cout << "streams ";
        std::printf("stdio ");
        Buffer output;
        UnixProcess plain(argv, UnixProcess::wait_at_construction);
        UnixProcess captured(argv, output);
        std::cout << output.Size() << " ";
    });
    EXPECT_TRUE(child.out == "streams 0 stdio " || child.out == "stdio streams 0 ") << child.out;
}

// ---- Captured output

TEST(UnixProcess, CapturesMuchOutputWholeWithItsZeroBytes)
{
    std::string pattern(10 << 20, '\0');
    uint32_t value = 1;
    for (char& byte : pattern) {
        value = value * 1664525 + 1013904223;
        byte = static_cast<char>(value >> 24);
    }
    pattern.append("tail");
    TemporaryDirectory directory;
    WriteFile(directory.File("pattern"), pattern);
    const std::string file = directory.File("pattern");
    const char* argv[] = {"cat", file.c_str(), nullptr};
    Buffer output;
    UnixProcess process(argv, output, 60);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(output.Size(), pattern.size());
    EXPECT_TRUE(Bytes(output) == pattern);
    std::free(output.ReleasePtr());
}

TEST(UnixProcess, TheOutputReplacesTheContents)
{
    Buffer output;
    output.Append("old contents");
    const std::string err = CaptureStderr([&] {
        UnixProcess process("echo out; echo err >&2; exit 9", output);
        EXPECT_EQ(process.wait(), 9);
        EXPECT_STREQ(process.cmd(), "/sbin/sh -c echo out; echo err >&2; exit 9");
    });
    EXPECT_EQ(Bytes(output), "out\n");
    EXPECT_EQ(err, "err\n") << "standard error is the caller's";

    UnixProcess silent("true", output);
    EXPECT_EQ(output.Size(), 0u);
    EXPECT_EQ(static_cast<const void*>(output), nullptr);
}

TEST(UnixProcess, CapturesWhileTheCallersOwnStandardStreamsAreClosed)
{
    for (const std::vector<int>& closed : {std::vector<int>{1}, {0}, {0, 1}, {0, 1, 2}}) {
        TemporaryDirectory directory;
        const std::string file = directory.File("seen");
        const ChildResult child = RunInChild([&] {
            for (const int fd : closed)
                close(fd);
            Buffer output;
            UnixProcess process("echo hello", output, 20);
            WriteFile(file, Bytes(output) + std::to_string(process.wait()));
        });
        EXPECT_EQ(ReadFile(file), "hello\n0") << closed.size();
    }
}

TEST(UnixProcess, OutputThatFindsNoMemoryIsLeftOut)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const ChildResult child = RunInChild([] {
        const MemoryLimit limit(8 << 20);
        Buffer output;
        UnixProcess process("ulimit -v unlimited; yes | head -c 40000000; exit 5", output);
        bool right = output.Size() > 1000000 && output.Size() < 40000000;
        for (unsigned i = 0; i < output.Size(); i++)
            right = right && output[i] == (i % 2 == 0 ? 'y' : '\n');
        std::cout << right << " " << process.wait();
    });
    EXPECT_EQ(child.out, "1 5");
}

// While it lives, output is kept up to so many bytes.
class OutputBound {
public:
    explicit OutputBound(long bytes) { UnixProcess::SetGlobalMaxOutput(bytes); }
    ~OutputBound() { UnixProcess::SetGlobalMaxOutput(0); }
};

std::string LeftOut(const std::string& bytes)
{
    return "\n******** Output cut, " + bytes + " bytes left out **********\n";
}

TEST(UnixProcess, KeepsTheFirstBytesUpToTheBoundAndTellsHowManyItLeftOut)
{
    EXPECT_EQ(UnixProcess::GlobalUnixProcessMaxOutput, 0);
    const OutputBound bound(10);
    const std::pair<const char*, std::string> rules[] = {
        {"printf 123456789", "123456789"},
        {"printf 1234567890", "1234567890"},
        {"printf 12345678901", "1234567890" + LeftOut("1")},
        {"printf 123456; sleep 0.1; printf 789012345", "1234567890" + LeftOut("5")},
        {"printf 1234567890; sleep 0.1; printf 12345; sleep 0.1; printf 6", "1234567890" + LeftOut("6")},
        {"true", ""},
    };
    for (const auto& [command, expected] : rules) {
        Buffer output;
        UnixProcess process(command, output);
        EXPECT_EQ(Bytes(output), expected) << command;
        EXPECT_EQ(process.wait(), 0);
    }
}

TEST(UnixProcess, ABoundTakesNoMoreMemoryThanItKeeps)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const ChildResult child = RunInChild([] {
        const OutputBound bound(1 << 20);
        const MemoryLimit limit(8 << 20);
        Buffer output;
        UnixProcess process("ulimit -v unlimited; head -c 100000000 /dev/zero; exit 5", output);
        std::cout << process.wait() << (Bytes(output) == std::string(1 << 20, '\0') + LeftOut("98951424"));
    });
    EXPECT_EQ(child.out, "51");
}

TEST(UnixProcess, TheBannerOfTheLimitStaysBehindTheLineOfTheBound)
{
    const OutputBound bound(2);
    Buffer output;
    CaptureStderr([&] {
        UnixProcess process("printf abc; exec sleep 60", output, 1);
        Reap(process.pid());
    });
    EXPECT_EQ(Bytes(output), "ab" + LeftOut("1") + "\n\n******** Process max wait time exceeded **********\n");
}

TEST(UnixProcess, ABoundThatIsNegativeOrBeyondABufferIsNone)
{
    for (const long bytes : {-1L, LONG_MIN, LONG_MAX}) {
        const OutputBound bound(bytes);
        Buffer output;
        UnixProcess process("echo x", output);
        EXPECT_EQ(Bytes(output), "x\n");
    }
}

// ---- What the child inherits

TEST(UnixProcess, TheChildLeadsItsOwnSessionAndGroup)
{
    UnixProcess process(Sleeper);
    EXPECT_TRUE(WaitUntil([&] { return getpgid(static_cast<pid_t>(process.pid())) == process.pid(); }));
    EXPECT_EQ(getsid(static_cast<pid_t>(process.pid())), process.pid());
    EXPECT_EQ(kill(static_cast<pid_t>(-process.pid()), SIGKILL), 0);
    EXPECT_EQ(Reap(process.pid()), -SIGKILL);

    Buffer output;
    UnixProcess captured("cut -d ' ' -f 5,6 /proc/$$/stat", output);
    const std::string pid = std::to_string(captured.pid());
    EXPECT_EQ(Bytes(output), pid + " " + pid + "\n");
}

TEST(UnixProcess, DescriptorsAreClosedWithoutAPipeOnly)
{
    const int null = open("/dev/null", O_RDONLY);
    for (const int fd : {20, 59, 60})
        ASSERT_EQ(dup2(null, fd), fd);
    close(null);
    const char* command = "for n in 0 1 2 20 59 60; do if [ -e /proc/$$/fd/$n ]; then printf '%s ' $n; fi; done";
    EXPECT_EQ(CaptureStdout([&] { UnixProcess process(command, UnixProcess::wait_at_construction); }), "0 1 2 60 ");
    Buffer output;
    UnixProcess captured(command, output);
    EXPECT_EQ(Bytes(output), "0 1 2 20 59 60 ");
    for (const int fd : {20, 59, 60})
        close(fd);
}

TEST(UnixProcess, NoPipeEndStaysOpenInTheChild)
{
    Buffer output;
    UnixProcess captured("for f in /proc/$$/fd/*; do if [ -p $f ]; then echo ${f##*/}; fi; done", output);
    EXPECT_NE(Bytes(output).find("1\n"), std::string::npos);
    const ChildResult child = RunInChild([] {
        close(0);
        open("/dev/null", O_RDONLY);
        for (int fd = 3; fd < 100; fd++)
            close(fd);
        Buffer pipes;
        UnixProcess process("for n in 0 1 2 3 4 5 6 7 8 9; do if [ -p /proc/$$/fd/$n ]; then echo $n; fi; done", pipes);
        std::cout << Bytes(pipes);
    });
    EXPECT_EQ(child.out, "1\n");
}

TEST(UnixProcess, TheChildIgnoresSigcldAndHasTheMaskOfTheCaller)
{
    sigset_t mask, before;
    sigemptyset(&mask);
    sigaddset(&mask, SIGWINCH);
    sigprocmask(SIG_SETMASK, &mask, &before);
    const char* argv[] = {"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status", nullptr};
    char expected[100];
    const unsigned long long earlier = 1ull << (SIGCLD - 1);
    std::snprintf(expected, sizeof expected, "SigBlk:\t%016llx\nSigIgn:\t%016llx\n", 1ull << (SIGWINCH - 1), earlier);
    EXPECT_EQ(CaptureStdout([&] { UnixProcess process(argv, UnixProcess::wait_at_construction); }), expected);
    Buffer output;
    UnixProcess captured(argv, output);
    EXPECT_EQ(Bytes(output), expected);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

// ---- Failures of the start

TEST(UnixProcess, AForkThatFailsLeavesAnObjectWithoutAChild)
{
    for (const auto flag : {UnixProcess::wait_at_construction, UnixProcess::terminate_at_destruction}) {
        const ChildResult child = RunInChild([&] {
            MakeForksFail();
            Handle(SIGCLD, SIG_IGN, SA_NOCLDWAIT);
            const std::string before = Disposition(SIGCLD);
            UnixProcess process("echo never", flag, 5);
            std::cout << process.pid() << " " << process.wait() << " " << process.exists() << "\n" << Dump(process);
            process.terminate();
            std::cout << (Disposition(SIGCLD) == before);
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to make fork fail here";
        EXPECT_EQ(child.out, "-1 -1 0\nDumping UnixProcess Object:\ncommand: </sbin/sh -c echo never>\n"
                             "process id: -1\nmaxwaittime: 5\nexit status: -1\n1");
        ExpectReport(child.err, "System call fork() failed", ENOMEM, "fork failed attempting: /sbin/sh -c echo never");
        EXPECT_EQ(child.exitCode, 0);
    }
}

TEST(UnixProcess, AForkThatFailsForACaptureClosesThePipe)
{
    const ChildResult child = RunInChild([] {
        MakeForksFail();
        Handle(SIGCLD, SIG_IGN, SA_NOCLDWAIT);
        const std::string before = Disposition(SIGCLD);
        const int descriptors = OpenDescriptors();
        Buffer output;
        output.Append("old");
        UnixProcess process("echo never", output, 5);
        std::cout << ReportField(Dump(process), "exit status: ") << " ";
        std::cout << process.pid() << " " << process.wait() << " " << output.Size() << " "
                  << OpenDescriptors() - descriptors << " " << (Disposition(SIGCLD) == before);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    EXPECT_EQ(child.out, "-1 -1 -1 0 0 1");
    ExpectReport(child.err, "System call fork() failed", ENOMEM,
                 "fork failed attempting to execute: /sbin/sh -c echo never");
}

TEST(UnixProcess, APipeThatFailsLeavesAnObjectWithoutAChild)
{
    const ChildResult child = RunInChild([] {
        LimitDescriptors(3);
        Handle(SIGCLD, SIG_IGN, SA_NOCLDWAIT);
        const std::string before = Disposition(SIGCLD);
        Buffer output;
        output.Append("old");
        UnixProcess process("echo never", output, 5);
        std::cout << ReportField(Dump(process), "exit status: ") << " ";
        std::cout << process.pid() << " " << process.wait() << " " << output.Size() << " " << process.cmd() << " "
                  << (Disposition(SIGCLD) == before);
    });
    EXPECT_EQ(child.out, "-1 -1 -1 0 /sbin/sh -c echo never 1");
    ExpectReport(child.err, "Fault to open a pipe.", EMFILE, "pipe command failed");
}

// ---- The end of the object

TEST(UnixProcess, TerminateSendsSigtermOnce)
{
    UnixProcess process(Sleeper, UnixProcess::leave_alone_at_destruction);
    const long pid = process.pid();
    process.terminate();
    EXPECT_EQ(process.pid(), -1);
    EXPECT_FALSE(process.exists());
    EXPECT_EQ(Reap(pid), -SIGTERM);
    process.terminate();
    EXPECT_EQ(process.pid(), -1);
    EXPECT_EQ(process.wait(), -1);
}

// While it lives, SIGTERM is held back: it waits when this process was sent one.
class HeldSigterm {
public:
    HeldSigterm()
    {
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, &before);
    }
    ~HeldSigterm() { sigprocmask(SIG_SETMASK, &before, nullptr); }
    // Whether there was one; it is taken back.
    bool HasCome() const
    {
        const struct timespec none = {0, 0};
        return sigtimedwait(&set, nullptr, &none) == SIGTERM;
    }

private:
    sigset_t set;
    sigset_t before;
};

TEST(UnixProcess, TerminateSignalsNobodyOnceTheEndOfTheChildIsKnown)
{
    const HeldSigterm held;
    const auto terminate = [](UnixProcess& process) {
        PidOf(process) = getpid(); // as though the child's id had become this process's
        UnixProcess copy(process);
        copy.terminate();
        process.SigTermProc(SIGTERM);
        process.terminate();
        EXPECT_EQ(process.pid(), -1);
        EXPECT_EQ(copy.pid(), -1);
    };
    {
        SCOPED_TRACE("waited for");
        UnixProcess process("exit 3");
        EXPECT_EQ(process.wait(), 3);
        terminate(process);
        EXPECT_EQ(process.wait(), 3);
    }
    {
        SCOPED_TRACE("waited for by the constructor");
        UnixProcess process("exit 3", UnixProcess::wait_at_construction);
        terminate(process);
    }
    {
        SCOPED_TRACE("captured");
        Buffer output;
        UnixProcess process("exit 3", output);
        terminate(process);
    }
    {
        SCOPED_TRACE("killed for its time");
        UnixProcess process(Sleeper, UnixProcess::terminate_at_destruction, 1);
        CaptureStderr([&] { EXPECT_EQ(process.wait(), -1); });
        Reap(process.pid());
        terminate(process);
    }
    {
        SCOPED_TRACE("waited for by somebody else");
        UnixProcess process("exit 3");
        Reap(process.pid());
        EXPECT_EQ(process.wait(), -1);
        terminate(process);
    }
    EXPECT_FALSE(held.HasCome());
    UnixProcess unknown("exit 3");
    Reap(unknown.pid());
    terminate(unknown);
    EXPECT_TRUE(held.HasCome()) << "as before, where nobody has waited";
}

TEST(UnixProcess, WaitWithoutAChildTakesNoOtherChild)
{
    UnixProcess other("exit 8", UnixProcess::leave_alone_at_destruction);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other.pid()), &info, WEXITED | WNOWAIT), 0);
    for (const long pid : {-1L, 0L, 1L}) {
        UnixProcess process(other);
        PidOf(process) = pid;
        EXPECT_EQ(process.wait(), -1);
    }
    EXPECT_EQ(other.wait(), 8);
}

TEST(UnixProcess, TerminateDoesNotWait)
{
    TemporaryDirectory directory;
    const std::string ready = directory.File("ready");
    UnixProcess process(("trap '' TERM; echo >" + ready + "; while :; do sleep 1; done").c_str());
    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(ready).empty(); }));
    const long pid = process.pid();
    process.terminate();
    EXPECT_TRUE(Running(pid));
    kill(static_cast<pid_t>(-pid), SIGKILL);
    Reap(pid);
}

TEST(UnixProcess, NothingIsSentToTheProcessIds0And1)
{
    const ChildResult child = RunInChild([] {
        ChildNeeds(unshare(CLONE_NEWPID) == 0);
        // The child is process 1 of its namespace and would see its SIGTERM; the grandchild uses the objects.
        WaitForExit(StartChild([] {
            setsid();
            Handle(SIGTERM, Count, 0);
            seen = 0;
            const int code = WaitForExit(StartChild([] {
                for (const long pid : {0L, 1L, -1L}) {
                    UnixProcess process("true", UnixProcess::wait_at_construction);
                    UnixProcess same(process);
                    PidOf(same) = pid;
                    same.terminate();
                    std::cout << same.pid() << same.wait() << " ";
                }
            }));
            std::cout << code << seen;
        }));
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no process id namespace here";
    EXPECT_EQ(child.out, "0-1 1-1 -1-1 00");
}

TEST(UnixProcess, TheDestructorTerminates)
{
    long pid;
    {
        UnixProcess process(Sleeper); // by default
        pid = process.pid();
    }
    EXPECT_EQ(Reap(pid), -SIGTERM);
}

TEST(UnixProcess, TheDestructorWaits)
{
    TemporaryDirectory directory;
    long pid;
    {
        UnixProcess process(("sleep 0.5; echo >" + directory.File("end")).c_str(), UnixProcess::wait_at_destruction);
        pid = process.pid();
        EXPECT_EQ(ReadFile(directory.File("end")), "");
    }
    EXPECT_EQ(ReadFile(directory.File("end")), "\n");
    EXPECT_EQ(Reap(pid), -1000);
}

TEST(UnixProcess, TheDestructorWaitsWithTheLimit)
{
    long pid = 0;
    const std::string err = CaptureStderr([&] {
        UnixProcess process(Sleeper, UnixProcess::wait_at_destruction, 1);
        pid = process.pid();
    });
    EXPECT_EQ(Reap(pid), -SIGKILL);
    ExpectReport(err, ErrorReporter::GetErrorType(ErrorReporter::WAIT_TIME_EXCEEDED), EINTR,
                 "Process killed: sleep 60");
}

TEST(UnixProcess, TheDestructorLeavesAlone)
{
    long pid;
    {
        UnixProcess process(Sleeper, UnixProcess::leave_alone_at_destruction);
        pid = process.pid();
    }
    EXPECT_TRUE(Running(pid));
    KillAndReap(pid);
}

TEST(UnixProcess, AnUnknownFlagIsNamedAndWaits)
{
    TemporaryDirectory directory;
    const std::string out = CaptureStdout([&] {
        UnixProcess process(("sleep 0.3; echo >" + directory.File("end")).c_str(),
                            static_cast<UnixProcess::ctor_dtor_flag>(50));
    });
    EXPECT_EQ(out, "Error: Unknown at_destroy function 50\n");
    EXPECT_EQ(ReadFile(directory.File("end")), "\n");
}

TEST(UnixProcess, TheFlagsHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(UnixProcess::terminate_at_destruction), 10);
    EXPECT_EQ(static_cast<int>(UnixProcess::wait_at_destruction), 20);
    EXPECT_EQ(static_cast<int>(UnixProcess::leave_alone_at_destruction), 30);
    EXPECT_EQ(static_cast<int>(UnixProcess::wait_at_construction), 40);
    EXPECT_EQ(static_cast<int>(failP), 0);
    EXPECT_EQ(static_cast<int>(parentP), 1);
    EXPECT_EQ(static_cast<int>(childP), 2);
}

TEST(UnixProcess, SigTermProcTerminatesTheChildrenThatTheObjectAnswersFor)
{
    const struct {
        UnixProcess::ctor_dtor_flag flag;
        bool terminates;
    } rules[] = {{UnixProcess::terminate_at_destruction, true},
                 {UnixProcess::wait_at_destruction, true},
                 {static_cast<UnixProcess::ctor_dtor_flag>(50), true},
                 {UnixProcess::leave_alone_at_destruction, false}};
    for (const auto& rule : rules) {
        SCOPED_TRACE(rule.flag);
        CaptureStdout([&] { // for the complaint about the unknown flag
            UnixProcess process(Sleeper, rule.flag);
            const long pid = process.pid();
            process.SigTermProc(SIGTERM);
            EXPECT_EQ(process.pid(), rule.terminates ? -1 : pid);
            if (!rule.terminates)
                kill(static_cast<pid_t>(pid), SIGKILL);
            EXPECT_EQ(Reap(pid), rule.terminates ? -SIGTERM : -SIGKILL);
        });
    }
    UnixProcess waited("true", UnixProcess::wait_at_construction);
    const long pid = waited.pid();
    waited.SigTermProc(SIGTERM);
    EXPECT_EQ(waited.pid(), pid);
}

TEST(UnixProcess, AProgramThatIsToldToEndTellsItsChildren)
{
    TemporaryDirectory directory;
    const std::string file = directory.File("pids");
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t program = StartChild([&] {
        UnixProcess terminated(Sleeper, UnixProcess::terminate_at_destruction);
        UnixProcess waited(Sleeper, UnixProcess::wait_at_destruction);
        UnixProcess alone(Sleeper, UnixProcess::leave_alone_at_destruction);
        std::ostringstream pids;
        pids << terminated.pid() << " " << waited.pid() << " " << alone.pid() << " .";
        WriteFile(file, pids.str());
        pause();
        _exit(9);
    });
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(file).find('.') != std::string::npos; }));
    long pids[3] = {};
    std::istringstream(ReadFile(file)) >> pids[0] >> pids[1] >> pids[2];
    kill(program, SIGTERM);
    EXPECT_EQ(WaitForExit(program), 0);
    EXPECT_EQ(Reap(pids[0]), -SIGTERM);
    EXPECT_EQ(Reap(pids[1]), -SIGTERM);
    EXPECT_TRUE(Running(pids[2]));
    KillAndReap(pids[2]);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(UnixProcess, AForkedChildLeavesTheChildrenOfItsParent)
{
    for (const auto flag : {UnixProcess::terminate_at_destruction, UnixProcess::wait_at_destruction,
                            static_cast<UnixProcess::ctor_dtor_flag>(50)}) {
        SCOPED_TRACE(flag);
        UnixProcess* process = new UnixProcess(Sleeper, flag);
        const ChildResult destroyer = RunInChild([&] { delete process; });
        EXPECT_EQ(destroyer.exitCode, 0);
        EXPECT_EQ(destroyer.out, "");
        const pid_t terminated = StartChild([] {
            for (;;)
                pause();
        });
        kill(terminated, SIGTERM);
        EXPECT_EQ(WaitForExit(terminated), 0);
        kill(static_cast<pid_t>(process->pid()), SIGPROF); // one that acts after a SIGTERM that came before it
        EXPECT_EQ(Reap(process->pid()), -SIGPROF);
        CaptureStdout([&] { delete process; });
    }
}

TEST(UnixProcess, AForkedChildMayTerminateTheChildrenOfItsParent)
{
    UnixProcess process(Sleeper, UnixProcess::leave_alone_at_destruction);
    EXPECT_EQ(RunInChild([&] { process.terminate(); }).exitCode, 0);
    EXPECT_EQ(Reap(process.pid()), -SIGTERM);
}

// ---- Copies, dumps, arrays

TEST(UnixProcess, DumpsItself)
{
    UnixProcess process("exit 4", UnixProcess::leave_alone_at_destruction, 33);
    const std::string text =
        "Dumping UnixProcess Object:\ncommand: </sbin/sh -c exit 4>\nprocess id: " + std::to_string(process.pid()) +
        "\nmaxwaittime: 33\n";
    EXPECT_EQ(Dump(process), text);
    process.wait();
    EXPECT_EQ(Dump(process), text + "exit status: 4\n");
}

TEST(UnixProcess, ACopyLeavesTheChildAlone)
{
    UnixProcess process(Sleeper, UnixProcess::terminate_at_destruction, 44);
    {
        UnixProcess copy(process);
        EXPECT_EQ(copy.pid(), process.pid());
        EXPECT_TRUE(copy.cmd() == process.cmd());
        EXPECT_EQ(Dump(copy), Dump(process));
        EXPECT_NE(copy.myObjectTag(), process.myObjectTag());
        copy.SigTermProc(SIGTERM);
        EXPECT_EQ(copy.pid(), process.pid());
    }
    EXPECT_TRUE(Running(process.pid()));

    UnixProcess waiting(Sleeper, UnixProcess::wait_at_destruction);
    delete new UnixProcess(waiting);
    EXPECT_TRUE(Running(waiting.pid()));
    KillAndReap(waiting.pid());
    KillAndReap(process.pid());
}

TEST(UnixProcess, ACopyDoesNotKnowTheExitStatus)
{
    UnixProcess process("exit 4", UnixProcess::wait_at_construction);
    UnixProcess copy(process);
    EXPECT_EQ(Dump(copy).find("exit status"), std::string::npos);
    EXPECT_EQ(copy.wait(), -1) << "the child was waited for already";
}

TEST(UnixProcessSafeArray, PrintsItself)
{
    UnixProcessSafeArray array;
    UnixProcess* process = new UnixProcess("true", UnixProcess::wait_at_construction);
    array.AddItem(process);
    std::ostringstream address, out;
    address << static_cast<void*>(process);
    array.print(out);
    EXPECT_EQ(out.str(), "SafeArray(UnixProcess)***************\n********** Capacity =32\n********** Quantity =1\n"
                         "********** This SafeArray is purgable.\n****SafeArray(UnixProcess)[0] address = " +
                             address.str() + "\n");
}

TEST(UnixProcessSafeArray, DroppingAnElementActsOnItsFlag)
{
    std::vector<long> pids;
    {
        UnixProcessSafeArray array;
        for (const auto flag : {UnixProcess::terminate_at_destruction, UnixProcess::leave_alone_at_destruction,
                                UnixProcess::terminate_at_destruction}) {
            array.AddItem(new UnixProcess(Sleeper, flag));
            pids.push_back(array.last()->pid());
        }
        array.RemoveAt(0);
        EXPECT_EQ(Reap(pids[0]), -SIGTERM);
        UnixProcessSafeArrayIter iter(array);
        EXPECT_EQ(iter()->pid(), pids[1]);
        ++iter;
        EXPECT_EQ(iter()->pid(), pids[2]);
        ++iter;
        EXPECT_EQ(iter(), nullptr);
    }
    EXPECT_TRUE(Running(pids[1]));
    EXPECT_EQ(Reap(pids[2]), -SIGTERM);
    KillAndReap(pids[1]);
}

TEST(UnixProcessSafeArray, ADuplicateLeavesTheChildAlone)
{
    UnixProcess process(Sleeper);
    {
        UnixProcessSafeArray array;
        array.SetPurgeMode(1);
        array.AddItem(process);
        delete static_cast<UnixProcess*>(array.duplicateItem(&process));
        UnixProcessSafeArray copy(array);
        EXPECT_EQ(copy.Quantity(), 1u);
        EXPECT_EQ(copy[0]->pid(), process.pid());
    }
    EXPECT_TRUE(Running(process.pid()));
    KillAndReap(process.pid());
}

} // namespace
