// SPDX-License-Identifier: BSD-2-Clause
// Waits of some microseconds, for what another process is just about to do.
#ifndef SVR4_BRIEFWAIT_H
#define SVR4_BRIEFWAIT_H

#include <cstdint>

namespace svr4 {

/// A wait in which something is tried again and again without sleeping:
///
///     for (BriefWait wait; wait.GivesWay();)
///         if (TryIt())
///             break;
///
/// Before each try it gives the processor away: the other process runs meanwhile, on this processor or on another one,
/// and neither has to sleep and be woken. It ends after 50 microseconds.
///
/// What does not pay is left alone: waits that were as long as that, in vain or because a third process had the
/// processor, are held against those that saved a sleep, and against ten milliseconds that a process may lose once; when
/// they have lost more, no wait is made until a hundred times the difference has gone by. So beyond those ten milliseconds
/// at most about one part in a hundred of the time is lost, and a process that sleeps uses none. `errno` is kept.
class BriefWait {
public:
    BriefWait() = default;
    ~BriefWait();
    /// Gives the processor away. False when it is time to sleep.
    bool GivesWay();

    BriefWait(const BriefWait&) = delete;
    BriefWait& operator=(const BriefWait&) = delete;

private:
    int64_t start = 0; // nanoseconds; 0 until the processor is given away
};

/// The time of the host's last clock tick, in nanoseconds of a clock that nobody sets. Ticks are 1 to 10 milliseconds
/// apart; to ask costs next to nothing.
int64_t LastTick();

} // namespace svr4

#endif
