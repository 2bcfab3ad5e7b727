// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/blocks.h"

#include <algorithm>

[[maybe_unused]] static const char* ModuleId() { return "$Id: blocks.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

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

// Whether a block is sound by itself.
static bool IsSound(const Block& block)
{
    return block.offset >= 0 && block.length >= 0 && block.partsLeft >= 0 && block.partsLeft <= MostPartsLeft &&
           int64_t(block.offset) + block.length <= block.total && (!block.isInline || block.length <= MostInlineData);
}

// Where an event stands with this block.
static Gatherer::Result Standing(const Block& block, int64_t partsMissing, int64_t bytesMissing)
{
    if (partsMissing == 0)
        return bytesMissing == 0 ? Gatherer::Whole : Gatherer::Misfit;
    // Who sends data within records goes on so; blocks in segments can be of any length.
    return block.isInline && bytesMissing > partsMissing * MostInlineData ? Gatherer::Misfit : Gatherer::More;
}

Gatherer::Result Gatherer::Judge(const Block& first)
{
    if (!IsSound(first) || (first.total == 0 && first.partsLeft > 0))
        return Misfit;
    return Standing(first, first.partsLeft, int64_t(first.total) - first.length);
}

Gatherer::Result Gatherer::Begin(const Block& first)
{
    parts.Clear();
    bytes.Clear();
    total = first.total;
    partCount = first.partsLeft + 1;
    const Result result = Judge(first);
    return result == Misfit ? Misfit : Take(first);
}

Gatherer::Result Gatherer::Add(const Block& block)
{
    if (!IsSound(block) || block.total != total || block.partsLeft >= partCount)
        return Misfit;
    return Take(block);
}

Gatherer::Result Gatherer::Take(const Block& block)
{
    Ranges::Result result = parts.Add(block.partsLeft, block.partsLeft + 1);
    if (result == Ranges::Added)
        result = bytes.Add(block.offset, block.offset + block.length);
    if (result != Ranges::Added)
        return result == Ranges::NoMemory ? NoMemory : Misfit;

    return Standing(block, partCount - parts.Count(), total - bytes.Count());
}

} // namespace zeloo::wire
