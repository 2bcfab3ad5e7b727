// SPDX-License-Identifier: BSD-2-Clause
// The way of a child from its parent to its program.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <libintl.h>
#include <pthread.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "Misc/Dates.h"
#include "tests/unit/unixproc_testing.h"

using namespace unixproc_testing;

namespace {

const char* NoProgram[] = {"/no/such/program", "x", nullptr};

// An object that notes when the program is told to end.
class Witness : public MonitoredObject {
public:
    explicit Witness(const std::string& file) : myFile(file) {}
    void SigTermProc(int sig) override { WriteFile(myFile, ReadFile(myFile) + std::to_string(sig)); }

private:
    std::string myFile;
};

// ---- Signals for a newborn child

// Follows a process that calls `body`, and its first child from birth on: that gets the signal `sig` at its birth or,
// with an `at` from 1 on, in its system call of that number. Whether it comes so far before it has become a program; if
// not, it gets none.
class Follower {
public:
    bool Sends(int sig_p, int at_p, const std::function<void()>& body)
    {
        sig = sig_p;
        at = at_p;
        parent = StartChild([&] {
            CHILD_CHECK(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0);
            raise(SIGSTOP);
            body();
        });
        int status = 0;
        waitpid(parent, &status, 0);
        ChildNeeds(WIFSTOPPED(status) &&
                   ptrace(PTRACE_SETOPTIONS, parent, nullptr,
                          PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC |
                              PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) == 0);
        ptrace(PTRACE_CONT, parent, nullptr, nullptr);
        for (pid_t pid; (pid = waitpid(-1, &status, __WALL)) > 0;) {
            if (pid == parent && !WIFSTOPPED(status))
                CHILD_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
            else if (WIFSTOPPED(status))
                Go(pid, status);
        }
        return wasSent;
    }

private:
    void Go(pid_t pid, int status)
    {
        const int signal = WSTOPSIG(status);
        const int event = status >> 16;
        const bool isCall = signal == (SIGTRAP | 0x80);
        if (pid == parent || isProgram) {
            ptrace(PTRACE_CONT, pid, nullptr, isCall || event != 0 ? 0 : signal);
            return;
        }
        isProgram = event == PTRACE_EVENT_EXEC;
        calls += isCall ? 1 : 0;
        if (!wasSent && !isProgram && calls == std::max(2 * at - 1, 0)) { // stops before and behind each call
            kill(pid, sig);
            wasSent = true;
        }
        const bool isOwn = isCall || event != 0 || signal == SIGSTOP;
        ptrace(isProgram ? PTRACE_CONT : PTRACE_SYSCALL, pid, nullptr, isOwn ? 0 : signal);
        if (isProgram && !wasSent)
            kill(pid, SIGKILL);
    }

