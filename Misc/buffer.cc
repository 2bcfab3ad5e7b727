// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Misc/Error/report.h"
#include "Misc/cstring.h"
#include "Misc/detail/filestream.h"
#include "Misc/detail/hexdump.h"
#include "Misc/detail/text.h"

using zeloo::BytesInRow;

[[maybe_unused]] static const char* ModuleId() { return "$Id: buffer.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static char spareByte;       // what operator[] gives out of range
static char* scratchCString; // the last copy that GetCString made

Buffer::Buffer(unsigned Size) : AllocSize(0), ptr(nullptr) { ReSize(Size); }

Buffer::Buffer(const Buffer& buffer) : Buffer(buffer.Size()) { buffer.GetDataAt(0, ptr, AllocSize); }

Buffer::~Buffer() { PurgeContents(); }

void Buffer::PurgeContents()
{
    std::free(ptr);
    ptr = nullptr;
    AllocSize = 0;
}

void Buffer::dumpOn(std::ostream& out) const { hexdumpOn(ptr, AllocSize, out); }

void Buffer::ReSize(const unsigned Size)
{
    PurgeContents();
    ptr = Size != 0 ? std::malloc(Size) : nullptr;
    AllocSize = ptr != nullptr ? Size : 0;
}

char& Buffer::operator[](unsigned index) { return index < AllocSize ? static_cast<char*>(ptr)[index] : spareByte; }

const char& Buffer::operator[](unsigned index) const
{
    return index < AllocSize ? static_cast<const char*>(ptr)[index] : spareByte;
}

Buffer& Buffer::operator=(const Buffer& b)
{
    if (this != &b) {
        ReSize(b.Size());
        b.GetDataAt(0, ptr, AllocSize);
    }
    return *this;
}

// Copies `len` bytes to `pos`, growing the block first when it is smaller than `pos` + `len`.
void Buffer::store(unsigned pos, const void* cp, unsigned len)
{
    const uint64_t needed = uint64_t{pos} + len;
    if (needed > UINT32_MAX)
        return;
    const char* from = static_cast<const char*>(cp);
    if (needed > AllocSize) {
        // The bytes to copy may lie in the block that moves.
        constexpr uint32_t Outside = UINT32_MAX;
        const uintptr_t distance = reinterpret_cast<uintptr_t>(cp) - reinterpret_cast<uintptr_t>(ptr);
        const uint32_t offset = ptr != nullptr && distance < AllocSize ? static_cast<uint32_t>(distance) : Outside;
        void* grown = std::realloc(ptr, needed);
        if (grown == nullptr)
            return;
        ptr = grown;
        AllocSize = static_cast<uint32_t>(needed);
        if (offset != Outside)
            from = static_cast<const char*>(ptr) + offset;
    }
    if (len != 0)
        std::memmove(static_cast<char*>(ptr) + pos, from, len);
}

void Buffer::PutDataAt(const unsigned pos, const void* cp, const unsigned len)
{
    if (cp != nullptr || len == 0)
        store(pos, cp, len);
}

void Buffer::GetDataAt(const unsigned pos, void* cp, const unsigned len) const
{
    if (cp != nullptr && pos < AllocSize)
        std::memmove(cp, static_cast<const char*>(ptr) + pos, std::min(len, AllocSize - pos));
}

void Buffer::Append(const void* cp, const unsigned len)
{
    if (cp != nullptr && len != 0)
        store(AllocSize, cp, len);
}

void Buffer::Append(const char* cp)
{
    const size_t len = cp == nullptr ? 0 : std::strlen(cp);
    if (len <= UINT32_MAX)
        Append(static_cast<const void*>(cp), static_cast<unsigned>(len));
}

short Buffer::IsNullTerminated() const
{
    return AllocSize != 0 && static_cast<const char*>(ptr)[AllocSize - 1] == '\0';
}

const char* Buffer::GetCString() const
{
    if (IsNullTerminated())
        return static_cast<const char*>(ptr);
    std::free(scratchCString);
    scratchCString = static_cast<char*>(std::malloc(AllocSize + size_t{1}));
    if (scratchCString == nullptr)
        return "";
    GetDataAt(0, scratchCString, AllocSize);
    scratchCString[AllocSize] = '\0';
    return scratchCString;
}

void* Buffer::ReleasePtr()
{
    void* released = ptr;
    ptr = nullptr;
    AllocSize = 0;
    return released;
}

void Buffer::AssignPtr(void* newptr, unsigned ptrSize)
{
    if (newptr == nullptr || newptr != ptr)
        PurgeContents();
    ptr = newptr;
    AllocSize = newptr == nullptr ? 0 : ptrSize;
}

short Buffer::LoadBufferFromFile(const char* filename)
{
    PurgeContents();
    zeloo::InputFile in(filename);
    if (!in.is_open())
        return 0;
    const std::streamoff size = in.Size();
    if (size < 0 || size > UINT32_MAX)
        return 0;
    ReSize(static_cast<unsigned>(size));
    if (AllocSize != size)
        return 0;
    in.read(static_cast<char*>(ptr), size);
    const std::streamsize got = in.gcount();
    std::fill(static_cast<char*>(ptr) + got, static_cast<char*>(ptr) + size, '\0');
    return got == size;
}

short Buffer::LoadBufferFromFile(std::istream& in, unsigned len)
{
    PurgeContents();
    if (len == 0 || !in.good())
        return 0;
    ptr = std::calloc(len, 1);
    if (ptr == nullptr)
        return 0;
    BlockRead(ptr, len, in);
    AllocSize = len;
    return 0; // in every case: intended
}

short Buffer::SaveBufferToFile(const char* filename, short append)
{
    zeloo::OutputFile out(filename, append ? zeloo::OutputFile::Append : zeloo::OutputFile::Truncate);
    if (out.is_open() && AllocSize != 0)
        BlockWrite(ptr, AllocSize, out, 0);
    if (!out.fail())
        return 0;
    zeloo::Report(ErrorReporter::WARNING, ErrorReporter::WRITING_TO_FILE, errno, ZELOO_HERE, "%s",
                  zeloo::TextOrEmpty(filename));
    return ErrorReporter::WRITING_TO_FILE;
}

void Buffer::BlockRead(const void* data, unsigned len, std::istream& in)
{
    in.read(static_cast<char*>(const_cast<void*>(data)), len);
}

void Buffer::BlockWrite(const void* data, unsigned len, std::ostream& out, short ignore_nulls)
{
    const unsigned step = 512;
    const char* bytes = static_cast<const char*>(data);
    const size_t end = ignore_nulls && len > 0 ? strnlen(bytes, len) : len; // the block of an empty buffer is null
    for (size_t at = 0; at < len; at += step) {
        out.flush();
        if (at < end)
            out.write(bytes + at, static_cast<std::streamsize>(std::min<size_t>(step, end - at)));
    }
    out.flush();
}

void Buffer::hexdumpOn(const void* p, unsigned n, std::ostream& out)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    char offset[64];
    std::snprintf(offset, sizeof offset, "HexDump for %u (%04x) bytes\n0000: ", n, n);
    out << offset;
    for (uint64_t at = 0; at < n; at += BytesInRow) {
        const unsigned done = static_cast<unsigned>(at);
        if (done != 0)
            out.write(offset, std::snprintf(offset, sizeof offset, "%04x: ", done));
        char row[zeloo::RowTextLength + 1];
        char* end = zeloo::PutByteRow(row, bytes + done, std::min(n - done, BytesInRow));
        *end++ = '\n';
        out.write(row, end - row);
    }
    if (n % BytesInRow == 0) // behind a full row stands a line of one blank
        out << " \n";
}

