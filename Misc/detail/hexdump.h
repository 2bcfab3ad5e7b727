// SPDX-License-Identifier: BSD-2-Clause
// Rows of hex dumps.
#ifndef MISC_DETAIL_HEXDUMP_H
#define MISC_DETAIL_HEXDUMP_H

#include <cctype>

namespace zeloo {

/// The bytes that a row shows.
constexpr unsigned BytesInRow = 16;
/// The most characters that PutByteRow and PutWordRow write.
constexpr unsigned RowTextLength = 3 * BytesInRow + 1 + BytesInRow;

/// Writes `byte` as two hex digits and gives the place behind them.
inline char* PutHexByte(char* to, unsigned char byte)
{
    const char* const digits = "0123456789abcdef";
    *to++ = digits[byte >> 4];
    *to++ = digits[byte & 15];
    return to;
}

/// What stands for `byte` beside the digits: its character, or a blank when that is not printable.
inline char Printable(unsigned char byte) { return std::isprint(byte) ? static_cast<char>(byte) : ' '; }

/// Writes a row of `count` bytes, at most BytesInRow: each as two digits and a blank, blanks for those that a full row
/// has more, one blank, and their characters. Nothing is put behind them. Gives the place behind the row.
char* PutByteRow(char* to, const unsigned char* bytes, unsigned count);

/// Writes a row of BytesInRow bytes as four 32-bit words of the host, each in eight digits and a blank, and between
/// brackets the characters of the low seven bits of each byte. Gives the place behind the row. Allocates nothing.
char* PutWordRow(char* to, const unsigned char* bytes);

} // namespace zeloo

#endif
