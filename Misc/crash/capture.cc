// SPDX-License-Identifier: BSD-2-Clause
// The capture of a crash. Nothing here allocates, takes a lock, starts a process or waits without a bound: the signal may
// have come in the middle of anything, with the heap in pieces.
#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/crash/handlers.h"
#include "Misc/crash/modulemap.h"
#include "Misc/crash/registry.h"
#include "Misc/crash/signalfile.h"
#include "Misc/crash/stackdump.h"
#include "Misc/detail/immortal.h"
#include "Misc/detail/localtime.h"
#include "Misc/detail/paths.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "svr4/context.h"
#include "svr4/deadline.h"
#include "svr4/errno.h"

using zeloo::HandleAlone;
using zeloo::Objects;
using zeloo::SignalFile;
using zeloo::StandardError;

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

constexpr off_t RotateBeyond = 65536; // bytes
constexpr long LoopingWithin = 60;    // seconds

constexpr long DefaultSeconds = 60;
constexpr long DefaultBytes = 64L * 1024 * 1024;
constexpr unsigned long BytesForFrame = 40; // of a line of the call trace

static long secondsForCapture = DefaultSeconds;
static long bytesForCapture = DefaultBytes;

namespace {

enum Outcome { Whole, Faulted, OutOfTime, OutOfBytes };

} // namespace

// The state of a capture. At most one is at work at a time; another signal of its own thread begins one within it.
static int lastSignal = 0;
static sigjmp_buf captureContext;
static volatile sig_atomic_t isInStep = 0; // captureContext may be jumped to
static volatile sig_atomic_t timeIsUp = 0;
static volatile sig_atomic_t isQuiet = 0;  // a fault is not worth a line
static volatile sig_atomic_t isEnding = 0; // the objects' turn has come
static pid_t limitsStartedIn = 0;
static char signal_filename[1024];
static char reportDate[32]; // the same in the crash file and in its map

void MonitoredObject::SetCaptureLimits(long seconds, long bytes)
{
    secondsForCapture = seconds > 0 ? seconds : DefaultSeconds;
    bytesForCapture = bytes > 0 ? bytes : DefaultBytes;
}

long zeloo::CaptureTime() { return std::min(secondsForCapture, 1000000L) * 1000; }
unsigned long zeloo::CaptureBytes() { return static_cast<unsigned long>(bytesForCapture); }

static SignalFile& CrashFile() { return zeloo::Immortal<SignalFile, Outcome>(); }

void zeloo::MakeReadyForCapture()
{
    CrashFile();
    MakeReadyForModuleMap();
}

// Leaves the handler of `sig`, which cannot go on. `reason` is the system's text for a failed call.
[[noreturn]] static void exit_sighandler(int sig, const char* message, const char* reason)
{
    StandardError() << "Handle of signal " << sig << " exit: " << message << reason << '\n' << std::flush;
    svr4::end_with_core();
}

// ---- Bounds ----

[[noreturn]] static void LeaveStep(Outcome outcome) { siglongjmp(captureContext, outcome); }

static void OnDeadline(int)
{
    if (isEnding) {
        StandardError() << "Handle of signal " << lastSignal
                        << " exit: SigTermProc and SigRestartProc took longer than " << zeloo::EndingTime / 1000
                        << " seconds.\n"
                        << std::flush;
        svr4::end_with_core();
    }
    timeIsUp = 1;
    if (isInStep)
        LeaveStep(OutOfTime);
}

// A capture within a capture has what is left of its time.
static void StartLimits()
{
    if (limitsStartedIn == getpid())
        return;
    limitsStartedIn = getpid();
    isEnding = 0;
    timeIsUp = 0;
    svr4::set_deadline(zeloo::CaptureTime(), OnDeadline);
    svr4::set_last_deadline(zeloo::CaptureTime() + zeloo::EndingTime + 5000);
}

