// A block: one record's share of an event's data.
#ifndef MISC_WIRE_BLOCK_H
#define MISC_WIRE_BLOCK_H

#include <cstdint>

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

} // namespace zeloo::wire

#endif
