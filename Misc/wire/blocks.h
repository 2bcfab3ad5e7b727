// SPDX-License-Identifier: BSD-2-Clause
// The data of an event as blocks: one record's share each. Cutting, and gathering in whatever order they come.
#ifndef MISC_WIRE_BLOCKS_H
#define MISC_WIRE_BLOCKS_H

#include <cstdint>

#include "Misc/wire/ranges.h"

namespace zeloo::wire {

/// The most bytes of data within a record, of either kind.
constexpr int32_t MostInlineData = 1700;
/// The most blocks that can follow a block: their number travels in 16 bits.
constexpr int32_t MostPartsLeft = INT16_MAX;

/// What a record says of its data. Nothing of it is to be trusted before a Gatherer has taken it.
struct Block {
    int32_t total;     // bytes of the event's data over all blocks
    int32_t offset;    // of this block's data within the event's
    int32_t length;    // bytes of this block's data
    int32_t partsLeft; // blocks that follow this one; so it numbers the blocks of an event, down to 0
    bool isInline;     // the data lies in the record: such a block carries MostInlineData at most
};

/// The blocks of one event, one after the other. The number of blocks is not rounded up: data whose length is a
/// multiple of the block size ends with an empty block, on which receivers rely.
class Cutter {
public:
    /// The longest data that blocks of this size can carry.
    static constexpr int64_t LongestData(int32_t blockSize) { return (MostPartsLeft + int64_t(1)) * blockSize - 1; }

    /// REQUIRES: `blockSize` is from 1 to MostInlineData, `total` from 0 to LongestData(`blockSize`).
    Cutter(int32_t total, int32_t blockSize);

    /// Whether the event needs more than one block.
    bool HasSeveral() const { return size <= block.total; }
    /// Whether all blocks have been passed.
    bool IsDone() const { return block.partsLeft < 0; }
    /// The block that is to be sent now. REQUIRES: not IsDone.
    const Block& Current() const { return block; }
    /// Goes on to the next block.
    void Advance();

private:
    int32_t size;
    Block block;
};

/// Keeps account of which blocks of one event have come. The first to come says how many there are and how long the
/// data is; each of the others, and each byte, must come once, in whatever order. Where the bytes of a block go is the
/// caller's business: its own offset, which lies within the total once the block has been taken.
class Gatherer {
public:
    enum Result {
        Whole,   // that was the last one: every part and every byte has come
        More,    // others have to come
        Misfit,  // the block contradicts itself or those before it, or the rest cannot come any more
        NoMemory // there is no memory for the account
    };

    /// What Begin gives for a block, as long as there is memory.
    static Result Judge(const Block& first);
    /// Begins an event with the block that came first; what was there before is forgotten.
    Result Begin(const Block& first);
    /// Takes another block. After a Misfit or NoMemory the event is to be given up.
    Result Add(const Block& block);

private:
    Result Take(const Block& block);

    int32_t total = 0;
    int32_t partCount = 0;
    Ranges parts; // the numbers of the parts that came
    Ranges bytes; // the places of the bytes that came
};

} // namespace zeloo::wire

#endif
