// SPDX-License-Identifier: BSD-2-Clause
// The host's byte order macros come first here, in every build; FaultId_test.cc has them behind the class.
#include <arpa/inet.h>
#ifndef htons
#define htons(x) __bswap_16(x)
#define ntohs(x) __bswap_16(x)
#define htonl(x) __bswap_32(x)
#define ntohl(x) __bswap_32(x)
#endif
#include "Misc/nfstream.h"
#include <netinet/in.h>

#include <climits>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Misc/cstring.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

template <class N>
std::string Put(N n)
{
    std::ostringstream bytes;
    onfstream s(bytes);
    s.put(n);
    return bytes.str();
}

// What a get into a target that held `before` makes of `bytes`.
template <class N>
N Get(const std::string& bytes, N before = 77)
{
    std::istringstream source(bytes);
    infstream s(source);
    s.get(before);
    return before;
}

TEST(ByteAccess, TakesNumbersApart)
{
    EXPECT_EQ(ByteAccess::lobyte(0xABCD), 0xCD);
    EXPECT_EQ(ByteAccess::hibyte(0xABCD), 0xAB);
    EXPECT_EQ(ByteAccess::loword(0x89ABCDEFUL), 0xCDEF);
    EXPECT_EQ(ByteAccess::hiword(0x89ABCDEFUL), 0x89AB);
}

TEST(ByteAccess, SwapReversesTheBytes)
{
    EXPECT_EQ(ByteAccess::swap(static_cast<unsigned short>(0x12FE)), 0xFE12);
    EXPECT_EQ(ByteAccess::swap(0x123456FEUL), 0xFE563412UL);
    EXPECT_EQ(ByteAccess::swap(0UL), 0UL);
}

TEST(ByteAccess, ConversionsAlwaysReverse)
{
    const short s = -2;
    const unsigned short us = 0x12FE;
    EXPECT_EQ(ByteAccess::htons(us), 0xFE12);
    EXPECT_EQ(ByteAccess::ntohs(us), 0xFE12);
    EXPECT_EQ(ByteAccess::htons(s), 0xFEFF);
    EXPECT_EQ(ByteAccess::ntohs(s), 0xFEFF);
    EXPECT_EQ(ByteAccess::htonl(0x12345678UL), 0x78563412UL);
    EXPECT_EQ(ByteAccess::ntohl(0x12345678UL), 0x78563412UL);
    EXPECT_EQ(ByteAccess::htonl(-2L), 0xFEFFFFFFUL);
    EXPECT_EQ(ByteAccess::ntohl(-2L), 0xFEFFFFFFUL);
    EXPECT_EQ(static_cast<int32_t>(ByteAccess::ntohl(ByteAccess::htonl(-2L))), -2);
}

TEST(ByteAccess, ALongStandsForItsLow32Bits)
{
    if (sizeof(long) == 4)
        GTEST_SKIP() << "a long has no more bits here";
    const unsigned long wide = static_cast<unsigned long>(0xAAAAAAAA12345678);
    EXPECT_EQ(ByteAccess::swap(wide), 0x78563412UL);
    EXPECT_EQ(ByteAccess::hiword(wide), 0x1234);
    EXPECT_EQ(ByteAccess::loword(wide), 0x5678);
}

// The macros of the host must neither replace the names of the class nor be missed.
TEST(ByteAccess, LivesBesideTheFunctionsOfTheHost)
{
    const unsigned short port = 0x1F90;
    const uint32_t address = 0x7F000001;
    const bool isReversing = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__; // those of the class always are
    EXPECT_EQ(ByteAccess::htons(port), isReversing ? ::htons(port) : 0x901F);
    EXPECT_EQ(ByteAccess::ntohs(port), isReversing ? ntohs(port) : 0x901F);
    EXPECT_EQ(ByteAccess::htonl(static_cast<unsigned long>(address)), isReversing ? htonl(address) : 0x0100007F);
    EXPECT_EQ(ByteAccess::ntohl(static_cast<unsigned long>(address)), isReversing ? ::ntohl(address) : 0x0100007F);
    unsigned short (*const shorts[])(unsigned short) = {&ByteAccess::htons, &ByteAccess::ntohs};
    for (const auto conversion : shorts)
        EXPECT_EQ(conversion(port), 0x901F);
    unsigned long (*const longs[])(unsigned long) = {&ByteAccess::htonl, &ByteAccess::ntohl};
    for (const auto conversion : longs)
        EXPECT_EQ(conversion(address), 0x0100007FUL);
    std::ostringstream bytes;
    onfstream s(bytes);
    EXPECT_EQ(s.htons(port), 0x901F) << "as a member of the streams too";
}

