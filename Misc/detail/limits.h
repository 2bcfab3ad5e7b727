// SPDX-License-Identifier: BSD-2-Clause
// Limits that several units keep.
#ifndef MISC_DETAIL_LIMITS_H
#define MISC_DETAIL_LIMITS_H

#include <algorithm>
#include <climits>
#include <cstdint>

namespace zeloo {

/// The most elements of an array.
constexpr unsigned MostElements = 256000;
/// The descriptors below this one are what a program may have open: those that a child or a daemon closes.
constexpr int DescriptorLimit = 60;

/// A number of 64 bits, such as the size of a file, for an interface that has a `long`: the nearest that fits there.
constexpr long NearestLong(int64_t number)
{
    return static_cast<long>(std::clamp<int64_t>(number, LONG_MIN, LONG_MAX));
}

} // namespace zeloo

#endif
