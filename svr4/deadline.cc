// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/deadline.h"

#include <csignal>
#include <cstring>
#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: deadline.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// The member for a thread's id, for which not every C library has a name.
#ifdef sigev_notify_thread_id
#define THREAD_OF(event) (event).sigev_notify_thread_id
#else
#define THREAD_OF(event) (event)._sigev_un._tid
#endif

namespace svr4 {

namespace {

// A timer of the host itself: the C library's timer_create allocates. Timers are not inherited by a fork, so each
// belongs to one process.
struct Timer {
    int id;
    pid_t process; // 0 while there is none
    pid_t thread;
};

// The number of the call that takes the times that <time.h> has here.
#if defined(SYS_timer_settime64) && _TIME_BITS == 64
constexpr long SetTime = SYS_timer_settime64;
#else
constexpr long SetTime = SYS_timer_settime;
#endif

Timer deadline;
Timer lastDeadline;

pid_t ThisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

int Make(Timer* timer, int sig, bool forThread)
{
    timer->process = 0;
    struct sigevent event = {};
    event.sigev_signo = sig;
    event.sigev_notify = forThread ? SIGEV_THREAD_ID : SIGEV_SIGNAL;
    THREAD_OF(event) = ThisThread();
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer->id) != 0)
        return -1;
    timer->process = getpid();
    timer->thread = ThisThread();
    return 0;
}

int Start(const Timer& timer, long milliseconds)
{
    struct itimerspec when = {};
    when.it_value.tv_sec = milliseconds / 1000;
    when.it_value.tv_nsec = milliseconds % 1000 * 1000000;
    return static_cast<int>(syscall(SetTime, timer.id, 0, &when, nullptr));
}

bool IsMine(const Timer& timer) { return timer.process == getpid() && timer.thread == ThisThread(); }

} // namespace

int deadline_signal() { return SIGRTMAX; }

int set_deadline(long milliseconds, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_ONSTACK;
    sigfillset(&action.sa_mask);
    if (!IsMine(deadline) && Make(&deadline, deadline_signal(), true) != 0)
        return -1;
    if (sigaction(deadline_signal(), &action, nullptr) != 0)
        return -1;
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, deadline_signal());
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
    return Start(deadline, milliseconds > 0 ? milliseconds : 1);
}

void clear_deadline()
{
    if (IsMine(deadline))
        Start(deadline, 0);
}

void set_last_deadline(long milliseconds)
{
    if (lastDeadline.process != getpid() && Make(&lastDeadline, SIGKILL, false) == 0)
        Start(lastDeadline, milliseconds);
}

int64_t steady_milliseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void pause_microseconds(long microseconds)
{
    const SavedErrno savedErrno;
    const struct timespec time = {0, microseconds * 1000};
    nanosleep(&time, nullptr);
}

} // namespace svr4
