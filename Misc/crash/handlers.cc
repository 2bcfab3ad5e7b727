#include "Misc/crash/handlers.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/crash/signalfile.h"
#include "Misc/crash/stackdump.h"
#include "Misc/detail/paths.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "svr4/context.h"
#include "svr4/errno.h"
#include "svr4/signal.h"

using zeloo::SignalFile;
using zeloo::StandardError;

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

constexpr int TerminateSignals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};
constexpr int CaptureSignals[] = {SIGABRT, SIGILL, SIGBUS, SIGSEGV, SIGSYS, svr4::sigemt, SIGFPE, SIGTRAP, SIGUSR2};

constexpr off_t RotateBeyond = 65536; // bytes
constexpr long LoopingWithin = 60;    // seconds

// The state of a capture. At most one is at work at a time.
static volatile sig_atomic_t isCapturing = 0;
static int lastSignal = 0;
static sigjmp_buf captureContext;
static char signal_filename[1024];

sigset_t zeloo::RequestSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : TerminateSignals)
        sigaddset(&set, sig);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    return set;
}

// Installs `handler` to run with all signals blocked from its first instruction on. Returns 0 or -1.
static int HandleAlone(int sig, void (*handler)(int), int flags, struct sigaction* earlier = nullptr)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    return sigaction(sig, &action, earlier);
}

// Ends the process with a core image (SIGABRT), whatever its signals are set to.
[[noreturn]] static void create_core()
{
    for (int sig = 0; sig <= 31; sig++) {
        svr4::signal(sig, SIG_IGN); // drops a signal that was held back: the process is to end by abort
        svr4::signal(sig, SIG_DFL);
    }
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    abort();
}

// Leaves the handler of `sig`, which cannot go on. `reason` is the system's text for a failed call.
[[noreturn]] static void exit_sighandler(int sig, const char* message, const char* reason)
{
    StandardError() << "Handle of signal " << sig << " exit: " << message << reason << '\n';
    create_core();
}

// Says that an operation on the crash file failed, for which the report is still made.
static void WarnOfCrashFile(const char* operation)
{
    const int error = errno;
    StandardError() << operation << " of " << signal_filename << " failed. " << strerror(error) << '\n';
}

// Moves a crash file that has grown large out of the way.
static void RotateCrashFile()
{
    char oldName[sizeof signal_filename + 4];
    snprintf(oldName, sizeof oldName, "%s.old", signal_filename);
    // Intended: the line names a command that nobody runs. A handler starts no process; rename(2) does the same.
    StandardError() << "/usr/bin/mv " << signal_filename << ' ' << oldName << '\n';
    if (rename(signal_filename, oldName) != 0)
        WarnOfCrashFile("rename");
}

// Notices a program that crashes again and again, and moves a large file away.
static void ExamineCrashFile(int sig)
{
    struct stat status;
    if (stat(signal_filename, &status) != 0) {
        WarnOfCrashFile("stat");
        return;
    }
    if (Dates::CurrentTime() - status.st_mtime < LoopingWithin && MonitoredObject::GetDumpStateFileName() != nullptr)
        exit_sighandler(sig, "Previous sighandler probably failed.", "");
    if (status.st_size > RotateBeyond)
        RotateCrashFile();
}

// Names the crash file, makes room for the report of `sig` and says on standard error where it is.
static void CheckLooping(int sig)
{
    const char* program = ProgInfo::GetProgramName();
    snprintf(signal_filename, sizeof signal_filename, "%s/%s.sig", zeloo::DataDirectory,
             program != nullptr ? program : "mobject");
    if (access(signal_filename, F_OK) == 0)
        ExamineCrashFile(sig);
    StandardError() << "Call trace and dump of monitored objects in " << signal_filename << '\n';
}

// A fault of the capture itself.
static void IgnoreSig(int sig)
{
    StandardError() << "\n\nSignal " << sig << " detected processing state caputre. siglongjmp out..\n\n";
    siglongjmp(captureContext, 1);
}

