// SPDX-License-Identifier: BSD-2-Clause
// The clock of long runs.
#ifndef TESTS_SUPPORT_MONOTONIC_H
#define TESTS_SUPPORT_MONOTONIC_H

#include <cstdint>
#include <ctime>

namespace testing_support {

/// Nanoseconds on a clock that nobody sets.
inline int64_t Now()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

inline void SleepMilliseconds(long milliseconds)
{
    const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

} // namespace testing_support

#endif
