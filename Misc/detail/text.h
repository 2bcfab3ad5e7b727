// SPDX-License-Identifier: BSD-2-Clause
// Small helpers for C texts, used inside the library.
#ifndef MISC_DETAIL_TEXT_H
#define MISC_DETAIL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <ostream>

namespace zeloo {

/// `s`, or the empty text for null. A stream that is given a null text goes bad, and a null name is no reason for
/// that.
inline const char* TextOrEmpty(const char* s) { return s != nullptr ? s : ""; }

/// The last component of a path: what stands behind its last "/", or the whole; empty for null. It points into the path.
inline const char* BaseName(const char* path)
{
    path = TextOrEmpty(path);
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/// Room for a text of `n` characters and its terminator, not filled; the caller releases it with delete[]. Null when
/// memory fails, and for a length that does not fit 32 bits, in which the lengths of strings are kept.
inline char* NewRoom(std::uint64_t n)
{
    return n < UINT32_MAX ? new (std::nothrow) char[static_cast<std::size_t>(n) + 1] : nullptr;
}

/// A copy of the first `n` characters of `s`, terminated, in room as above.
inline char* NewText(const char* s, std::size_t n)
{
    char* copy = NewRoom(n);
    if (copy != nullptr) {
        std::memcpy(copy, s, n);
        copy[n] = '\0';
    }
    return copy;
}

/// A copy of `s`, as above; null for null.
inline char* NewText(const char* s) { return s != nullptr ? NewText(s, std::strlen(s)) : nullptr; }

/// The texts of a null-terminated vector with one blank between them, terminated. The caller releases it with delete[].
/// Null when memory fails.
inline char* NewJoinedText(const char* const* texts)
{
    std::size_t length = 1;
    for (const char* const* text = texts; *text != nullptr; text++)
        length += std::strlen(*text) + 1;
    char* joined = new (std::nothrow) char[length];
    if (joined == nullptr)
        return nullptr;
    char* end = joined;
    for (const char* const* text = texts; *text != nullptr; text++) {
        if (text != texts)
            *end++ = ' ';
        end = stpcpy(end, *text);
    }
    *end = '\0';
    return joined;
}

/// Copies `s` (null counts as empty) into a fixed field, cut to what fits and always terminated.
template <std::size_t N>
void CopyText(char (&field)[N], const char* s)
{
    s = TextOrEmpty(s);
    const std::size_t n = strnlen(s, N - 1);
    std::memmove(field, s, n);
    field[n] = '\0';
}

/// Whether a fixed field holds a terminator.
template <std::size_t N>
bool Terminated(const char (&field)[N])
{
    return std::memchr(field, '\0', N) != nullptr;
}

/// Writes a line of `label` and a fixed field, which need not be terminated.
template <std::size_t N>
void DumpText(const char* label, const char (&field)[N], std::ostream& out)
{
    out << label;
    out.write(field, static_cast<std::streamsize>(strnlen(field, N))) << '\n';
}

} // namespace zeloo

#endif
