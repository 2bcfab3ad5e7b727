#include "Misc/cstring.h"

#include <algorithm>
#include <cstring>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

CStringIter::CStringIter(CString& t, char delim) : sourceText(t), method(0), count(0), pos(0), done(0), delimiter(delim)
{
    pos = setupLine(0);
}

CStringIter::CStringIter(CString& t, int len)
    : sourceText(t), method(1), count(std::max(len, 1)), pos(0), done(0), delimiter('\0')
{
    pos = setupLine(0);
}

CStringIter::~CStringIter()
{
}

unsigned CStringIter::setupLine(unsigned position)
{
    if (done || position >= sourceText.strlen()) {
        done = 1;
        return 0;
    }
    const unsigned start = sourceText[position] == '\n' ? position + 1 : position;
    const unsigned end = method == 1 ? endOfLine(start) : endOfField(start);
    line = CString(static_cast<const char*>(sourceText) + start, end - start);
    // A delimiter is skipped here; a line feed is skipped at the start of the next line.
    return method == 0 && end < sourceText.strlen() ? end + 1 : end;
}

unsigned CStringIter::endOfLine(unsigned start) const
{
    const unsigned rest = sourceText.strlen() - start;
    const unsigned longest = static_cast<unsigned>(count);
    const char* from = static_cast<const char*>(sourceText) + start;
    const void* feed = std::memchr(from, '\n', std::min<uint64_t>(rest, longest + uint64_t{1}));
    if (feed != nullptr)
        return start + static_cast<unsigned>(static_cast<const char*>(feed) - from);
    return start + std::min(rest, longest);
}

unsigned CStringIter::endOfField(unsigned start) const
{
    const unsigned rest = sourceText.strlen() - start;
    const char* from = static_cast<const char*>(sourceText) + start;
    const void* at = std::memchr(from, delimiter, rest);
    return at == nullptr ? start + rest : start + static_cast<unsigned>(static_cast<const char*>(at) - from);
}

CStringIter::operator const CString&() const
{
    return line;
}

int CStringIter::operator()() const
{
    return !done;
}

void CStringIter::operator++()
{
    pos = setupLine(pos);
}
