// SPDX-License-Identifier: BSD-2-Clause
// A host that refuses: what a child process makes fail for the rest of its life. A host may not even refuse; then the
// child ends with the exit code NotPossibleHere, and the test is skipped:
//
//     const ChildResult child = RunInChild([] {
//         MakeForksFail();
//         ...
//     });
//     if (child.exitCode == NotPossibleHere)
//         GTEST_SKIP() << "no way to make fork fail here";
//
// (For memory that fails see failing_memory.h.)
#ifndef TESTS_SUPPORT_REFUSALS_H
#define TESTS_SUPPORT_REFUSALS_H

#include <initializer_list>

#include "tests/support/hostcalls.h"

namespace testing_support {

const int NotPossibleHere = 77;

/// Ends the process with NotPossibleHere unless what a test cannot do without is `possible`.
void ChildNeeds(bool possible);

/// Every fork fails with ENOMEM.
void MakeForksFail();

/// The system calls `numbers` fail with `error`, in processes forked from now on too.
void MakeCallsFail(std::initializer_list<long> numbers, int error);

/// Gives up the privileges over the sandbox's kernel objects; the effective user is then not the super-user.
void DropPrivileges();

/// The host gives no descriptor from `limit` on.
void LimitDescriptors(unsigned long limit);

/// No file grows beyond `limit` bytes: a write beyond it gives SIGXFSZ or fails with EFBIG.
void LimitFileSize(unsigned long limit);

/// The size of this process's address space in bytes.
long VirtualSize();

/// Keeps this process, which need not be a child, to the memory it has and `more` bytes while it lives.
class MemoryLimit {
public:
#if defined(__SANITIZE_ADDRESS__)
    static constexpr bool IsPossible = false; // its allocator does not live under a limit
#else
    static constexpr bool IsPossible = true;
#endif
    explicit MemoryLimit(long more);
    ~MemoryLimit();
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

private:
    unsigned long earlier;
};

} // namespace testing_support

#endif
