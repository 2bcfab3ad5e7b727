// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/buffer.h"

#include "Misc/Error.h"
#include "Misc/cstring.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

using testing_support::BufferOf;
using testing_support::Bytes;
using testing_support::CaptureStderr;
using testing_support::ChildResult;
using testing_support::HexDump;
using testing_support::MemoryLimit;
using testing_support::ReportField;
using testing_support::RunInChild;

namespace {

const unsigned Most = 4294967295u;

const char* Raw(const Buffer& b) { return static_cast<const char*>(b.operator const void*()); }

TEST(Buffer, AnEmptyBufferHasNoBlock)
{
    Buffer b(0);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);
    EXPECT_STREQ(b.GetCString(), "");
    EXPECT_EQ(b.IsNullTerminated(), 0);
    Buffer other(3);
    b[0] = 's';
    EXPECT_EQ(other[3], 's') << "one spare byte for all";
    EXPECT_EQ(&b[0], &other[Most]);
    Buffer copy(b);
    EXPECT_EQ(copy.Size(), 0u);
    other = b;
    EXPECT_EQ(other.Size(), 0u);
    EXPECT_EQ(Raw(other), nullptr);
}

TEST(Buffer, AConstBufferIsIndexedInPlace)
{
    const Buffer b = BufferOf("abc");
    EXPECT_EQ(b[0], 'a');
    EXPECT_EQ(&b[2], Raw(b) + 2) << "not in a copy of its text";
    Buffer other;
    EXPECT_EQ(&b[3], &other[0]) << "the spare byte";
    EXPECT_EQ(&b[Most], &other[0]);
    const Buffer none;
    EXPECT_EQ(&none[0], &other[0]);
}

TEST(Buffer, IsIndexedByAnyIntegralType)
{
    Buffer b = BufferOf("abc");
    const Buffer& c = b;
    for (const char* p : {&b[1], &b[1u], &b[1l], &b[1ul], &b[1ll], &b[size_t{1}], &b[short{1}], &b['\1'], &b[true]})
        EXPECT_EQ(p, Raw(b) + 1);
    for (const char* p : {&c[1], &c[1u], &c[1l], &c[1ul], &c[1ll], &c[size_t{1}], &c[short{1}], &c['\1'], &c[true]})
        EXPECT_EQ(p, Raw(b) + 1);
    const char* const spare = &b[3];
    for (const int64_t i : std::vector<int64_t>{-1, 0x100000000, 0x100000001, INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(&b[i], spare) << i;
        EXPECT_EQ(&c[i], spare) << i;
    }
    EXPECT_EQ(&b[-1], spare);
    EXPECT_EQ(&c[UINT64_MAX], spare);
}

TEST(Buffer, ReSizeDiscards)
{
    Buffer b(4);
    EXPECT_EQ(b.Size(), 4u);
    EXPECT_NE(Raw(b), nullptr);
    std::memcpy(&b[0], "abcd", 4);
    b.ReSize(10);
    EXPECT_EQ(b.Size(), 10u);
    b.ReSize(0);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);
}

class Counting : public Buffer {
public:
    void PurgeContents() override
    {
        purges++;
        Buffer::PurgeContents();
    }
    int purges = 0;
};

TEST(Buffer, PurgesThroughTheVirtualTable)
{
    Counting b;
    b.ReSize(3);
    EXPECT_EQ(b.purges, 1);
    b.AssignPtr(nullptr, 5);
    EXPECT_EQ(b.purges, 2);
    EXPECT_EQ(b.Size(), 0u);
}

TEST(Buffer, CopiesAreDeep)
{
    Buffer a = BufferOf(std::string("a\0b", 3));
    Buffer b(a);
    EXPECT_EQ(Bytes(b), std::string("a\0b", 3));
    EXPECT_NE(Raw(a), Raw(b));
    b[0] = 'x';
    EXPECT_EQ(a[0], 'a');
    const void* block = Raw(a);
    Buffer& same = a;
    a = same;
    EXPECT_EQ(Raw(a), block);
    EXPECT_EQ(Bytes(a), std::string("a\0b", 3));
    a = b;
    EXPECT_EQ(Bytes(a), std::string("x\0b", 3));
}

