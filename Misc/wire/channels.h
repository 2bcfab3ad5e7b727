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

// First blocks, and events of one block, travel on the channel that is their receiver's process id.

/// The channel of a receiver's acknowledgement for a sender, by their process ids.
constexpr long AckChannel(long sender, long receiver) { return 0x0EFFFFFFL - sender + receiver; }

/// The channel of the blocks after the first. Pairs whose ids differ by the same number share both channels, so a
/// record on them belongs to a transfer only when its sender is the partner.
constexpr long DataChannel(long sender, long receiver) { return 0x0FFFFFFFL - sender + receiver; }

} // namespace zeloo::wire

#endif
