// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/blocks.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_memory.h"

namespace {

using namespace zeloo::wire;

std::vector<Block> Cut(int32_t total, int32_t blockSize)
{
    std::vector<Block> blocks;
    for (Cutter cutter(total, blockSize); !cutter.IsDone(); cutter.Advance())
        blocks.push_back(cutter.Current());
    return blocks;
}

// What comes of the blocks of an event, the first of which begins it. None may be left over.
Gatherer::Result Gather(const std::vector<Block>& blocks)
{
    Gatherer event;
    Gatherer::Result result = event.Begin(blocks.front());
    for (size_t i = 1; i < blocks.size(); i++)
        result = result == Gatherer::More ? event.Add(blocks[i]) : Gatherer::Misfit;
    return result;
}

TEST(WireCutter, CutsDataIntoFullBlocksAndARest)
{
    const std::vector<Block> blocks = Cut(3401, 1700);
    ASSERT_EQ(blocks.size(), 3u);
    const int32_t expected[][3] = {{0, 1700, 2}, {1700, 1700, 1}, {3400, 1, 0}};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(blocks[i].total, 3401);
        EXPECT_EQ(blocks[i].offset, expected[i][0]);
        EXPECT_EQ(blocks[i].length, expected[i][1]);
        EXPECT_EQ(blocks[i].partsLeft, expected[i][2]);
        EXPECT_TRUE(blocks[i].isInline);
    }
}

TEST(WireCutter, EndsAMultipleOfTheBlockSizeWithAnEmptyBlock)
{
    for (const int32_t size : {1, 273, 1092, 1700}) {
        const std::vector<Block> blocks = Cut(2 * size, size);
        ASSERT_EQ(blocks.size(), 3u) << size;
        EXPECT_EQ(blocks[2].length, 0) << size;
        EXPECT_EQ(blocks[2].offset, 2 * size) << size;
        EXPECT_EQ(blocks[2].partsLeft, 0) << size;
    }
}

TEST(WireCutter, SendsOneEmptyBlockForNoData)
{
    const std::vector<Block> blocks = Cut(0, 1700);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].length, 0);
    EXPECT_EQ(blocks[0].partsLeft, 0);
    EXPECT_FALSE(Cutter(0, 1700).HasSeveral());
    EXPECT_FALSE(Cutter(1699, 1700).HasSeveral());
    EXPECT_TRUE(Cutter(1700, 1700).HasSeveral());
}

TEST(WireCutter, TheLongestDataHasAsManyBlocksAsCanBeNumbered)
{
    EXPECT_EQ(Cutter::LongestData(1700), 32768 * 1700L - 1);
    const Cutter cutter(static_cast<int32_t>(Cutter::LongestData(1700)), 1700);
    EXPECT_EQ(cutter.Current().partsLeft, MostPartsLeft);
}

TEST(WireGatherer, GathersWhatWasCutInWhateverOrderItComes)
{
    std::mt19937 random(1);
    for (const int32_t size : {1, 2, 3, 1092, 1700})
        for (const int32_t parts : {0, 1, 2, 5, 40})
            for (const int32_t rest : {0, 1, size - 1}) {
                std::vector<Block> blocks = Cut(parts * size + rest, size);
                EXPECT_EQ(Gather(blocks), Gatherer::Whole);
                std::reverse(blocks.begin() + 1, blocks.end());
                EXPECT_EQ(Gather(blocks), Gatherer::Whole);
                std::shuffle(blocks.begin() + 1, blocks.end(), random);
                EXPECT_EQ(Gather(blocks), Gatherer::Whole);
            }
}

TEST(WireGatherer, TheFirstBlockGoesToItsOwnPlaceToo)
{
    std::vector<Block> blocks = {{10, 4, 6, 1, true}, {10, 0, 4, 0, true}};
    EXPECT_EQ(Gather(blocks), Gatherer::Whole);
}

TEST(WireGatherer, TakesEachPartOnce)
{
    const std::vector<Block> blocks = Cut(10, 3); // 3, 3, 3, 1
    EXPECT_EQ(Gather({blocks[0], blocks[1], blocks[1]}), Gatherer::Misfit);
    EXPECT_EQ(Gather({blocks[0], blocks[0]}), Gatherer::Misfit);
    Block again = blocks[2];
    again.partsLeft = blocks[1].partsLeft;
    EXPECT_EQ(Gather({blocks[0], blocks[1], again}), Gatherer::Misfit) << "the same number, other bytes";
    Block beyond = blocks[1];
    beyond.partsLeft = 4;
    EXPECT_EQ(Gather({blocks[0], beyond}), Gatherer::Misfit) << "more parts than the first announced";
}

TEST(WireGatherer, TakesEachByteOnce)
{
    const std::vector<Block> blocks = Cut(10, 3);
    Block overlapping = blocks[1];
    overlapping.offset = 2;
    EXPECT_EQ(Gather({blocks[0], overlapping}), Gatherer::Misfit);
    Block inside = blocks[1];
    inside.offset = 1;
    inside.length = 1;
    EXPECT_EQ(Gather({blocks[0], inside}), Gatherer::Misfit);
}

TEST(WireGatherer, IsNotWholeWhileAByteIsMissing)
{
    std::vector<Block> blocks = Cut(10, 3);
    blocks[1].length = 2; // byte 5 comes with no part
    EXPECT_EQ(Gather(blocks), Gatherer::Misfit);
}