    int sig = 0;
    int at = 0;
    int calls = 0;
    pid_t parent = 0;
    bool isProgram = false;
    bool wasSent = false;
};

TEST(UnixProcess, ASignalForANewbornChildNeverRunsTheHandlersOfTheParent)
{
    TemporaryDirectory directory;
    static std::string handled;
    handled = directory.File("handled");
    const auto mayRunProgram = [&](int sig, int at) {
        const ChildResult child = RunInChild([&] {
            const bool wasSent = Follower().Sends(sig, at, [&] {
                Witness witness(directory.File("witness"));
                Handle(
                    SIGVTALRM, [](int) { close(creat(handled.c_str(), 0600)); }, 0);
                Buffer output;
                UnixProcess process(Sleeper, output);
                CHILD_CHECK(process.wait() == 0 && process.pid() > 1);
            });
            std::cout << wasSent;
        });
        EXPECT_EQ(child.err, "");
        EXPECT_EQ(child.exitCode, 0);
        return child.out != "1";
    };
    const std::pair<int, int> signalsAndSteps[] = {{SIGTERM, 1}, {SIGVTALRM, 5}};
    for (const auto& [sig, step] : signalsAndSteps) {
        int at = 0;
        while (at < 1000 && !HasFailure() && !mayRunProgram(sig, at))
            at += step;
        EXPECT_GT(at, 20);
        EXPECT_LT(at, 1000);
    }
    EXPECT_EQ(ReadFile(directory.File("witness")), "");
    EXPECT_NE(access(handled.c_str(), F_OK), 0);
}

TEST(UnixProcess, TheHandlersOfTheParentStay)
{
    TemporaryDirectory directory;
    const ChildResult child = RunInChild([&] {
        Witness witness(directory.File("witness"));
        Handle(SIGWINCH, Count, SA_RESTART);
        const std::string before = Disposition(SIGWINCH) + Disposition(SIGSEGV) + Disposition(SIGCLD);
        UnixProcess process("true", UnixProcess::wait_at_construction);
        UnixProcess failed(NoProgram, UnixProcess::leave_alone_at_destruction);
        Reap(failed.pid());
        CHILD_CHECK(Disposition(SIGWINCH) + Disposition(SIGSEGV) + Disposition(SIGCLD) == before);
        raise(SIGTERM);
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(ReadFile(directory.File("witness")), std::to_string(SIGTERM));
}

// ---- What a start costs

volatile sig_atomic_t forks = 0;

TEST(UnixProcess, AStartMakesNoCopyOfTheParent)
{
    ASSERT_EQ(pthread_atfork([] { forks = forks + 1; }, nullptr, nullptr), 0);
    UnixProcess process("true", UnixProcess::wait_at_construction);
    Buffer output;
    UnixProcess captured("true", output);
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(process.wait() + captured.wait(), 0);
}

// ---- A command that cannot be executed

TEST(UnixProcess, WhatAChildReportsLeavesTheParentAsItWas)
{
    const ChildResult child = RunInChild([] {
        ErrorReporter reporter;
        reporter.DoNotDisplayErrorInfo();
        errno = EXDEV;
        reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "mine", "$Id: mine.cc,v 1.1", 7);
        const tm someDay = {1, 2, 3, 4, 5, 106, 0, 0, 0, 0, nullptr};
        tm day = someDay;
        const char* text = Dates::GetDateTime(&day);
        const time_t none = 86400 * 365;
        const tm* const local = localtime(&none);
        const int year = local->tm_year;
        std::cout << "buffered ";
        std::cerr << std::hex;
        const int count = ErrorReporter::GetErrorCount();
        UnixProcess process(NoProgram, UnixProcess::leave_alone_at_destruction);
        Reap(process.pid());
        Buffer output;
        UnixProcess captured(NoProgram, output);
        CHILD_CHECK(ErrorReporter::GetErrorCount() == count);
        CHILD_CHECK(ErrorReporter::GetErrorCode() == EXDEV);
        CHILD_CHECK(std::string(text) == "06/04/2006 03:02:01" && local->tm_year == year);
        CHILD_CHECK((std::cerr.flags() & std::ios::hex) != 0 && std::cerr.tie() == &std::cout);
        std::cerr << std::dec;
        reporter.DisplayErrorInfo();
        reporter.Display();
    });
    EXPECT_EQ(child.out, "buffered ");
    EXPECT_EQ(child.exitCode, 0);
    const std::string report =
        WarningReport("unixproc", "System call exec() failed", ENOENT, "exec() failed attempting: /no/such/program x");
    const std::string all = WithoutVariables(child.err);
    EXPECT_EQ(all.substr(0, 2 * report.size()), report + report);
    EXPECT_EQ(CountOf(child.err, "  Total Error Count= 2\n"), 2) << "each child counts its own";
    EXPECT_EQ(CountOf(child.err, "  Total Error Count= 1\n"), 1);
    EXPECT_EQ(CountOf(child.err, "  Description= mine\n"), 1);
}

// The report of the library's own reporter is the model.
TEST(UnixProcess, TheReportOfAChildIsThatOfAReporter)
{
    const std::string argument(200, 'y');
    for (const int error : {ENOENT, EACCES, E2BIG, EIO, 999}) {
        const ChildResult child = RunInChild([&] {
            MakeCallsFail({SYS_execve}, error);
            const char* argv[] = {"/bin/true", argument.c_str(), nullptr};
            UnixProcess process(argv, UnixProcess::wait_at_construction);
            std::cout << process.wait() << std::flush;
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to make an exec fail here";
        EXPECT_EQ(child.out, "255") << "no shell either";
        const ChildResult model = RunInChild([&] {
            ErrorReporter reporter;
            errno = error;
            reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::EXEC_FAILED,
                                  ("exec() failed attempting: /bin/true " + argument).c_str(),
                                  "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $", 7);
        });
        EXPECT_EQ(WithoutVariables(child.err), WithoutVariables(model.err));
        EXPECT_EQ(ReportField(child.err, "  Error Code= ").find(std::to_string(error) + " : "), 0u);
    }
}

// A catalogue of the C library's messages with one entry, for an invented language.
void WriteCatalogue(const std::string& file, const std::string& text, const std::string& translation)
{
    const auto number = [](size_t n) {
        const uint32_t value = static_cast<uint32_t>(n);
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    };
    const std::string header = "Content-Type: text/plain; charset=UTF-8\n"; // the translation of the empty text
    const size_t texts = 28 + 4 * 8;
    const size_t translations = texts + 1 + text.size() + 1;
    WriteFile(file, number(0x950412de) + number(0) + number(2) + number(28) + number(28 + 16) + number(0) +
                        number(texts) + number(0) + number(texts) + number(text.size()) + number(texts + 1) +
                        number(header.size()) + number(translations) + number(translation.size()) +
                        number(translations + header.size() + 1) + std::string(1, '\0') + text + '\0' + header + '\0' +
                        translation + '\0');
}

TEST(UnixProcess, TheReportOfAChildIsInTheLanguageOfTheParent)
{
    TemporaryDirectory directory;
    for (const char* each : {"/xx", "/xx/LC_MESSAGES"})
        ASSERT_EQ(mkdir((directory.Path() + each).c_str(), 0755), 0);
    WriteCatalogue(directory.File("xx/LC_MESSAGES/libc.mo"), strerror(ENOENT), "nowhere");
    const ChildResult child = RunInChild([&] {
        setenv("LANGUAGE", "xx", 1);
        ChildNeeds(setlocale(LC_ALL, "C.UTF-8") != nullptr);
        bindtextdomain("libc", directory.Path().c_str());
        ChildNeeds(strcmp(strerror(ENOENT), "nowhere") == 0);
        UnixProcess process(NoProgram, UnixProcess::wait_at_construction);
        process.wait();
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no other language here";
    EXPECT_EQ(ReportField(child.err, "  Error Code= "), "2 : nowhere") << child.err;
}

TEST(UnixProcess, AReportThatNobodyReadsDoesNotHoldTheParent)
{
    const ChildResult child = RunInChild([] {
        int ends[2];
        CHILD_CHECK(pipe(ends) == 0 && dup2(ends[1], STDERR_FILENO) == STDERR_FILENO);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        const std::string block(4096, 'x');
        while (write(ends[1], block.data(), block.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        UnixProcess process(NoProgram, UnixProcess::wait_at_construction);
        std::cout << process.wait();
    });
    EXPECT_EQ(child.out, "0");
}

TEST(UnixProcess, NothingIsReportedToAStandardErrorThatHasFailed)
{
    const ChildResult child = RunInChild([] {
        std::cerr.setstate(std::ios::failbit);
        UnixProcess process(NoProgram, UnixProcess::wait_at_construction);
        std::cout << process.wait();
    });
    EXPECT_EQ(child.out + child.err, "0");
}

TEST(UnixProcess, AScriptWithoutAnInterpreterGetsItsManyArguments)
{
    TemporaryDirectory directory;
    const std::string script = directory.File("script");
    WriteFile(script, "echo $#\n");
    ASSERT_EQ(chmod(script.c_str(), 0700), 0);
    std::vector<const char*> argv(50001, "x");
    argv[0] = script.c_str();
    argv.push_back(nullptr);
    Buffer output;
    UnixProcess process(argv.data(), output);
    EXPECT_EQ(Bytes(output), "50000\n");
}

// ---- A child that does not come so far

TEST(UnixProcess, AChildWhosePipeCannotBePutIntoPlaceRunsNothing)
{
    const ChildResult child = RunInChild([] {
        MakeCallsFail({SYS_dup2, SYS_dup3}, EBUSY);
        const int descriptors = OpenDescriptors();
        Handle(SIGCLD, Count, 0);
        Buffer output;
        output.Append("old");
        UnixProcess process("echo never", output, 5);
        std::cout << process.pid() << " " << process.wait() << " " << output.Size() << " "
                  << OpenDescriptors() - descriptors << " " << seen << " " << waitpid(-1, nullptr, 0) << std::flush;
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make dup2 fail here";
    EXPECT_EQ(child.out, "-1 -1 0 0 0 -1");
    ExpectReport(child.err, "Fault to open a pipe.", EBUSY, "pipe command failed");
}

} // namespace