// Takes one step of the capture, which may fault where the handlers for that are installed, and is left when its time or
// its bytes are used up.
static Outcome Try(void (*step)(int sig), int sig)
{
    const int outcome = sigsetjmp(captureContext, 1);
    if (outcome != 0) {
        isInStep = 0;
        svr4::forget_frames();
        return static_cast<Outcome>(outcome);
    }
    isInStep = 1;
    if (timeIsUp)
        LeaveStep(OutOfTime);
    step(sig);
    isInStep = 0;
    return Whole;
}

// Behind the last step, or one that was left, the limit is passed by what is in the stream and by the line about it.
static void SayWhatIsLeftOut(Outcome outcome)
{
    SignalFile& file = CrashFile();
    file.SetLimit(0, nullptr);
    if (outcome == OutOfTime)
        file << "\n*** The rest is left out: it took longer than " << zeloo::CaptureTime() / 1000 << " seconds ***\n";
    if (outcome == OutOfBytes)
        file << "\n*** The rest is left out: it goes beyond " << file.Written() << " bytes ***\n";
    file.flush();
}

// ---- The crash file ----

// Says that an operation on the crash file failed, for which the report is still made.
static void WarnOfCrashFile(const char* operation)
{
    const int error = errno;
    StandardError() << operation << " of " << signal_filename << " failed. " << svr4::error_text(error) << '\n'
                    << std::flush;
}

// Moves a crash file that has grown large out of the way.
static void RotateCrashFile()
{
    char oldName[sizeof signal_filename + 4];
    snprintf(oldName, sizeof oldName, "%s.old", signal_filename);
    // Intended: the line names a command that nobody runs. A handler starts no process; rename(2) does the same.
    StandardError() << "/usr/bin/mv " << signal_filename << ' ' << oldName << '\n' << std::flush;
    if (rename(signal_filename, oldName) != 0)
        WarnOfCrashFile("rename");
    else
        zeloo::RotateModuleMap(signal_filename);
}

// What a file is that cannot be a crash file; null when it can.
static const char* OtherThanFile(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFLNK: return " is a symbolic link.";
    case S_IFIFO: return " is a FIFO.";
    case S_IFCHR:
    case S_IFBLK: return " is a device.";
    case S_IFSOCK: return " is a socket.";
    default: return nullptr; // a directory is refused by the opening
    }
}

[[noreturn]] static void RefuseCrashFile(int sig, const char* what)
{
    char text[sizeof signal_filename + 64];
    snprintf(text, sizeof text, "open of sighandler file failed. %s", signal_filename);
    exit_sighandler(sig, text, what);
}

// Notices a program that crashes again and again, and moves a large file away.
static void ExamineCrashFile(int sig)
{
    struct stat status;
    if (lstat(signal_filename, &status) != 0) {
        WarnOfCrashFile("stat");
        return;
    }
    if (!S_ISREG(status.st_mode))
        return;
    const int64_t age = Dates::CurrentTime() - status.st_mtime;
    if (age >= 0 && age < LoopingWithin && MonitoredObject::GetDumpStateFileName() != nullptr)
        exit_sighandler(sig, "Previous sighandler probably failed.", "");
    if (status.st_size > RotateBeyond)
        RotateCrashFile();
}

// Names the crash file, makes room for the report of `sig` and says on standard error where it is.
static void CheckLooping(int sig)
{
    StandardError() << "\n\nError: " << Dates::GetDateTime() << ". SIGNAL " << sig << " detected....\n" << std::flush;
    const char* program = ProgInfo::GetProgramName();
    snprintf(signal_filename, sizeof signal_filename, "%s/%s.sig", zeloo::DataDirectory,
             program != nullptr ? program : "mobject");
    if (access(signal_filename, F_OK) == 0)
        ExamineCrashFile(sig);
    StandardError() << "Call trace and dump of monitored objects in " << signal_filename << '\n' << std::flush;
}

