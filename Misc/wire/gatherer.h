// Gathering the blocks of an event, whatever their order.
#ifndef MISC_WIRE_GATHERER_H
#define MISC_WIRE_GATHERER_H

#include "Misc/wire/block.h"
#include "Misc/wire/ranges.h"

namespace zeloo::wire {

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
