// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/cstring.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

CStringIter::CStringIter(CString& t, char delim) : sourceText(t), method(0), count(0), pos(0), done(0), delimiter(delim)
{
    pos = setupLine(0);
}

CStringIter::CStringIter(CString& t, int len)
    : sourceText(t), method(1), count(std::max(len, 1)), pos(0), done(0), delimiter('\n')
{
    pos = setupLine(0);
}

unsigned CStringIter::setupLine(unsigned position)
{
    if (done || position >= sourceText.strlen()) {
        done = 1;
        return 0;
    }
    const unsigned start = sourceText[position] == '\n' ? position + 1 : position;
    const unsigned end = endOf(start);
    line = CString(static_cast<const char*>(sourceText) + start, end - start);
    // A delimiter is skipped here; a line feed is skipped at the start of the next line.
    return method == 0 && end < sourceText.strlen() ? end + 1 : end;
}

// Where the line or field that starts at `start` ends.
unsigned CStringIter::endOf(unsigned start) const
{
    const char* from = static_cast<const char*>(sourceText) + start;
    const uint64_t rest = sourceText.strlen() - start;
    const uint64_t longest = method == 1 ? static_cast<uint64_t>(count) : rest;
    const void* end = std::memchr(from, delimiter, std::min(rest, longest + 1));
    const uint64_t n = end != nullptr ? static_cast<uint64_t>(static_cast<const char*>(end) - from) : rest;
    return start + static_cast<unsigned>(std::min(n, longest));
}

CStringBuff::CStringBuff(int size)
    : BuffSize(std::max(size, 1)), Buff(zeloo::NewRoom(static_cast<uint64_t>(BuffSize))), Index(0)
{
    ResetBuff();
}

CStringBuff::~CStringBuff() { delete[] Buff; }

void CStringBuff::ResetBuff()
{
    Index = 0;
    if (Buff != nullptr)
        Buff[0] = '\0';
}

CStringBuff& CStringBuff::operator=(const CString& s)
{
    ResetBuff();
    FinalString = s;
    return *this;
}

CStringBuff& CStringBuff::operator=(char c)
{
    ResetBuff();
    FinalString = CString(&c, 1);
    return *this;
}

CStringBuff& CStringBuff::operator+=(char c)
{
    if (Buff == nullptr) {
        FinalString += c;
        return *this;
    }
    if (Index == BuffSize) {
        const CString before = FinalString;
        FinalString += Buff;
        const bool isSame = static_cast<const char*>(FinalString) == static_cast<const char*>(before);
        if (isSame && *Buff != '\0') // no memory: the chunk must not get lost
            return *this;
        Index = 0;
    }
    Buff[Index++] = c;
    Buff[Index] = '\0';
    return *this;
}

CStringBuff& CStringBuff::operator+=(const CString& s)
{
    for (unsigned i = 0; i < s.strlen(); i++)
        *this += s[i];
    return *this;
}

CString CStringBuff::GetCString() const { return FinalString + Buff; }

void CStringBuff::dumpOn(std::ostream& os) const
{
    os << "CStringChBuff::dumOn" << std::endl; // misspelt: intended
    os << "BuffSize = " << BuffSize << std::endl;
    os << "Buff = " << zeloo::TextOrEmpty(Buff) << std::endl;
    os << "Index = " << Index << std::endl;
    os << "FinalString = " << static_cast<const char*>(FinalString) << std::endl;
}
