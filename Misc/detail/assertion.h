// SPDX-License-Identifier: BSD-2-Clause
// The library's assertions: a broken precondition stops the process at the place where it is noticed.
#ifndef MISC_DETAIL_ASSERTION_H
#define MISC_DETAIL_ASSERTION_H

#include <cstdio>
#include <cstdlib>

namespace zeloo {

/// Writes "Assertion failed: EXPRESSION, file UNIT, line LINE" and a newline to standard error and aborts.
[[noreturn]] inline void AssertionFailed(const char* expression, const char* unit, int line)
{
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expression, unit, line);
    std::fflush(stderr);
    std::abort();
}

} // namespace zeloo

/// ZELOO_ASSERT(expr, "Misc/NAME"): stops the process when `expr` is false. Assertions are on in every build type;
/// a library built with ZELOO_ASSERTIONS=OFF does not evaluate `expr` at all, and each operation then does what
/// its contract states for that case.
#ifdef ZELOO_NO_ASSERTIONS
#define ZELOO_ASSERT(expr, unit) static_cast<void>(0)
#else
#define ZELOO_ASSERT(expr, unit) ((expr) ? static_cast<void>(0) : zeloo::AssertionFailed(#expr, unit, __LINE__))
#endif

/// ZELOO_REQUIRE(expr, "Misc/NAME"): the same, but kept in every build, for a call that has no defined result.
#define ZELOO_REQUIRE(expr, unit) ((expr) ? static_cast<void>(0) : zeloo::AssertionFailed(#expr, unit, __LINE__))

#endif
