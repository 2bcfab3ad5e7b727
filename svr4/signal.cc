#include "svr4/signal.h"

#include <cerrno>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: signal.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

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
    const int savedErrno = errno;
    sigaction(sig, nullptr, &earlier);
    errno = savedErrno;
}

SavedSignal::~SavedSignal()
{
    const int savedErrno = errno;
    sigaction(sig, &earlier, nullptr);
    errno = savedErrno;
}

} // namespace svr4
