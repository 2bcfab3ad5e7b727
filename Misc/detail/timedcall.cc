#include "Misc/detail/timedcall.h"

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: timedcall.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

static void Interrupt(int) {}

TimedCall::TimedCall(long seconds)
{
    const svr4::SavedErrno savedErrno;
    struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, &earlierAlarm);

    struct sigaction action = {};
    action.sa_handler = Interrupt; // without SA_RESTART: the call must fail with EINTR
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &earlierAction);

    if (seconds > 0) {
        struct itimerval limit = {};
        limit.it_value.tv_sec = seconds;
        limit.it_interval.tv_sec = 1;
        setitimer(ITIMER_REAL, &limit, nullptr);
    }
}

TimedCall::~TimedCall()
{
    const svr4::SavedErrno savedErrno;
    struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr); // first: the caller's handler must not see this alarm
    sigaction(SIGALRM, &earlierAction, nullptr);
    if (earlierAlarm.it_value.tv_sec != 0 || earlierAlarm.it_value.tv_usec != 0)
        setitimer(ITIMER_REAL, &earlierAlarm, nullptr);
}

} // namespace zeloo
