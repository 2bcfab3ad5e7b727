#include "Misc/wire/cutter.h"

#include <algorithm>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: cutter.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo::wire {

Cutter::Cutter(int32_t total, int32_t blockSize)
    : size(blockSize), block{total, 0, std::min(total, blockSize), total / blockSize, true}
{
}

void Cutter::Advance()
{
    block.partsLeft--;
    block.offset += block.length;
    block.length = std::min(block.total - block.offset, size);
}

} // namespace zeloo::wire
