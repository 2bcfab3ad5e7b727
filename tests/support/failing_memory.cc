#include "tests/support/failing_memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace testing_support {

static MemoryFailure::Rule rule; // needs no constructor at run time: static objects allocate before main
static std::vector<std::size_t>* sizes = nullptr;
static int callsNoted = 0;

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

/// Notes an allocation, and says whether it is to fail.
static bool Fails(AllocationCalls call, std::size_t bytes)
{
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

#ifndef __SANITIZE_ADDRESS__

// The allocator of the C library under its own names.
extern "C" void* __libc_malloc(std::size_t size) noexcept;               // NOLINT(bugprone-reserved-identifier)
extern "C" void* __libc_realloc(void* block, std::size_t size) noexcept; // NOLINT(bugprone-reserved-identifier)

extern "C" void* malloc(std::size_t size) noexcept { return Fails(Malloc, size) ? nullptr : __libc_malloc(size); }

extern "C" void* realloc(void* ptr, std::size_t size) noexcept
{
    return Fails(Realloc, size) ? nullptr : __libc_realloc(ptr, size);
}

// What throws is what the tests allocate by: it does not fail.
void* operator new(std::size_t size)
{
    void* block = __libc_malloc(size > 0 ? size : 1);
    return block != nullptr ? block : throw std::bad_alloc();
}

void* operator new[](std::size_t size) { return ::operator new(size); }

void operator delete(void* block) noexcept { std::free(block); }

void operator delete[](void* block) noexcept { std::free(block); }

void operator delete(void* block, std::size_t) noexcept { std::free(block); }

void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

#endif

// Behind these the forms that throw allocate, so that any form of `operator delete` may free: a sanitizer tells a block
// of `new` from one of `malloc`.
void* operator new(std::size_t n, const std::nothrow_t&) noexcept
try {
    return Fails(NewObject, n) ? nullptr : ::operator new(n);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void* operator new[](std::size_t n, const std::nothrow_t&) noexcept
try {
    return Fails(NewArray, n) ? nullptr : ::operator new[](n);
} catch (const std::bad_alloc&) {
    return nullptr;
}

extern "C" void* calloc(std::size_t nmemb, std::size_t size) noexcept
{
    std::size_t bytes;
    if (__builtin_mul_overflow(nmemb, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (Fails(Calloc, bytes))
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
