#include "Misc/crash/handlers.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

#include "Misc/Dates.h"
#include "Misc/crash/crashfile.h"
#include "Misc/crash/signalfile.h"
#include "Misc/mobject.h"
#include "svr4/context.h"
#include "svr4/errno.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

constexpr int TerminateSignals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};
constexpr int CaptureSignals[] = {SIGABRT, SIGILL, SIGBUS, SIGSEGV, SIGSYS, svr4::sigemt, SIGFPE, SIGTRAP, SIGUSR2};

// The state of a capture. At most one is at work at a time.
static volatile sig_atomic_t isCapturing = 0;
static int lastSignal = 0;

// Installs `handler` to run with all signals blocked from its first instruction on. Returns 0 or -1.
static int HandleAlone(int sig, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    return sigaction(sig, &action, nullptr);
}

void zeloo::create_core()
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

void zeloo::exit_sighandler(int sig, const char* message, const char* reason)
{
    StandardError() << "Handle of signal " << sig << " exit: " << message << reason << '\n';
    create_core();
}

// The same signal arrived again while it was handled.
static void sigexit(int sig)
{
    zeloo::StandardError() << "Error Exit. SIGNAL " << sig << " detected while processing SIGNAL " << lastSignal
                           << ".\n";
    zeloo::create_core();
}

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
        zeloo::SignalFile file(DumpStateFileName, O_TRUNC);
        if (file.IsOpen()) {
            file << "SIGNAL " << sig << " caught...initiating dump...\n";
            DumpState(file);
            file.Close();
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
        zeloo::exit_sighandler(sig, "sigrestart's sigexit setup failed. ", strerror(errno));
    if (sig != SIGXCPU) {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, sig);
        if (sigprocmask(SIG_UNBLOCK, &own, nullptr) != 0)
            zeloo::exit_sighandler(sig, "sigprocmask SIG_UNBLOCK setup failed. ", strerror(errno));
    }
    zeloo::StandardError() << "\n\nError: " << Dates::GetDateTime() << ". SIGNAL " << sig << " detected....\n";

    zeloo::CheckLooping(sig);
    zeloo::CaptureState(sig);
    ForEach(&MonitoredObject::SigTermProc, sig);
    ForEach(&MonitoredObject::SigRestartProc, sig);
    zeloo::create_core();
}
