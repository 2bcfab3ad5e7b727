// SPDX-License-Identifier: BSD-2-Clause
// A word of 32 flags that can be set from words such as "on" and "off".
#ifndef MISC_BITFLAGS_H
#define MISC_BITFLAGS_H

#include <cstdint>
#include <ostream>

#include "Misc/export.h"

class ZEListream;
class ZELostream;

/// The mask of each flag; masks of several flags are joined with |.
enum FlagMasks : uint32_t {
    f1 = 0x1,
    f2 = 0x2,
    f3 = 0x4,
    f4 = 0x8,
    f5 = 0x10,
    f6 = 0x20,
    f7 = 0x40,
    f8 = 0x80,
    f9 = 0x100,
    f10 = 0x200,
    f11 = 0x400,
    f12 = 0x800,
    f13 = 0x1000,
    f14 = 0x2000,
    f15 = 0x4000,
    f16 = 0x8000,
    f17 = 0x10000,
    f18 = 0x20000,
    f19 = 0x40000,
    f20 = 0x80000,
    f21 = 0x100000,
    f22 = 0x200000,
    f23 = 0x400000,
    f24 = 0x800000,
    f25 = 0x1000000,
    f26 = 0x2000000,
    f27 = 0x4000000,
    f28 = 0x8000000,
    f29 = 0x10000000,
    f30 = 0x20000000,
    f31 = 0x40000000,
    f32 = 0x80000000
};

/// Flags f1 to f32, all clear at first. A mask may name several flags; bits of a mask above the 32nd are ignored.
class ZELOO_API BitFlags {
public:
    /// All flags clear.
    BitFlags() : myFlagBits(0) {}

    /// Clears all flags.
    void Clear() { myFlagBits = 0; }
    /// Sets the flags of `mask`.
    void SetFlag(unsigned long mask) { myFlagBits |= static_cast<uint32_t>(mask); }
    /// Clears the flags of `mask`.
    void ResetFlag(unsigned long mask) { myFlagBits &= ~static_cast<uint32_t>(mask); }
    /// Inverts each flag of `mask`.
    void ToggleFlag(unsigned long mask) { myFlagBits ^= static_cast<uint32_t>(mask); }
    /// The flags of `mask` that are set; 0 when none is.
    unsigned long GetFlag(unsigned long mask) const { return myFlagBits & mask; }
    /// "on" and "true" set the flags of `mask`, "off" and "false" clear them; any other text, one in other letter
    /// case included, changes nothing. Gives GetFlag(mask).
    unsigned long SetFlagViaString(unsigned long mask, const char* s);
    /// The whole word.
    operator unsigned long() const { return myFlagBits; }

    /// Writes the word in decimal, on a line of its own.
    void dumpOn(std::ostream& os) const;

    /// Writes the word as one unsigned long.
    void printOn(ZELostream& s) const;
    /// Reads the word as one unsigned long; it stays as it is when the stream stores nothing. What was written to a
    /// Buffer is read too, but the stream then stays in front of it (see ZEListream::get(unsigned long&)).
    void scanFrom(ZEListream& s);

private:
    uint32_t myFlagBits;
};

/// Writes the word with printOn.
inline ZELostream& operator<<(ZELostream& s, const BitFlags& flags) { return flags.printOn(s), s; }
/// Reads the word with scanFrom.
inline ZEListream& operator>>(ZEListream& s, BitFlags& flags) { return flags.scanFrom(s), s; }

#endif
