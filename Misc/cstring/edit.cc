// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/cstring.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "Misc/cstring/make.h"
#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Makes what `fill` writes, at most `n` characters, the text; `fill` gives the place behind them. Without memory the
// string stays as it is.
template <class Fill>
void CString::rebuild(uint64_t n, Fill fill)
{
    CStringRep* r = CStringRep::make(n);
    if (r == nullptr)
        return;
    *fill(r->rep) = '\0';
    adopt(r);
}

// Replaces the `removed` characters at `pos` by the `n` characters at `s`. REQUIRES: `pos` + `removed` is at most the
// length.
void CString::splice(unsigned pos, unsigned removed, const char* s, uint64_t n)
{
    const uint64_t rest = cp->len - pos - removed;
    rebuild(pos + n + rest, [&](char* to) {
        to = std::copy_n(cp->rep, pos, to);
        to = std::copy_n(s, n, to);
        return std::copy_n(cp->rep + pos + removed, rest, to);
    });
}

void CString::Delete(unsigned pos, unsigned n)
{
    if (pos < cp->len && n != 0)
        splice(pos, std::min(n, cp->len - pos), "", 0);
}

void CString::Insert(unsigned pos, const CString& s)
{
    if (pos <= cp->len && s.cp->len != 0)
        splice(pos, 0, s.cp->rep, s.cp->len);
}

void CString::Insert(unsigned pos, const char* s)
{
    if (pos <= cp->len && s != nullptr)
        splice(pos, 0, s, std::strlen(s));
}

void CString::Insert(unsigned pos, char c)
{
    const char text[2] = {c, '\0'};
    Insert(pos, text);
}

void CString::ReplaceAll(char c, const char* s)
{
    const char* const end = cp->rep + cp->len;
    const uint64_t found = static_cast<uint64_t>(std::count(static_cast<const char*>(cp->rep), end, c));
    if (s == nullptr || found == 0)
        return;
    const uint64_t n = std::strlen(s);
    rebuild(cp->len + found * n, [&](char* to) {
        for (const char* from = cp->rep; from != end; from++) {
            if (*from == c)
                to = std::copy_n(s, n, to);
            else
                *to++ = *from;
        }
        return to;
    });
}

static bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

void CString::lTrim()
{
    unsigned n = 0;
    while (n < cp->len && IsSpace(cp->rep[n]))
        n++;
    Delete(0, n);
}

void CString::rTrim()
{
    unsigned n = cp->len;
    while (n > 0 && IsSpace(cp->rep[n - 1]))
        n--;
    Delete(n, cp->len - n);
}

// Puts every character through `conversion`, in place when the text is this string's alone.
void CString::convert(int copy, int (*conversion)(int))
{
    CStringRep* to = cp->clone(copy);
    for (uint32_t i = 0; i < cp->len; i++)
        to->rep[i] = static_cast<char>(conversion(static_cast<unsigned char>(cp->rep[i])));
    if (to != cp) {
        delete_cp();
        cp = to;
    }
}

void CString::toUpper()
{
    convert(0, [](int c) { return std::toupper(c); });
}

void CString::toLower()
{
    convert(0, [](int c) { return std::tolower(c); });
}

void CString::flatten()
{
    convert(1, [](int c) { return std::isprint(c) ? c : ' '; });
}

void CString::makeprintable()
{
    convert(1, [](int c) { return std::isprint(c) || c == '\t' || c == '\n' ? c : ' '; });
}

void CString::toDos()
{
    const auto needsReturn = [this](uint32_t i) { return cp->rep[i] == '\n' && (i == 0 || cp->rep[i - 1] != '\r'); };
    uint64_t n = cp->len;
    for (uint32_t i = 0; i < cp->len; i++)
        n += needsReturn(i);
    rebuild(n, [&](char* to) {
        for (uint32_t i = 0; i < cp->len; i++) {
            if (needsReturn(i))
                *to++ = '\r';
            *to++ = cp->rep[i];
        }
        return to;
    });
}

void CString::toUnix()
{
    const auto isDropped = [this](uint32_t i) { // the text ends in a terminator, so that i + 1 is there
        return cp->rep[i] == '\r' && cp->rep[i + 1] == '\n';
    };
    rebuild(cp->len, [&](char* to) {
        for (uint32_t i = 0; i < cp->len; i++)
            if (!isDropped(i))
                *to++ = cp->rep[i];
        return to;
    });
}

void CString::ExtractToken(CString& token, const char* delimiters)
{
    if (this == &token) { // which is set empty first
        token = "";
        return;
    }
    // Everything is made before anything is changed: memory may fail, and the delimiters may lie in either text.
    const char* set = zeloo::TextOrEmpty(delimiters);
    unsigned removed = 0;
    for (const char* quote : {"\"", "'"})
        if (cp->rep[removed] == *quote) {
            set = quote;
            removed++;
        }
    const char* start = cp->rep + removed + std::strspn(cp->rep + removed, set);
    const unsigned length = static_cast<unsigned>(std::strcspn(start, set));
    const CString first(start, length);
    if (first.strlen() != length) // no memory
        return;
    if (length != 0) // with one delimiter, but not counting those skipped: intended
        removed = std::min(removed + length + 1, cp->len);

    const CStringRep* before = cp;
    Delete(0, removed);
    if (removed == 0 || cp != before)
        token = first;
}

int CString::find_awk_chars() const { return std::strpbrk(cp->rep, ".^") != nullptr; }
