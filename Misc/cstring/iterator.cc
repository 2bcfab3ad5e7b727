#include "Misc/cstring.h"

#include <algorithm>
#include <cstring>

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
