// SPDX-License-Identifier: BSD-2-Clause
// What a benchmark needs before it can measure anything.
#ifndef BENCH_REQUIRE_H
#define BENCH_REQUIRE_H

#include <cstdio>

#include <unistd.h>

/// Ends the benchmark with a line that says what could not be done, and why by `errno`, unless `isDone`.
inline void Require(bool isDone, const char* what)
{
    if (isDone)
        return;
    std::perror(what);
    _exit(1);
}

#endif
