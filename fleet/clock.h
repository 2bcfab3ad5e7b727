// SPDX-License-Identifier: BSD-2-Clause
// Times as the engine tells them, and how long work may take while other work may wait.
#ifndef FLEET_CLOCK_H
#define FLEET_CLOCK_H

#include <chrono>
#include <cstdint>

namespace fleet {

const int64_t Second = 1000000000; // nanoseconds

/// The time now, in nanoseconds since the epoch.
inline int64_t Now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

/// A short while from its making on, for a part of work that is done at leisure.
class Turn {
public:
    bool IsOver() const { return std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(50); }

private:
    const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

} // namespace fleet

#endif
