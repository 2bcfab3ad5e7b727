#include "Misc/crash/coreimage.h"

#include <csignal>
#include <cstdlib>

#include "Misc/crash/signalfile.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo {

void create_core()
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

void exit_sighandler(int sig, const char* message, const char* reason)
{
    StandardError() << "Handle of signal " << sig << " exit: " << message << reason << '\n';
    create_core();
}

} // namespace zeloo
