// SPDX-License-Identifier: BSD-2-Clause
// Sorting with a comparison that has a context.
#ifndef SVR4_SORT_H
#define SVR4_SORT_H

#include <cstddef>
#include <cstdlib>

namespace svr4 {

/// qsort(3C) of System V, in the same order, with a `compare` that is also given `context`.
inline void qsort(void* base, size_t n, size_t width, int (*compare)(const void*, const void*, void*), void* context)
{
    qsort_r(base, n, width, compare, context);
}

} // namespace svr4

#endif
