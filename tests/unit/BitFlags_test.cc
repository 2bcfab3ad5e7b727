// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/BitFlags.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "tests/support/objects.h"

using testing_support::Dump;

namespace {

TEST(BitFlags, TheMasksAreTheSuccessivePowersOfTwo)
{
    const unsigned long masks[] = {f1,  f2,  f3,  f4,  f5,  f6,  f7,  f8,  f9,  f10, f11, f12, f13, f14, f15, f16,
                                   f17, f18, f19, f20, f21, f22, f23, f24, f25, f26, f27, f28, f29, f30, f31, f32};
    unsigned long expected = 1;
    for (unsigned long mask : masks) {
        EXPECT_EQ(mask, expected);
        expected *= 2;
    }
    EXPECT_EQ(f32, 2147483648ul);
}

TEST(BitFlags, StartsClear)
{
    const BitFlags flags;
    EXPECT_EQ(static_cast<unsigned long>(flags), 0u);
    EXPECT_EQ(Dump(flags), "myFlagBits:\t0\n");
}

TEST(BitFlags, SetsResetsAndTogglesTheFlagsOfAMask)
{
    BitFlags flags;
    flags.SetFlag(f1 | f3 | f32);
    flags.SetFlag(f3);
    EXPECT_EQ(static_cast<unsigned long>(flags), 0x80000005ul);
    EXPECT_EQ(flags.GetFlag(f3), 4u);
    EXPECT_EQ(flags.GetFlag(f2), 0u);
    EXPECT_EQ(flags.GetFlag(f2 | f3 | f4), 4u);
    EXPECT_EQ(flags.GetFlag(f1 | f32), 0x80000001ul);
    flags.ResetFlag(f1 | f2);
    EXPECT_EQ(static_cast<unsigned long>(flags), 0x80000004ul);
    flags.ToggleFlag(f3 | f4);
    EXPECT_EQ(static_cast<unsigned long>(flags), 0x80000008ul);
    flags.Clear();
    EXPECT_EQ(static_cast<unsigned long>(flags), 0u);
}

TEST(BitFlags, IsAWordOf32Bits)
{
    BitFlags flags;
    flags.SetFlag(~0ul);
    EXPECT_EQ(static_cast<unsigned long>(flags), 4294967295ul);
    EXPECT_EQ(flags.GetFlag(~0ul), 4294967295ul);
    EXPECT_EQ(Dump(flags), "myFlagBits:\t4294967295\n");
    flags.ToggleFlag(~0ul);
    EXPECT_EQ(static_cast<unsigned long>(flags), 0u);
    flags.SetFlag(f1);
    flags.ResetFlag(~0ul);
    EXPECT_EQ(static_cast<unsigned long>(flags), 0u);
}

TEST(BitFlags, IsSetFromWords)
{
    BitFlags flags;
    flags.SetFlag(f1);
    EXPECT_EQ(flags.SetFlagViaString(f3, "on"), 4u);
    EXPECT_EQ(flags.SetFlagViaString(f3, "off"), 0u);
    EXPECT_EQ(flags.SetFlagViaString(f3 | f4, "true"), 12u);
    EXPECT_EQ(flags.SetFlagViaString(f4, "false"), 0u);
    EXPECT_EQ(static_cast<unsigned long>(flags), 5u);
}

TEST(BitFlags, OtherWordsChangeNothing)
{
    BitFlags flags;
    flags.SetFlag(f3);
    for (const char* word :
         {"ON", "On", "OFF", "True", "FALSE", "on ", " on", "onn", "o", "of", "offf", "", "1", "0", "yes"}) {
        EXPECT_EQ(flags.SetFlagViaString(f2, word), 0u) << word;
        EXPECT_EQ(flags.SetFlagViaString(f3, word), 4u) << word;
        EXPECT_EQ(static_cast<unsigned long>(flags), 4u) << word;
    }
    EXPECT_EQ(flags.SetFlagViaString(f3, nullptr), 4u);
}

TEST(BitFlags, DumpsTheWordInDecimal)
{
    BitFlags flags;
    flags.SetFlag(f2 | f4);
    EXPECT_EQ(Dump(flags), "myFlagBits:\t10\n");
}

TEST(BitFlags, TravelsAsOneUnsignedLongOverAStream)
{
    BitFlags flags;
    flags.SetFlag(f2 | f4 | f32);
    std::stringstream text;
    {
        ZELostream out(text);
        flags.printOn(out);
        out << flags;
    }
    EXPECT_EQ(text.str(), "2147483658|2147483658|");
    ZEListream in(text);
    BitFlags read;
    read.scanFrom(in);
    EXPECT_EQ(static_cast<unsigned long>(read), 2147483658ul);
    read.Clear();
    in >> read;
    EXPECT_EQ(static_cast<unsigned long>(read), 2147483658ul);
}

TEST(BitFlags, TravelsAsOneUnsignedLongThroughABuffer)
{
    BitFlags flags;
    flags.SetFlag(f2 | f4 | f6);
    Buffer buffer;
    {
        ZELostream out(buffer);
        out << flags;
    }
    ASSERT_EQ(buffer.Size(), 4u);
    EXPECT_EQ(std::string(buffer.GetCString(), 4), "42l|") << "the letter is part of the encoding";
    ZEListream in(buffer);
    BitFlags read;
    in >> read;
    EXPECT_EQ(static_cast<unsigned long>(read), 42u);
    EXPECT_EQ(in.tellg(), 0u) << "the letter stops the reader";
}

TEST(BitFlags, KeepsItsWordWhenABufferHoldsNoNumber)
{
    Buffer empty;
    ZEListream in(empty);
    BitFlags flags;
    flags.SetFlag(f5);
    flags.scanFrom(in);
    EXPECT_EQ(static_cast<unsigned long>(flags), 16u);
}

} // namespace
