// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ProcMgr.h"
#include "Misc/mobject.h"

#include <cstdlib>

static const char StaticsVariable[] = "PROCMGR_TEST_STATICS";

// Uses the queues and the standard streams before main and after it, in a program that is started with the variable
// above. It stands before the other headers, so that nothing but the library's own has made the streams ready.
static struct EarlyAndLate {
    EarlyAndLate()
    {
        if (std::getenv(StaticsVariable) == nullptr)
            return;
        ProcMgr::SetMaxActive(0);
        Submit("echo early");
    }
    ~EarlyAndLate()
    {
        if (std::getenv(StaticsVariable) == nullptr)
            return;
        Submit("echo late");
        ProcMgr::dumpOn(std::cout);
    }
    static void Submit(const char* command)
    {
        MonitoredObject::SetDebugLevel(4);
        ProcMgr submission(command, nullptr);
        MonitoredObject::SetDebugLevel(0);
        submission._ReportError(ErrorReporter::WARNING, ErrorReporter::OTHER, command, "$Id: ProcMgr.cc,v", 1);
    }
} earlyAndLate;

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <type_traits>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"
#include "svr4/signal.h"
#include "tests/support/assertions.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

static std::string Dump()
{
    std::ostringstream out;
    ProcMgr::dumpOn(out);
    return out.str();
}

namespace {

static_assert(std::is_base_of<ErrorReporter, ProcMgr>::value, "failures are reported through it");
static_assert(std::is_same<decltype(CmdLine::retry_count), int>::value, "");
static_assert(std::is_same<decltype(ProcInfo::pid), long>::value, "");
static_assert(std::is_same<decltype(ProcInfo::timestamp), long>::value, "");

const char Sleep[] = "exec sleep 100";

Fault FaultOf(long number, const char* node)
{
    Fault fault;
    fault.hdr.myId = FaultId(number, node);
    return fault;
}

ProcInfo& Running(int i) { return *ProcMgr::processes[i]; }

// A process that has been started leads its own group only a moment later.
bool LeadsItsGroup(long pid)
{
    return WaitUntil([&] { return getpgid(static_cast<pid_t>(pid)) == pid; });
}

bool IsGone(long pid) { return kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH; }

// Ends a command, unless it has ended, and waits until nothing is left of it.
bool End(long pid)
{
    const auto leads = [&] { return IsGone(pid) || getpgid(static_cast<pid_t>(pid)) == pid; };
    if (!WaitUntil(leads) || IsGone(pid))
        return IsGone(pid);
    return kill(static_cast<pid_t>(-pid), SIGKILL) == 0 && WaitUntil([&] { return IsGone(pid); });
}

// Gives the running commands one more second of age than MaxTime allows.
void Age(int i) { Running(i).timestamp = Dates::CurrentTime() - ProcMgr::GetMaxTime() - 1; }

// Runs `body` in a process whose children need not be waited for, and ends the commands that it leaves running.
ChildResult InDaemon(const std::function<void()>& body)
{
    return RunInChild([&] {
        svr4::signal(SIGCLD, SIG_IGN);
        body();
        for (unsigned i = 0; i < ProcMgr::processes.Quantity(); i++)
            End(Running(static_cast<int>(i)).pid);
    });
}

void ExpectDone(const ChildResult& child)
{
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, "");
}

std::string KillReport(const std::string& fault)
{
    return WarningReport("ProcMgr", "OTHER", 0, "Killed timed out process.Associated FaultId is " + fault);
}

} // namespace

TEST(ProcMgr, StartsWithEmptyQueuesAndTheLimits8And4And1800)
{
    EXPECT_EQ(ProcMgr::GetMaxActive(), 8);
    EXPECT_EQ(ProcMgr::GetMaxRetry(), 4);
    EXPECT_EQ(ProcMgr::GetMaxTime(), 1800);
    EXPECT_EQ(Dump(), "Dumping ProcMgr Object:\n"
                      "Number of Pending Processes = 0\n"
                      "Number of Active Processes = 0\n"
                      "MaxActive = 8\n"
                      "MaxRetry = 4\n"
                      "MaxTime = 1800\n"
                      "Number of timed out processes = 0\n"
                      "Number of retry exceeded processes = 0\n");
    EXPECT_EQ(ProcMgr::commands.pf(), 0) << "the queues own what is in them";
    EXPECT_EQ(ProcMgr::processes.pf(), 0);
}