TEST(Buffer, PutDataAtReplacesAndExtends)
{
    Buffer b;
    b.PutDataAt(10, "ab", 2);
    EXPECT_EQ(b.Size(), 12u);
    EXPECT_EQ(Bytes(b).substr(10), "ab");

    b = BufferOf("abcdef");
    b.PutDataAt(2, "XY", 2);
    EXPECT_EQ(Bytes(b), "abXYef");
    b.PutDataAt(5, "123", 3);
    EXPECT_EQ(Bytes(b), "abXYe123");
    b.PutDataAt(8, "", 0);
    b.PutDataAt(3, nullptr, 3);
    EXPECT_EQ(Bytes(b), "abXYe123");
    b.PutDataAt(12, "", 0);
    EXPECT_EQ(b.Size(), 12u);
    EXPECT_EQ(Bytes(b).substr(0, 8), "abXYe123");
}

TEST(Buffer, PutDataAtBeyond32BitsWritesNothing)
{
    Buffer b = BufferOf("abc");
    const void* block = Raw(b);
    b.PutDataAt(Most, "xy", 2);
    b.PutDataAt(Most - 1, "xyz", 3);
    b.PutDataAt(3, "xyz", Most);
    b.Append("xyz", Most);
    EXPECT_EQ(Bytes(b), "abc");
    EXPECT_EQ(Raw(b), block);
}

TEST(Buffer, TakesSourcesWithinItself)
{
    Buffer b = BufferOf("abcd");
    for (int i = 0; i < 12; i++) // often enough for the block to move
        b.Append(Raw(b), b.Size());
    ASSERT_EQ(b.Size(), 4096u * 4);
    std::string expected;
    for (int i = 0; i < 4096; i++)
        expected += "abcd";
    EXPECT_EQ(Bytes(b), expected);

    b = BufferOf("0123456789");
    b.PutDataAt(2, Raw(b), 8);
    EXPECT_EQ(Bytes(b), "0101234567");
    b.PutDataAt(100000, Raw(b) + 8, 2);
    EXPECT_EQ(Bytes(b).substr(100000), "67");
}

TEST(Buffer, GetDataAtStopsAtTheEnd)
{
    const Buffer b = BufferOf("0123456789ab");
    char out[12];
    const auto get = [&](unsigned pos, unsigned len) {
        std::memset(out, '.', sizeof out);
        b.GetDataAt(pos, out, len);
        return std::string(out, sizeof out);
    };
    EXPECT_EQ(get(8, 10), "89ab........");
    EXPECT_EQ(get(0, 3), "012.........");
    EXPECT_EQ(get(12, 10), "............");
    EXPECT_EQ(get(Most, Most), "............");
    EXPECT_EQ(get(11, Most), "b...........");
    b.GetDataAt(0, nullptr, 5);
    Buffer().GetDataAt(0, out, 5);
}

TEST(Buffer, AppendsTextsAndBytes)
{
    Buffer b;
    b.Append("");
    b.Append(static_cast<const char*>(nullptr));
    b.Append(nullptr, 5);
    b.Append("xyz", 0);
    EXPECT_EQ(Raw(b), nullptr);
    b.Append("ab");
    EXPECT_EQ(Bytes(b), "ab");
    EXPECT_EQ(b.IsNullTerminated(), 0);
    b.Append("cd", 3);
    EXPECT_EQ(Bytes(b), std::string("abcd\0", 5));
    EXPECT_EQ(b.IsNullTerminated(), 1);
    b.Append(b.GetCString());
    EXPECT_EQ(Bytes(b), std::string("abcd\0abcd", 9));
}

TEST(Buffer, GivesATerminatedText)
{
    Buffer terminated = BufferOf(std::string("ab\0", 3));
    EXPECT_EQ(terminated.GetCString(), Raw(terminated));
    EXPECT_EQ(static_cast<const char*>(terminated), Raw(terminated));

    const Buffer open = BufferOf(std::string("a\0bc", 4));
    const char* text = open;
    EXPECT_NE(text, Raw(open));
    EXPECT_EQ(std::memcmp(text, "a\0bc", 5), 0);
    EXPECT_STREQ(BufferOf("other").GetCString(), "other");
    EXPECT_STREQ(Buffer().GetCString(), "");
}

