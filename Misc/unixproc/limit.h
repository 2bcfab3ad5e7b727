// SPDX-License-Identifier: BSD-2-Clause
// The time that a child has.
#ifndef MISC_UNIXPROC_LIMIT_H
#define MISC_UNIXPROC_LIMIT_H

#include <algorithm>
#include <cstdint>
#include <optional>

#include "Misc/detail/timedcall.h"

namespace zeloo {

/// A number of seconds from its making on, or no limit when that is 0 or less. `errno` is kept.
class ChildLimit {
public:
    explicit ChildLimit(long seconds_p)
        : seconds(seconds_p), end(MillisecondsNow() + 1000 * std::clamp<int64_t>(seconds, 0, MostSeconds))
    {
    }
    /// From here on the end of the time interrupts calls that block, for as long as this lives.
    void Arm()
    {
        if (seconds > 0)
            timed.emplace(seconds);
    }
    /// Whether the time is over. A child that keeps its reader busy never lets it block: no alarm tells then.
    bool HasPassed() const { return seconds > 0 && MillisecondsNow() >= end; }

private:
    static constexpr int64_t MostSeconds = INT64_MAX / 2000;
    const long seconds;
    const int64_t end;
    std::optional<TimedCall> timed;
};

} // namespace zeloo

#endif
