// The process's signal handlers, as the registry sees them.
#ifndef MISC_CRASH_HANDLERS_H
#define MISC_CRASH_HANDLERS_H

#include <csignal>

namespace zeloo {

/// The signals to hold back while a handler works or while the registry changes. Faults are not among them, since they
/// cannot be held back, nor are SIGALRM and SIGCLD, which the objects may need in a capture.
sigset_t RequestSignals();

} // namespace zeloo

#endif
