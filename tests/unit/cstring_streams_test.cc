// SPDX-License-Identifier: BSD-2-Clause
// Strings on streams, and what takes them apart and collects them.
#include "Misc/cstring.h"

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const int AnyAllocation = NewObject | NewArray;

TEST(CStringStream, WritesLengthAndBytes)
{
    EXPECT_EQ(Streamed("abc"), "3|abc");
    EXPECT_EQ(Streamed(""), "0|");
    const std::string longest(65535, 'x');
    std::string streamed;
    const std::string out = CaptureStdout([&] { streamed = Streamed(longest.c_str()); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(streamed, "65535|" + longest);
}

TEST(CStringStream, CutsALongTextWithAWarning)
{
    std::string text(70000, 'a');
    text[4463] = 'y';
    text[4464] = 'z';
    std::string streamed;
    std::string out = CaptureStdout([&] { streamed = Streamed(text.c_str()); });
    EXPECT_EQ(out, "Warning: data will be truncated in Cstring printOn. \nwriting 4464 of 70000 bytes.\n");
    EXPECT_EQ(streamed, "4464|" + text.substr(0, 4464));

    out = CaptureStdout([&] { streamed = Streamed(std::string(65536, 'b').c_str()); });
    EXPECT_EQ(out, "Warning: data will be truncated in Cstring printOn. \nwriting 0 of 65536 bytes.\n");
    EXPECT_EQ(streamed, "0|");
}

TEST(CStringStream, ReadsBack)
{
    Buffer b = BufferOf("3|abc0|2|de");
    ZEListream in(b);
    CString s("old"), t("old"), u("old");
    const CString shared(s);
    in >> s >> t >> u;
    EXPECT_EQ(Text(s), "abc");
    const CString empty;
    EXPECT_EQ(static_cast<const char*>(t), static_cast<const char*>(empty));
    EXPECT_EQ(Text(u), "de");
    EXPECT_EQ(Text(shared), "old");
    EXPECT_TRUE(in.good());

    std::stringstream stream;
    ZELostream out(stream);
    out << CString("a b") << CString();
    EXPECT_EQ(stream.str(), "3|a b0|");
    ZEListream back(stream);
    back >> s >> t;
    EXPECT_EQ(Text(s), "a b");
    EXPECT_EQ(Text(t), "");
}

TEST(CStringStream, ShortReadKeepsWhatCame)
{
    Buffer b = BufferOf("8|abc");
    ZEListream in(b);
    b[b.Size()] = '!'; // the spare byte, which a buffer gives as its last
    CString s;
    std::string out = CaptureStdout([&] { in >> s; });
    EXPECT_EQ(out, "Error: short read in Cstring scanFrom. read: 4 expected: 8\n");
    EXPECT_EQ(Text(s), "abc!");
    EXPECT_FALSE(in.good());
    in.ClearReadErrorFlag();
    EXPECT_TRUE(in.good());

    std::istringstream stream("5|abc");
    ZEListream from(stream);
    out = CaptureStdout([&] { from >> s; });
    EXPECT_EQ(out, "Error: short read in Cstring scanFrom. read: 3 expected: 5\n");
    EXPECT_EQ(Text(s), "abc");
}

TEST(CStringStream, LengthsAreNotTrusted)
{
    for (const char* bad : {"x|abc", "", "|abc", "-|abc", "\x01\x02"}) {
        Buffer b = BufferOf(bad);
        ZEListream in(b);
        CString s("old");
        EXPECT_EQ(CaptureStdout([&] { in >> s; }), "") << bad;
        EXPECT_EQ(Text(s), "") << bad;
        EXPECT_EQ(in.tellg(), 0u) << bad;
    }
    Buffer b = BufferOf("-1|abc"); // 65535 as an unsigned short
    ZEListream in(b);
    b[b.Size()] = '\0';
    CString s;
    EXPECT_EQ(CaptureStdout([&] { in >> s; }), "Error: short read in Cstring scanFrom. read: 4 expected: 65535\n");
    EXPECT_EQ(Text(s), "abc");
}

// A stream whose `read` claims a count of its own.
class LyingStream : public ZEListream {
public:
    LyingStream(Buffer& b, int theClaim) : ZEListream(b), claim(theClaim) {}
    int read(char* p, unsigned n) override
    {
        std::memset(p, 'x', n);
        return claim;
    }

private:
    int claim;
};

TEST(CStringStream, CountsReadAreBounded)
{
    Buffer b = BufferOf("3|");
    CString s;
    LyingStream more(b, 70000);
    EXPECT_EQ(CaptureStdout([&] { more >> s; }), "");
    EXPECT_EQ(Text(s), "xxx");
    LyingStream less(b, -1);
    EXPECT_EQ(CaptureStdout([&] { less >> s; }), "Error: short read in Cstring scanFrom. read: 0 expected: 3\n");
    EXPECT_EQ(Text(s), "");
    EXPECT_FALSE(less.good());
}

TEST(CStringStream, WithoutMemoryTheStringIsEmpty)
{
    Buffer b = BufferOf("3|abc");
    ZEListream in(b);
    CString s("old");
    {
        const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
        in >> s;
    }
    EXPECT_EQ(Text(s), "");
}

// A derived class decides what the entry points of the streams read and write.
class Bracketed : public CString {
public:
    using CString::CString;
    void printOn(ZELostream& s) const override
    {
        s.put('<');
        CString::printOn(s);
    }
    void scanFrom(ZEListream& s) override
    {
        char c;
        s.get(c);
        CString::scanFrom(s);
    }
};

TEST(CStringStream, EntryPointsAreVirtual)
{
    Buffer b;
    const Bracketed written("ab");
    const CString& base = written;
    {
        ZELostream out(b);
        EXPECT_EQ(&base.ObjectWrite(out), &out);
        EXPECT_EQ(&(out << base), &out);
    }
    EXPECT_EQ(std::string(b.GetCString()), "<2|ab<2|ab");
    ZEListream in(b);
    Bracketed read;
    CString& target = read;
    EXPECT_EQ(&target.ObjectRead(in), &in);
    EXPECT_EQ(Text(read), "ab");
    target = "";
    in >> target;
    EXPECT_EQ(Text(read), "ab");
}

template <class How>
std::vector<std::string> Lines(const char* text, How how)
{
    CString source(text);
    std::vector<std::string> lines;
    for (CStringIter iter(source, how); iter() && lines.size() < 20; ++iter)
        lines.push_back(Text(iter));
    return lines;
}

typedef std::vector<std::string> Texts;

TEST(CStringIter, SplitsAtADelimiter)
{
    EXPECT_EQ(Lines("a::b", ':'), (Texts{"a", "", "b"}));
    EXPECT_EQ(Lines("a:b:", ':'), (Texts{"a", "b"}));
    EXPECT_EQ(Lines(":", ':'), (Texts{""}));
    EXPECT_EQ(Lines("abc", ':'), (Texts{"abc"}));
    EXPECT_EQ(Lines("", ':'), (Texts{}));
    EXPECT_EQ(Lines("\na:\nb\nc", ':'), (Texts{"a", "b\nc"})) << "a line feed at a field's start is skipped";
    EXPECT_EQ(Lines("a\nb\n\nc", '\n'), (Texts{"a", "b", "c"}));
    EXPECT_EQ(Lines("\n", ':'), (Texts{""}));
}

TEST(CStringIter, CutsLinesAtALength)
{
    EXPECT_EQ(Lines("abcdefg\nxy", 3), (Texts{"abc", "def", "g", "xy"}));
    EXPECT_EQ(Lines("abc\nd", 3), (Texts{"abc", "d"})) << "a line of just the length is not cut";
    EXPECT_EQ(Lines("abcd\ne", 3), (Texts{"abc", "d", "e"}));
    EXPECT_EQ(Lines("abc", 3), (Texts{"abc"}));
    EXPECT_EQ(Lines("a\n\nb", 3), (Texts{"a", "", "b"}));
    EXPECT_EQ(Lines("a\n", 3), (Texts{"a", ""}));
    EXPECT_EQ(Lines("\na", 3), (Texts{"a"}));
    EXPECT_EQ(Lines("", 3), (Texts{}));
    EXPECT_EQ(Lines("abc", 2147483647), (Texts{"abc"}));
    EXPECT_EQ(Lines("ab", 0), (Texts{"a", "b"})) << "every step moves on";
    EXPECT_EQ(Lines("ab", -5), (Texts{"a", "b"}));
}

TEST(CStringIter, SetupLineGivesTheNextPosition)
{
    CString fields("ab:c");
    CStringIter f(fields, ':');
    EXPECT_EQ(f.setupLine(0), 3u);
    EXPECT_EQ(f.setupLine(1), 3u);
    EXPECT_EQ(Text(f), "b");
    EXPECT_EQ(f.setupLine(3), 4u);
    EXPECT_EQ(f.setupLine(4), 0u);
    EXPECT_EQ(f(), 0);
    EXPECT_EQ(Text(f), "c") << "the end leaves the line";
    EXPECT_EQ(f.setupLine(0), 0u) << "done is for good";

    CString lines("ab\ncdef");
    CStringIter l(lines, 3);
    EXPECT_EQ(l.setupLine(0), 2u);
    EXPECT_EQ(l.setupLine(2), 6u);
    EXPECT_EQ(Text(l), "cde");
    EXPECT_EQ(l.setupLine(4294967295u), 0u);
    EXPECT_EQ(l(), 0);
}

TEST(CStringBuff, CollectsInChunks)
{
    CStringBuff b(4);
    for (char c = 'a'; c <= 'j'; c++)
        b += c;
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = ij\nIndex = 2\nFinalString = abcdefgh\n");
    EXPECT_EQ(Text(b.GetCString()), "abcdefghij");
    b.ResetBuff();
    EXPECT_EQ(Text(b.GetCString()), "abcdefgh") << "what was flushed stays";
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = \nIndex = 0\nFinalString = abcdefgh\n");
    b += CString("12345");
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = 5\nIndex = 1\nFinalString = abcdefgh1234\n");
    b = 'x';
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = \nIndex = 0\nFinalString = x\n");
    b += 'y';
    b = CString("whole");
    EXPECT_EQ(Text(b.GetCString()), "whole");
    b = '\0';
    EXPECT_EQ(Text(b.GetCString()), "");
}

TEST(CStringBuff, FlushesOnlyWhenTheNextCharacterComes)
{
    CStringBuff b(2);
    b += CString("ab");
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 2\nBuff = ab\nIndex = 2\nFinalString = \n");
    EXPECT_EQ(Text(b.GetCString()), "ab");
}

TEST(CStringBuff, CountsZeroBytesInTheChunk)
{
    CStringBuff b(4);
    b += 'a';
    b += '\0';
    b += 'b';
    EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = a\nIndex = 3\nFinalString = \n");
    EXPECT_EQ(Text(b.GetCString()), "a");
}

TEST(CStringBuff, SizesBelowOneCountAsOne)
{
    for (const int size : {0, -1, -2147483647}) {
        CStringBuff b(size);
        b += CString("abc");
        EXPECT_EQ(Text(b.GetCString()), "abc");
        EXPECT_EQ(Dump(b), "CStringChBuff::dumOn\nBuffSize = 1\nBuff = c\nIndex = 1\nFinalString = ab\n");
    }
}

TEST(CStringBuff, KeepsAChunkForWhichThereIsNoMemory)
{
    CStringBuff b(4);
    b += CString("abcdefgh");
    {
        const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
        b += 'x';
        b += 'y';
    }
    b += 'i';
    EXPECT_EQ(Text(b.GetCString()), "abcdefghi");
}

TEST(CStringBuff, WorksWithoutMemoryForTheChunk)
{
    std::unique_ptr<CStringBuff> b;
    {
        const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
        b = std::make_unique<CStringBuff>(4);
    }
    *b += CString("abcdef");
    EXPECT_EQ(Text(b->GetCString()), "abcdef");
    b->ResetBuff();
    EXPECT_EQ(Dump(*b), "CStringChBuff::dumOn\nBuffSize = 4\nBuff = \nIndex = 0\nFinalString = abcdef\n");
}

} // namespace
