// SPDX-License-Identifier: BSD-2-Clause
// Blocking system calls bounded in time by the process's alarm.
#ifndef MISC_DETAIL_TIMEDCALL_H
#define MISC_DETAIL_TIMEDCALL_H

#include <csignal>
#include <cstdint>
#include <sys/time.h>

namespace zeloo {

/// While a TimedCall lives, a handler that does nothing handles SIGALRM, also where the caller holds it back, and the
/// alarm goes off after the time given (none: not at all): its only effect is that the call fails with EINTR. The alarm
/// goes off again and again after that, so that one that arrives just before the call blocks is not lost. The destructor
/// re-arms the caller's earlier alarm with the time that remained on it when the TimedCall was made (the time spent here
/// is not taken off), and restores the caller's handler and what it holds back; a SIGALRM of the caller's that was
/// waiting then waits again, and none of this alarm's is left. `errno` is kept by both.
class TimedCall {
public:
    explicit TimedCall(long seconds, int64_t milliseconds = 0);
    ~TimedCall();
    /// Sets the alarm anew.
    void Arm(long seconds, int64_t milliseconds);

    TimedCall(const TimedCall&) = delete;
    TimedCall& operator=(const TimedCall&) = delete;

private:
    bool isArmed;
    bool callersWaits; // a SIGALRM of the caller's
    sigset_t earlierMask;
    struct sigaction earlierAction;
    struct itimerval earlierAlarm;
};

/// Milliseconds of a clock that nobody sets.
int64_t MillisecondsNow();

} // namespace zeloo

#endif
