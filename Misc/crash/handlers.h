// SPDX-License-Identifier: BSD-2-Clause
// The process's signal handlers, as the parts of the unit see them.
#ifndef MISC_CRASH_HANDLERS_H
#define MISC_CRASH_HANDLERS_H

#include <csignal>

namespace zeloo {

/// Installs the handlers of MonitoredObject and makes ready what they need.
void InstallHandlers();

/// Notes where the program and its shared objects are, for the module map, if any has come or gone.
void NoteModules();

/// Makes both do nothing from now on: what a capture or a dump constructs must not undo the handlers that it works with,
/// nor wait for the loader.
void KeepHandlers();

/// Installs `handler` to run with all signals blocked from its first instruction on. Returns 0 or -1.
int HandleAlone(int sig, void (*handler)(int), int flags, struct sigaction* earlier = nullptr);

/// The signals that ask for something, held back in a capture. Faults are not among them, since they cannot be held
/// back, nor are SIGALRM and SIGCLD, which the objects may need in a capture.
sigset_t RequestSignals();

/// What a process may not get through by itself, and so may stop a dump or a capture: SIGSEGV, SIGBUS and their kind.
constexpr int FaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};

/// Makes a fault run `handler` from now on, for good, whatever holds it back.
void LetFaultsEnd(void (*handler)(int));

/// The time for SigTermProc and SigRestartProc of all objects together and, on SIGTERM, for exit, in milliseconds.
constexpr long EndingTime = 10000;

/// The limits of MonitoredObject::SetCaptureLimits.
long CaptureTime(); // milliseconds
unsigned long CaptureBytes();

/// Makes what Capture writes with.
void MakeReadyForCapture();

/// The handler of the signals that are captured: writes the crash file and ends the process with a core image.
[[noreturn]] void Capture(int sig);

} // namespace zeloo

#endif
