// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/text.h"

#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

using namespace zeloo;

// The texts are allocated by this operator.
static bool memoryFails = false;

void* operator new[](std::size_t n, const std::nothrow_t&) noexcept
{
    return memoryFails ? nullptr : ::operator new[](n);
}

namespace {

class OutOfMemory {
public:
    OutOfMemory() { memoryFails = true; }
    ~OutOfMemory() { memoryFails = false; }
};

// The text of a block, which is released.
std::string Taken(char* text)
{
    const std::unique_ptr<char[]> owner(text);
    return text != nullptr ? text : "(null)";
}

TEST(Text, TextOrEmpty)
{
    const char* const text = "abc";
    EXPECT_EQ(TextOrEmpty(text), text);
    EXPECT_STREQ(TextOrEmpty(nullptr), "");
}

TEST(Text, BaseName)
{
    EXPECT_STREQ(BaseName("/opt/orv/bin/orvd"), "orvd");
    EXPECT_STREQ(BaseName("orvd"), "orvd");
    EXPECT_STREQ(BaseName("/c"), "c");
    EXPECT_STREQ(BaseName("a//b"), "b");
    EXPECT_STREQ(BaseName("a/b/"), "");
    EXPECT_STREQ(BaseName("/"), "");
    EXPECT_STREQ(BaseName(""), "");
    EXPECT_STREQ(BaseName(nullptr), "");
}

TEST(Text, ABaseNameLiesInThePath)
{
    const char path[] = "/bin/sh";
    EXPECT_EQ(BaseName(path), path + 5);
    EXPECT_EQ(BaseName(path + 5), path + 5);
}

TEST(Text, NewTextCopies)
{
    const char text[] = "some text";
    char* copy = NewText(text);
    EXPECT_NE(copy, text);
    EXPECT_EQ(Taken(copy), "some text");
    EXPECT_EQ(Taken(NewText("")), "");
    EXPECT_EQ(NewText(nullptr), nullptr);
}

TEST(Text, NewTextOfAPart)
{
    EXPECT_EQ(Taken(NewText("some text", 4)), "some");
    EXPECT_EQ(Taken(NewText("some text", 0)), "");
    const char unterminated[] = {'a', 'b'};
    EXPECT_EQ(Taken(NewText(unterminated, 2)), "ab");
    const std::unique_ptr<char[]> bytes(NewText("a\0b", 3));
    EXPECT_EQ(std::memcmp(bytes.get(), "a\0b", 4), 0);
}

TEST(Text, NewJoinedText)
{
    const char* const none[] = {nullptr};
    const char* const one[] = {"ls", nullptr};
    const char* const several[] = {"ls", "-l", "", "a b", nullptr};
    EXPECT_EQ(Taken(NewJoinedText(none)), "");
    EXPECT_EQ(Taken(NewJoinedText(one)), "ls");
    EXPECT_EQ(Taken(NewJoinedText(several)), "ls -l  a b");
}

TEST(Text, NullWithoutMemory)
{
    const char* const texts[] = {"a", nullptr};
    const OutOfMemory failure;
    EXPECT_EQ(NewText("a"), nullptr);
    EXPECT_EQ(NewText("a", 1), nullptr);
    EXPECT_EQ(NewJoinedText(texts), nullptr);
}

TEST(Text, CopyTextCutsAndTerminates)
{
    struct {
        char field[4];
        char behind;
    } record = {{'x', 'x', 'x', 'x'}, '!'};
    CopyText(record.field, "ab");
    EXPECT_STREQ(record.field, "ab");
    CopyText(record.field, "abc");
    EXPECT_STREQ(record.field, "abc");
    CopyText(record.field, "wxyz and more");
    EXPECT_STREQ(record.field, "wxy");
    CopyText(record.field, record.field + 1);
    EXPECT_STREQ(record.field, "xy");
    CopyText(record.field, "");
    EXPECT_STREQ(record.field, "");
    CopyText(record.field, "ab");
    CopyText(record.field, nullptr);
    EXPECT_STREQ(record.field, "");
    EXPECT_EQ(record.behind, '!');
}

TEST(Text, CopyTextReadsNoFurtherThanTheFieldIsLong)
{
    const std::unique_ptr<char[]> unterminated(new char[3]{'a', 'b', 'c'});
    char field[4];
    CopyText(field, unterminated.get());
    EXPECT_STREQ(field, "abc");
}

TEST(Text, Terminated)
{
    const char terminated[4] = "abc";
    const char empty[1] = "";
    const char early[4] = {'a', '\0', 'b', 'c'};
    const char full[4] = {'a', 'b', 'c', 'd'};
    EXPECT_TRUE(Terminated(terminated));
    EXPECT_TRUE(Terminated(empty));
    EXPECT_TRUE(Terminated(early));
    EXPECT_FALSE(Terminated(full));
}

TEST(Text, DumpText)
{
    const char text[8] = "abc";
    const char whole[4] = {'a', 'b', 'c', 'd'};
    const char empty[4] = "";
    std::ostringstream out;
    DumpText("text = ", text, out);
    DumpText("whole = ", whole, out);
    DumpText("", empty, out);
    EXPECT_EQ(out.str(), "text = abc\nwhole = abcd\n\n");
}

} // namespace