TEST(ProcMgr, SetsAndGetsTheLimits)
{
    ProcMgr::SetMaxActive(1);
    ProcMgr::SetMaxRetry(2);
    ProcMgr::SetMaxTime(2000000000);
    EXPECT_EQ(ProcMgr::GetMaxActive(), 1);
    EXPECT_EQ(ProcMgr::GetMaxRetry(), 2);
    EXPECT_EQ(ProcMgr::GetMaxTime(), 2000000000);
    EXPECT_NE(Dump().find("MaxActive = 1\nMaxRetry = 2\nMaxTime = 2000000000\n"), std::string::npos);
    ProcMgr::SetMaxActive(8);
    ProcMgr::SetMaxRetry(4);
    ProcMgr::SetMaxTime(1800);
}

TEST(ProcMgr, TheArraysPrintUnderTheNamesOfTheirElements)
{
    CmdLineSafeArray commands;
    commands.AddItem(new CmdLine{"x", 3, FaultId(1, "n")});
    CmdLineSafeArray copy(commands);
    EXPECT_STREQ(copy.first()->cmd, "x");
    EXPECT_EQ(copy.first()->retry_count, 3);
    EXPECT_STREQ(copy.first()->Cur_fid, "n/00000001");
    std::ostringstream printed;
    commands.print(printed);
    ProcInfoSafeArray().print(printed);
    EXPECT_NE(printed.str().find("SafeArray(CmdLine)***************\n"), std::string::npos) << printed.str();
    EXPECT_NE(printed.str().find("SafeArray(ProcInfo)***************\n"), std::string::npos) << printed.str();
}

TEST(ProcMgr, RunsACommandForAFaultInAGroupOfItsOwn)
{
    ExpectDone(InDaemon([] {
        const TemporaryDirectory directory;
        const std::string file = directory.File("out");
        Fault fault = FaultOf(42, "alpha");
        const long before = Dates::CurrentTime();
        ProcMgr submission(("echo $((6 * 7)) > " + file + "; exec sleep 100").c_str(), &fault);
        fault.hdr.myId = FaultId(1, "changed");
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
        const ProcInfo& process = Running(0);
        CHILD_CHECK(process.AssociateFaultId == FaultId(42, "alpha"));
        CHILD_CHECK(process.timestamp >= before && process.timestamp <= Dates::CurrentTime());
        CHILD_CHECK(LeadsItsGroup(process.pid));
        CHILD_CHECK(WaitUntil([&] { return ReadFile(file) == "42\n"; }));
    }));
}

TEST(ProcMgr, AVectorIsJoinedWithBlanksForTheShellAndHasNoFault)
{
    ExpectDone(InDaemon([] {
        const TemporaryDirectory directory;
        const std::string file = directory.File("out");
        const std::string redirection = ">" + file;
        ProcMgr::SetMaxActive(0);
        const char* argv[] = {"echo", "a  b", "$((1 + 1))", redirection.c_str(), nullptr};
        ProcMgr submission(argv);
        CHILD_CHECK(ProcMgr::commands.first()->cmd == ("echo a  b $((1 + 1)) " + redirection).c_str());
        CHILD_CHECK(ProcMgr::commands.first()->retry_count == 0);
        CHILD_CHECK(ProcMgr::commands.first()->Cur_fid == FaultId());
        ProcMgr::SetMaxActive(1);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(WaitUntil([&] { return ReadFile(file) == "a b 2\n"; }));
        const char* nothing[] = {nullptr};
        ProcMgr::SetMaxActive(0);
        ProcMgr empty(nothing);
        CHILD_CHECK(ProcMgr::commands.last()->cmd == "");
    }));
}

TEST(ProcMgr, ANullVectorStopsTheProcess)
{
    ExpectAssertion("argv != NULL", "Misc/ProcMgr", [] { ProcMgr submission(static_cast<const char**>(nullptr)); });
}

