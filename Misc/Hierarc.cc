// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Hierarc.h"

#include <algorithm>
#include <charconv>
#include <new>

#include "Misc/ZELstream.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: Hierarc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int FirstLevels = 7; // cells of a new number
static const int MoreLevels = 5;  // cells that a full one grows by
static const int LongestLevel = sizeof ".4294967295" - 1;

// The bits of relation().
static const int Descendant = 1;
static const int DirectDescendant = 2;
static const int Equal = 4;
static const int DirectAncestor = 8;
static const int Ancestor = 16;

HierarchicNum::HierarchicNum() : NumLevels(0), valid(0), Levels(FirstLevels) {}

HierarchicNum::HierarchicNum(const char* s) : NumLevels(0), valid(0), Levels(FirstLevels)
{
    create_levels(s);
    create_text_rep();
}

HierarchicNum& HierarchicNum::operator=(const HierarchicNum& h)
{
    if (this != &h)
        copy(h);
    return *this;
}

HierarchicNum& HierarchicNum::operator=(const char* s)
{
    Levels.PurgeContents();
    create_levels(s); // before the text is replaced: `s` may be this number's own
    create_text_rep();
    return *this;
}

void HierarchicNum::add_level(unsigned long level)
{
    if (append_level(static_cast<uint32_t>(level)))
        create_text_rep();
}

void HierarchicNum::inc()
{
    if (NumLevels == 0)
        return;
    Levels[NumLevels - 1] = static_cast<uint32_t>(Levels.at(NumLevels - 1) + 1);
    create_text_rep();
}

void HierarchicNum::dec()
{
    if (NumLevels == 0)
        return;
    Levels[NumLevels - 1] = static_cast<uint32_t>(Levels.at(NumLevels - 1) - 1);
    create_text_rep();
}

int HierarchicNum::compare_with(const HierarchicNum& h) const
{
    const int common = std::min(NumLevels, h.NumLevels);
    for (int i = 0; i < common; i++)
        if (Levels.at(i) != h.Levels.at(i))
            return static_cast<int32_t>(static_cast<uint32_t>(Levels.at(i) - h.Levels.at(i)));
    return NumLevels - h.NumLevels;
}

int HierarchicNum::compare(const HierarchicNum** a, const HierarchicNum** b) { return (*a)->compare_with(**b); }

int HierarchicNum::samePrefix(short n, const HierarchicNum& h) const
{
    if (n < 1 || n > NumLevels || n > h.NumLevels)
        return 0;
    for (int i = 0; i < n; i++)
        if (Levels.at(i) != h.Levels.at(i))
            return 0;
    return 1;
}

int HierarchicNum::relation(const HierarchicNum& h) const
{
    if (!samePrefix(std::min(NumLevels, h.NumLevels), h))
        return 0;
    const int d = NumLevels - h.NumLevels;
    if (d == 0)
        return Equal;
    if (d > 0)
        return d == 1 ? Descendant | DirectDescendant : Descendant;
    return d == -1 ? Ancestor | DirectAncestor : Ancestor;
}

ZELostream& operator<<(ZELostream& s, const HierarchicNum& h) { return s << h.text_rep; }

ZEListream& operator>>(ZEListream& s, HierarchicNum& h)
{
    CString text;
    s >> text;
    h.create_levels(text);
    h.create_text_rep();
    return s;
}

void HierarchicNum::copy(const HierarchicNum& h)
{
    NumLevels = h.NumLevels;
    text_rep = h.text_rep;
    valid = h.valid;
    Levels = h.Levels;
}

// Parses `s` into the levels; the text is left as it is.
void HierarchicNum::create_levels(const char* s)
{
    NumLevels = 0;
    valid = 0;
    if (s == nullptr)
        return;
    for (;;) {
        if (*s < '0' || *s > '9')
            return;
        uint32_t level = 0;
        for (; *s >= '0' && *s <= '9'; s++)
            level = level * 10 + static_cast<uint32_t>(*s - '0');
        if ((*s != '.' && *s != '\0') || !append_level(level))
            return;
        if (*s++ == '\0') {
            valid = 1;
            return;
        }
    }
}

// Appends a level without rebuilding the text. 0 when there is no room for it.
int HierarchicNum::append_level(uint32_t level)
{
    if (NumLevels == INT16_MAX)
        return 0;
    if (NumLevels >= Levels.Size())
        Levels.growBy(MoreLevels);
    Levels[NumLevels++] = level;
    return 1;
}

void HierarchicNum::create_text_rep()
{
    const int size = NumLevels * LongestLevel + 1;
    char* text = new (std::nothrow) char[static_cast<size_t>(size)];
    if (text == nullptr) {
        text_rep = "";
        return;
    }
    char* end = text;
    for (int i = 0; i < NumLevels; i++) {
        if (i > 0)
            *end++ = '.';
        end = std::to_chars(end, text + size, Levels.at(i)).ptr;
    }
    *end = '\0';
    text_rep = text;
    delete[] text;
}