TEST(Buffer, ReleasesItsBlockAndTakesAnother)
{
    Buffer b = BufferOf("abc");
    void* block = b.ReleasePtr();
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);
    EXPECT_EQ(std::memcmp(block, "abc", 3), 0);
    b = BufferOf("old contents");
    b.AssignPtr(block, 3);
    EXPECT_EQ(Raw(b), block);
    EXPECT_EQ(Bytes(b), "abc");
    b.AssignPtr(block, 2);
    EXPECT_EQ(Bytes(b), "ab");
    b.AssignPtr(nullptr, 7);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);
    EXPECT_EQ(b.ReleasePtr(), nullptr);
}

TEST(BufferFile, LoadsAFileWhole)
{
    testing_support::TemporaryDirectory dir;
    const std::string path = dir.File("f");
    const std::string content("zero\0and \xff\r\n", 12);
    testing_support::WriteFile(path, content);
    const int descriptors = testing_support::OpenDescriptors();
    Buffer b = BufferOf("old");
    EXPECT_EQ(b.LoadBufferFromFile(path.c_str()), 1);
    EXPECT_EQ(Bytes(b), content);

    testing_support::WriteFile(path, "");
    EXPECT_EQ(b.LoadBufferFromFile(path.c_str()), 1);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);

    b = BufferOf("old");
    EXPECT_EQ(b.LoadBufferFromFile(dir.File("none").c_str()), 0);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_FALSE(std::ifstream(dir.File("none")).is_open()) << "nothing is created";
    EXPECT_EQ(b.LoadBufferFromFile(dir.Path().c_str()), 0) << "a directory has no content to read";
    EXPECT_EQ(testing_support::OpenDescriptors(), descriptors);
}

TEST(BufferFile, LoadOfFewerBytesThanTheSizeKeepsTheSize)
{
    // This file says 4096 bytes and gives a few.
    Buffer b;
    const char* path = "/sys/kernel/mm/transparent_hugepage/enabled";
    std::ifstream in(path);
    if (!in.is_open())
        GTEST_SKIP() << "no sysfs here";
    const std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(b.LoadBufferFromFile(path), 0);
    ASSERT_EQ(b.Size(), 4096u);
    EXPECT_EQ(Bytes(b), content + std::string(4096 - content.size(), '\0'));
}

TEST(BufferFile, LoadFromAStreamAlwaysGivesZero)
{
    std::istringstream in(std::string("ab\0cdef", 7));
    Buffer b = BufferOf("old");
    EXPECT_EQ(b.LoadBufferFromFile(in, 4), 0);
    EXPECT_EQ(Bytes(b), std::string("ab\0c", 4));
    EXPECT_TRUE(in.good());
    EXPECT_EQ(b.LoadBufferFromFile(in, 5), 0);
    EXPECT_EQ(Bytes(b), std::string("def\0\0", 5));
    EXPECT_EQ(b.LoadBufferFromFile(in, 4), 0) << "the stream is at its end";
    EXPECT_EQ(b.Size(), 0u);
    std::istringstream more("x");
    b = BufferOf("old");
    EXPECT_EQ(b.LoadBufferFromFile(more, 0), 0);
    EXPECT_EQ(b.Size(), 0u);
    EXPECT_EQ(Raw(b), nullptr);
    EXPECT_EQ(more.get(), 'x');
}

TEST(BufferFile, SavesAndAppends)
{
    testing_support::TemporaryDirectory dir;
    const std::string path = dir.File("f");
    const int descriptors = testing_support::OpenDescriptors();
    Buffer b = BufferOf(std::string("a\0b\n", 4));
    EXPECT_EQ(b.SaveBufferToFile(path.c_str(), 0), 0);
    EXPECT_EQ(testing_support::ReadFile(path), std::string("a\0b\n", 4));
    EXPECT_EQ(b.SaveBufferToFile(path.c_str(), 1), 0);
    EXPECT_EQ(testing_support::ReadFile(path), std::string("a\0b\na\0b\n", 8));
    EXPECT_EQ(Buffer().SaveBufferToFile(path.c_str(), 1), 0);
    EXPECT_EQ(testing_support::ReadFile(path).size(), 8u);
    EXPECT_EQ(Buffer().SaveBufferToFile(path.c_str(), 0), 0);
    EXPECT_EQ(testing_support::ReadFile(path), "");
    const std::string large(1000003, 'L');
    EXPECT_EQ(BufferOf(large).SaveBufferToFile(path.c_str(), 0), 0);
    EXPECT_EQ(testing_support::ReadFile(path), large);
    EXPECT_EQ(testing_support::OpenDescriptors(), descriptors);
}

