// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ZELstream.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstring>
#include <istream>
#include <limits>
#include <new>
#include <ostream>
#include <type_traits>

#include "Misc/buffer.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ZELstream.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const unsigned StagingSize = 1024;
static const unsigned LongestNumber =
    24; // a sign and 19 digits, or 20 digits; the delimiter, of two characters at most
static const unsigned LongestChunk = 2147483647; // of one read or write on a standard stream

template <class N, unsigned Size>
void ZELostream::putNumber(N n, const char (&delimiter)[Size])
{
    if (mystrm != nullptr) {
        *mystrm << n << '|';
        return;
    }
    char text[LongestNumber];
    // In its place, but where it might not fit: from there the shorter of them are staged all the same.
    const bool isInPlace = stagingSize - localbufpos >= LongestNumber;
    char* const start = isInPlace ? staging + localbufpos : text;
    char* end = std::to_chars(start, start + LongestNumber, n).ptr;
    std::memcpy(end, delimiter, Size - 1);
    end += Size - 1;
    if (isInPlace)
        localbufpos += static_cast<uint32_t>(end - start);
    else
        localbuf_add(text, static_cast<unsigned>(end - text));
}

void ZELostream::put(char c)
{
    if (mystrm != nullptr)
        mystrm->put(c);
    else
        localbuf_add(&c, 1);
}

// Not by way of an overriding put(char).
void ZELostream::put(unsigned char c) { ZELostream::put(static_cast<char>(c)); }

void ZELostream::put(short n) { putNumber(n, "|"); }
void ZELostream::put(int n) { putNumber(n, "|"); }
void ZELostream::put(long n) { putNumber(n, "|"); }
void ZELostream::put(unsigned short n) { putNumber(n, "|"); }
void ZELostream::put(unsigned int n) { putNumber(n, "|"); }
void ZELostream::put(unsigned long n) { putNumber(n, "l|"); } // the `l` is intended

ZELostream::~ZELostream()
{
    flush();
    delete localbuf;
}

int ZELostream::write(const char* p, unsigned n)
{
    if (mystrm != nullptr) {
        const unsigned first = std::min(n, LongestChunk);
        mystrm->write(p, first);
        if (first < n)
            mystrm->write(p + first, n - first);
    } else {
        localbuf_add(p, n);
    }
    return static_cast<int>(n);
}

ZELostream::ZELostream(std::ostream& s)
    : mystrm(&s), buf(nullptr), localbufpos(0), localbuf(nullptr), staging(nullptr), stagingSize(0)
{
}

ZELostream::ZELostream(Buffer& theBuf)
    : mystrm(nullptr), buf(&theBuf), localbufpos(0), localbuf(new (std::nothrow) Buffer(StagingSize))
{
    findStaging();
}

void ZELostream::localbuf_add(const void* p, const unsigned n)
{
    if (n >= stagingSize - localbufpos || p == nullptr) { // so that there is a place
        stageElsewhere(p, n);
        return;
    }
    std::memcpy(staging + localbufpos, p, n);
    localbufpos += n;
}

// Stages what does not fit behind the bytes that are staged.
void ZELostream::stageElsewhere(const void* p, unsigned n)
{
    if (localbuf == nullptr) { // no memory for it
        buf->Append(p, n);
        return;
    }
    if (uint64_t{localbufpos} + n > localbuf->Size())
        flush();
    localbuf->PutDataAt(localbufpos, p, n);
    findStaging();
    if (uint64_t{localbufpos} + n <= localbuf->Size())
        localbufpos += n;
    else
        buf->Append(p, n); // the staging area is empty and cannot grow
}

void ZELostream::findStaging()
{
    stagingSize = localbuf != nullptr ? localbuf->Size() : 0;
    staging = stagingSize != 0 ? &(*localbuf)[0u] : nullptr;
}

void ZELostream::flush()
{
    if (mystrm != nullptr) {
        mystrm->flush();
    } else if (localbufpos != 0) {
        buf->Append(localbuf->operator const void*(), localbufpos);
        localbufpos = 0;
    }
}

int ZELostream::good() { return mystrm == nullptr || mystrm->good(); }