// Appends to the crash file a heading and what the process looks like: the stack dump and the object dump. A fault in
// one of them ends that dump only; what else fails ends the process.
static void CaptureState(int sig)
{
    SignalFile file(signal_filename, O_APPEND);
    if (!file.IsOpen())
        exit_sighandler(sig, "open of sighandler file failed. ", strerror(file.Error()));
    file << '\n' << Dates::GetDateTime() << ". SIGNAL " << sig << " detected. ProgInfo=";
    for (int i = 0; i < ProgInfo::Getargc(); i++)
        file << ProgInfo::Getargv()[i] << ' ';
    file << '\n';
    file.flush();
    if (!file)
        exit_sighandler(sig, "write of sighandler file failed. ", strerror(file.Error()));
    file << "\n......initiating dump...\n\n";

    struct sigaction earlierSegv, earlierBus;
    if (HandleAlone(SIGSEGV, IgnoreSig, SA_ONSTACK, &earlierSegv) != 0)
        exit_sighandler(sig, "SIGSEGV: IgnoreSig setup failed. ", strerror(errno));
    if (HandleAlone(SIGBUS, IgnoreSig, SA_ONSTACK, &earlierBus) != 0)
        exit_sighandler(sig, "SIGBUS: IgnoreSig setup failed. ", strerror(errno));

    if (sigsetjmp(captureContext, 1) == 0) {
        zeloo::dumpstack(file);
        file << '\n';
        file.flush();
    }
    if (sigsetjmp(captureContext, 1) == 0)
        MonitoredObject::DumpState(file);

    if (sigaction(SIGSEGV, &earlierSegv, nullptr) != 0)
        exit_sighandler(sig, "CaptureState can't reset SIGSEGV handler. ", strerror(errno));
    if (sigaction(SIGBUS, &earlierBus, nullptr) != 0)
        exit_sighandler(sig, "CaptureState can't reset SIGBUS handler. ", strerror(errno));

    file.flush();
    if (!file) {
        char text[sizeof signal_filename + 32];
        snprintf(text, sizeof text, "write of %s file failed. ", signal_filename);
        exit_sighandler(sig, text, strerror(file.Error()));
    }
}

// The same signal arrived again while it was handled.
static void sigexit(int sig)
{
    StandardError() << "Error Exit. SIGNAL " << sig << " detected while processing SIGNAL " << lastSignal << ".\n";
    create_core();
}

void MonitoredObject::UnMonitor()
{
    for (const int sig : TerminateSignals)
        svr4::signal(sig, SIG_DFL);
    for (const int sig : CaptureSignals)
        svr4::signal(sig, SIG_DFL);
    svr4::signal(SIGUSR1, SIG_DFL);
}

void MonitoredObject::InstallHandlers()
{
    if (isCapturing) // what the capture constructs must not undo the capture's own handlers
        return;
    svr4::use_alternate_stack();
    tzset(); // reads the time zone now: a handler may find the heap in pieces
    for (const int sig : TerminateSignals)
        HandleAlone(sig, sigterm, 0);
    for (const int sig : CaptureSignals)
        svr4::capture_signal(sig, sigrestart);
    HandleAlone(SIGUSR1, sigusr, 0);
}

void MonitoredObject::sigterm(int sig)
{
    ForEach(&MonitoredObject::SigTermProc, sig);
    exit(0);
}

void MonitoredObject::sigusr(int sig)
{
    const svr4::SavedErrno savedErrno;
    if (DumpStateFileName != nullptr) {
        SignalFile file(DumpStateFileName, O_TRUNC);
        if (file.IsOpen()) {
            file << "SIGNAL " << sig << " caught...initiating dump...\n";
            DumpState(file);
        }
    }
    HandleAlone(SIGUSR1, sigusr, 0);
}

void MonitoredObject::sigrestart(int sig)
{
    isCapturing = 1;
    const sigset_t requests = zeloo::RequestSignals();
    sigprocmask(SIG_BLOCK, &requests, nullptr);

    lastSignal = sig;
    umask(0);
    if (HandleAlone(sig, sigexit, SA_ONSTACK) != 0)
        exit_sighandler(sig, "sigrestart's sigexit setup failed. ", strerror(errno));
    if (sig != SIGXCPU) {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, sig);
        if (sigprocmask(SIG_UNBLOCK, &own, nullptr) != 0)
            exit_sighandler(sig, "sigprocmask SIG_UNBLOCK setup failed. ", strerror(errno));
    }
    StandardError() << "\n\nError: " << Dates::GetDateTime() << ". SIGNAL " << sig << " detected....\n";

    CheckLooping(sig);
    CaptureState(sig);
    ForEach(&MonitoredObject::SigTermProc, sig);
    ForEach(&MonitoredObject::SigRestartProc, sig);
    create_core();
}