TEST(BufferFile, SaveReportsFailure)
{
    testing_support::TemporaryDirectory dir;
    const std::pair<std::string, int> failures[] = {{dir.File("none/f"), ENOENT}, {"/dev/full", ENOSPC}};
    for (const auto& [path, error] : failures) {
        Buffer b = BufferOf("abc");
        ErrorReporter::ClearError();
        short result = 0;
        const std::string report = CaptureStderr([&, path = path] { result = b.SaveBufferToFile(path.c_str(), 0); });
        EXPECT_EQ(result, 16);
        EXPECT_EQ(ErrorReporter::GetErrorCode(), error);
        EXPECT_EQ(ReportField(report, "  Severity Level="), "WARNING");
        EXPECT_EQ(ReportField(report, "  Error Type= "), ErrorReporter::GetErrorType(ErrorReporter::WRITING_TO_FILE));
        EXPECT_EQ(ReportField(report, "  Module= "), "$Id: buffer.cc,v 1.1 2026/11/21 12:00:00 orv Exp $");
        EXPECT_EQ(ReportField(report, "  Description= "), path);
    }
    ErrorReporter::ClearError();
}

TEST(BufferBlock, ReadsWhatIsThere)
{
    char bytes[6];
    std::memset(bytes, '.', sizeof bytes);
    std::istringstream in(std::string("a\0\nb", 4));
    Buffer::BlockRead(bytes, 3, in);
    EXPECT_EQ(std::string(bytes, 6), std::string("a\0\n...", 6));
    EXPECT_TRUE(in.good());
    Buffer::BlockRead(bytes, 0, in);
    EXPECT_TRUE(in.good());
    Buffer::BlockRead(bytes, 6, in);
    EXPECT_EQ(std::string(bytes, 6), std::string("b\0\n...", 6));
    EXPECT_TRUE(in.eof());
}

// Notes how many bytes had been written at each flush.
class FlushLog : public std::stringbuf {
public:
    std::vector<std::size_t> flushes;

protected:
    int sync() override
    {
        flushes.push_back(str().size());
        return 0;
    }
};

std::pair<std::string, std::vector<std::size_t>> Written(const std::string& bytes, short ignoreNulls)
{
    FlushLog log;
    std::ostream out(&log);
    Buffer::BlockWrite(bytes.data(), static_cast<unsigned>(bytes.size()), out, ignoreNulls);
    return {log.str(), log.flushes};
}

typedef std::vector<std::size_t> Sizes;

TEST(BufferBlock, WritesInBlocksOf512AndStopsAtAZero)
{
    const std::string aNullB("a\0b", 3);
    EXPECT_EQ(Written(aNullB, 1), std::make_pair(std::string("a"), (Sizes{0, 1})));
    EXPECT_EQ(Written(aNullB, 0), std::make_pair(aNullB, (Sizes{0, 3})));
    EXPECT_EQ(Written("", 0), std::make_pair(std::string(), (Sizes{0})));
    const std::string block(512, 'x');
    EXPECT_EQ(Written(block, 0), std::make_pair(block, (Sizes{0, 512})));
    EXPECT_EQ(Written(block + "y", 0), std::make_pair(block + "y", (Sizes{0, 512, 513})));
    EXPECT_EQ(Written(block + block + '\0' + block, 1),
              std::make_pair(block + block, (Sizes{0, 512, 1024, 1024, 1024})));
    EXPECT_EQ(Written('\0' + block + block, 1), std::make_pair(std::string(), (Sizes{0, 0, 0, 0})));
}

TEST(BufferBlock, WritesNothingOfAnEmptyBuffer)
{
    const Buffer empty;
    for (const short ignoreNulls : {0, 1}) {
        std::ostringstream out;
        Buffer::BlockWrite(empty, empty.Size(), out, ignoreNulls); // its block is null
        EXPECT_EQ(out.str(), "");
        EXPECT_TRUE(out.good());
    }
}