TEST(WireGatherer, RefusesBlocksThatContradictThemselves)
{
    const Block sound = {4, 0, 4, 0, true};
    ASSERT_EQ(Gather({sound}), Gatherer::Whole);
    const Block unsound[] = {
        {4, 0, 3, 0, true},       {4, 1, 3, 0, true},     {4, 1, 4, 0, true}, {4, -1, 4, 0, true},
        {4, 0, -4, 0, true},      {-4, 0, -4, 0, true},   {4, 0, 5, 0, true}, {4, 0, 4, -1, true},
        {0, 0, 0, 1, true},       {4, 0, 4, 32768, true}, {4, 5, 0, 1, true}, {4, INT32_MAX, INT32_MAX, 1, true},
        {2000, 0, 1701, 1, true},
    };
    for (const Block& block : unsound)
        EXPECT_EQ(Gather({block}), Gatherer::Misfit)
            << block.total << ' ' << block.offset << ' ' << block.length << ' ' << block.partsLeft;
}

TEST(WireGatherer, RefusesATotalThatItsRecordsCannotCarry)
{
    EXPECT_EQ(Gather({{1700 * 3, 0, 1700, 2, true}}), Gatherer::More);
    EXPECT_EQ(Gather({{1700 * 3 + 1, 0, 1700, 2, true}}), Gatherer::Misfit);
    EXPECT_EQ(Gather({{INT32_MAX, 0, 1700, 32767, true}}), Gatherer::Misfit);
    // A later block that brings too little
    EXPECT_EQ(Gather({{1700 * 3, 0, 1700, 2, true}, {1700 * 3, 1700, 1699, 1, true}}), Gatherer::Misfit);
}

TEST(WireGatherer, BlocksOutsideOfTheRecordMayBeOfAnyLength)
{
    EXPECT_EQ(Gather({{1000000, 0, 500000, 1, false}, {1000000, 500000, 500000, 0, false}}), Gatherer::Whole);
}

TEST(WireGatherer, AllBlocksOfAnEventAnnounceTheSameTotal)
{
    std::vector<Block> blocks = Cut(10, 5);
    blocks[1].total = 11;
    EXPECT_EQ(Gather(blocks), Gatherer::Misfit);
}

TEST(WireGatherer, BeginsAnew)
{
    Gatherer event;
    const std::vector<Block> first = Cut(10, 3);
    const std::vector<Block> second = Cut(7, 4);
    EXPECT_EQ(event.Begin(first[0]), Gatherer::More);
    EXPECT_EQ(event.Begin(second[0]), Gatherer::More);
    EXPECT_EQ(event.Add(second[1]), Gatherer::Whole);
}

// An account kept byte by byte: the same blocks are taken, and the same set of them is whole.
TEST(WireGatherer, AgreesWithAnAccountOfEachByte)
{
    int whole = 0;
    for (unsigned seed = 0; seed < 3000; seed++) {
        std::mt19937 random(seed);
        const auto below = [&](int32_t n) { return static_cast<int32_t>(random() % static_cast<uint32_t>(n)); };
        std::vector<Block> blocks = Cut(1 + below(40), 1 + below(12));
        if (seed % 2 == 1) { // one field of one block goes wrong
            Block& block = blocks[static_cast<size_t>(below(static_cast<int32_t>(blocks.size())))];
            int32_t* const fields[] = {&block.total, &block.offset, &block.length, &block.partsLeft};
            *fields[below(4)] += below(7) - 3;
        }
        std::shuffle(blocks.begin() + 1, blocks.end(), random);

        const Block& first = blocks[0];
        std::vector<int> bytes(static_cast<size_t>(std::max(first.total, 0)), 0);
        std::vector<int> parts(static_cast<size_t>(std::max(first.partsLeft + 1, 0)), 0);
        bool isSound = true;
        for (const Block& block : blocks) {
            isSound = isSound && block.total == first.total && block.partsLeft >= 0 &&
                      block.partsLeft <= first.partsLeft && block.offset >= 0 && block.length >= 0 &&
                      block.offset + block.length <= first.total;
            if (!isSound)
                break;
            parts[static_cast<size_t>(block.partsLeft)]++;
            for (int32_t at = block.offset; at < block.offset + block.length; at++)
                bytes[static_cast<size_t>(at)]++;
        }
        const auto once = [](int n) { return n == 1; };
        const bool isWhole =
            isSound && std::all_of(bytes.begin(), bytes.end(), once) && std::all_of(parts.begin(), parts.end(), once);
        const bool isEmptyOfSeveral = first.total == 0 && first.partsLeft > 0;
        EXPECT_EQ(Gather(blocks) == Gatherer::Whole, isWhole && !isEmptyOfSeveral) << "seed " << seed;
        whole += isWhole;
    }
    EXPECT_GT(whole, 1500);
    EXPECT_LT(whole, 2500);
}

#ifndef __SANITIZE_ADDRESS__ // whose realloc is its own

TEST(WireGatherer, BlocksThatLieApartNeedMemory)
{
    using namespace testing_support;
    const std::vector<Block> blocks = Cut(200, 10);
    Gatherer event;
    ASSERT_EQ(event.Begin(blocks.front()), Gatherer::More);
    const MemoryFailure failure = MemoryFailure::Of(Realloc);
    Gatherer::Result result = Gatherer::More;
    for (size_t i = 2; i < blocks.size() && result == Gatherer::More; i += 2)
        result = event.Add(blocks[i]);
    EXPECT_EQ(result, Gatherer::NoMemory);
}

#endif

} // namespace
