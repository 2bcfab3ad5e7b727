// SPDX-License-Identifier: BSD-2-Clause
// A child process that runs out of stack:
//
//     const ChildResult child = RunInChild([] {
//         LimitStack();
//         OverflowStack(0);
//     });
#ifndef TESTS_SUPPORT_STACK_OVERFLOW_H
#define TESTS_SUPPORT_STACK_OVERFLOW_H

#include <sys/resource.h>

namespace testing_support {

/// Keeps the stack of this process to 1 MiB, so that it ends soon and a core holds little.
inline void LimitStack()
{
    struct rlimit limit;
    getrlimit(RLIMIT_STACK, &limit);
    limit.rlim_cur = 1024 * 1024;
    setrlimit(RLIMIT_STACK, &limit);
}

/// Calls itself without an end, in frames of more than 4096 bytes, through a pointer that the compiler cannot see
/// through. Frames that a jump leaves behind must not stay marked for AddressSanitizer.
__attribute__((no_sanitize("undefined"), no_sanitize("address"))) int OverflowStack(int n);
inline int (*volatile overflowAgain)(int) = OverflowStack;
inline int OverflowStack(int n)
{
    volatile char block[4096];
    block[n % 4096] = static_cast<char>(n);
    return overflowAgain(n + 1) + block[n % 4096];
}

} // namespace testing_support

#endif
