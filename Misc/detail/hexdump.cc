// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/hexdump.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

[[maybe_unused]] static const char* ModuleId() { return "$Id: hexdump.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

char* PutByteRow(char* to, const unsigned char* bytes, unsigned count)
{
    for (unsigned i = 0; i < count; i++) {
        to = PutHexByte(to, bytes[i]);
        *to++ = ' ';
    }
    to = std::fill_n(to, 3 * (BytesInRow - count) + 1, ' ');
    return std::transform(bytes, bytes + count, to, Printable);
}

char* PutWordRow(char* to, const unsigned char* bytes)
{
    for (unsigned i = 0; i < BytesInRow; i += sizeof(uint32_t)) {
        uint32_t word;
        std::memcpy(&word, bytes + i, sizeof word);
        for (int shift = 24; shift >= 0; shift -= 8)
            to = PutHexByte(to, static_cast<unsigned char>(word >> shift));
        *to++ = ' ';
    }
    *to++ = '[';
    to = std::transform(bytes, bytes + BytesInRow, to, [](unsigned char byte) { return Printable(byte & 0x7f); });
    *to++ = ']';
    return to;
}

} // namespace zeloo
