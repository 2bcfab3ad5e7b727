// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/nfstream.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: nfstream.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Where htons and its kind, which always reverse the bytes, give network order.
static const bool HostIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

onfstream::onfstream(std::ostream& ostrm) : ZELostream(ostrm), buffer_short(0), buffer_long(0), buffer_char(0) {}

onfstream::~onfstream() {}

void onfstream::put16(uint16_t x)
{
    buffer_short = HostIsLittleEndian ? htons(x) : x;
    write(reinterpret_cast<const char*>(&buffer_short), sizeof buffer_short);
}

void onfstream::put32(uint32_t x)
{
    buffer_long = HostIsLittleEndian ? static_cast<uint32_t>(htonl(static_cast<unsigned long>(x))) : x;
    write(reinterpret_cast<const char*>(&buffer_long), sizeof buffer_long);
}

infstream::infstream(std::istream& istrm) : ZEListream(istrm), buffer_short(0), buffer_long(0) {}

infstream::~infstream() {}

uint16_t infstream::get16()
{
    buffer_short = 0; // what a short read leaves
    read(reinterpret_cast<char*>(&buffer_short), sizeof buffer_short);
    return HostIsLittleEndian ? ntohs(buffer_short) : buffer_short;
}

uint32_t infstream::get32()
{
    buffer_long = 0;
    read(reinterpret_cast<char*>(&buffer_long), sizeof buffer_long);
    return HostIsLittleEndian ? static_cast<uint32_t>(ntohl(static_cast<unsigned long>(buffer_long))) : buffer_long;
}
