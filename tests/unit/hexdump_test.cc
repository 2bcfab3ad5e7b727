// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/hexdump.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

using namespace zeloo;

namespace {

const unsigned char* Bytes(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

// What `put` writes; whatever it does not write is a '#'.
template <class Put>
std::string Written(Put put)
{
    char room[RowTextLength + 8];
    std::memset(room, '#', sizeof room);
    std::string text(room, put(room));
    EXPECT_LE(text.size(), RowTextLength);
    EXPECT_EQ(std::string(room + text.size(), room + sizeof room), std::string(sizeof room - text.size(), '#'));
    return text;
}

std::string ByteRow(const std::string& bytes)
{
    return Written([&](char* to) { return PutByteRow(to, Bytes(bytes), static_cast<unsigned>(bytes.size())); });
}

std::string WordRow(const std::string& bytes)
{
    return Written([&](char* to) { return PutWordRow(to, Bytes(bytes)); });
}

TEST(HexDump, EveryByteInTwoDigits)
{
    for (unsigned byte = 0; byte < 256; byte++) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02x", byte);
        EXPECT_EQ(Written([&](char* to) { return PutHexByte(to, static_cast<unsigned char>(byte)); }), expected);
    }
}

TEST(HexDump, PrintableCharactersStandForThemselves)
{
    for (unsigned byte = 0; byte < 256; byte++)
        EXPECT_EQ(Printable(static_cast<unsigned char>(byte)), byte > 32 && byte < 127 ? static_cast<char>(byte) : ' ');
}

TEST(HexDump, ByteRows)
{
    EXPECT_EQ(ByteRow("0123456789abcdef"), "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef");
    EXPECT_EQ(ByteRow("A\n\xff"), "41 0a ff " + std::string(40, ' ') + "A  ");
    EXPECT_EQ(ByteRow(std::string(1, '\0')), "00 " + std::string(47, ' '));
    EXPECT_EQ(ByteRow("0123456789abcde"), "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65     0123456789abcde");
    EXPECT_EQ(ByteRow(""), std::string(49, ' '));
}

TEST(HexDump, WordRows)
{
    const uint32_t words[] = {0x12345678, 0x00000abc, 0xffffffff, 0x80000000};
    const std::string bytes(reinterpret_cast<const char*>(words), sizeof words);
    EXPECT_EQ(WordRow(bytes).substr(0, 37), "12345678 00000abc ffffffff 80000000 [");
    const char characters[] = "AbCd 1~\x7f\x1f\n\0\xc1\xe2\xff\x80z";
    EXPECT_EQ(WordRow(std::string(characters, BytesInRow)).substr(36), "[AbCd 1~    Ab  z]");
}

} // namespace
