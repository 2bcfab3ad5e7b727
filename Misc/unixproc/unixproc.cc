// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/unixproc.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/Error/report.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/owner.h"
#include "Misc/detail/paths.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/unixproc/capture.h"
#include "Misc/unixproc/limit.h"
#include "Misc/unixproc/start.h"
#include "svr4/errno.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const short NotYetCollected = -222;
static const short NoStatus = -1;
static const char TimeExceededBanner[] = "\n\n******** Process max wait time exceeded **********\n";

ZELOO_DEFINE_ARRAY(UnixProcess);

long UnixProcess::GlobalUnixProcessMaxWaitTime = 0;
long UnixProcess::GlobalUnixProcessMaxOutput = 0;

// The arguments with one blank between them; empty when memory fails.
static CString JoinArguments(const char** argv)
{
    const std::unique_ptr<char[]> text(zeloo::NewJoinedText(argv));
    return CString(text.get());
}

static short ExitCode(int status)
{
    return static_cast<short>((status >> 8) & 255); // 0 also for a child that a signal ended: intended
}

UnixProcess::UnixProcess(ctor_dtor_flag cd_f, long maxtime)
    : maxwaittime(maxtime != 0 ? maxtime : GlobalUnixProcessMaxWaitTime), exitstatus(NotYetCollected), mypid(-1),
      cd_flag(cd_f), isOver(false), owner(getpid())
{
}

UnixProcess::UnixProcess(const char** argv, ctor_dtor_flag cd_f, long maxtime) : UnixProcess(cd_f, maxtime)
{
    init(argv, cd_flag == wait_at_construction);
}

UnixProcess::UnixProcess(const char* Cmd, ctor_dtor_flag cd_f, long maxtime) : UnixProcess(cd_f, maxtime)
{
    const char* argv[] = {zeloo::Shell, "-c", Cmd, nullptr};
    init(argv, cd_flag == wait_at_construction);
}

UnixProcess::UnixProcess(const char** argv, Buffer& Output, long maxtime)
    : UnixProcess(leave_alone_at_destruction, maxtime)
{
    dopipe(argv, Output);
}

UnixProcess::UnixProcess(const char* Cmd, Buffer& Output, long maxtime)
    : UnixProcess(leave_alone_at_destruction, maxtime)
{
    const char* argv[] = {zeloo::Shell, "-c", Cmd, nullptr};
    dopipe(argv, Output);
}

UnixProcess::UnixProcess(UnixProcess& p)
    : ErrorReporter(), MonitoredObject(), maxwaittime(p.maxwaittime), exitstatus(NotYetCollected), mypid(p.mypid),
      mycmd(p.mycmd), cd_flag(leave_alone_at_destruction), isOver(p.isOver), owner(getpid())
{
}

UnixProcess::~UnixProcess()
{
    if (!zeloo::IsOwner(owner))
        return;
    switch (cd_flag) {
    case wait_at_destruction: wait(); break;
    case terminate_at_destruction: terminate(); break;
    case leave_alone_at_destruction:
    case wait_at_construction: break;
    default: std::cout << "Error: Unknown at_destroy function " << static_cast<int>(cd_flag) << std::endl; wait();
    }
}

// Ends a child whose time has run out.
void UnixProcess::killOverdue()
{
    isOver = true; // nothing is left for a SIGTERM to do, and the id is not the child's for ever
    kill(static_cast<pid_t>(mypid), SIGKILL);
    zeloo::Report(*this, WARNING, WAIT_TIME_EXCEEDED, EINTR, ZELOO_HERE, "Process killed: %s",
                  static_cast<const char*>(mycmd));
}

// Waits for the end of the child and takes its status. A child that has ended already costs no timer. False with `errno`
// when there is no status.
bool UnixProcess::collect(zeloo::ChildLimit& limit, int* status)
{
    const auto pid = static_cast<pid_t>(mypid); // a handler may call terminate at any time
    siginfo_t info;
    info.si_pid = 0;
    int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG);
    if (result == 0 && info.si_pid == 0) {
        limit.Arm();
        result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    if (result != 0) {
        if (errno == ECHILD && zeloo::IsOwner(owner))
            isOver = true; // somebody else has taken the status, and the id is free
        return false;
    }
    isOver = true; // before the status is taken: until then nobody else can have the id
    return waitpid(pid, status, 0) == pid;
}

short UnixProcess::wait()
{
    if (exitstatus != NotYetCollected)
        return exitstatus;
    exitstatus = NoStatus;
    if (mypid <= 1)
        return NoStatus;

    int status = -1;
    bool isCollected;
    {
        svr4::SavedSignal sigcld(SIGCLD);
        svr4::signal(SIGCLD, SIG_DFL);
        zeloo::ChildLimit limit(maxwaittime);
        isCollected = collect(limit, &status);
    }
    if (isCollected)
        exitstatus = ExitCode(status);
    else if (errno == EINTR)
        killOverdue();
    return exitstatus;
}

