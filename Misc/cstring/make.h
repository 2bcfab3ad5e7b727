// SPDX-License-Identifier: BSD-2-Clause
// How the representation of a string is made: by each edit, and so inline.
#ifndef MISC_CSTRING_MAKE_H
#define MISC_CSTRING_MAKE_H

#include <cstddef>
#include <cstdint>
#include <new>

#include "Misc/cstring.h"

namespace zeloo {

/// The longest text that lies in one block with its representation. An allocator hands out blocks of up to one KB much
/// faster than larger ones: a text that just fits is not to be made too long by what stands before it.
constexpr uint64_t LongestInside = 1000;

} // namespace zeloo

inline CStringRep* CStringRep::make(uint64_t n)
{
    if (n > zeloo::LongestInside)
        return makeLong(n);
    void* block = ::operator new(sizeof(CStringRep) + static_cast<std::size_t>(n) + 1, std::nothrow);
    if (block == nullptr)
        return nullptr;
    char* text = static_cast<char*>(block) + sizeof(CStringRep);
    text[n] = '\0';
    return new (block) CStringRep(text, static_cast<uint32_t>(n), false);
}

#endif
