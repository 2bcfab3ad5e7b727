// Room for the texts of strings.
#ifndef MISC_CSTRING_ROOM_H
#define MISC_CSTRING_ROOM_H

#include <cstddef>
#include <cstdint>
#include <new>

namespace zeloo {

/// Room for a text of `n` characters and its terminator, not filled; the caller releases it with delete[]. Null when
/// memory fails, and for a length that does not fit the 32 bits in which lengths are kept.
inline char* NewRoom(uint64_t n)
{
    return n < UINT32_MAX ? new (std::nothrow) char[static_cast<std::size_t>(n) + 1] : nullptr;
}

} // namespace zeloo

#endif
