// SPDX-License-Identifier: BSD-2-Clause
// Owned blocks of raw bytes.
#ifndef MISC_BUFFER_H
#define MISC_BUFFER_H

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Misc/export.h"

class CString;

/// A block of up to 4,294,967,295 raw bytes that has exactly the size of its contents: every growth reallocates.
/// Where memory fails, a constructor or ReSize leaves the buffer empty, and an operation that adds bytes leaves it
/// unchanged.
///
/// Sizes and positions count bytes from 0. Sources of bytes may lie within the buffer itself. Out-of-range indices
/// and C-string copies share static storage: buffers are not for use by several threads.
class ZELOO_API Buffer {
public:
    /// A buffer of `Size` bytes, not set.
    explicit Buffer(unsigned Size = 0);
    /// A copy of the bytes of `buffer`.
    Buffer(const Buffer& buffer);
    /// Frees the bytes.
    virtual ~Buffer();
    /// Frees the bytes; the buffer is empty.
    virtual void PurgeContents();
    /// Writes the hex dump of the bytes.
    virtual void dumpOn(std::ostream& out) const;

    /// Discards the contents and makes room for `Size` bytes, not set. The old contents are never kept.
    void ReSize(const unsigned Size);
    /// The number of bytes.
    unsigned Size() const { return AllocSize; }
    /// The byte at `index`. From the size on this is the one spare byte that all buffers share: writing to it
    /// changes no buffer.
    char& operator[](unsigned index);
    /// The byte at `index`; from the size on the spare byte that all buffers share.
    const char& operator[](unsigned index) const;
    /// The same for an index of any integral type; one below 0 is out of range too.
    template <class Index, class = std::enable_if_t<std::is_integral_v<Index> || std::is_enum_v<Index>>>
    char& operator[](Index index)
    {
        return (*this)[Clipped(+index)];
    }
    /// The same for an index of any integral type; one below 0 is out of range too.
    template <class Index, class = std::enable_if_t<std::is_integral_v<Index> || std::is_enum_v<Index>>>
    const char& operator[](Index index) const
    {
        return (*this)[Clipped(+index)];
    }
    /// Replaces the bytes by a copy of those of `b`, which may be this buffer.
    Buffer& operator=(const Buffer& b);
    /// The bytes; null when the buffer is empty.
    operator const void*() const { return ptr; }
    /// As GetCString.
    operator const char*() const { return GetCString(); }

    /// Copies `len` bytes to `pos`; a null `cp` copies nothing. The buffer grows to `pos` + `len` bytes when it is
    /// smaller, also for a `len` of 0; bytes between its old end and `pos` are not set. Nothing is written when
    /// `pos` + `len` does not fit 32 bits.
    void PutDataAt(const unsigned pos, const void* cp, const unsigned len);
    /// Copies to `cp` the bytes from `pos` on, at most `len` and no more than there are. A null `cp` copies nothing.
    void GetDataAt(const unsigned pos, void* cp, const unsigned len) const;
    /// Appends `len` bytes. A null `cp` appends nothing.
    void Append(const void* cp, const unsigned len);
    /// Appends the characters of a text without its terminator; null appends nothing.
    void Append(const char* cp);
    /// 1 when the buffer is not empty and its last byte is 0, else 0.
    short IsNullTerminated() const;
    /// The bytes with a zero byte behind them: the block itself when it ends in one, otherwise a shared copy, valid
    /// until the next such call on any buffer. Never null; without memory for the copy it is the empty text.
    const char* GetCString() const;
    /// Hands the block to the caller, who releases it with free(); the buffer becomes empty.
    void* ReleasePtr();
    /// Takes ownership of `newptr`, a malloc'd block of `ptrSize` bytes, in place of the contents.
    void AssignPtr(void* newptr, unsigned ptrSize);

    /// Replaces the contents by those of a file. 1 on success; 0 when the file cannot be opened or sized or is a
    /// directory, memory fails (all leave the buffer empty) or fewer bytes come than the file's size (the size is kept,
    /// the bytes that did not come are 0).
    short LoadBufferFromFile(const char* filename);
    /// Replaces the contents by `len` bytes read from `in`; those that do not come are 0. A stream that is not good
    /// leaves the buffer empty. The result is always 0: this is intended.
    short LoadBufferFromFile(std::istream& in, unsigned len);
    /// Writes the bytes to a file, created when there is none: behind its contents when `append` is non-zero,
    /// otherwise in their place. Returns 0; on failure reports a WARNING of type WRITING_TO_FILE with the file name
    /// and returns that number, 16.
    short SaveBufferToFile(const char* filename, short append);

    /// Reads bytes into `data` until there are `len` or the input ends.
    static void BlockRead(const void* data, unsigned len, std::istream& in);
    /// Writes `len` bytes and flushes, before the first byte, every 512 bytes and at the end. With `ignore_nulls`
    /// the output stops at the first zero byte.
    static void BlockWrite(const void* data, unsigned len, std::ostream& out, short ignore_nulls);
    /// Writes a hex dump: a heading, then rows of 16 bytes with their offset and their printable characters. Behind
    /// a full last row stands a line of one blank.
    static void hexdumpOn(const void* p, unsigned n, std::ostream& out);
    /// Sets `out` to a hex dump of wider columns, its lines ended by carriage return + line feed. The first row has
    /// no characters beside it; those of the others stand between two bytes of value 1.
    static void hexdumpOn(const void* p, unsigned n, CString& out);
    /// 1 when the last of the `Length` bytes is 0 and all before it are from 1 to 127, else 0.
    static short IsASCIIData(const void* Data, const unsigned Length);
    /// `LeftDigit` * 16 combined with the low four bits of `RightDigit`.
    static unsigned char FormHexByte(unsigned char LeftDigit, unsigned char RightDigit);
    /// The value of the hex digit `0` to `9` or `A` to `F`; 4 for `d`, which is intended; else INVALID_BYTE.
    static unsigned char ASCIIByteToHex(unsigned char ASCIIByte);
    /// Decodes a hex text of `Length` bytes, terminator included, into a malloc'd block with a zero byte behind the
    /// decoded ones. Null when the text is not ASCII data, holds another character than hex digits or memory fails.
    /// The terminator is decoded as a digit, so that every text is refused: this is intended.
    static unsigned char* ASCIIToHex(const char* ASCIIData, const unsigned Length);

    /// What ASCIIByteToHex gives for a character that is no hex digit.
    static constexpr unsigned char INVALID_BYTE = 255;

private:
    // An index that does not fit 32 bits becomes the largest, which is beyond the end of every buffer.
    template <class Index>
    static unsigned Clipped(Index index)
    {
        const uint64_t wide = static_cast<uint64_t>(index);
        return wide < UINT32_MAX ? static_cast<unsigned>(wide) : UINT32_MAX;
    }
    void store(unsigned pos, const void* cp, unsigned len);

    uint32_t AllocSize; // bytes held
    void* ptr;          // malloc'd; null when the buffer is empty
};

#endif
