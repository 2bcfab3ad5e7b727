// SPDX-License-Identifier: BSD-2-Clause
// Object streams: numbers as decimal text with a delimiter, characters and byte runs as they are.
#ifndef MISC_ZELSTREAM_H
#define MISC_ZELSTREAM_H

#include <cstdint>
#include <ios>
#include <iosfwd>

#include "Misc/export.h"

class Buffer;
class FaultId;

/// Writes objects to an ostream or into a Buffer. The encoding of an object is that of its members, one after the
/// other: a number is its decimal text and `|`; a character or a run of bytes is itself. There is no framing, type
/// tag or version. A derived stream changes the encoding by overriding the virtual operations.
///
/// Into a Buffer the bytes go by way of a staging area of 1,024 bytes: nothing reaches the Buffer before the staging
/// area would overflow or the stream is flushed or destroyed.
class ZELOO_API ZELostream {
public:
    /// Writes the character itself.
    virtual void put(char c);
    /// Writes the decimal text of a `short` and `|`.
    virtual void put(short n);
    /// Writes the decimal text of an `int` and `|`.
    virtual void put(int n);
    /// Writes the decimal text of a `long` and `|`.
    virtual void put(long n);
    /// Writes the byte itself, not a number.
    virtual void put(unsigned char c);
    /// Writes the decimal text of an `unsigned short` and `|`.
    virtual void put(unsigned short n);
    /// Writes the decimal text of an `unsigned int` and `|`.
    virtual void put(unsigned int n);
    /// Writes the decimal text of an `unsigned long` and `|`. In a Buffer the letter `l` stands between the number and
    /// its `|` (`42l|`), which ZEListream does not read back: this is intended.
    virtual void put(unsigned long n);
    /// Flushes.
    virtual ~ZELostream();
    /// Writes `n` bytes and returns `n`.
    virtual int write(const char* p, unsigned n);

    /// Writes to `s`, which must outlive the stream. Numbers go through the inserter of `s` and its manipulators.
    explicit ZELostream(std::ostream& s);
    /// Appends to `theBuf`, which must outlive the stream.
    explicit ZELostream(Buffer& theBuf);
    /// Stages `n` bytes, after a flush when they do not fit behind those already staged. A longer run than the
    /// staging area makes that grow. REQUIRES: a stream into a Buffer.
    void localbuf_add(const void* p, const unsigned n);
    /// Flushes the ostream, or appends the staged bytes to the Buffer.
    void flush();
    /// Non-zero while the ostream is good; 1 for a Buffer.
    int good();
    ZELostream(const ZELostream&) = delete;
    ZELostream& operator=(const ZELostream&) = delete;

    /// put(char), for chains.
    ZELostream& operator<<(char c) { return put(c), *this; }
    /// put(short), for chains.
    ZELostream& operator<<(short n) { return put(n), *this; }
    /// put(int), for chains.
    ZELostream& operator<<(int n) { return put(n), *this; }
    /// put(long), for chains.
    ZELostream& operator<<(long n) { return put(n), *this; }
    /// put(unsigned char), for chains.
    ZELostream& operator<<(unsigned char c) { return put(c), *this; }
    /// put(unsigned short), for chains.
    ZELostream& operator<<(unsigned short n) { return put(n), *this; }
    /// put(unsigned int), for chains.
    ZELostream& operator<<(unsigned int n) { return put(n), *this; }
    /// put(unsigned long), for chains.
    ZELostream& operator<<(unsigned long n) { return put(n), *this; }

private:
    template <class N, unsigned Size>
    ZELOO_LOCAL void putNumber(N n, const char (&delimiter)[Size]);

    ZELOO_LOCAL void stageElsewhere(const void* p, unsigned n);
    ZELOO_LOCAL void findStaging();

    std::ostream* mystrm; // null for a Buffer
    Buffer* buf;          // not owned; null for an ostream
    uint32_t localbufpos; // bytes staged
    Buffer* localbuf;     // owned, the staging area; null for an ostream
    char* staging;        // the bytes of localbuf, and how many there are
    uint32_t stagingSize;
};