// Stores the number of the text from `at` to `end` as sscanf would; returns its end, or null when there is none.
template <class N>
static const char* ParseNumber(const char* at, const char* end, N& n)
{
    while (at != end && std::isspace(static_cast<unsigned char>(*at)))
        at++;
    const bool isNegative = at != end && *at == '-';
    if (at != end && (*at == '-' || *at == '+'))
        at++;
    unsigned long magnitude = 0;
    const std::from_chars_result digits = std::from_chars(at, end, magnitude);
    if (digits.ec == std::errc::invalid_argument)
        return nullptr;
    const bool isTooLarge = digits.ec == std::errc::result_out_of_range;
    if (std::is_signed<N>::value) {
        const unsigned long limit = isNegative ? -static_cast<unsigned long>(LONG_MIN) : LONG_MAX;
        if (isTooLarge || magnitude > limit)
            magnitude = limit;
    } else if (isTooLarge) {
        n = static_cast<N>(ULONG_MAX); // whatever the sign
        return digits.ptr;
    }
    n = static_cast<N>(isNegative ? -magnitude : magnitude);
    return digits.ptr;
}

// The same for what a ZELostream writes of any but the largest numbers: a sign at most, digits that every `long` has room
// for, and the delimiter. Null for all else.
template <class N>
static const char* ParsePlainNumber(const char* at, const char* end, N& n)
{
    const bool isNegative = at != end && *at == '-';
    at += isNegative;
    const int most = std::numeric_limits<long>::digits10;
    const char* const longest = end - at > most ? at + most + 1 : end;
    unsigned long magnitude = 0;
    const char* digit = at;
    for (; digit != longest && static_cast<unsigned char>(*digit - '0') <= 9; digit++)
        magnitude = magnitude * 10 + static_cast<unsigned char>(*digit - '0');
    if (digit == at || digit == longest || *digit != '|')
        return nullptr;
    n = static_cast<N>(isNegative ? -magnitude : magnitude);
    return digit;
}

template <class N>
void ZEListream::getNumber(N& n)
{
    if (mystrm != nullptr) {
        char delimiter;
        *mystrm >> n >> delimiter;
        return;
    }
    if (position >= buf->Size())
        return;
    const char* start = static_cast<const char*>(buf->operator const void*());
    const char* end = start + buf->Size();
    const char* at = ParsePlainNumber(start + position, end, n);
    if (at == nullptr)
        at = ParseNumber(start + position, end, n);
    if (at != nullptr && at != end && *at == '|')
        position = static_cast<uint32_t>(at + 1 - start);
}

void ZEListream::get(char& c)
{
    if (mystrm != nullptr)
        mystrm->get(c);
    else
        read(&c, 1);
}

void ZEListream::get(unsigned char& c) { ZEListream::get(reinterpret_cast<char&>(c)); }

void ZEListream::get(short& n) { getNumber(n); }
void ZEListream::get(int& n) { getNumber(n); }
void ZEListream::get(long& n) { getNumber(n); }
void ZEListream::get(unsigned short& n) { getNumber(n); }
void ZEListream::get(unsigned int& n) { getNumber(n); }
void ZEListream::get(unsigned long& n) { getNumber(n); }

ZEListream::~ZEListream() {}

int ZEListream::read(char* p, unsigned n)
{
    if (mystrm != nullptr) {
        const unsigned first = std::min(n, LongestChunk);
        mystrm->read(p, first);
        std::streamsize got = mystrm->gcount();
        if (first < n) {
            mystrm->read(p + first, n - first);
            got += mystrm->gcount();
        }
        return static_cast<int>(got);
    }
    const uint32_t size = buf->Size();
    if (position < size && n <= size - position && p != nullptr) {
        std::memmove(p, static_cast<const char*>(buf->operator const void*()) + position, n);
        position += n;
        return static_cast<int>(n);
    }
    const uint32_t available = size - position + 1; // one more than there are, in 32 bits: intended
    const uint32_t count = std::min(n, available);
    const uint32_t inside = position < size ? std::min(count, size - position) : 0;
    buf->GetDataAt(position, p, inside);
    if (inside < count)
        std::memset(p + inside, (*buf)[size], count - inside); // the spare byte
    position += count;
    return static_cast<int>(count);
}

ZEListream::ZEListream(std::istream& s) : read_error(0), mystrm(&s), buf(nullptr), position(0) {}

ZEListream::ZEListream(Buffer& theBuf) : read_error(0), mystrm(nullptr), buf(&theBuf), position(0) {}

unsigned ZEListream::tellg()
{
    return mystrm == nullptr ? position : static_cast<unsigned>(static_cast<std::streamoff>(mystrm->tellg()));
}

void ZEListream::seekg(long offset, seek_dir dir)
{
    if (mystrm != nullptr)
        mystrm->seekg(offset, dir);
    else
        position = static_cast<uint32_t>(offset);
}

int ZEListream::good() { return read_error == 0 && (mystrm == nullptr || mystrm->good()); }

int ZEListream::eof()
{
    if (mystrm != nullptr)
        return mystrm->eof();
    return position > buf->Size();
}
