#include "Misc/unixproc/output.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "Misc/buffer.h"
#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

CollectedOutput::~CollectedOutput() { std::free(block); }

ssize_t CollectedOutput::ReadFrom(int fd)
{
    // The spare block takes what there is no room for: the block need not grow only to find the end.
    const bool hasRoom = capacity - used >= BlockSize;
    const ssize_t n = read(fd, hasRoom ? block + used : spare, BlockSize);
    if (n <= 0)
        return n;
    const std::size_t size = static_cast<std::size_t>(n);
    if (!hasRoom) {
        if (!MakeRoom(size))
            return n;
        std::memcpy(block + used, spare, size);
    }
    used += size;
    return n;
}

void CollectedOutput::HandTo(Buffer& output)
{
    if (used == 0)
        return;
    Grow(used); // the size of a buffer is the size of its block
    output.AssignPtr(block, static_cast<unsigned>(used));
    block = nullptr;
    used = capacity = 0;
}

// Doubles a block without room for `size` more bytes; with little memory left, takes just these.
bool CollectedOutput::MakeRoom(std::size_t size)
{
    const std::size_t needed = used + size;
    if (needed <= capacity)
        return true;
    if (needed > UINT32_MAX) // no Buffer holds more
        return false;
    return Grow(std::max(2 * capacity, 4 * BlockSize)) || Grow(needed);
}

bool CollectedOutput::Grow(std::size_t size)
{
    const svr4::SavedErrno savedErrno;
    char* grown = static_cast<char*>(std::realloc(block, size));
    if (grown == nullptr)
        return false;
    block = grown;
    capacity = size;
    return true;
}

} // namespace zeloo