TEST(ProcMgr, ACommandWithoutAFaultHasAnEmptyOne)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(0);
        ProcMgr submission("x", nullptr);
        ProcMgr null(static_cast<const char*>(nullptr), nullptr);
        CHILD_CHECK(ProcMgr::commands[0]->Cur_fid == FaultId());
        CHILD_CHECK(ProcMgr::commands[1]->cmd == "");
    }));
}

TEST(ProcMgr, NineCommandsRunEightAtATime)
{
    ExpectDone(InDaemon([] {
        Fault fault = FaultOf(1, "alpha");
        for (int i = 0; i < 9; i++)
            ProcMgr submission((std::string(Sleep) + " " + std::to_string(i)).c_str(), &fault);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 8);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 1);
        CHILD_CHECK(ProcMgr::commands.first()->cmd == "exec sleep 100 8");
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::commands.Quantity() == 1);

        const long third = Running(2).pid;
        const long fourth = Running(3).pid;
        CHILD_CHECK(End(third));
        CHILD_CHECK(Running(2).pid == third);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 7);
        CHILD_CHECK(Running(2).pid == fourth);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 1);
        ProcMgr::RunProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 8);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0);
        CHILD_CHECK(Running(7).timestamp >= Running(0).timestamp);
    }));
}

TEST(ProcMgr, CommandsAreStartedInTheOrderOfTheirSubmission)
{
    ExpectDone(InDaemon([] {
        const TemporaryDirectory directory;
        const std::string file = directory.File("out");
        ProcMgr::SetMaxActive(0);
        for (const char* word : {"one", "two", "three"})
            ProcMgr submission(("echo " + std::string(word) + " >> " + file).c_str(), nullptr);
        ProcMgr::SetMaxActive(1);
        CHILD_CHECK(WaitUntil([&] {
            ProcMgr::CheckProcesses();
            return ProcMgr::processes.Quantity() == 0 && ProcMgr::commands.Quantity() == 0;
        }));
        CHILD_CHECK(ReadFile(file) == "one\ntwo\nthree\n");
    }));
}

TEST(ProcMgr, OfTwoCommandsThatHaveEndedACallRemovesTheFirst)
{
    ExpectDone(InDaemon([] {
        for (int i = 0; i < 4; i++)
            ProcMgr submission(Sleep, nullptr);
        const long first = Running(0).pid;
        const long last = Running(3).pid;
        CHILD_CHECK(End(Running(1).pid));
        CHILD_CHECK(End(Running(2).pid));
        const long second = Running(2).pid;
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 3);
        CHILD_CHECK(Running(1).pid == second);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
        CHILD_CHECK(Running(0).pid == first && Running(1).pid == last);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
    }));
}

TEST(ProcMgr, SubmittingRemovesOneThatHasEndedToo)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(1);
        ProcMgr first(Sleep, nullptr);
        CHILD_CHECK(End(Running(0).pid));
        const long ended = Running(0).pid;
        ProcMgr second(Sleep, nullptr);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
        CHILD_CHECK(Running(0).pid != ended);
        CHILD_CHECK(End(Running(0).pid));
        const char* argv[] = {"exec", "sleep", "100", nullptr};
        ProcMgr third(argv);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1 && !IsGone(Running(0).pid));
    }));
}

TEST(ProcMgr, SubmittedCommandsOutliveTheObject)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(1);
        for (int i = 0; i < 2; i++)
            ProcMgr submission(Sleep, nullptr);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1 && ProcMgr::commands.Quantity() == 1);
        CHILD_CHECK(LeadsItsGroup(Running(0).pid));
        CHILD_CHECK(!IsGone(Running(0).pid));
    }));
}

TEST(ProcMgr, AChildThatWasNotReapedKeepsItsPlace)
{
    ExpectDone(RunInChild([] {
        svr4::signal(SIGCLD, SIG_DFL);
        ProcMgr submission(":", nullptr);
        const pid_t pid = static_cast<pid_t>(Running(0).pid);
        siginfo_t ended;
        CHILD_CHECK(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) == 0);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
        CHILD_CHECK(waitpid(pid, nullptr, 0) == pid);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 0);
    }));
}

