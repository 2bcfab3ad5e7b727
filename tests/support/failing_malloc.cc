// SPDX-License-Identifier: BSD-2-Clause
// malloc, realloc and the throwing forms of new that fail on demand, for the programs that are built with this file. A sanitizer has its own.
#include <cstdlib>
#include <new>

#include "tests/support/failing_memory.h"

using namespace testing_support;

#ifndef __SANITIZE_ADDRESS__

// The allocator of the C library under its own names.
extern "C" void* __libc_malloc(std::size_t size) noexcept;               // NOLINT(bugprone-reserved-identifier)
extern "C" void* __libc_realloc(void* block, std::size_t size) noexcept; // NOLINT(bugprone-reserved-identifier)

extern "C" void* malloc(std::size_t size) noexcept
{
    return AllocationFails(Malloc, size) ? nullptr : __libc_malloc(size);
}

extern "C" void* realloc(void* ptr, std::size_t size) noexcept
{
    return AllocationFails(Realloc, size) ? nullptr : __libc_realloc(ptr, size);
}

void* operator new(std::size_t size)
{
    void* block = AllocationFails(ThrowingNew, size) ? nullptr : __libc_malloc(size > 0 ? size : 1);
    return block != nullptr ? block : throw std::bad_alloc();
}

void* operator new[](std::size_t size) { return ::operator new(size); }

void operator delete(void* block) noexcept { std::free(block); }

void operator delete[](void* block) noexcept { std::free(block); }

void operator delete(void* block, std::size_t) noexcept { std::free(block); }

void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

#endif
