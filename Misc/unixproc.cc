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
#include <optional>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/detail/assertion.h"
#include "Misc/detail/owner.h"
#include "Misc/detail/text.h"
#include "Misc/detail/timedcall.h"
#include "svr4/process.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static const short NotYetCollected = -222;
static const short NoStatus = -1;
static const char Shell[] = "/sbin/sh";
static const char TimeExceededBanner[] = "\n\n******** Process max wait time exceeded **********\n";

template <>
const char* SafeArray<UnixProcess>::ElementName()
{
    return "UnixProcess";
}

template class SafeArray<UnixProcess>;

long UnixProcess::GlobalUnixProcessMaxWaitTime = 0;

// The arguments with one blank between them; empty when memory fails.
static CString JoinArguments(const char** argv)
{
    char* text = zeloo::NewJoinedText(argv);
    CString joined(text);
    delete[] text;
    return joined;
}

// Reports a WARNING whose description is `what` followed by the command, with the `errno` of the caller.
static void ReportCommand(const ErrorReporter& reporter, short type, const char* what, const CString& command,
                          long line)
{
    const int failure = errno;
    const CString description = CString(what) + command;
    errno = failure;
    reporter._ReportError(ErrorReporter::WARNING, type, description, ModuleId(), line);
}

// Forks. All signals are held back meanwhile, so that none can run the handlers of the parent in the child: these
// would clean up what belongs to the parent.
static pid_t ForkChild()
{
    sigset_t all;
    sigset_t earlier;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &earlier);
    const pid_t pid = fork();
    if (pid == 0) {
        MonitoredObject::UnMonitor();
        svr4::signal(SIGCLD, SIG_IGN);
    }
    sigprocmask(SIG_SETMASK, &earlier, nullptr);
    return pid;
}

static void CloseInheritedDescriptors()
{
    const int savedErrno = errno;
    for (int fd = 3; fd < 60; fd++)
        close(fd);
    errno = savedErrno;
}

static short ExitCode(int status)
{
    return static_cast<short>((status >> 8) & 255); // 0 also for a child that a signal ended: intended
}

UnixProcess::UnixProcess(ctor_dtor_flag cd_f, long maxtime)
    : maxwaittime(maxtime != 0 ? maxtime : GlobalUnixProcessMaxWaitTime), exitstatus(NotYetCollected), mypid(-1),
      cd_flag(cd_f), owner(getpid())
{
}

UnixProcess::UnixProcess(const char** argv, ctor_dtor_flag cd_f, long maxtime) : UnixProcess(cd_f, maxtime)
{
    init(argv, cd_flag == wait_at_construction);
}

UnixProcess::UnixProcess(const char* Cmd, ctor_dtor_flag cd_f, long maxtime) : UnixProcess(cd_f, maxtime)
{
    const char* argv[] = {Shell, "-c", Cmd, nullptr};
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
    const char* argv[] = {Shell, "-c", Cmd, nullptr};
    dopipe(argv, Output);
}

UnixProcess::UnixProcess(UnixProcess& p)
    : ErrorReporter(), MonitoredObject(), maxwaittime(p.maxwaittime), exitstatus(NotYetCollected), mypid(p.mypid),
      mycmd(p.mycmd), cd_flag(leave_alone_at_destruction), owner(getpid())
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

// Waits for the end of a child, for at most `limit` seconds unless that is 0. A child that has ended already costs
// no timer.
static pid_t WaitForChild(pid_t pid, int* status, long limit)
{
    if (limit == 0)
        return waitpid(pid, status, 0);
    const pid_t ended = waitpid(pid, status, WNOHANG);
    if (ended != 0)
        return ended;
    zeloo::TimedCall timed(limit);
    return waitpid(pid, status, 0);
}