TEST(ProcMgr, AnOldCommandIsLeftRunningWhileNoneWaits)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(2);
        for (int i = 0; i < 2; i++)
            ProcMgr submission(Sleep, nullptr);
        Age(0);
        Age(1);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
        CHILD_CHECK(!IsGone(Running(0).pid) && !IsGone(Running(1).pid));
    }));
}

TEST(ProcMgr, AnOldCommandIsLeftRunningWhileTheListIsNotExactlyFull)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(2);
        for (int i = 0; i < 3; i++)
            ProcMgr submission(Sleep, nullptr);
        Age(0);
        Age(1);
        for (long limit : {3, 1}) {
            ProcMgr::SetMaxActive(limit);
            ProcMgr::CountProcesses();
            CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
            CHILD_CHECK(!IsGone(Running(0).pid) && !IsGone(Running(1).pid));
        }
    }));
}

TEST(ProcMgr, ACommandIsLeftRunningUpToItsTime)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(1);
        ProcMgr::SetMaxTime(100);
        for (int i = 0; i < 2; i++)
            ProcMgr submission(Sleep, nullptr);
        const long second = Dates::CurrentTime();
        CHILD_CHECK(WaitUntil([&] { return Dates::CurrentTime() != second; })); // the next one is still young
        Running(0).timestamp = Dates::CurrentTime() - 100;
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
        CHILD_CHECK(!IsGone(Running(0).pid));
    }));
}

TEST(ProcMgr, AnOldCommandInTheWayIsKilledWithItsWholeGroup)
{
    const ChildResult child = InDaemon([] {
        const TemporaryDirectory directory;
        const std::string file = directory.File("pid");
        Fault alpha = FaultOf(42, "alpha");
        Fault beta = FaultOf(7, "beta");
        ProcMgr::SetMaxActive(2);
        ProcMgr young(Sleep, &beta);
        ProcMgr old(("sleep 100 & echo $! > " + file + "; wait").c_str(), &alpha);
        ProcMgr waiting(Sleep, &beta);
        CHILD_CHECK(WaitUntil([&] { return ReadFile(file).find('\n') != std::string::npos; }));
        const long grandchild = std::stol(ReadFile(file));
        const long pid = Running(1).pid;
        CHILD_CHECK(getpgid(static_cast<pid_t>(grandchild)) == pid);

        Age(1);
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
        CHILD_CHECK(Running(0).AssociateFaultId == FaultId(7, "beta"));
        CHILD_CHECK(WaitUntil([&] { return IsGone(pid) && IsGone(grandchild); }));
        ProcMgr::RunProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2 && ProcMgr::commands.Quantity() == 0);
        CHILD_CHECK(Dump().find("Number of timed out processes = 1\n") != std::string::npos);
    });
    EXPECT_EQ(WithoutVariables(child.err), KillReport("alpha/00000042"));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, OneOldCommandIsKilledACallTheFirstOfThem)
{
    const ChildResult child = InDaemon([] {
        ProcMgr::SetMaxActive(2);
        for (long number : {1, 123456789, 3}) {
            Fault fault = FaultOf(number, "alpha");
            ProcMgr submission(Sleep, &fault);
        }
        for (int i = 0; i < 2; i++) {
            CHILD_CHECK(LeadsItsGroup(Running(i).pid));
            Age(i);
        }
        const long second = Running(1).pid;
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
        CHILD_CHECK(Running(0).pid == second && !IsGone(second));
        ProcMgr::CheckProcesses(); // nothing waits any more
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2 && Running(0).pid == second);
        ProcMgr next(Sleep, nullptr);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2 && Running(0).pid != second);
        CHILD_CHECK(Dump().find("Number of timed out processes = 2\n") != std::string::npos);
    });
    EXPECT_EQ(WithoutVariables(child.err), KillReport("alpha/00000001") + KillReport("alpha/123456789"));
}

TEST(ProcMgr, OneThatHasEndedGoesFirstOnlyWhenItStandsBeforeTheOldOne)
{
    const ChildResult child = InDaemon([] {
        ProcMgr::SetMaxActive(3);
        for (int i = 0; i < 4; i++)
            ProcMgr submission(Sleep, nullptr);
        CHILD_CHECK(LeadsItsGroup(Running(1).pid));
        Age(1);
        const long ended = Running(2).pid;
        CHILD_CHECK(End(ended));
        ProcMgr::CountProcesses(); // kills the old one although there is room to come
        CHILD_CHECK(ProcMgr::processes.Quantity() == 2);
        CHILD_CHECK(Running(1).pid == ended);
    });
    EXPECT_EQ(WithoutVariables(child.err), KillReport("/00000000"));
}

