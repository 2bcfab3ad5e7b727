// SPDX-License-Identifier: BSD-2-Clause
// What ends a wait that nothing else would: a timer that interrupts its thread, whatever that waits for.
#ifndef SVR4_DEADLINE_H
#define SVR4_DEADLINE_H

#include <cstdint>

namespace svr4 {

/// The signal of a deadline: none that programs use, so that it disturbs no alarm.
int deadline_signal();

/// Makes `handler` run in the calling thread in `milliseconds`, once, in place of an earlier deadline. It runs on the
/// alternate stack, if there is one, with all signals blocked, and interrupts what the thread is at. It is meant for
/// handlers that leave with siglongjmp or end the process. Usable in a handler. Returns 0, or -1 with `errno`.
int set_deadline(long milliseconds, void (*handler)(int));

/// Lets the earlier deadline pass without effect.
void clear_deadline();

/// Makes the host kill the process (SIGKILL) in `milliseconds`, whatever it blocks or handles. There is no way back, and
/// a second call leaves the first one's time. Usable in a handler.
void set_last_deadline(long milliseconds);

/// The time on a clock that nobody sets, in milliseconds. Usable in a handler.
int64_t steady_milliseconds();

/// Waits, for less than a second. A signal ends the wait early. Usable in a handler; `errno` is kept.
void pause_microseconds(long microseconds);

} // namespace svr4

#endif