TEST(BufferHexDump, WritesRowsToAStream)
{
    EXPECT_EQ(HexDump(""), "HexDump for 0 (0000) bytes\n0000:  \n");
    EXPECT_EQ(HexDump("A\n\xff"), "HexDump for 3 (0003) bytes\n"
                                  "0000: 41 0a ff                                         A  \n");
    EXPECT_EQ(HexDump("0123456789abcdef"), "HexDump for 16 (0010) bytes\n"
                                           "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
                                           " \n");
    EXPECT_EQ(HexDump("0123456789abcdefG"), "HexDump for 17 (0011) bytes\n"
                                            "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
                                            "0010: 47                                               G\n");
    EXPECT_EQ(HexDump("0123456789abcdefghijklmnopqrstu~"),
              "HexDump for 32 (0020) bytes\n"
              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "0010: 67 68 69 6a 6b 6c 6d 6e 6f 70 71 72 73 74 75 7e  ghijklmnopqrstu~\n"
              " \n");
}

TEST(BufferHexDump, OffsetsGrowAndTheFlagsOfTheStreamDoNotMatter)
{
    std::ostringstream out;
    out << std::hex << std::showbase;
    const std::string bytes(0x10001, 'z');
    Buffer::hexdumpOn(bytes.data(), static_cast<unsigned>(bytes.size()), out);
    const std::string dump = out.str();
    EXPECT_EQ(dump.substr(0, 44), "HexDump for 65537 (10001) bytes\n0000: 7a 7a ");
    EXPECT_EQ(dump.substr(dump.rfind('\n', dump.size() - 2) + 1),
              "10000: 7a                                               z\n");
}

TEST(BufferHexDump, ABufferDumpsItsContents)
{
    std::ostringstream out;
    BufferOf("hi").dumpOn(out);
    EXPECT_EQ(out.str(), HexDump("hi"));
    out.str("");
    Buffer().dumpOn(out);
    EXPECT_EQ(out.str(), HexDump(""));
}

std::string TextDump(const std::string& bytes)
{
    CString out("old");
    Buffer::hexdumpOn(bytes.data(), static_cast<unsigned>(bytes.size()), out);
    return static_cast<const char*>(out);
}

// The bytes of `row` as the text dump shows them.
std::string WideHex(const std::string& row)
{
    std::string text;
    for (const char c : row) {
        char column[8];
        std::snprintf(column, sizeof column, "%02x   ", static_cast<unsigned char>(c));
        text += column;
    }
    return text;
}

TEST(BufferHexDump, WritesRowsToAText)
{
    EXPECT_EQ(TextDump(""), "HexDump for 0 (0000) bytes\r\n0000:       \r\n");
    EXPECT_EQ(TextDump("A\xff"), "HexDump for 2 (0002) bytes\r\n0000: 41   ff         \r\n");
    const std::string first = "0123456789abcdef";
    const std::string filled(18, '\x01');
    EXPECT_EQ(TextDump(first), "HexDump for 16 (0010) bytes\r\n0000: " + WideHex(first) + "      " + filled + "\r\n");
    EXPECT_EQ(TextDump(first + "G\n"), "HexDump for 18 (0012) bytes\r\n0000: " + WideHex(first) +
                                           "\r\n0010: 47   0a         \x01G " + std::string(15, '\x01') + "\r\n");
    EXPECT_EQ(TextDump(first + "ghijklmnopqrstuv" + "W"),
              "HexDump for 33 (0021) bytes\r\n0000: " + WideHex(first) + "\r\n0010: " + WideHex("ghijklmnopqrstuv") +
                  "\x01ghijklmnopqrstuv\x01\r\n0020: 57         \x01W" + std::string(16, '\x01') + "\r\n");
    EXPECT_EQ(TextDump(first + "ghijklmnopqrstuv"), "HexDump for 32 (0020) bytes\r\n0000: " + WideHex(first) +
                                                        "\r\n0010: " + WideHex("ghijklmnopqrstuv") +
                                                        "\x01ghijklmnopqrstuv\x01      " + filled + "\r\n");
}

TEST(BufferHexDump, WritesALargeText)
{
    const std::string dump = TextDump(std::string(100000, 'z'));
    EXPECT_EQ(dump.substr(0, 41), "HexDump for 100000 (186a0) bytes\r\n0000: 7");
    const std::string tail = "\r\n18690: " + WideHex(std::string(16, 'z')) + "\x01" + std::string(16, 'z') +
                             "\x01      " + std::string(18, '\x01') + "\r\n";
    ASSERT_GT(dump.size(), tail.size());
    EXPECT_EQ(dump.substr(dump.size() - tail.size()), tail);
}

