// The process's signal handlers, as the registry and the crash file see them.
#ifndef MISC_CRASH_HANDLERS_H
#define MISC_CRASH_HANDLERS_H

#include <csignal>

namespace zeloo {

/// The signals to hold back while a handler works or while the registry changes. Faults are not among them, since they
/// cannot be held back, nor are SIGALRM and SIGCLD, which the objects may need in a capture.
sigset_t RequestSignals();

/// Ends the process with a core image (SIGABRT), whatever its signals are set to. Usable in a handler.
[[noreturn]] void create_core();

/// Leaves the handler of `sig`, which cannot go on, with the line "Handle of signal SIG exit: MESSAGE" on standard
/// error, `reason` (the system's text for a failed call) right behind it, and a core image.
[[noreturn]] void exit_sighandler(int sig, const char* message, const char* reason = "");

} // namespace zeloo

#endif