TEST(Onfstream, ShortsTakeTwoBytes)
{
    EXPECT_EQ(Put<short>(0x1234), Bytes("\x12\x34"));
    EXPECT_EQ(Put<short>(-2), Bytes("\xFF\xFE"));
    EXPECT_EQ(Put<short>(SHRT_MIN), Bytes("\x80\x00"));
    EXPECT_EQ(Put<unsigned short>(0xFEDC), Bytes("\xFE\xDC"));
    EXPECT_EQ(Put<unsigned short>(0), Bytes("\0\0"));
}

TEST(Onfstream, IntsAndLongsTakeFourBytes)
{
    EXPECT_EQ(Put<int>(0x12345678), Bytes("\x12\x34\x56\x78"));
    EXPECT_EQ(Put<int>(-2), Bytes("\xFF\xFF\xFF\xFE"));
    EXPECT_EQ(Put<int>(INT_MIN), Bytes("\x80\0\0\0"));
    EXPECT_EQ(Put<long>(1), Bytes("\0\0\0\1"));
    EXPECT_EQ(Put<long>(-2), Bytes("\xFF\xFF\xFF\xFE"));
    EXPECT_EQ(Put<unsigned int>(0xFEDCBA98U), Bytes("\xFE\xDC\xBA\x98"));
    EXPECT_EQ(Put<unsigned long>(0xFEDCBA98UL), Bytes("\xFE\xDC\xBA\x98"));
}

TEST(Onfstream, NumbersBeyond32BitsAreCut)
{
    if (sizeof(long) == 4)
        GTEST_SKIP() << "a long has no more bits here";
    EXPECT_EQ(Put<long>(static_cast<long>(0x7ABBCCDD01020304)), Bytes("\1\2\3\4"));
    EXPECT_EQ(Put<long>(LONG_MIN), Bytes("\0\0\0\0"));
    EXPECT_EQ(Put<unsigned long>(ULONG_MAX - 1), Bytes("\xFF\xFF\xFF\xFE"));
}

TEST(Onfstream, CharactersAndRunsAreThemselves)
{
    EXPECT_EQ(Put<char>('|'), "|");
    EXPECT_EQ(Put<char>('\0'), Bytes("\0"));
    EXPECT_EQ(Put<unsigned char>(0xFE), "\xFE");
    std::ostringstream bytes;
    onfstream s(bytes);
    EXPECT_EQ(s.write("a\0b", 3), 3);
    EXPECT_EQ(bytes.str(), Bytes("a\0b"));
}

TEST(Onfstream, AStringIsItsLengthAndItsCharacters)
{
    std::ostringstream bytes;
    onfstream s(bytes);
    s << CString("hi") << CString();
    EXPECT_EQ(bytes.str(), Bytes("\0\2hi\0\0"));
}

TEST(Onfstream, IgnoresTheManipulatorsOfTheStream)
{
    std::ostringstream bytes;
    bytes << std::hex << std::showbase << std::setw(12) << std::setfill('*');
    onfstream s(bytes);
    s << static_cast<short>(255) << 255 << 255L;
    EXPECT_EQ(bytes.str(), Bytes("\0\xFF\0\0\0\xFF\0\0\0\xFF"));
}

// Object code knows only the base classes.
TEST(NetworkStreams, OperatorsOfTheBaseReachEveryType)
{
    std::ostringstream bytes;
    {
        onfstream network(bytes);
        ZELostream& s = network;
        s << 'c' << static_cast<short>(-3) << -4 << -5L << static_cast<unsigned char>(200)
          << static_cast<unsigned short>(60000) << 4000000000U << 4000000001UL << CString("text");
    }
    const std::string expected =
        Bytes("c\xFF\xFD\xFF\xFF\xFF\xFC\xFF\xFF\xFF\xFB\xC8\xEA\x60\xEE\x6B\x28\x00\xEE\x6B\x28\x01\x00\x04text");
    EXPECT_EQ(bytes.str(), expected);

    std::istringstream source(expected);
    infstream network(source);
    ZEListream& s = network;
    char c = 0;
    short h = 0;
    int i = 0;
    long l = 0;
    unsigned char uc = 0;
    unsigned short uh = 0;
    unsigned int ui = 0;
    unsigned long ul = 0;
    CString text;
    s >> c >> h >> i >> l >> uc >> uh >> ui >> ul >> text;
    EXPECT_EQ(c, 'c');
    EXPECT_EQ(h, -3);
    EXPECT_EQ(i, -4);
    EXPECT_EQ(l, -5);
    EXPECT_EQ(uc, 200);
    EXPECT_EQ(uh, 60000);
    EXPECT_EQ(ui, 4000000000U);
    EXPECT_EQ(ul, 4000000001UL);
    EXPECT_STREQ(text, "text");
    EXPECT_NE(s.good(), 0);
    EXPECT_EQ(source.get(), EOF) << "nothing is left";
}

