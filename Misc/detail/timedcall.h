// One blocking system call bounded in time by the process's alarm.
#ifndef MISC_DETAIL_TIMEDCALL_H
#define MISC_DETAIL_TIMEDCALL_H

#include <csignal>
#include <sys/time.h>

namespace zeloo {

/// While a TimedCall lives, a handler that does nothing handles SIGALRM, and the alarm goes off after `seconds` (0: not
/// at all): its only effect is that the call fails with EINTR. The alarm goes off again every second after that, so
/// that one that arrives just before the call blocks is not lost. The destructor re-arms the caller's earlier alarm
/// with the time that remained on it when the TimedCall was made (the time spent here is not taken off) and restores
/// the caller's handler. `errno` is kept by both.
class TimedCall {
public:
    explicit TimedCall(long seconds);
    ~TimedCall();

    TimedCall(const TimedCall&) = delete;
    TimedCall& operator=(const TimedCall&) = delete;

private:
    struct sigaction earlierAction;
    struct itimerval earlierAlarm;
};

} // namespace zeloo

#endif
