// Waits of some microseconds, for what another process is just about to do.
#ifndef MISC_DETAIL_BRIEFWAIT_H
#define MISC_DETAIL_BRIEFWAIT_H

#include <cstdint>

namespace zeloo {

/// A wait in which something is tried again and again without sleeping:
///
///     for (BriefWait wait; wait.GivesWay();)
///         if (TryIt())
///             break;
///
/// Before each try it gives the processor away: the other process runs meanwhile, on this processor or on another one,
/// and neither has to sleep and be woken. It ends after 50 microseconds.
///
/// What does not pay is left alone: after a wait that was as long as that, in vain or because a third process had the
/// processor, none is made until a hundred times as long has gone by. So at most one part in a hundred of the time is lost
/// with it, and a process that sleeps uses none. `errno` is kept.
class BriefWait {
public:
    BriefWait();
    ~BriefWait();
    /// Gives the processor away. False when it is time to sleep.
    bool GivesWay();

    BriefWait(const BriefWait&) = delete;
    BriefWait& operator=(const BriefWait&) = delete;

private:
    int64_t start; // nanoseconds
    bool hasBegun = false;
};

} // namespace zeloo

#endif
