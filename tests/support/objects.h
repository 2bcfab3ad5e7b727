// SPDX-License-Identifier: BSD-2-Clause
// What the library's objects hold and print, as texts that a test compares:
//
//     EXPECT_EQ(Dump(list), "...");         // what dumpOn writes
//     EXPECT_EQ(Bytes(buffer), "...");      // a Buffer's contents, and BufferOf for the way back
#ifndef TESTS_SUPPORT_OBJECTS_H
#define TESTS_SUPPORT_OBJECTS_H

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"

namespace testing_support {

/// What an object's dumpOn writes to a stream, which stays good.
template <class Object>
std::string Dump(const Object& object)
{
    std::ostringstream out;
    object.dumpOn(out);
    EXPECT_TRUE(out.good());
    return out.str();
}

inline std::string Text(const CString& s) { return static_cast<const char*>(s); }

/// The contents of a buffer.
inline std::string Bytes(const Buffer& buffer)
{
    if (buffer.Size() == 0)
        return "";
    return std::string(static_cast<const char*>(static_cast<const void*>(buffer)), buffer.Size());
}

inline Buffer BufferOf(const std::string& bytes)
{
    Buffer buffer;
    buffer.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
    return buffer;
}

/// A text literal with its zero bytes.
template <std::size_t N>
std::string Bytes(const char (&literal)[N])
{
    return std::string(literal, N - 1);
}

/// `size` bytes that differ from their neighbours and repeat late.
inline std::string Pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        text[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
    return text;
}

/// What an object writes to a stream of the library over a buffer.
template <class Object>
std::string Streamed(const Object& object)
{
    Buffer buffer;
    {
        ZELostream out(buffer);
        out << object;
    }
    return Bytes(buffer);
}

/// What Buffer::hexdumpOn writes of `n` bytes.
inline std::string HexDump(const void* bytes, std::size_t n)
{
    std::ostringstream out;
    Buffer::hexdumpOn(bytes, static_cast<unsigned>(n), out);
    return out.str();
}

inline std::string HexDump(const std::string& bytes) { return HexDump(bytes.data(), bytes.size()); }

/// An address as a stream prints it.
inline std::string Address(const void* p)
{
    std::ostringstream out;
    out << p;
    return out.str();
}

} // namespace testing_support

#endif
