// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/cstring.h"

#include <cctype>
#include <cstring>

#include "Misc/cstring/make.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// The letters of the control characters 8 to 13 behind a backslash.
static const char ControlLetters[] = "btnvfr";

// The number of characters that stand for `c` in the escaped form: 1, 2 or 4.
static unsigned EscapedLength(int c, short mode)
{
    if ((c >= '\b' && c <= '\r') || std::strchr("'\"\\", c) != nullptr)
        return 2;
    if (std::strchr("!$?[]|/()*+", c) != nullptr)
        return mode == 0 ? 2 : 1;
    return std::isprint(c) ? 1 : 4;
}

static uint64_t EscapedLength(const char* s, short mode)
{
    uint64_t n = 0;
    for (; *s != '\0'; s++)
        n += EscapedLength(static_cast<unsigned char>(*s), mode);
    return n;
}

unsigned CString::literal_to_escape_strlen(const char* s, short mode)
{
    return static_cast<unsigned>(EscapedLength(s, mode));
}

char* CString::literal_to_escape(char* dst, const char* src, short mode)
{
    char* to = dst;
    for (; *src != '\0'; src++) {
        const int c = static_cast<unsigned char>(*src);
        const unsigned n = EscapedLength(c, mode);
        if (n > 1)
            *to++ = '\\';
        if (n == 4) {
            *to++ = static_cast<char>('0' + (c >> 6));
            *to++ = static_cast<char>('0' + (c >> 3 & 7));
            *to++ = static_cast<char>('0' + (c & 7));
        } else if (c >= '\b' && c <= '\r') {
            *to++ = ControlLetters[c - '\b'];
        } else {
            *to++ = *src;
        }
    }
    *to = '\0';
    return dst;
}

// The value of a digit in `base` 8 or 16, or -1.
static int DigitValue(char c, int base)
{
    static const char digits[] = "0123456789abcdef";
    const char* at = c == '\0' ? nullptr : std::strchr(digits, std::tolower(static_cast<unsigned char>(c)));
    return at != nullptr && at - digits < base ? static_cast<int>(at - digits) : -1;
}

// Reads at most `most` digits, moves `src` behind them and gives the byte that they stand for.
static char NumericEscape(const char*& src, int base, int most)
{
    int value = 0;
    for (; most > 0 && DigitValue(*src, base) >= 0; most--)
        value = value * base + DigitValue(*src++, base);
    return static_cast<char>(value);
}

// Reads what follows a backslash, moves `src` behind it and gives the character that it stands for.
static char EscapedCharacter(const char*& src)
{
    if (DigitValue(*src, 8) >= 0)
        return NumericEscape(src, 8, 3);
    const char c = *src++;
    if (c == 'x')
        return DigitValue(*src, 16) < 0 ? 'x' : NumericEscape(src, 16, 2);
    if (const char* letter = std::strchr(ControlLetters, c))
        return static_cast<char>('\b' + (letter - ControlLetters));
    return c;
}

char* CString::escape_to_literal(char* dst, const char* src)
{
    char* to = dst;
    while (*src != '\0') {
        if (*src != '\\')
            *to++ = *src++;
        else if (*++src != '\0')
            *to++ = EscapedCharacter(src);
    }
    *to = '\0';
    return dst;
}

void CString::toEscape(short mode)
{
    if (cp->len == 0)
        return;
    CStringRep* r = CStringRep::make(EscapedLength(cp->rep, mode));
    if (r == nullptr)
        return;
    literal_to_escape(r->rep, cp->rep, mode);
    adopt(r);
}

void CString::toLiteral()
{
    if (cp->len == 0)
        return;
    CStringRep* r = CStringRep::make(cp->len);
    if (r == nullptr)
        return;
    escape_to_literal(r->rep, cp->rep);
    adopt(r);
}
