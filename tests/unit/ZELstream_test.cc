// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ZELstream.h"

#include "Misc/buffer.h"
#include "tests/support/objects.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <ios>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <sys/mman.h>

#include <gtest/gtest.h>

using testing_support::BufferOf;
using testing_support::Bytes;

namespace {

template <class N>
std::string Put(N n)
{
    Buffer b;
    ZELostream out(b);
    out.put(n);
    out.flush();
    return Bytes(b);
}

template <class N>
std::string PutOnStream(N n)
{
    std::ostringstream os;
    ZELostream out(os);
    out << n;
    return os.str();
}

TEST(ZELostream, WritesNumbersIntoABufferWhenItIsFlushed)
{
    Buffer b;
    {
        ZELostream out(b);
        out << static_cast<unsigned short>(7) << -12;
        EXPECT_EQ(b.Size(), 0u) << "nothing arrives before the flush";
        out.flush();
        EXPECT_EQ(Bytes(b), "7|-12|");
        out << 5;
    }
    EXPECT_EQ(Bytes(b), "7|-12|5|") << "the destructor flushes, behind what is there";

    EXPECT_EQ(Put<short>(-32768), "-32768|");
    EXPECT_EQ(Put<short>(32767), "32767|");
    EXPECT_EQ(Put<int>(INT_MIN), "-2147483648|");
    EXPECT_EQ(Put<int>(0), "0|");
    EXPECT_EQ(Put<long>(LONG_MIN), std::to_string(LONG_MIN) + "|");
    EXPECT_EQ(Put<unsigned short>(65535), "65535|");
    EXPECT_EQ(Put<unsigned int>(UINT_MAX), "4294967295|");
    EXPECT_EQ(Put<unsigned long>(42), "42l|");
    EXPECT_EQ(Put<unsigned long>(ULONG_MAX), std::to_string(ULONG_MAX) + "l|");
    EXPECT_EQ(Put('c'), "c");
    EXPECT_EQ(Put('\0'), std::string(1, '\0'));
    EXPECT_EQ(Put<unsigned char>(0xff), "\xff");
}

TEST(ZELostream, WritesNumbersOnAStreamAtOnce)
{
    EXPECT_EQ(PutOnStream<short>(-5), "-5|");
    EXPECT_EQ(PutOnStream<int>(5), "5|");
    EXPECT_EQ(PutOnStream<long>(LONG_MIN), std::to_string(LONG_MIN) + "|");
    EXPECT_EQ(PutOnStream<unsigned short>(65535), "65535|");
    EXPECT_EQ(PutOnStream<unsigned int>(UINT_MAX), "4294967295|");
    EXPECT_EQ(PutOnStream<unsigned long>(42), "42|") << "the letter l stands in buffers only";
    EXPECT_EQ(PutOnStream('c'), "c");
    EXPECT_EQ(PutOnStream<unsigned char>('c'), "c");

    std::ostringstream os;
    ZELostream out(os);
    os << std::hex << std::setw(4) << std::setfill('_');
    out << 255 << 16;
    EXPECT_EQ(os.str(), "__ff|10|");
}

TEST(ZELostream, WritesRunsOfBytesAsTheyAre)
{
    Buffer b;
    std::ostringstream os;
    {
        ZELostream out(b), stream(os);
        for (ZELostream* s : {&out, &stream}) {
            s->put(static_cast<short>(5));
            EXPECT_EQ(s->write("a\0|b", 4), 4);
            EXPECT_EQ(s->write("x", 0), 0);
            EXPECT_EQ(s->write(nullptr, 0), 0);
        }
    }
    EXPECT_EQ(Bytes(b), std::string("5|a\0|b", 6));
    EXPECT_EQ(os.str(), std::string("5|a\0|b", 6));
}

TEST(ZELostream, StagesUpTo1024Bytes)
{
    Buffer b;
    ZELostream out(b);
    const std::string thousand(1000, 'a');
    out.write(thousand.data(), 1000);
    EXPECT_EQ(b.Size(), 0u);
    out.write(std::string(100, 'b').data(), 100);
    EXPECT_EQ(Bytes(b), thousand) << "the first bytes go before the next are staged";
    out.flush();
    EXPECT_EQ(Bytes(b), thousand + std::string(100, 'b'));
    out.flush();
    EXPECT_EQ(b.Size(), 1100u);

    b.PurgeContents();
    out.write(std::string(1000, 'c').data(), 1000);
    out.write(std::string(24, 'c').data(), 24);
    EXPECT_EQ(b.Size(), 0u) << "they fit exactly";
    out.put('d');
    EXPECT_EQ(b.Size(), 1024u);
    out.flush();

    b.PurgeContents();
    const std::string longRun(5000, 'e');
    out.put('1');
    out.write(longRun.data(), 5000);
    EXPECT_EQ(Bytes(b), "1");
    out.flush();
    EXPECT_EQ(Bytes(b), "1" + longRun);

    b.PurgeContents();
    out.write(longRun.data(), 4000);
    EXPECT_EQ(b.Size(), 0u) << "the staging area has grown";
    out.localbuf_add("xy", 2);
    out.flush();
    EXPECT_EQ(Bytes(b), std::string(4000, 'e') + "xy");
}

TEST(ZELostream, IsAsGoodAsItsStream)
{
    Buffer b;
    EXPECT_EQ(ZELostream(b).good(), 1);
    std::ostringstream os;
    ZELostream out(os);
    EXPECT_TRUE(out.good());
    os.setstate(std::ios::badbit);
    EXPECT_FALSE(out.good());
    out << 5 << 'c';
    EXPECT_EQ(os.str(), "");
}

// Counts bulk transfers without touching the bytes.
class Chunks : public std::streambuf {
public:
    std::vector<std::streamsize> sizes;

protected:
    std::streamsize xsputn(const char*, std::streamsize n) override
    {
        sizes.push_back(n);
        return n;
    }
    std::streamsize xsgetn(char*, std::streamsize n) override
    {
        sizes.push_back(n);
        return n;
    }
};

TEST(ZELstream, VeryLongRunsTravelInTwoChunks)
{
    if (sizeof(void*) == 4)
        GTEST_SKIP() << "no room for such a run";
    const std::size_t room = static_cast<std::size_t>(uint64_t{1} << 32);
    void* p = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    char* bytes = static_cast<char*>(p);
    const std::vector<std::streamsize> two = {2147483647, 11}, one = {2147483647};
    Chunks written;
    std::ostream os(&written);
    ZELostream out(os);
    EXPECT_EQ(static_cast<unsigned>(out.write(bytes, 2147483658u)), 2147483658u);
    EXPECT_EQ(written.sizes, two);
    written.sizes.clear();
    EXPECT_EQ(out.write(bytes, 2147483647u), 2147483647);
    EXPECT_EQ(written.sizes, one);
    Chunks read;
    std::istream is(&read);
    ZEListream in(is);
    EXPECT_EQ(static_cast<unsigned>(in.read(bytes, 2147483658u)), 2147483658u);
    EXPECT_EQ(read.sizes, two);
    munmap(p, room);
}

template <class N>
std::string Get(const std::string& text, N before)
{
    Buffer b = BufferOf(text);
    ZEListream in(b);
    N n = before;
    in >> n;
    return std::to_string(n) + " at " + std::to_string(in.tellg());
}

TEST(ZEListream, ReadsNumbersFromABuffer)
{
    EXPECT_EQ(Get<short>("-5|6|", 9), "-5 at 3");
    EXPECT_EQ(Get<int>("12|", 9), "12 at 3");
    EXPECT_EQ(Get<long>("-9223372036854775808|", 9), std::to_string(LONG_MIN) + " at 21");
    EXPECT_EQ(Get<unsigned short>("65535|", 9), "65535 at 6");
    EXPECT_EQ(Get<unsigned int>("4294967295|", 9), "4294967295 at 11");
    EXPECT_EQ(Get<unsigned long>("18446744073709551615|", 9), std::to_string(ULONG_MAX) + " at 21");
    EXPECT_EQ(Get<int>(" \t\r\n\v\f+12|", 9), "12 at 10");
}

TEST(ZEListream, ANumberWithoutItsDelimiterMovesNoPosition)
{
    EXPECT_EQ(Get<int>("12x", 9), "12 at 0");
    EXPECT_EQ(Get<int>("12", 9), "12 at 0");
    EXPECT_EQ(Get<int>("12 |", 9), "12 at 0");
    EXPECT_EQ(Get<unsigned long>("42l|", 9), "42 at 0");
    EXPECT_EQ(Get<int>("", 9), "9 at 0");
    EXPECT_EQ(Get<int>("|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("x12|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("-|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("- 1|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("+-1|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("--1|", 9), "9 at 0");
    EXPECT_EQ(Get<int>("   ", 9), "9 at 0");
    EXPECT_EQ(Get<int>(std::string("1\0|", 3), 9), "1 at 0");
    EXPECT_EQ(Get<int>(std::string("\0"
                                   "1|",
                                   3),
                       9),
              "9 at 0");
}

TEST(ZEListream, NumbersOutOfRangeAsTheHostReadsThem)
{
    EXPECT_EQ(Get<short>("65537|", 9), "1 at 6");
    EXPECT_EQ(Get<short>("32768|", 9), "-32768 at 6");
    // An int is cut out of a long.
    EXPECT_EQ(Get<int>("4294967295|", 9), sizeof(long) == 4 ? "2147483647 at 11" : "-1 at 11");
    EXPECT_EQ(Get<int>("99999999999999999999|", 9), std::to_string(static_cast<int>(LONG_MAX)) + " at 21");
    EXPECT_EQ(Get<int>("-99999999999999999999|", 9), std::to_string(static_cast<int>(LONG_MIN)) + " at 22");
    EXPECT_EQ(Get<long>("99999999999999999999|", 9), std::to_string(LONG_MAX) + " at 21");
    EXPECT_EQ(Get<long>("-9223372036854775809|", 9), std::to_string(LONG_MIN) + " at 21");
    EXPECT_EQ(Get<unsigned short>("-1|", 9), "65535 at 3");
    EXPECT_EQ(Get<unsigned int>("-1|", 9), "4294967295 at 3");
    EXPECT_EQ(Get<unsigned long>("-1|", 9), std::to_string(ULONG_MAX) + " at 3");
    EXPECT_EQ(Get<unsigned long>("-99999999999999999999|", 9), std::to_string(ULONG_MAX) + " at 22");
    EXPECT_EQ(Get<unsigned int>("99999999999999999999|", 9), "4294967295 at 21");
}

TEST(ZEListream, AnUnsignedLongWrittenToABufferStays)
{
    Buffer b;
    ZELostream out(b);
    out << 42ul << 7;
    out.flush();
    ZEListream in(b);
    unsigned long n = 0;
    int next = 0;
    in >> n >> next;
    EXPECT_EQ(n, 42u);
    EXPECT_EQ(next, 42) << "the next read sees the same text";
    EXPECT_EQ(in.tellg(), 0u);
    EXPECT_TRUE(in.good());
}

// The same read by the C library.
template <class N>
std::string Scan(const std::string& text, unsigned position, const char* format)
{
    N n = 99;
    int moved = 0;
    if (position < text.size())
        std::sscanf(text.c_str() + position, format, &n, &moved);
    return std::to_string(n) + " at " + std::to_string(position + static_cast<unsigned>(moved));
}

template <class N>
std::string GetAt(const std::string& text, unsigned position)
{
    Buffer b = BufferOf(text); // a block of just this size, not terminated
    ZEListream in(b);
    in.seekg(position, std::ios::beg);
    N n = 99;
    in.get(n);
    return std::to_string(n) + " at " + std::to_string(in.tellg());
}

TEST(ZEListream, ReadsWhatTheHostReads)
{
    std::mt19937 random(20261121);
    const auto below = [&random](unsigned n) { return random() % n; };
    const std::string parts[] = {" ",
                                 "\t",
                                 "\n",
                                 "\v",
                                 "\r\n",
                                 "|",
                                 "|",
                                 "-",
                                 "+",
                                 "0",
                                 "00000000000000000000000",
                                 "x",
                                 "l",
                                 ".",
                                 "1",
                                 "2147483647",
                                 "2147483648",
                                 "4294967296",
                                 "9223372036854775807",
                                 "9223372036854775808",
                                 "18446744073709551615",
                                 "18446744073709551616",
                                 "65536",
                                 "0x10",
                                 "1e5",
                                 "99999999999999999999999999",
                                 "\xa0",
                                 std::string(1, '\0'),
                                 ""};
    const unsigned count = sizeof parts / sizeof parts[0];
    for (int round = 0; round < 60000; round++) {
        std::string text;
        for (unsigned i = below(7); i > 0; i--)
            text += parts[below(count)];
        for (unsigned i = below(3) * 10; i > 0; i--)
            text += static_cast<char>('0' + below(10));
        text += parts[below(count)];
        const unsigned at = text.empty() || below(2) ? 0 : below(static_cast<unsigned>(text.size()) + 1);
        ASSERT_EQ(GetAt<short>(text, at), Scan<short>(text, at, "%hd|%n")) << text;
        ASSERT_EQ(GetAt<int>(text, at), Scan<int>(text, at, "%d|%n")) << text;
        ASSERT_EQ(GetAt<long>(text, at), Scan<long>(text, at, "%ld|%n")) << text;
        ASSERT_EQ(GetAt<unsigned short>(text, at), Scan<unsigned short>(text, at, "%hu|%n")) << text;
        ASSERT_EQ(GetAt<unsigned int>(text, at), Scan<unsigned int>(text, at, "%u|%n")) << text;
        ASSERT_EQ(GetAt<unsigned long>(text, at), Scan<unsigned long>(text, at, "%lu|%n")) << text;
    }
}

TEST(ZELstream, WritesWhatTheHostPrints)
{
    std::mt19937_64 random(42);
    for (int round = 0; round < 20000; round++) {
        const unsigned long value = static_cast<unsigned long>(random() >> random() % 64);
        char text[64];
        std::snprintf(text, sizeof text, "%hd|", static_cast<short>(value));
        ASSERT_EQ(Put(static_cast<short>(value)), text);
        std::snprintf(text, sizeof text, "%d|", static_cast<int>(value));
        ASSERT_EQ(Put(static_cast<int>(value)), text);
        std::snprintf(text, sizeof text, "%ld|", static_cast<long>(value));
        ASSERT_EQ(Put(static_cast<long>(value)), text);
        std::snprintf(text, sizeof text, "%hu|", static_cast<unsigned short>(value));
        ASSERT_EQ(Put(static_cast<unsigned short>(value)), text);
        std::snprintf(text, sizeof text, "%u|", static_cast<unsigned>(value));
        ASSERT_EQ(Put(static_cast<unsigned>(value)), text);
        std::snprintf(text, sizeof text, "%lul|", value);
        ASSERT_EQ(Put(value), text);
    }
}

TEST(ZEListream, ReadingALargeBufferTakesLinearTime)
{
    // A read that looked at the rest of the buffer each time would take hours.
    const int count = 1000000;
    Buffer b;
    {
        std::string text;
        for (int i = 0; i < count; i++)
            text += std::to_string(i) + "|";
        b = BufferOf(text);
    }
    ZEListream in(b);
    for (int i = 0; i < count; i++) {
        int n = -1;
        in >> n;
        ASSERT_EQ(n, i);
    }
    EXPECT_EQ(in.tellg(), b.Size());
}

TEST(ZEListream, ReadsVeryLongNumbers)
{
    const std::string zeros(1000000, '0');
    EXPECT_EQ(Get<int>(zeros + "7|", 9), "7 at 1000002");
    EXPECT_EQ(Get<long>("-" + std::string(1000000, '9') + "|", 9), std::to_string(LONG_MIN) + " at 1000002");
    EXPECT_EQ(Get<int>(std::string(1000000, ' ') + "7|", 9), "7 at 1000002");
    EXPECT_EQ(Get<int>(std::string(1000000, ' '), 9), "9 at 0");
}

TEST(ZEListream, ReadsNumbersFromAStream)
{
    std::istringstream is("-5| 6 |7|8|9|10|c\xff");
    ZEListream in(is);
    short s;
    int i;
    long l;
    unsigned short us;
    unsigned int ui;
    unsigned long ul;
    char c;
    unsigned char uc;
    in >> s >> i >> l >> us >> ui >> ul >> c >> uc;
    EXPECT_EQ(s, -5);
    EXPECT_EQ(i, 6);
    EXPECT_EQ(l, 7);
    EXPECT_EQ(us, 8);
    EXPECT_EQ(ui, 9u);
    EXPECT_EQ(ul, 10u);
    EXPECT_EQ(c, 'c');
    EXPECT_EQ(uc, 0xff);
    EXPECT_TRUE(in.good());
    EXPECT_FALSE(in.eof());
    in >> i;
    EXPECT_FALSE(in.good());
    EXPECT_TRUE(in.eof());
}

TEST(ZEListream, ReadGivesOneByteMoreThanTheBuffer)
{
    Buffer b = BufferOf("abcd");
    b[4] = '#';
    ZEListream in(b);
    char bytes[10];
    std::memset(bytes, '.', sizeof bytes);
    EXPECT_EQ(in.read(bytes, 10), 5);
    EXPECT_EQ(std::string(bytes, 10), "abcd#.....");
    EXPECT_EQ(in.tellg(), 5u);
    EXPECT_EQ(in.eof(), 1);
    EXPECT_EQ(in.read(bytes, 10), 0);
    EXPECT_EQ(in.read(nullptr, 0), 0);
}

TEST(ZEListream, EofIsBeyondTheSize)
{
    Buffer b = BufferOf("ab");
    ZEListream in(b);
    char bytes[2];
    EXPECT_EQ(in.read(bytes, 2), 2);
    EXPECT_EQ(in.tellg(), 2u);
    EXPECT_EQ(in.eof(), 0);
    EXPECT_EQ(in.read(bytes, 1), 1);
    EXPECT_EQ(in.eof(), 1);
    EXPECT_TRUE(in.good());

    Buffer empty;
    ZEListream none(empty);
    EXPECT_EQ(none.eof(), 0);
    EXPECT_EQ(none.read(bytes, 2), 1);
    EXPECT_EQ(none.eof(), 1);
}

TEST(ZEListream, ReadFarBeyondTheEndGivesSpareBytes)
{
    Buffer b = BufferOf("abcd");
    b[4] = '#';
    ZEListream in(b);
    char bytes[10];
    const auto read = [&](long position, unsigned n) {
        in.seekg(position, std::ios::beg);
        std::memset(bytes, '.', sizeof bytes);
        return in.read(bytes, n);
    };
    EXPECT_EQ(read(6, 8), 8);
    EXPECT_EQ(std::string(bytes, 10), "########..");
    EXPECT_EQ(in.tellg(), 14u);
    EXPECT_EQ(read(static_cast<long>(4294967295), 10), 6)
        << "in 32 bits six bytes are left up to the size and one more";
    EXPECT_EQ(std::string(bytes, 10), "######....");
    EXPECT_EQ(in.tellg(), 5u);
    EXPECT_EQ(read(-1, 3), 3);
    EXPECT_EQ(std::string(bytes, 10), "###.......");
    int n = 9;
    read(1000000, 1);
    in >> n;
    EXPECT_EQ(n, 9);
}

TEST(ZEListream, ReadsCharacters)
{
    Buffer b = BufferOf(std::string("a\0\xff", 3));
    b[3] = '#';
    ZEListream in(b);
    char c = 0;
    unsigned char u = 0;
    in >> c;
    EXPECT_EQ(c, 'a');
    in >> u;
    EXPECT_EQ(u, 0);
    in >> u;
    EXPECT_EQ(u, 0xff);
    in >> c;
    EXPECT_EQ(c, '#') << "the spare byte";
    c = 'o';
    u = 'o';
    in >> c >> u;
    EXPECT_EQ(c, 'o');
    EXPECT_EQ(u, 'o');
}

TEST(ZEListream, ReadsBytesFromAStream)
{
    std::istringstream is("abcd");
    ZEListream in(is);
    char bytes[10];
    EXPECT_EQ(in.read(bytes, 3), 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(in.tellg(), 3u);
    EXPECT_EQ(in.read(bytes, 10), 1);
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.good());
}

TEST(ZEListream, SeekInABufferIgnoresTheDirection)
{
    Buffer b = BufferOf("12|34|56|");
    ZEListream in(b);
    in.seekg(3, std::ios::end);
    EXPECT_EQ(in.tellg(), 3u) << "whatever the direction";
    int n = 0;
    in >> n;
    EXPECT_EQ(n, 34);
    in.seekg(3, std::ios::cur);
    EXPECT_EQ(in.tellg(), 3u);

    std::istringstream is("12|34|56|");
    ZEListream stream(is);
    stream.seekg(-3, std::ios::end);
    EXPECT_EQ(stream.tellg(), 6u);
    stream >> n;
    EXPECT_EQ(n, 56);
    stream.seekg(0, std::ios::beg);
    stream.seekg(3, std::ios::cur);
    stream >> n;
    EXPECT_EQ(n, 34);
}

TEST(ZEListream, TheReadErrorFlagMakesItBadWithoutStoppingIt)
{
    Buffer b = BufferOf("1|");
    std::istringstream is("1|");
    ZEListream fromBuffer(b), fromStream(is);
    for (ZEListream* in : {&fromBuffer, &fromStream}) {
        EXPECT_TRUE(in->good());
        in->SetReadErrorFlag();
        EXPECT_EQ(in->good(), 0);
        int n = 0;
        *in >> n;
        EXPECT_EQ(n, 1) << "the flag does not stop the reading";
        in->ClearReadErrorFlag();
        EXPECT_TRUE(in->good());
    }
    EXPECT_EQ(fromBuffer.good(), 1);
}

// Derived streams change the encoding through the virtual operations.
class Upper : public ZELostream {
public:
    using ZELostream::put;
    using ZELostream::ZELostream;
    void put(int) override { put('I'); }
    void put(unsigned long) override { put('U'); }
};

class Half : public ZEListream {
public:
    using ZEListream::ZEListream;
    int read(char* p, unsigned n) override
    {
        std::memset(p, '/', n);
        return static_cast<int>(n / 2);
    }
};

TEST(ZELstream, OperatorsCallTheVirtualOperations)
{
    std::ostringstream os;
    Upper out(os);
    ZELostream& base = out;
    EXPECT_EQ(&(base << 5 << 5ul << static_cast<short>(5)), &base);
    EXPECT_EQ(os.str(), "IU5|");

    Buffer b = BufferOf("abc");
    Half in(b);
    char c = 0;
    unsigned char u = 0;
    static_cast<ZEListream&>(in) >> c >> u;
    EXPECT_EQ(c, '/');
    EXPECT_EQ(u, '/');
}

TEST(ZELstream, EveryTypeRoundTrips)
{
    Buffer b;
    std::stringstream stream;
    {
        ZELostream toBuffer(b), toStream(stream);
        for (ZELostream* out : {&toBuffer, &toStream})
            *out << 'c' << static_cast<short>(SHRT_MIN) << INT_MAX << LONG_MAX << static_cast<unsigned char>(200)
                 << static_cast<unsigned short>(USHRT_MAX) << UINT_MAX;
    }
    EXPECT_EQ(Bytes(b), stream.str());
    ZEListream fromBuffer(b), fromStream(stream);
    for (ZEListream* in : {&fromBuffer, &fromStream}) {
        char c = 0;
        short s = 0;
        int i = 0;
        long l = 0;
        unsigned char uc = 0;
        unsigned short us = 0;
        unsigned int ui = 0;
        *in >> c >> s >> i >> l >> uc >> us >> ui;
        EXPECT_EQ(c, 'c');
        EXPECT_EQ(s, SHRT_MIN);
        EXPECT_EQ(i, INT_MAX);
        EXPECT_EQ(l, LONG_MAX);
        EXPECT_EQ(uc, 200);
        EXPECT_EQ(us, USHRT_MAX);
        EXPECT_EQ(ui, UINT_MAX);
        EXPECT_TRUE(in->good());
    }
    EXPECT_EQ(fromBuffer.tellg(), b.Size());
}

} // namespace