short UnixProcess::wait()
{
    if (exitstatus != NotYetCollected)
        return exitstatus;
    exitstatus = NoStatus;
    if (mypid <= 1)
        return NoStatus;

    int status = -1;
    pid_t ended;
    {
        svr4::SavedSignal sigcld(SIGCLD);
        svr4::signal(SIGCLD, SIG_DFL);
        ended = WaitForChild(static_cast<pid_t>(mypid), &status, maxwaittime);
    }
    if (ended == -1 && errno == EINTR) {
        kill(static_cast<pid_t>(mypid), SIGKILL);
        ReportCommand(*this, WAIT_TIME_EXCEEDED, "Process killed: ", mycmd, __LINE__);
        return NoStatus;
    }
    if (status != -1)
        exitstatus = ExitCode(status);
    return exitstatus;
}

void UnixProcess::terminate()
{
    if (mypid > 1) {
        kill(static_cast<pid_t>(mypid), SIGTERM);
        mypid = -1;
    }
}

short UnixProcess::exists() const
{
    return ProcessExists(mypid);
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

short UnixProcess::ProcessExists(long proc_pid)
{
    if (proc_pid < 0 || proc_pid > INT_MAX)
        return 0;
    return kill(static_cast<pid_t>(proc_pid), 0) == 0 || errno != ESRCH;
}

short UnixProcess::WaitForProcessToStart(const char* ProcessName, long maxwaittime, long postwaittime)
{
    const char* name = zeloo::TextOrEmpty(ProcessName);
    const bool tell = debug() >= 2;
    if (tell)
        std::cout << "Waiting for process " << name << " to start..." << std::endl;

    char command[80];
    std::snprintf(command, sizeof command, "/usr/bin/ps -e | /usr/bin/grep %s", name);
    bool found = false;
    long waited = 0;
    for (;;) {
        Buffer scratch;
        UnixProcess probe(command, scratch);
        found = probe.wait() == 0;
        if (found || waited >= maxwaittime)
            break;
        sleep(2);
        waited += 2;
    }

    if (waited > 0 && postwaittime > 0)
        sleep(static_cast<unsigned>(postwaittime));
    if (tell) {
        std::cout << "Waited a total of " << waited << " seconds..." << std::endl;
        if (!found)
            std::cout << "Time expired waiting for " << name << " to start..." << std::endl;
    }
    return found;
}

void UnixProcess::WaitForProcessToTerminate(long proc_pid, long maxtime, short send_kill)
{
    int steps = 0;
    for (long remaining = maxtime; remaining >= 1 && ProcessExists(proc_pid); remaining -= 2) {
        sleep(2);
        if (send_kill && ++steps % 10 == 0 && proc_pid > 0) // 0 would be the caller's own group
            kill(static_cast<pid_t>(proc_pid), SIGTERM);
    }
}

void UnixProcess::SetGlobalMaxWaitTime(long seconds)
{
    GlobalUnixProcessMaxWaitTime = seconds;
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

    mypid = ForkChild();
    if (mypid == 0) {
        CloseInheritedDescriptors();
        svr4::setpgrp();
        childexec(argv);
    }
    if (mypid == -1) {
        exitstatus = NoStatus;
        sigcld.reset();
        ReportCommand(*this, FORK_FAILED, "fork failed attempting: ", mycmd, __LINE__);
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

    mypid = ForkChild();
    if (mypid == 0) {
        close(ends[0]);
        if (ends[1] != STDOUT_FILENO) { // as it is when the parent had closed its own
            dup2(ends[1], STDOUT_FILENO);
            close(ends[1]);
        }
        svr4::setpgrp();
        childexec(argv);
    }
    const int failure = errno;
    close(ends[1]);
    if (mypid == -1) {
        exitstatus = NoStatus;
        close(ends[0]);
        errno = failure;
        ReportCommand(*this, FORK_FAILED, "fork failed attempting to execute: ", mycmd, __LINE__);
        return -1;
    }
    return ends[0];
}

// What a child writes, collected in one growing block, since every Buffer::Append copies the whole buffer.
class CollectedOutput {
public:
    CollectedOutput() : block(nullptr), used(0), capacity(0) {}
    ~CollectedOutput() { std::free(block); }
    CollectedOutput(const CollectedOutput&) = delete;
    CollectedOutput& operator=(const CollectedOutput&) = delete;

    /// read(2) of at most BlockSize bytes, with its result. They are dropped when there is no memory for them.
    ssize_t ReadFrom(int fd);
    /// Makes what was collected the contents of `output`, which is empty.
    void HandTo(Buffer& output);

private:
    static const size_t BlockSize = 16384;

    bool MakeRoom(size_t size);
    bool Grow(size_t size);

    char* block;
    size_t used;
    size_t capacity;
    char spare[BlockSize];
};

ssize_t CollectedOutput::ReadFrom(int fd)
{
    if (capacity - used >= BlockSize) {
        const ssize_t n = read(fd, block + used, BlockSize);
        if (n > 0)
            used += static_cast<size_t>(n);
        return n;
    }
    const ssize_t n = read(fd, spare, BlockSize); // the block need not grow only to find the end
    if (n > 0 && MakeRoom(static_cast<size_t>(n))) {
        std::memcpy(block + used, spare, static_cast<size_t>(n));
        used += static_cast<size_t>(n);
    }
    return n;
}

void CollectedOutput::HandTo(Buffer& output)
{
    if (used == 0)
        return;
    Grow(used); // the size of a buffer is the size of its block
    output.AssignPtr(block, static_cast<unsigned>(used));
    block = nullptr;
    used = capacity = 0;
}

// Doubles a block without room for `size` more bytes; with little memory left, takes just these.
bool CollectedOutput::MakeRoom(size_t size)
{
    const size_t needed = used + size;
    if (needed <= capacity)
        return true;
    if (needed > UINT32_MAX) // no Buffer holds more
        return false;
    return Grow(std::max(2 * capacity, 4 * BlockSize)) || Grow(needed);
}

bool CollectedOutput::Grow(size_t size)
{
    const int savedErrno = errno;
    char* grown = static_cast<char*>(std::realloc(block, size));
    errno = savedErrno;
    if (grown == nullptr)
        return false;
    block = grown;
    capacity = size;
    return true;
}

// Collects what comes from `fd`, for at most `limit` seconds unless that is 0. False when the time ran out.
static bool ReadToEnd(int fd, long limit, CollectedOutput& collected)
{
    std::optional<zeloo::TimedCall> timed;
    if (limit != 0)
        timed.emplace(limit);
    for (;;) {
        const ssize_t n = collected.ReadFrom(fd);
        if (n == 0)
            return true;
        if (n < 0 && errno == EINTR)
            return false;
        // Any other error: reads again, without limit. This is intended.
    }
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

    CollectedOutput collected;
    const bool ended = ReadToEnd(fd, maxwaittime, collected);
    collected.HandTo(Output);
    close(fd);

    exitstatus = NoStatus;
    int status = 0;
    if (ended && waitpid(static_cast<pid_t>(mypid), &status, 0) != -1)
        exitstatus = ExitCode(status);
    sigcld.reset();
    if (!ended) {
        kill(static_cast<pid_t>(mypid), SIGKILL);
        ReportCommand(*this, WAIT_TIME_EXCEEDED, "Process killed: ", mycmd, __LINE__);
        Output.Append(TimeExceededBanner);
    }
}

// Runs in the child only. It never leaves through exit(), which would write what the parent's streams hold.
void UnixProcess::childexec(const char** argv)
{
    svr4::execvp(argv[0], const_cast<char* const*>(argv));
    std::cerr.tie(nullptr); // the report must not flush the parent's standard output
    ReportCommand(*this, EXEC_FAILED, "exec() failed attempting: ", mycmd, __LINE__);

    const char* blank[] = {"sh", "-c", " ", nullptr};
    svr4::execvp(Shell, const_cast<char* const*>(blank));
    _exit(-1);
}
