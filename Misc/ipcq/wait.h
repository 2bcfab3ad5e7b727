// SPDX-License-Identifier: BSD-2-Clause
// The one loop of all waits on a queue: try, wait, look around, count the time.
#ifndef MISC_IPCQ_WAIT_H
#define MISC_IPCQ_WAIT_H

namespace zeloo {

/// Something that may have to be waited for.
class Attempt {
public:
    /// What Try gives besides 0 and an `errno`.
    enum Outcome {
        TryAgain = -1, // what came was not wanted
        TryLater = -2  // what came was another's and was put back: he must have time to take it
    };
    /// Tries once; `flags` are those of msgsnd and msgrcv. 0 when it is done, an `errno` (the wait goes on when that
    /// says that there is nothing, no room, or that a signal came), or an Outcome.
    virtual int Try(int flags) = 0;
    /// Called when a slice or a step of the wait is over, or a signal has come: 0, or the code that ends the wait.
    virtual short Look() = 0;
    /// The milliseconds until the first Look; the slices grow fourfold. 0: Look is called after each step only.
    virtual long FirstSlice() const { return 0; }
    /// The milliseconds up to which they grow.
    virtual long LongestSlice() const { return 120; }
    /// Whether the next Look is to come soon, since it will settle what the last one has found.
    virtual bool Hurries() const { return false; }

protected:
    Attempt() = default;
    ~Attempt() = default;
};

/// How long to wait: `steps` steps (0: for ever) of `seconds` seconds (0: one step without end). A signal ends a step.
struct Patience {
    long seconds;
    long steps;

    /// `seconds` of waiting, counted in whole steps of 10 seconds: below 10 it is for ever.
    static Patience InSteps(long seconds) { return {10, seconds / 10}; }
    /// Exactly `seconds`; 0 is for ever.
    static Patience Exactly(long seconds) { return {seconds, seconds > 0 ? 1 : 0}; }
    /// `seconds` of waiting, of which a signal ends one.
    static Patience BySeconds(long seconds) { return {1, seconds}; }
};

/// Tries without waiting first; SIGALRM and the alarm are taken over only when that is not enough. Returns a code: `late`
/// when patience is at its end; 65, or 60 with a report that `what` failed, when Try fails.
short WaitFor(Attempt& attempt, Patience patience, short late, const char* what);

} // namespace zeloo

#endif
