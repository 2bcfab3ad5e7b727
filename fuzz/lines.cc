// SPDX-License-Identifier: BSD-2-Clause
// CStringIter and CStringBuff against the same walks over a std::string.
#include <algorithm>

#include "Misc/cstring.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

// The piece of `text` at `start`, which moves to where the next one starts.
static std::string NextPiece(const std::string& text, std::size_t& start, bool fields, char delimiter,
                             std::size_t longest)
{
    const std::size_t from = start + (text[start] == '\n');
    const std::size_t found = std::min(text.find(fields ? delimiter : '\n', from), text.size());
    const std::size_t end = fields ? found : std::min(found, from + longest);
    start = end + (fields && end < text.size());
    return text.substr(from, end - from);
}

static void CheckWalk(CStringIter& line, const std::string& text, bool fields, char delimiter, std::size_t longest)
{
    for (std::size_t start = 0; start < text.size(); ++line) {
        const std::string piece = NextPiece(text, start, fields, delimiter, longest);
        FUZZ_CHECK(line());
        const CString& current = line;
        FUZZ_CHECK(static_cast<const char*>(current) == piece);
    }
    FUZZ_CHECK(!line());
    ++line;
    FUZZ_CHECK(!line());
    FUZZ_CHECK(line.setupLine(0) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const bool fields = in.Flag();
    const char delimiter = in.Char();
    const int length = in.Flag() ? in.Small() : in.Number<int>();
    CStringBuff collected(in.Flag() ? in.Small() : 16);
    const std::string first = in.Text();
    const std::string text = fuzzing::UpToZero(in.Rest());

    collected = CString(first.c_str());
    for (const char c : text)
        collected += c;
    collected += CString(first.c_str());
    FUZZ_CHECK(static_cast<const char*>(collected.GetCString()) == first + text + first);

    CString source(text.c_str());
    if (fields && delimiter != '\0') {
        CStringIter line(source, delimiter);
        CheckWalk(line, text, true, delimiter, 0);
    } else {
        CStringIter line(source, length);
        CheckWalk(line, text, false, '\n', static_cast<std::size_t>(std::max(length, 1)));
    }
    return 0;
}
