// SPDX-License-Identifier: BSD-2-Clause
// Object streams in network order: numbers as big-endian bytes of a fixed width, without delimiters.
#ifndef MISC_NFSTREAM_H
#define MISC_NFSTREAM_H

#include <cstdint>
#include <iosfwd>

#include "Misc/ZELstream.h"
#include "Misc/export.h"

// The host's header may define these names as macros too, which would replace them in `ByteAccess::htons(x)`, here
// and in whoever includes this. It is read first, so that it cannot bring them back later; the plain names mean its
// functions from here on.
#include <netinet/in.h>
#undef htons
#undef ntohs
#undef htonl
#undef ntohl

/// Byte order operations. Each takes its argument as unsigned and gives an unsigned result, the signed forms too:
/// whoever wants the sign back converts to a signed type of the width. A `long` stands for its low 32 bits, and what
/// is above them is 0 in the result.
class ZELOO_API ByteAccess {
public:
    /// Bits 0 to 7.
    static unsigned char lobyte(unsigned short x) { return static_cast<unsigned char>(x & 0xFF); }
    /// Bits 8 to 15.
    static unsigned char hibyte(unsigned short x) { return static_cast<unsigned char>(x >> 8); }
    /// Bits 0 to 15.
    static unsigned short loword(unsigned long x) { return static_cast<unsigned short>(x & 0xFFFF); }
    /// Bits 16 to 31.
    static unsigned short hiword(unsigned long x) { return static_cast<unsigned short>(x >> 16 & 0xFFFF); }
    /// The two bytes in reverse order.
    static unsigned short swap(unsigned short x) { return static_cast<unsigned short>(lobyte(x) << 8 | hibyte(x)); }
    /// The low four bytes in reverse order.
    static unsigned long swap(unsigned long x)
    {
        return static_cast<unsigned long>(swap(loword(x))) << 16 | swap(hiword(x));
    }

    /// From host to network order: swap, whatever the order of the host. This is intended, here and in the operations
    /// below; only on a little-endian host is the result in network order.
    static unsigned short htons(unsigned short x) { return swap(x); }
    /// The same for the bits of a signed number.
    static unsigned short htons(short x) { return swap(static_cast<unsigned short>(x)); }
    /// From network to host order: swap.
    static unsigned short ntohs(unsigned short x) { return swap(x); }
    /// The same for the bits of a signed number.
    static unsigned short ntohs(short x) { return swap(static_cast<unsigned short>(x)); }
    /// From host to network order, four bytes: swap.
    static unsigned long htonl(unsigned long x) { return swap(x); }
    /// The same for the low 32 bits of a signed number.
    static unsigned long htonl(long x) { return swap(static_cast<unsigned long>(x)); }
    /// From network to host order, four bytes: swap.
    static unsigned long ntohl(unsigned long x) { return swap(x); }
    /// The same for the low 32 bits of a signed number.
    static unsigned long ntohl(long x) { return swap(static_cast<unsigned long>(x)); }
};

/// Writes objects to an ostream in network order: the 16-bit types as 2 bytes, `int`, `long` and their unsigned forms
/// as 4, the most significant first, on every host; characters and runs of bytes as they are. A number beyond 32 bits
/// is cut to its low 32. A CString is thus its length in 2 bytes and its characters.
class ZELOO_API onfstream : public ZELostream, public ByteAccess {
public:
    /// Writes to `ostrm`, which must outlive the stream. Failures show in its state, and so in good().
    explicit onfstream(std::ostream& ostrm);
    using ZELostream::put; // characters
    /// Writes 2 bytes.
    void put(short x) override { put16(static_cast<uint16_t>(x)); }
    /// Writes 4 bytes.
    void put(int x) override { put32(static_cast<uint32_t>(x)); }
    /// Writes 4 bytes: the low 32 bits.
    void put(long x) override { put32(static_cast<uint32_t>(x)); }
    /// Writes 2 bytes.
    void put(unsigned short x) override { put16(x); }
    /// Writes 4 bytes.
    void put(unsigned int x) override { put32(x); }
    /// Writes 4 bytes: the low 32 bits.
    void put(unsigned long x) override { put32(static_cast<uint32_t>(x)); }
    ~onfstream() override;

protected:
    uint16_t buffer_short; ///< The last 16-bit number put, as written.
    uint32_t buffer_long;  ///< The last 32-bit number put, as written.
    uint8_t buffer_char;   ///< For the characters of derived streams.

private:
    void put16(uint16_t x);
    void put32(uint32_t x);
};

/// Reads what an onfstream wrote, from an istream. Negative numbers of the signed types come back negative. A number
/// that the source holds only in part has zeros in place of the missing bytes, so that one of which there is nothing
/// is 0: the target never keeps its value. That bytes were missing shows in the state of the istream, and so in good().
class ZELOO_API infstream : public ZEListream, public ByteAccess {
public:
    /// Reads from `istrm`, which must outlive the stream.
    explicit infstream(std::istream& istrm);
    using ZEListream::get; // characters
    /// Reads 2 bytes.
    void get(short& x) override { x = static_cast<int16_t>(get16()); }
    /// Reads 4 bytes.
    void get(int& x) override { x = static_cast<int32_t>(get32()); }
    /// Reads 4 bytes, whose sign bit is that of the number.
    void get(long& x) override { x = static_cast<int32_t>(get32()); } // through 32 bits, for the sign
    /// Reads 2 bytes.
    void get(unsigned short& x) override { x = get16(); }
    /// Reads 4 bytes.
    void get(unsigned int& x) override { x = get32(); }
    /// Reads 4 bytes; the number is never negative, nor above 4294967295.
    void get(unsigned long& x) override { x = get32(); }
    ~infstream() override;

protected:
    uint16_t buffer_short; ///< The last 16-bit number, as read.
    uint32_t buffer_long;  ///< The last 32-bit number, as read.

private:
    uint16_t get16();
    uint32_t get32();
};

#endif