void UnixProcess::terminate()
{
    if (mypid > 1) {
        if (!isOver)
            kill(static_cast<pid_t>(mypid), SIGTERM);
        mypid = -1;
    }
}

void UnixProcess::dumpOn(std::ostream& out) const
{
    out << "Dumping UnixProcess Object:" << std::endl;
    out << "command: <" << static_cast<const char*>(mycmd) << ">" << std::endl;
    out << "process id: " << mypid << std::endl;
    out << "maxwaittime: " << maxwaittime << std::endl;
    if (exitstatus != NotYetCollected)
        out << "exit status: " << exitstatus << std::endl;
}

void UnixProcess::SigTermProc(int)
{
    if (zeloo::IsOwner(owner) && cd_flag != leave_alone_at_destruction && cd_flag != wait_at_construction)
        terminate();
}

void UnixProcess::init(const char** argv, short waitflg)
{
    ZELOO_REQUIRE(argv != NULL, "Misc/unixproc");
    mycmd = JoinArguments(argv);
    std::optional<svr4::SavedSignal> sigcld;
    if (waitflg) {
        sigcld.emplace(SIGCLD);
        svr4::signal(SIGCLD, SIG_DFL); // before the fork: the status of a child that ends at once must be kept
    }

    if (!zeloo::CommandStart(argv, mycmd, nullptr).Run(&mypid)) {
        exitstatus = NoStatus;
        sigcld.reset();
        zeloo::Report(*this, WARNING, FORK_FAILED, errno, ZELOO_HERE, "fork failed attempting: %s",
                      static_cast<const char*>(mycmd));
        return;
    }
    if (waitflg)
        wait();
}

int UnixProcess::initp(const char** argv)
{
    int ends[2];
    if (pipe(ends) == -1) {
        exitstatus = NoStatus;
        _ReportError(WARNING, OPENING_PIPE, "pipe command failed", ModuleId(), __LINE__);
        return -1;
    }

    zeloo::CommandStart start(argv, mycmd, ends);
    const bool isStarted = start.Run(&mypid);
    const svr4::SavedErrno startError;
    close(ends[1]);
    if (isStarted)
        return ends[0];

    exitstatus = NoStatus;
    close(ends[0]);
    if (start.PipeFailed())
        zeloo::Report(*this, WARNING, OPENING_PIPE, startError.Value(), ZELOO_HERE, "pipe command failed");
    else
        zeloo::Report(*this, WARNING, FORK_FAILED, startError.Value(), ZELOO_HERE,
                      "fork failed attempting to execute: %s", static_cast<const char*>(mycmd));
    return -1;
}

static void PauseAfterError()
{
    const struct timespec pause = {0, 10000000};
    nanosleep(&pause, nullptr);
}

// Collects what comes from `fd`. False when the time ran out.
static bool ReadToEnd(int fd, const zeloo::ChildLimit& limit, zeloo::Capture& capture)
{
    char block[16384];
    ssize_t n;
    while ((n = read(fd, block, sizeof block)) != 0) {
        if (n > 0)
            capture.Take(block, static_cast<size_t>(n));
        else if (errno == EINTR)
            return false;
        else
            PauseAfterError();
        if (limit.HasPassed()) // without a limit any other error is tried again for ever: this is intended
            return false;
    }
    return true;
}

void UnixProcess::dopipe(const char** argv, Buffer& Output)
{
    ZELOO_REQUIRE(argv != NULL, "Misc/unixproc");
    Output.PurgeContents();
    mycmd = JoinArguments(argv);
    std::optional<svr4::SavedSignal> sigcld(std::in_place, SIGCLD);
    svr4::signal(SIGCLD, SIG_DFL);
    const int fd = initp(argv);
    if (fd < 0)
        return;

    zeloo::Capture capture(static_cast<uint64_t>(std::max(GlobalUnixProcessMaxOutput, 0L)));
    bool inTime;
    {
        zeloo::ChildLimit limit(maxwaittime);
        limit.Arm();
        inTime = ReadToEnd(fd, limit, capture);
        close(fd);
        exitstatus = NoStatus;
        int status = 0;
        if (inTime && collect(limit, &status))
            exitstatus = ExitCode(status);
        else if (inTime) // a child may run on with its output closed
            inTime = !(errno == EINTR && limit.HasPassed());
    }
    sigcld.reset();
    if (!inTime)
        killOverdue();
    capture.HandOver(Output, inTime ? "" : TimeExceededBanner);
}
