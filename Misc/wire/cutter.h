// Cutting the data of an event into blocks.
#ifndef MISC_WIRE_CUTTER_H
#define MISC_WIRE_CUTTER_H

#include "Misc/wire/block.h"

namespace zeloo::wire {

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

} // namespace zeloo::wire

#endif
