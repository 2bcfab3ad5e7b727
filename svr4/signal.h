// SPDX-License-Identifier: BSD-2-Clause
// Signals as System V has them.
#ifndef SVR4_SIGNAL_H
#define SVR4_SIGNAL_H

#include <csignal>

#ifndef SIGCLD
#define SIGCLD SIGCHLD
#endif

namespace svr4 {

typedef void (*SignalHandler)(int);

/// SIGEMT of System V, or 0 (which is no signal) on a host that has none.
#ifdef SIGEMT
constexpr int sigemt = SIGEMT;
#else
constexpr int sigemt = 0;
#endif

/// signal(2) of System V: sets the disposition of `sig` and returns the earlier one (SIG_ERR with `errno` on
/// failure). A handler is one-shot: the disposition is the default again when it runs, and `sig` itself is not
/// blocked meanwhile. A call that the signal interrupts fails with EINTR; it is not restarted.
SignalHandler signal(int sig, SignalHandler handler);

/// Keeps the whole disposition of a signal (flags and mask included) and restores it when it dies. `errno` is kept
/// by both. A `sig` that the host does not have is kept as nothing.
class SavedSignal {
public:
    explicit SavedSignal(int sig);
    ~SavedSignal();
    SavedSignal(const SavedSignal&) = delete;
    SavedSignal& operator=(const SavedSignal&) = delete;

private:
    int sig;
    struct sigaction earlier;
};

/// All signals but those of faults, whose handlers must run at once, and SIGABRT.
sigset_t all_but_faults();

/// Holds signals back while it lives: no handler of theirs runs, and those that come meanwhile are delivered when it
/// dies. What was held back before stays so. `errno` is kept by both.
class SignalsHeld {
public:
    /// Holds all signals back.
    SignalsHeld();
    /// Holds those of `set` back.
    explicit SignalsHeld(const sigset_t& set);
    ~SignalsHeld();
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t earlier;
};

} // namespace svr4

#endif
