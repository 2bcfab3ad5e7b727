// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/crash/handlers.h"

#include <cstdlib>

#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/crash/registry.h"
#include "Misc/crash/request.h"
#include "Misc/crash/signalfile.h"
#include "Misc/detail/localtime.h"
#include "Misc/mobject.h"
#include "svr4/context.h"
#include "svr4/deadline.h"
#include "svr4/errno.h"
#include "svr4/modules.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

constexpr int TerminateSignals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGXCPU};
constexpr int CaptureSignals[] = {SIGABRT, SIGILL, SIGBUS, SIGSEGV, SIGSYS, svr4::sigemt, SIGFPE, SIGTRAP, SIGUSR2};

static volatile sig_atomic_t handlersStay = 0;
static volatile sig_atomic_t modulesStay = 0;

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

int zeloo::HandleAlone(int sig, void (*handler)(int), int flags, struct sigaction* earlier)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    return sigaction(sig, &action, earlier);
}

void zeloo::LetFaultsEnd(void (*handler)(int))
{
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : FaultSignals) {
        HandleAlone(sig, handler, SA_ONSTACK);
        sigaddset(&set, sig);
    }
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// An object's SigTermProc, or exit, has come to wait for what the interrupted code holds, or exit has found it half changed.
static void EndAtOnce(int) { _exit(0); }

static void Terminate(int sig)
{
    if (svr4::is_captured_elsewhere())
        return; // another thread is about to end the process, by abort
    modulesStay = 1;
    zeloo::KeepLocalOffset();
    svr4::set_deadline(zeloo::EndingTime, EndAtOnce);
    svr4::set_last_deadline(zeloo::EndingTime + 2000);
    zeloo::Objects::TakeOver();
    zeloo::Objects::ForEach(&MonitoredObject::SigTermProc, sig);
    zeloo::KeepHandlers();
    zeloo::LetFaultsEnd(EndAtOnce); // the heap may be in pieces just now, and what exit calls gives memory back
    exit(0);
}

static void Dump(int sig)
{
    const svr4::SavedErrno savedErrno;
    zeloo::DumpOnRequest(sig);
    zeloo::HandleAlone(SIGUSR1, Dump, 0);
}

void zeloo::InstallHandlers()
{
    if (handlersStay)
        return;
    svr4::use_alternate_stack();
    // What a handler needs and may not make: it may find the heap in pieces, or be in the middle of its change.
    Dates::CurrentTm();
    MakeStandardErrorReady();
    MakeReadyForCapture();
    MakeReadyForRequest();
    for (const int sig : TerminateSignals)
        HandleAlone(sig, Terminate, 0);
    for (const int sig : CaptureSignals)
        svr4::capture_signal(sig, Capture);
    HandleAlone(SIGUSR1, Dump, 0);
}

void zeloo::NoteModules()
{
    if (!modulesStay)
        svr4::keep_modules();
}

void zeloo::KeepHandlers()
{
    handlersStay = 1;
    modulesStay = 1;
}

void MonitoredObject::UnMonitor()
{
    for (const int sig : TerminateSignals)
        svr4::signal(sig, SIG_DFL);
    for (const int sig : CaptureSignals)
        svr4::signal(sig, SIG_DFL);
    svr4::signal(SIGUSR1, SIG_DFL);
}