// Opens the crash file if that is a regular file or none: to open something else may have effects, and to write to it
// may wait.
static int OpenCrashFile(int sig)
{
    struct stat status;
    const char* other = lstat(signal_filename, &status) == 0 ? OtherThanFile(status.st_mode) : nullptr;
    if (other != nullptr)
        RefuseCrashFile(sig, other);
    const int fd = zeloo::OpenForDump(signal_filename, O_APPEND | O_NOFOLLOW);
    if (fd < 0)
        exit_sighandler(sig, "open of sighandler file failed. ", svr4::error_text(errno));
    other = fstat(fd, &status) == 0 ? OtherThanFile(status.st_mode) : nullptr;
    if (other != nullptr)
        RefuseCrashFile(sig, other);
    return fd;
}

static void WriteHeading(std::ostream& file)
{
    file << reportDate << ". SIGNAL " << lastSignal << " detected. ProgInfo=";
    char* const* const argv = ProgInfo::Getargv();
    for (int i = 0; i < ProgInfo::Getargc() && argv[i] != nullptr; i++) // the program may have changed them
        file << argv[i] << ' ';
    file << '\n';
}

static void BeginReport(int sig)
{
    SignalFile& file = CrashFile();
    file.Attach(OpenCrashFile(sig), zeloo::CaptureBytes(), [] { LeaveStep(OutOfBytes); });
    snprintf(reportDate, sizeof reportDate, "%s", Dates::GetDateTime());
    file << '\n';
    WriteHeading(file);
    file.flush();
    if (!file)
        exit_sighandler(sig, "write of sighandler file failed. ", svr4::error_text(file.Error()));
    file << "\n......initiating dump...\n\n";
}

// ---- The dump ----

// A fault of the capture itself.
static void IgnoreSig(int sig)
{
    svr4::wait_while_captured_elsewhere();
    if (!isQuiet)
        StandardError() << "\n\nSignal " << sig << " detected processing state caputre. siglongjmp out..\n\n"
                        << std::flush;
    LeaveStep(Faulted);
}

namespace {

// Lets faults end a step instead of the process, while it lives.
class FaultsSkipped {
public:
    explicit FaultsSkipped(int sig_p) : sig(sig_p)
    {
        Handle(SIGSEGV, &earlier[0], "SIGSEGV: IgnoreSig setup failed. ");
        Handle(SIGBUS, &earlier[1], "SIGBUS: IgnoreSig setup failed. ");
        // A heap in pieces shows as SIGABRT. What is being captured ends the process when it comes again.
        for (size_t i = 2; i < FaultCount; i++)
            if (zeloo::FaultSignals[i] != sig)
                Handle(zeloo::FaultSignals[i], &earlier[i], "IgnoreSig setup failed. ");
    }
    ~FaultsSkipped()
    {
        Restore(SIGSEGV, earlier[0], "CaptureState can't reset SIGSEGV handler. ");
        Restore(SIGBUS, earlier[1], "CaptureState can't reset SIGBUS handler. ");
        for (size_t i = 2; i < FaultCount; i++)
            if (zeloo::FaultSignals[i] != sig)
                Restore(zeloo::FaultSignals[i], earlier[i], "CaptureState can't reset a handler. ");
    }
    FaultsSkipped(const FaultsSkipped&) = delete;
    FaultsSkipped& operator=(const FaultsSkipped&) = delete;

private:
    static constexpr size_t FaultCount = sizeof zeloo::FaultSignals / sizeof *zeloo::FaultSignals;
    static_assert(zeloo::FaultSignals[0] == SIGSEGV && zeloo::FaultSignals[1] == SIGBUS, "the order above");

    void Handle(int fault, struct sigaction* before, const char* failure) const
    {
        if (HandleAlone(fault, IgnoreSig, SA_ONSTACK, before) != 0)
            exit_sighandler(sig, failure, svr4::error_text(errno));
    }
    void Restore(int fault, const struct sigaction& before, const char* failure) const
    {
        if (sigaction(fault, &before, nullptr) != 0)
            exit_sighandler(sig, failure, svr4::error_text(errno));
    }