TEST(Infstream, NegativeNumbersReadBackNegative)
{
    EXPECT_EQ(Get<short>("\xFF\xFE"), -2);
    EXPECT_EQ(Get<int>("\xFF\xFF\xFF\xFE"), -2);
    EXPECT_EQ(Get<long>("\xFF\xFF\xFF\xFE"), -2L);
    EXPECT_EQ(Get<long>(Bytes("\x80\0\0\0")), static_cast<long>(INT_MIN));
    EXPECT_EQ(Get<unsigned short>("\xFF\xFE"), 0xFFFE);
    EXPECT_EQ(Get<unsigned int>("\xFF\xFF\xFF\xFE"), 0xFFFFFFFEU);
    EXPECT_EQ(Get<unsigned long>("\xFF\xFF\xFF\xFE"), 0xFFFFFFFEUL);
}

TEST(Infstream, BytesThatAreMissingAreZero)
{
    EXPECT_EQ(Get<short>("\x12"), 0x1200);
    EXPECT_EQ(Get<short>(""), 0);
    EXPECT_EQ(Get<unsigned short>("\x12"), 0x1200);
    EXPECT_EQ(Get<unsigned short>(""), 0);
    EXPECT_EQ(Get<int>("\x12\x34\x56"), 0x12345600);
    EXPECT_EQ(Get<int>(""), 0);
    EXPECT_EQ(Get<long>("\xFF"), static_cast<long>(INT_MIN) + 0x7F000000L);
    EXPECT_EQ(Get<long>(""), 0);
    EXPECT_EQ(Get<unsigned int>("\x12\x34"), 0x12340000U);
    EXPECT_EQ(Get<unsigned long>("\xFF"), 0xFF000000UL);
}

TEST(Infstream, AShortReadLeavesNoneOfAnEarlierNumber)
{
    std::istringstream source("\x11\x22\x33\x44\x55");
    infstream s(source);
    unsigned long n = 0;
    s >> n;
    EXPECT_EQ(n, 0x11223344UL);
    EXPECT_NE(s.good(), 0);
    s >> n;
    EXPECT_EQ(n, 0x55000000UL);
    EXPECT_EQ(s.good(), 0);
    s >> n;
    EXPECT_EQ(n, 0UL);

    std::istringstream shorter("\x11\x22\x33");
    infstream t(shorter);
    unsigned short h = 0;
    t >> h;
    EXPECT_EQ(h, 0x1122);
    t >> h;
    EXPECT_EQ(h, 0x3300);
    t >> h;
    EXPECT_EQ(h, 0);
}

TEST(Infstream, ReadsCharactersAsTheyAre)
{
    std::istringstream source(" \xFE|");
    infstream s(source);
    char c = 0;
    unsigned char uc = 0;
    s >> c >> uc;
    EXPECT_EQ(c, ' ');
    EXPECT_EQ(uc, 0xFE);
    char rest[4] = "";
    EXPECT_EQ(s.read(rest, 3), 1);
    EXPECT_STREQ(rest, "|");
    EXPECT_EQ(Get<char>("\n"), '\n');
    EXPECT_EQ(Get<unsigned char>("\xFE"), 0xFE);
}

TEST(NetworkStreams, FailuresOfAFileShow)
{
    std::ofstream full("/dev/full", std::ios::binary);
    onfstream out(full);
    EXPECT_NE(out.good(), 0);
    out << 1L;
    out.flush();
    EXPECT_EQ(out.good(), 0);
    std::ifstream none("/nosuch/file");
    infstream in(none);
    long n = 5;
    in >> n;
    EXPECT_EQ(n, 0);
    EXPECT_EQ(in.good(), 0);
}

TEST(Onfstream, FlushesWhenItGoes)
{
    TemporaryDirectory directory;
    std::ofstream file(directory.File("out"), std::ios::binary);
    {
        onfstream s(file);
        s << 258L;
    }
    EXPECT_EQ(ReadFile(directory.File("out")), Bytes("\0\0\1\2"));
}

} // namespace
