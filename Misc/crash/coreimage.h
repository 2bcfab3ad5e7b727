// The end of a process that has faulted.
#ifndef MISC_CRASH_COREIMAGE_H
#define MISC_CRASH_COREIMAGE_H

namespace zeloo {

/// Ends the process with a core image (SIGABRT), whatever its signals are set to. Usable in a handler.
[[noreturn]] void create_core();

/// Leaves the handler of `sig`, which cannot go on, with the line "Handle of signal SIG exit: MESSAGE" on standard
/// error, `reason` (the system's text for a failed call) right behind it, and a core image.
[[noreturn]] void exit_sighandler(int sig, const char* message, const char* reason = "");

} // namespace zeloo

#endif