    const int sig;
    struct sigaction earlier[FaultCount];
};

} // namespace

static void WriteMap(int) { zeloo::WriteModuleMap(signal_filename, WriteHeading); }

static void DumpStack(int)
{
    SignalFile& file = CrashFile();
    file.SetLimit(zeloo::CaptureBytes() / 2, [] { LeaveStep(OutOfBytes); }); // the objects want to be seen, too
    zeloo::dumpstack(file, zeloo::CaptureBytes() / 4 / BytesForFrame);
    file << '\n';
    file.flush();
}

static void DumpObjects(int)
{
    SignalFile& file = CrashFile();
    file.SetLimit(zeloo::CaptureBytes(), [] { LeaveStep(OutOfBytes); });
    MonitoredObject::DumpState(file);
    file.flush();
}

static void RepairRegistry(int) { Objects::TakeOver(); }

// Appends to the crash file what the process looks like: the stack dump and the object dump. What faults, or goes beyond
// the bounds, ends that dump only; what else fails ends the process.
static void CaptureState(int sig)
{
    SignalFile& file = CrashFile();
    const FaultsSkipped skipped(sig);
    isQuiet = 1;
    Try(WriteMap, sig); // what keeps it from its end leaves no trace in the report
    isQuiet = 0;
    for (const auto step : {DumpStack, DumpObjects}) {
        const Outcome outcome = Try(step, sig);
        SayWhatIsLeftOut(outcome);
        if (outcome == OutOfTime)
            break;
    }
    isQuiet = 1;
    Try(RepairRegistry, sig); // not before the dump, which shows what it can of a registry in pieces
    isQuiet = 0;
    if (!file) {
        char text[sizeof signal_filename + 32];
        snprintf(text, sizeof text, "write of %s file failed. ", signal_filename);
        exit_sighandler(sig, text, svr4::error_text(file.Error()));
    }
}

// The same signal arrived again while it was handled.
static void sigexit(int sig)
{
    svr4::wait_while_captured_elsewhere();
    StandardError() << "Error Exit. SIGNAL " << sig << " detected while processing SIGNAL " << lastSignal << ".\n"
                    << std::flush;
    svr4::end_with_core();
}

// Makes the process one that is captured: nothing that it is asked for meanwhile disturbs that.
static void BeginCapture(int sig)
{
    zeloo::KeepHandlers();
    zeloo::KeepLocalOffset();
    const sigset_t requests = zeloo::RequestSignals();
    sigprocmask(SIG_BLOCK, &requests, nullptr);
    StartLimits();
    Objects::ForgetWalks();

    lastSignal = sig;
    umask(0);
    if (HandleAlone(sig, sigexit, SA_ONSTACK) != 0)
        exit_sighandler(sig, "sigrestart's sigexit setup failed. ", svr4::error_text(errno));
    if (sig == SIGXCPU)
        return;
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, sig);
    if (sigprocmask(SIG_UNBLOCK, &own, nullptr) != 0)
        exit_sighandler(sig, "sigprocmask SIG_UNBLOCK setup failed. ", svr4::error_text(errno));
}

void zeloo::Capture(int sig)
{
    BeginCapture(sig);
    CutFullOutputs();
    const Outcome begun = Try(
        [](int number) {
            CheckLooping(number);
            BeginReport(number);
        },
        sig);
    if (begun == Whole)
        CaptureState(sig);
    else if (begun == OutOfBytes)
        SayWhatIsLeftOut(begun);

    if (!isEnding) {
        isEnding = 1;
        svr4::set_deadline(EndingTime, OnDeadline);
    }
    Objects::ForEach(&MonitoredObject::SigTermProc, sig);
    Objects::ForEach(&MonitoredObject::SigRestartProc, sig);
    svr4::end_with_core();
}
