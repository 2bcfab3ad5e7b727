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
    static unsigned char lobyte(unsigned short x) { return static_cast<unsigned char>(x & 0xFF); }
    static unsigned char hibyte(unsigned short x) { return static_cast<unsigned char>(x >> 8); }
    static unsigned short loword(unsigned long x) { return static_cast<unsigned short>(x & 0xFFFF); }
    /// Bits 16 to 31.
    static unsigned short hiword(unsigned long x) { return static_cast<unsigned short>(x >> 16 & 0xFFFF); }
    /// The bytes, 2 respectively 4, in reverse order.
    static unsigned short swap(unsigned short x) { return static_cast<unsigned short>(lobyte(x) << 8 | hibyte(x)); }
    static unsigned long swap(unsigned long x)
    {
        return static_cast<unsigned long>(swap(loword(x))) << 16 | swap(hiword(x));
    }

    /// From host to network order and back: swap, whatever the order of the host. This is intended; only on a
    /// little-endian host is the result in network order.
    static unsigned short htons(unsigned short x) { return swap(x); }
    static unsigned short htons(short x) { return swap(static_cast<unsigned short>(x)); }
    static unsigned short ntohs(unsigned short x) { return swap(x); }
    static unsigned short ntohs(short x) { return swap(static_cast<unsigned short>(x)); }
    static unsigned long htonl(unsigned long x) { return swap(x); }
    static unsigned long htonl(long x) { return swap(static_cast<unsigned long>(x)); }
    static unsigned long ntohl(unsigned long x) { return swap(x); }
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
    void put(short x) override { put16(static_cast<uint16_t>(x)); }
    void put(int x) override { put32(static_cast<uint32_t>(x)); }
    void put(long x) override { put32(static_cast<uint32_t>(x)); }
    void put(unsigned short x) override { put16(x); }
    void put(unsigned int x) override { put32(x); }
    void put(unsigned long x) override { put32(static_cast<uint32_t>(x)); }
    ~onfstream() override;

protected:
    uint16_t buffer_short; // the last 16-bit and 32-bit numbers put, as written
    uint32_t buffer_long;
    uint8_t buffer_char; // for the characters of derived streams

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
    void get(short& x) override { x = static_cast<int16_t>(get16()); }
    void get(int& x) override { x = static_cast<int32_t>(get32()); }
    void get(long& x) override { x = static_cast<int32_t>(get32()); } // through 32 bits, for the sign
    void get(unsigned short& x) override { x = get16(); }
    void get(unsigned int& x) override { x = get32(); }
    void get(unsigned long& x) override { x = get32(); }
    ~infstream() override;

protected:
    uint16_t buffer_short; // the last 16-bit and 32-bit numbers, as read
    uint32_t buffer_long;

private:
    uint16_t get16();
    uint32_t get32();
};

#endif
