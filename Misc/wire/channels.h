// SPDX-License-Identifier: BSD-2-Clause
// The channels of a queue and the reserved events: who reads what.
#ifndef MISC_WIRE_CHANNELS_H
#define MISC_WIRE_CHANNELS_H

#include <cstdint>

namespace zeloo::wire {

/// The event of the record that acknowledges the first of several blocks.
constexpr int16_t MultiBlockAck = static_cast<int16_t>(0xFFFE);
/// The event of every block after the first.
constexpr int16_t MultiBlockData = static_cast<int16_t>(0xFFFD);
/// On a connection: the server is going.
constexpr int16_t ServerGoing = static_cast<int16_t>(0xFFFF);

// First blocks, and events of one block, travel on the channel that is their receiver's process id. The two channels of a
// transfer of several blocks lie beside these numbers. Pairs whose ids differ by the same number share both channels: a
// record on them belongs to a transfer only when its sender is the partner.

constexpr long AckBase = 0x0EFFFFFFL;
constexpr long DataBase = 0x0FFFFFFFL;

/// The channel of a receiver's acknowledgement for a sender, by their process ids.
constexpr long AckChannel(long sender, long receiver) { return AckBase - sender + receiver; }

/// The channel of the blocks after the first.
constexpr long DataChannel(long sender, long receiver) { return DataBase - sender + receiver; }

/// The process for which `from` has put a record on a channel, whichever it is.
constexpr long Addressee(long channel, long from)
{
    constexpr long Reach = (DataBase - AckBase) / 2; // further than any two process ids lie apart
    if (channel < AckBase - Reach)
        return channel;
    return channel < AckBase + Reach ? from - (channel - AckBase) : from + (channel - DataBase);
}

} // namespace zeloo::wire

#endif
