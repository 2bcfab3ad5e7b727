// SPDX-License-Identifier: BSD-2-Clause
// Memory that fails on demand, for the tests of what the library does without it:
//
//     const MemoryFailure failure = MemoryFailure::OfSize(sizeof(CmdLine), NewObject);
//     ProcMgr submission("x", nullptr); // finds no memory for its CmdLine
//
// The linker takes it for the tests that use it. It replaces `operator new` and
// `operator new[]` with std::nothrow and `calloc` for the whole program, the library included, static or shared. The
// other forms, by which the tests and the C++ library allocate, always find memory. A program that is also built with
// failing_malloc.cc has `malloc`, `realloc` and these replaced as well.
#ifndef TESTS_SUPPORT_FAILING_MEMORY_H
#define TESTS_SUPPORT_FAILING_MEMORY_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace testing_support {

/// The calls that can fail: one of them, or several joined by `|`.
enum AllocationCalls {
    NewObject = 1,
    NewArray = 2,
    Calloc = 4,
    Malloc = 8,
    Realloc = 16,
    AllCalls = 31,
    ThrowingNew = 32 // which throws std::bad_alloc
};

/// While it lives, the allocations it stands for give null and set errno to ENOMEM. One that is made while another
/// lives takes its place until it goes. A child process inherits it.
class MemoryFailure {
public:
    /// All allocations by `calls`.
    static MemoryFailure Of(int calls) { return MemoryFailure({calls}); }
    /// Only those of `bytes` bytes.
    static MemoryFailure OfSize(std::size_t bytes, int calls) { return MemoryFailure({calls, bytes, bytes}); }
    /// Only those of `bytes` bytes or more.
    static MemoryFailure FromSize(std::size_t bytes, int calls) { return MemoryFailure({calls, bytes}); }
    /// All behind the first `count`.
    static MemoryFailure After(long count, int calls) { return MemoryFailure({calls, 0, SIZE_MAX, count}); }
    /// The one behind the first `count`, and no other.
    static MemoryFailure OfOne(long count, int calls) { return MemoryFailure({calls, 0, SIZE_MAX, count, 1}); }
    /// The next one only.
    static MemoryFailure OfNext(int calls) { return MemoryFailure({calls, 0, SIZE_MAX, 0, 1}); }
    /// The next one of `bytes` bytes only.
    static MemoryFailure OfNextOfSize(std::size_t bytes, int calls)
    {
        return MemoryFailure({calls, bytes, bytes, 0, 1});
    }

    ~MemoryFailure();
    MemoryFailure(const MemoryFailure&) = delete;
    MemoryFailure& operator=(const MemoryFailure&) = delete;

    /// Counts the allocations anew, from this one on.
    void Restart() const;
    /// Whether any has failed since then.
    bool HasHappened() const;

    /// What fails: by which calls, of which sizes, behind how many that succeed, and how many.
    struct Rule {
        int calls = 0;
        std::size_t smallest = 0;
        std::size_t largest = SIZE_MAX;
        long before = 0;
        long count = LONG_MAX;
    };

private:
    explicit MemoryFailure(const Rule& what);

    const Rule own;
    const Rule earlier;
};

/// The sizes in bytes of what `body` allocates by `calls`, in order.
std::vector<std::size_t> SizesAllocated(int calls, const std::function<void()>& body);

/// Notes an allocation, and says whether it is to fail.
bool AllocationFails(AllocationCalls call, std::size_t bytes);

} // namespace testing_support

#endif
