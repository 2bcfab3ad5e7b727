// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/signal.h"

#include <initializer_list>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: signal.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

SignalHandler signal(int sig, SignalHandler handler)
{
    struct sigaction action = {};
    struct sigaction earlier = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    if (handler != SIG_DFL && handler != SIG_IGN)
        action.sa_flags = SA_RESETHAND | SA_NODEFER;
    if (sig == SIGCHLD && handler == SIG_IGN)
        action.sa_flags = SA_NOCLDWAIT; // the children of a process that ignores SIGCLD leave no zombies
    if (sigaction(sig, &action, &earlier) != 0)
        return SIG_ERR;
    return earlier.sa_handler;
}

SavedSignal::SavedSignal(int sig_p) : sig(sig_p), earlier()
{
    const SavedErrno savedErrno;
    sigaction(sig, nullptr, &earlier);
}

SavedSignal::~SavedSignal()
{
    const SavedErrno savedErrno;
    sigaction(sig, &earlier, nullptr);
}

sigset_t all_but_faults()
{
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        sigdelset(&set, fault);
    return set;
}

static sigset_t AllSignals()
{
    sigset_t all;
    sigfillset(&all);
    return all;
}

SignalsHeld::SignalsHeld() : SignalsHeld(AllSignals()) {}

SignalsHeld::SignalsHeld(const sigset_t& set)
{
    const SavedErrno savedErrno;
    sigprocmask(SIG_BLOCK, &set, &earlier);
}

SignalsHeld::~SignalsHeld()
{
    const SavedErrno savedErrno;
    sigprocmask(SIG_SETMASK, &earlier, nullptr);
}

} // namespace svr4