void Buffer::hexdumpOn(const void* p, unsigned n, CString& out)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    // The first row's side column holds zero bytes and so adds no text; from then on it is filled with the byte
    // value 1, which frames the characters and stands where the last row has none. Both are intended.
    const size_t sideLength = BytesInRow + 2;
    char side[sideLength + 1] = "";

    const uint64_t rowLimit = BytesInRow * 5 + sideLength + 16;
    const uint64_t limit = 64 + (n / BytesInRow + 1) * rowLimit;
    std::unique_ptr<char[]> text(limit < PTRDIFF_MAX ? new (std::nothrow) char[static_cast<size_t>(limit)] : nullptr);
    if (text == nullptr) {
        out = "";
        return;
    }
    char* to = text.get() + std::snprintf(text.get(), 64, "HexDump for %u (%04x) bytes\r\n0000: ", n, n);
    for (size_t i = 0; i < n; i++) {
        to = std::copy_n("   ", 3, zeloo::PutHexByte(to, bytes[i]));
        side[1 + i % BytesInRow] = zeloo::Printable(bytes[i]);
        if (i % BytesInRow != BytesInRow - 1)
            continue;
        to = std::copy_n(side, std::strlen(side), to);
        if (i + 1 < n)
            to += std::snprintf(to, 16, "\r\n%04x: ", static_cast<unsigned>(i + 1));
        std::memset(side, 1, sideLength);
    }
    to = std::copy_n("      ", 6, to);
    to = std::copy_n(side, std::strlen(side), to);
    to = std::copy_n("\r\n", 2, to);
    *to = '\0';
    out = text.get();
}

short Buffer::IsASCIIData(const void* Data, const unsigned Length)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(Data);
    if (Length == 0 || bytes[Length - 1] != 0)
        return 0;
    return std::all_of(bytes, bytes + Length - 1, [](unsigned char byte) { return byte > 0 && byte < 128; });
}

unsigned char Buffer::FormHexByte(unsigned char LeftDigit, unsigned char RightDigit)
{
    return static_cast<unsigned char>(LeftDigit * 16 | (RightDigit & 15));
}

unsigned char Buffer::ASCIIByteToHex(unsigned char ASCIIByte)
{
    if (ASCIIByte >= '0' && ASCIIByte <= '9')
        return static_cast<unsigned char>(ASCIIByte - '0');
    if (ASCIIByte >= 'A' && ASCIIByte <= 'F')
        return static_cast<unsigned char>(ASCIIByte - 'A' + 10);
    return ASCIIByte == 'd' ? 4 : INVALID_BYTE; // the `d` is intended
}

unsigned char* Buffer::ASCIIToHex(const char* ASCIIData, const unsigned Length)
{
    if (!IsASCIIData(ASCIIData, Length))
        return nullptr;
    unsigned char* decoded = static_cast<unsigned char*>(std::malloc(Length / 2 + 2));
    if (decoded == nullptr)
        return nullptr;
    unsigned char* to = decoded;
    for (unsigned i = 0; i < Length; i += 2) {
        const unsigned char left = ASCIIByteToHex(static_cast<unsigned char>(ASCIIData[i]));
        const unsigned char right =
            i + 1 < Length ? ASCIIByteToHex(static_cast<unsigned char>(ASCIIData[i + 1])) : '\0';
        if (left == INVALID_BYTE || right == INVALID_BYTE) {
            std::free(decoded);
            return nullptr;
        }
        *to++ = FormHexByte(left, right);
    }
    *to = 0;
    return decoded;
}