/// Reads what a ZELostream wrote, from an istream or a Buffer. The source is not trusted: no byte outside the Buffer
/// is read, whatever it holds.
///
/// A number in a Buffer may have white space and a sign before it, for the unsigned types too, and is taken as
/// `sscanf` takes it: one beyond the range of `long` counts as the nearest `long` (or `unsigned long`), and a
/// narrower type keeps the low bits. The position moves behind the `|` that must follow at once. Without it the
/// position stays, but the target has the number; without a number the target keeps its value. Either way no error
/// shows.
class ZELOO_API ZEListream {
public:
    /// From where seekg counts.
    typedef std::ios_base::seekdir seek_dir;

    /// Reads one character.
    virtual void get(char& c);
    /// Reads a number and its `|` into a `short`, which keeps the low 16 bits of what a Buffer holds.
    virtual void get(short& n);
    /// Reads a number and its `|` into an `int`, which keeps the low 32 bits of what a Buffer holds.
    virtual void get(int& n);
    /// Reads a number and its `|` into a `long`.
    virtual void get(long& n);
    /// Reads one byte, not a number.
    virtual void get(unsigned char& c);
    /// Reads a number and its `|` into an `unsigned short`, which keeps the low 16 bits of what a Buffer holds.
    virtual void get(unsigned short& n);
    /// Reads a number and its `|` into an `unsigned int`, which keeps the low 32 bits of what a Buffer holds.
    virtual void get(unsigned int& n);
    /// Reads a number and its `|` into an `unsigned long`.
    virtual void get(unsigned long& n);
    /// Leaves the source as it is.
    virtual ~ZEListream();
    /// Reads up to `n` bytes and returns how many. A Buffer has one byte more than its size to give, a spare byte of
    /// no particular value: this is intended, readers rely on the lengths they were given. A position further beyond
    /// the end gives spare bytes.
    virtual int read(char* p, unsigned n);

    /// Reads from `s`, which must outlive the stream. Numbers go through the extractor of `s`.
    explicit ZEListream(std::istream& s);
    /// Reads from the start of `theBuf`, which must outlive the stream.
    explicit ZEListream(Buffer& theBuf);
    /// The position: bytes from the start of the Buffer, or what the istream says.
    unsigned tellg();
    /// Goes to `offset`, which for a Buffer counts from its start whatever `dir` says.
    void seekg(long offset, seek_dir dir);
    /// 0 when the read error flag is set or the istream is not good; otherwise non-zero.
    int good();
    /// Non-zero at the end of the istream, or when the position is beyond the Buffer's size: at the size it is 0.
    int eof();
    /// Sets the read error flag. It is for readers of objects to set when `read` gives less than a length promised; the
    /// stream itself never sets it.
    void SetReadErrorFlag() { read_error = 1; }
    /// Clears the read error flag.
    void ClearReadErrorFlag() { read_error = 0; }
    ZEListream(const ZEListream&) = delete;
    ZEListream& operator=(const ZEListream&) = delete;

    /// get(char&), for chains.
    ZEListream& operator>>(char& c) { return get(c), *this; }
    /// get(short&), for chains.
    ZEListream& operator>>(short& n) { return get(n), *this; }
    /// get(int&), for chains.
    ZEListream& operator>>(int& n) { return get(n), *this; }
    /// get(long&), for chains.
    ZEListream& operator>>(long& n) { return get(n), *this; }
    /// get(unsigned char&), for chains.
    ZEListream& operator>>(unsigned char& c) { return get(c), *this; }
    /// get(unsigned short&), for chains.
    ZEListream& operator>>(unsigned short& n) { return get(n), *this; }
    /// get(unsigned int&), for chains.
    ZEListream& operator>>(unsigned int& n) { return get(n), *this; }
    /// get(unsigned long&), for chains.
    ZEListream& operator>>(unsigned long& n) { return get(n), *this; }

private:
    friend class FaultId; // asks whether the stream itself tells that bytes were missing
    bool readsBuffer() const { return mystrm == nullptr; }
    template <class N>
    ZELOO_LOCAL void getNumber(N& n);

    int16_t read_error;
    std::istream* mystrm; // null for a Buffer
    Buffer* buf;          // not owned; null for an istream
    uint32_t position;    // in the Buffer
};

#endif
