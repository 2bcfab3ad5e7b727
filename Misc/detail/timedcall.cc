// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/timedcall.h"

#include <ctime>

#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: timedcall.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long RepetitionMilliseconds = 20; // of an alarm that was set in milliseconds; others come every second

namespace zeloo {

static volatile sig_atomic_t hasCome;

static void Interrupt(int) { hasCome = 1; }

static struct itimerval Alarm(long seconds, int64_t milliseconds)
{
    struct itimerval alarm = {};
    alarm.it_value.tv_sec = seconds + milliseconds / 1000;
    alarm.it_value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
    if (milliseconds > 0)
        alarm.it_interval.tv_usec = RepetitionMilliseconds * 1000;
    else if (seconds > 0)
        alarm.it_interval.tv_sec = 1;
    return alarm;
}

static sigset_t AlarmSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    return set;
}

TimedCall::TimedCall(long seconds, int64_t milliseconds) : isArmed(seconds > 0 || milliseconds > 0)
{
    const svr4::SavedErrno savedErrno;
    struct sigaction action = {};
    action.sa_handler = Interrupt; // without SA_RESTART: the call must fail with EINTR
    sigemptyset(&action.sa_mask);
    hasCome = 0;
    sigaction(SIGALRM, &action, &earlierAction);
    const sigset_t set = AlarmSignal();
    sigprocmask(SIG_UNBLOCK, &set, &earlierMask);
    callersWaits = hasCome != 0; // before any alarm of ours
    const struct itimerval alarm = Alarm(seconds, milliseconds);
    setitimer(ITIMER_REAL, &alarm, &earlierAlarm);
}

void TimedCall::Arm(long seconds, int64_t milliseconds)
{
    const bool wasArmed = isArmed;
    isArmed = seconds > 0 || milliseconds > 0;
    if (!wasArmed && !isArmed)
        return;
    const struct itimerval alarm = Alarm(seconds, milliseconds);
    setitimer(ITIMER_REAL, &alarm, nullptr);
}

TimedCall::~TimedCall()
{
    const svr4::SavedErrno savedErrno;
    Arm(0, 0); // first: from here on none of ours comes, and the last one has been handled
    if (sigismember(&earlierMask, SIGALRM) == 1) {
        const sigset_t set = AlarmSignal();
        sigprocmask(SIG_BLOCK, &set, nullptr);
    }
    sigaction(SIGALRM, &earlierAction, nullptr);
    if (earlierAlarm.it_value.tv_sec != 0 || earlierAlarm.it_value.tv_usec != 0)
        setitimer(ITIMER_REAL, &earlierAlarm, nullptr);
    if (callersWaits)
        kill(getpid(), SIGALRM);
}

int64_t MillisecondsNow()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace zeloo
