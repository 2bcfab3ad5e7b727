// SPDX-License-Identifier: BSD-2-Clause
// The process of an asker, and what is heard of it.
#ifndef TOOLS_ORVSTAT_ASKERPROCESS_H
#define TOOLS_ORVSTAT_ASKERPROCESS_H

#include <chrono>
#include <optional>

#include <sys/types.h>

#include "asker.h"

namespace orvstat {

/// Runs Ask in a child process, which lives no longer than the object.
class AskerProcess {
public:
    typedef std::chrono::steady_clock Clock;

    explicit AskerProcess(const Target& target);
    /// Ends the child: it gets its mail off the queue and closes its connection first, for which it has a quarter of a
    /// second.
    ~AskerProcess();
    AskerProcess(const AskerProcess&) = delete;
    AskerProcess& operator=(const AskerProcess&) = delete;

    /// Whether there is such a process: the host may have no room for one more.
    bool Started() const { return pid > 0; }
    /// The next word, or none: the child has said all, or the time is up.
    std::optional<Word> Listen(Clock::time_point end) const;

private:
    int words; // the pipe's end, -1 without one
    pid_t pid; // -1: there is none
};

} // namespace orvstat

#endif