TEST(BufferASCII, IsASCIIDataTellsPrintableBytes)
{
    EXPECT_EQ(Buffer::IsASCIIData("abc", 4), 1);
    EXPECT_EQ(Buffer::IsASCIIData("", 1), 1);
    EXPECT_EQ(Buffer::IsASCIIData("\x7f\x01", 3), 1);
    EXPECT_EQ(Buffer::IsASCIIData("abc", 3), 0);
    EXPECT_EQ(Buffer::IsASCIIData("ab\0c", 5), 0);
    EXPECT_EQ(Buffer::IsASCIIData("a\x80", 3), 0);
    EXPECT_EQ(Buffer::IsASCIIData("abc", 0), 0);
    EXPECT_EQ(Buffer::IsASCIIData(nullptr, 0), 0);
}

TEST(BufferASCII, ConvertsHexDigits)
{
    for (int c = 0; c < 256; c++) {
        int expected = 255;
        if (c >= '0' && c <= '9')
            expected = c - '0';
        else if (c >= 'A' && c <= 'F')
            expected = c - 'A' + 10;
        else if (c == 'd')
            expected = 4;
        EXPECT_EQ(Buffer::ASCIIByteToHex(static_cast<unsigned char>(c)), expected) << c;
    }
    EXPECT_EQ(Buffer::ASCIIByteToHex('a'), Buffer::INVALID_BYTE);
    EXPECT_EQ(Buffer::FormHexByte(0xA, 0x5), 0xA5);
    EXPECT_EQ(Buffer::FormHexByte(0x1A, 0xF5), 0xA5);
    EXPECT_EQ(Buffer::FormHexByte(0, 0), 0);
}

TEST(BufferASCII, ASCIIToHexRefusesEveryText)
{
    EXPECT_EQ(Buffer::ASCIIToHex("0A1F", 5), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("0A1", 4), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("0A1F", 4), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("0G", 3), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("", 1), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("0A", 0), nullptr);
    EXPECT_EQ(Buffer::ASCIIToHex("\x80", 2), nullptr);
}

// Runs `body`, which says whether all is well, in a child with room for some 250 MB more.
bool HoldsWithLittleMemory(bool (*body)())
{
    const ChildResult child = RunInChild([body] {
        const MemoryLimit limit(250 << 20);
        CHILD_CHECK(body());
    });
    return child.exitCode == 0;
}

TEST(BufferMemory, FailureLeavesTheBufferEmptyOrUnchanged)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        Buffer b(Most);
        return b.Size() == 0 && Raw(b) == nullptr;
    }));
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        Buffer b = BufferOf("abc");
        b.ReSize(Most);
        return b.Size() == 0 && Raw(b) == nullptr;
    }));
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        Buffer b = BufferOf("abc");
        const void* block = Raw(b);
        b.PutDataAt(Most - 2, "xy", 2);
        b.PutDataAt(Most, "", 0);
        b.Append("abc", Most - 3);
        return Bytes(b) == "abc" && Raw(b) == block;
    }));
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        Buffer large(200u << 20);
        const Buffer copy(large);
        Buffer assigned = BufferOf("abc");
        assigned = large;
        const char* text = (large[large.Size() - 1] = 'x', large.GetCString());
        return large.Size() == 200u << 20 && copy.Size() == 0 && assigned.Size() == 0 && *text == '\0';
    }));
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        std::istringstream in("abc");
        Buffer b = BufferOf("abc");
        return b.LoadBufferFromFile(in, Most) == 0 && b.Size() == 0 && in.get() == 'a';
    }));
    EXPECT_TRUE(HoldsWithLittleMemory([] {
        const Buffer large(50u << 20);
        CString text("old");
        Buffer::hexdumpOn(large.operator const void*(), large.Size(), text);
        return text == "";
    }));
}

TEST(BufferMemory, AFileTooLargeLeavesTheBufferEmpty)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    testing_support::TemporaryDirectory dir;
    static std::string path;
    path = dir.File("f");
    for (const off_t size : {off_t{3} << 30, off_t{5} << 30}) {
        testing_support::WriteFile(path, "");
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        EXPECT_TRUE(HoldsWithLittleMemory([] {
            Buffer b = BufferOf("abc");
            return b.LoadBufferFromFile(path.c_str()) == 0 && b.Size() == 0;
        }));
    }
}

} // namespace