TEST(ProcMgr, AKillReportOfACommandGivenAsAVectorNamesNoNode)
{
    const ChildResult child = InDaemon([] {
        ProcMgr::SetMaxActive(1);
        const char* argv[] = {"exec", "sleep", "100", nullptr};
        ProcMgr first(argv);
        CHILD_CHECK(LeadsItsGroup(Running(0).pid));
        Age(0);
        ProcMgr second(argv); // waits from its submission on, and so is not there yet when time is looked at
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1 && ProcMgr::commands.Quantity() == 1);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1 && ProcMgr::commands.Quantity() == 0);
    });
    EXPECT_EQ(WithoutVariables(child.err), KillReport("/00000000"));
}

TEST(ProcMgr, AGroupThatCannotBeKilledIsReportedAndForgotten)
{
    const ChildResult child = RunInChild([] {
        ProcMgr::SetMaxActive(1);
        ProcMgr::processes.AddItem(new ProcInfo{FaultId(1, "alpha"), getpid(), 0}); // leads no group
        ProcMgr::commands.AddItem(new CmdLine{"x", 0, FaultId()});
        ProcMgr::CountProcesses();
        CHILD_CHECK(ProcMgr::processes.Quantity() == 0 && ProcMgr::commands.Quantity() == 1);
        CHILD_CHECK(Dump().find("Number of timed out processes = 1\n") != std::string::npos);
    });
    EXPECT_EQ(WithoutVariables(child.err), WarningReport("ProcMgr", "OTHER", ESRCH, "Unable to kill process"));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, ACommandThatCannotBeStartedIsDroppedAfterFiveAttempts)
{
    const ChildResult child = InDaemon([] {
        MakeForksFail();
        Fault fault = FaultOf(42, "alpha");
        ProcMgr first("echo 1", &fault);
        CHILD_CHECK(ProcMgr::commands.first()->retry_count == 1);
        ProcMgr second("echo 2", nullptr); // the second pass
        for (int attempt = 2; attempt <= 4; attempt++) {
            CHILD_CHECK(ProcMgr::commands.Quantity() == 2);
            CHILD_CHECK(ProcMgr::commands.first()->cmd == "echo 1");
            CHILD_CHECK(ProcMgr::commands.first()->retry_count == attempt);
            CHILD_CHECK(ProcMgr::commands[1]->retry_count == 0);
            ProcMgr::CheckProcesses();
        }
        CHILD_CHECK(ProcMgr::commands.Quantity() == 1);
        CHILD_CHECK(ProcMgr::commands.first()->cmd == "echo 2");
        CHILD_CHECK(ProcMgr::commands.first()->retry_count == 0);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 0);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::commands.first()->retry_count == 1);
        CHILD_CHECK(Dump().find("Number of retry exceeded processes = 1\n") != std::string::npos);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    const std::string forkFailed =
        WarningReport("unixproc", "System call fork() failed", ENOMEM, "fork failed attempting: /sbin/sh -c echo 1");
    std::string reports;
    for (int attempt = 0; attempt < 5; attempt++)
        reports += forkFailed;
    reports += WarningReport("ProcMgr", "OTHER", ENOMEM, "Max retry of 4 exceeded for echo 1");
    reports += Replaced(forkFailed, "echo 1", "echo 2");
    EXPECT_EQ(WithoutVariables(child.err), reports);
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, WithoutRetriesTheFirstFailureDropsTheCommand)
{
    const ChildResult child = InDaemon([] {
        MakeForksFail();
        ProcMgr::SetMaxRetry(0);
        ProcMgr submission(std::string(5000, 'x').c_str(), nullptr);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make fork fail here";
    // A report shows what fits of its description.
    const std::string report = child.err.substr(child.err.find("ErrorReporter", child.err.find("Id: unixproc")));
    const std::string description = ReportField(report, "  Description= ");
    EXPECT_EQ(description.rfind("Max retry of 0 exceeded for xxxxx", 0), 0u) << description;
}

TEST(ProcMgr, ACommandWhoseStartFailedIsStartedByALaterPass)
{
    ExpectDone(InDaemon([] {
        ProcMgr::SetMaxActive(0);
        ProcMgr submission(Sleep, nullptr);
        ProcMgr::commands.first()->retry_count = 4;
        ProcMgr::SetMaxActive(1);
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0 && ProcMgr::processes.Quantity() == 1);
    }));
}

TEST(ProcMgr, DumpsEveryCommandWithItsFault)
{
    const ChildResult child = RunInChild([] {
        ProcMgr::commands.AddItem(new CmdLine{"echo %s <>", 2, FaultId(42, "alpha")});
        ProcMgr::commands.AddItem(new CmdLine{"", 0, FaultId()});
        ProcMgr::processes.AddItem(new ProcInfo{FaultId(7, "beta"), 1234567, 2000000000});
        ProcMgr::processes.AddItem(new ProcInfo{FaultId(), 4194304, 0});
        ProcMgr::dumpOn(std::cout);
    });
    EXPECT_EQ(child.out, "Dumping ProcMgr Object:\n"
                         "Number of Pending Processes = 2\n"
                         "command: <echo %s <>> Retry = 2\n"
                         " Comming FaultId is alpha/00000042\n"
                         "command: <> Retry = 0\n"
                         " Comming FaultId is \n"
                         "Number of Active Processes = 2\n"
                         "process: 1234567, timestamp: 2000000000\n"
                         "AssociateFaultId is beta/00000007\n"
                         "process: 4194304, timestamp: 0\n"
                         "AssociateFaultId is \n"
                         "MaxActive = 8\n"
                         "MaxRetry = 4\n"
                         "MaxTime = 1800\n"
                         "Number of timed out processes = 0\n"
                         "Number of retry exceeded processes = 0\n");
    EXPECT_EQ(child.err, "");
}

TEST(ProcMgr, TellsWhatItDoesAccordingToTheDebugLevel)
{
    for (const short level : {1, 3, 4, 5}) {
        const ChildResult child = InDaemon([&] {
            MonitoredObject::SetDebugLevel(level);
            ProcMgr::SetMaxActive(1);
            Fault fault = FaultOf(42, "alpha");
            ProcMgr first(Sleep, &fault);
            ProcMgr second(Sleep, &fault);
            const char* argv[] = {"x", nullptr};
            ProcMgr third(argv);
            ProcMgr::CheckProcesses();
            MonitoredObject::SetDebugLevel(0);
        });
        const std::string coming = level >= 4 ? "The Coming FaultId is alpha/00000042\n" : "";
        EXPECT_EQ(child.out, "ProcMgr::Active Processes = 0\n" + coming + "ProcMgr::Pending Processes = 1\n" +
                                 "ProcMgr::Active Processes = 1\n" + coming + "ProcMgr::Pending Processes = 1\n" +
                                 "ProcMgr::Active Processes = 1\nProcMgr::Pending Processes = 2\n"
                                 "ProcMgr::Active Processes = 1\nProcMgr::Pending Processes = 2\n");
        EXPECT_EQ(child.err, "");
    }
}

TEST(ProcMgr, AFullQueueTakesNoMoreAndTheProcessGoesOn)
{
    const ChildResult child = InDaemon([] {
        ProcMgr::SetMaxActive(0);
        ProcMgr::commands.Expand(256000);
        while (ProcMgr::commands.Quantity() < 256000)
            ProcMgr::commands.AddItem(new CmdLine);
        ProcMgr fault("x", nullptr);
        const char* argv[] = {"x", nullptr};
        ProcMgr vector(argv);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 256000);
        ProcMgr::commands.DeleteAllItems();
    });
    EXPECT_EQ(WithoutVariables(child.err),
              WarningReport("ProcMgr", "Memory allocation failed.", 0, "no memory for new command.") +
                  WarningReport("ProcMgr", "Memory allocation failed.", 0, "no memory for new string."));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, WithoutMemoryACommandIsNotSubmitted)
{
    const ChildResult child = InDaemon([] {
        const MemoryFailure failure = MemoryFailure::OfSize(sizeof(CmdLine), NewObject);
        Fault fault = FaultOf(1, "alpha");
        ProcMgr submission("x", &fault);
        const char* argv[] = {"x", nullptr};
        ProcMgr vector(argv);
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0 && ProcMgr::processes.Quantity() == 0);
    });
    EXPECT_EQ(WithoutVariables(child.err),
              WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new command.") +
                  WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new string."));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, WithoutMemoryForItsTextACommandIsNotSubmitted)
{
    const ChildResult child = InDaemon([] {
        const std::string text = "x " + std::string(5000, 'y');
        const int any = NewObject | NewArray | Calloc;
        {
            const MemoryFailure failure = MemoryFailure::FromSize(text.size(), any);
            ProcMgr submission(text.c_str(), nullptr);
        }
        const char* argv[] = {"x", text.c_str() + 2, nullptr};
        {
            const MemoryFailure failure = MemoryFailure::FromSize(text.size(), any);
            ProcMgr vector(argv);
        }
        ProcMgr::SetMaxActive(0);
        const auto sizes = SizesAllocated(any, [&] { ProcMgr vector(argv); });
        ProcMgr::commands.DeleteAllItems();
        ProcMgr::SetMaxActive(8);
        const auto last = std::find(sizes.rbegin(), sizes.rend(), text.size() + 1); // of the joined text and its copy
        CHILD_CHECK(last != sizes.rend());
        {
            const MemoryFailure failure = MemoryFailure::After(sizes.rend() - last - 1, any);
            ProcMgr vector(argv);
        }
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0 && ProcMgr::processes.Quantity() == 0);
        ProcMgr empty("", nullptr);
        CHILD_CHECK(ProcMgr::processes.Quantity() == 1);
    });
    EXPECT_EQ(WithoutVariables(child.err),
              WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new command.") +
                  WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new string.") +
                  WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new string."));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, WithoutMemoryForItsRecordACommandRunsAndStaysQueued)
{
    const ChildResult child = InDaemon([] {
        const TemporaryDirectory directory;
        const std::string file = directory.File("out");
        {
            const MemoryFailure failure = MemoryFailure::OfSize(sizeof(ProcInfo), NewObject);
            ProcMgr submission(("echo x >> " + file).c_str(), nullptr);
        }
        CHILD_CHECK(ProcMgr::commands.Quantity() == 1 && ProcMgr::processes.Quantity() == 0);
        CHILD_CHECK(ProcMgr::commands.first()->retry_count == 0);
        CHILD_CHECK(WaitUntil([&] { return ReadFile(file) == "x\n"; }));
        ProcMgr::CheckProcesses();
        CHILD_CHECK(ProcMgr::commands.Quantity() == 0 && ProcMgr::processes.Quantity() == 1);
        CHILD_CHECK(WaitUntil([&] { return ReadFile(file) == "x\nx\n"; }));
    });
    EXPECT_EQ(WithoutVariables(child.err),
              WarningReport("ProcMgr", "Memory allocation failed.", ENOMEM, "no memory for new process info."));
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ProcMgr, TheQueuesServeStaticObjectsBeforeMainAndAfterIt)
{
    const ChildResult child = RunInChild([] {
        setenv(StaticsVariable, "1", 1);
        Execute("/proc/self/exe", {"--gtest_filter=none", "--gtest_brief=1"});
    });
    const std::string start = "ProcMgr::Active Processes = 0\nThe Coming FaultId is \nProcMgr::Pending Processes = ";
    EXPECT_EQ(child.out.find(start + "1\n"), 0u) << child.out;
    EXPECT_NE(child.out.find(start + "2\nDumping ProcMgr Object:\n"
                                     "Number of Pending Processes = 2\n"
                                     "command: <echo early> Retry = 0\n"
                                     " Comming FaultId is \n"
                                     "command: <echo late> Retry = 0\n"),
              std::string::npos)
        << child.out;
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_NE(child.err.find("  Description= echo early\n"), std::string::npos) << child.err;
    EXPECT_NE(child.err.find("  Description= echo late\n"), std::string::npos) << child.err;
}
