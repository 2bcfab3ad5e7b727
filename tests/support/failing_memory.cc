// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/failing_memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/support/coverage.h"

namespace testing_support {

static MemoryFailure::Rule rule; // needs no constructor at run time: static objects allocate before main
static std::vector<std::size_t>* sizes = nullptr;
static int callsNoted = 0;
static bool isBehindAnother = false; // an allocation that serves another, which has been noted

MemoryFailure::MemoryFailure(const Rule& what) : own(what), earlier(rule) { rule = own; }

MemoryFailure::~MemoryFailure() { rule = earlier; }

void MemoryFailure::Restart() const { rule = own; }

bool MemoryFailure::HasHappened() const { return rule.count < own.count; }

std::vector<std::size_t> SizesAllocated(int calls, const std::function<void()>& body)
{
    std::vector<std::size_t> noted;
    sizes = &noted;
    callsNoted = calls;
    body();
    callsNoted = 0;
    return noted;
}

bool AllocationFails(AllocationCalls call, std::size_t bytes)
{
    if (isBehindAnother)
        return false;
    if ((callsNoted & call) != 0)
        sizes->push_back(bytes);
    if ((rule.calls & call) == 0 || bytes < rule.smallest || bytes > rule.largest)
        return false;
    if (rule.before > 0) {
        rule.before--;
        return false;
    }
    if (rule.count == 0)
        return false;
    rule.count--;
    errno = ENOMEM;
    return true;
}

} // namespace testing_support

using namespace testing_support;

extern "C" void zeloo_let_memory_be() { rule = {}; }

#ifndef __SANITIZE_ADDRESS__
// The C library's own, which a program's malloc does not count.
extern "C" void* __libc_malloc(std::size_t size) noexcept; // NOLINT(bugprone-reserved-identifier)
#endif

// Behind the forms that don't throw those that do allocate, so that any form of `operator delete` may free: a sanitizer
// tells a block of `new` from one of `malloc`.
template <class Allocate>
static void* OrNull(Allocate allocate) noexcept
{
    void* block = nullptr;
    isBehindAnother = true;
    try {
        block = allocate();
    } catch (const std::bad_alloc&) {
    }
    isBehindAnother = false;
    return block;
}

void* operator new(std::size_t n, const std::nothrow_t&) noexcept
{
    return AllocationFails(NewObject, n) ? nullptr : OrNull([n] { return ::operator new(n); });
}

void* operator new[](std::size_t n, const std::nothrow_t&) noexcept
{
    return AllocationFails(NewArray, n) ? nullptr : OrNull([n] { return ::operator new[](n); });
}

extern "C" void* calloc(std::size_t nmemb, std::size_t size) noexcept
{
    std::size_t bytes;
    if (__builtin_mul_overflow(nmemb, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (AllocationFails(Calloc, bytes))
        return nullptr;
#ifdef __SANITIZE_ADDRESS__
    void* (*volatile allocate)(std::size_t) = std::malloc; // which the compiler must not turn into this function
#else
    void* (*volatile allocate)(std::size_t) = __libc_malloc;
#endif
    void* block = allocate(bytes);
    if (block != nullptr)
        std::memset(block, 0, bytes);
    return block;
}
