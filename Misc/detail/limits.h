// SPDX-License-Identifier: BSD-2-Clause
// Limits that several units keep.
#ifndef MISC_DETAIL_LIMITS_H
#define MISC_DETAIL_LIMITS_H

namespace zeloo {

/// The most elements of an array.
constexpr unsigned MostElements = 256000;
/// The descriptors below this one are what a program may have open: those that a child or a daemon closes.
constexpr int DescriptorLimit = 60;

} // namespace zeloo

#endif
