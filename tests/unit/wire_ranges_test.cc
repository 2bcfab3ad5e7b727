// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/ranges.h"

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_memory.h"

namespace {

using zeloo::wire::Ranges;

TEST(WireRanges, TakesEachNumberOnce)
{
    Ranges set;
    EXPECT_EQ(set.Count(), 0);
    EXPECT_EQ(set.Add(10, 20), Ranges::Added);
    EXPECT_EQ(set.Count(), 10);
    EXPECT_EQ(set.Add(10, 20), Ranges::Overlaps);
    EXPECT_EQ(set.Add(19, 20), Ranges::Overlaps);
    EXPECT_EQ(set.Add(5, 11), Ranges::Overlaps);
    EXPECT_EQ(set.Add(0, 100), Ranges::Overlaps);
    EXPECT_EQ(set.Add(15, 16), Ranges::Overlaps);
    EXPECT_EQ(set.Count(), 10) << "what was refused changes nothing";
    EXPECT_EQ(set.Add(20, 21), Ranges::Added);
    EXPECT_EQ(set.Add(9, 10), Ranges::Added);
    EXPECT_EQ(set.Count(), 12);
}

TEST(WireRanges, AnEmptyRangeFitsEverywhere)
{
    Ranges set;
    EXPECT_EQ(set.Add(5, 5), Ranges::Added);
    EXPECT_EQ(set.Add(0, 10), Ranges::Added);
    EXPECT_EQ(set.Add(5, 5), Ranges::Added);
    EXPECT_EQ(set.Count(), 10);
}

TEST(WireRanges, ReachesFromTheSmallestToTheLargestNumber)
{
    Ranges set;
    EXPECT_EQ(set.Add(1, INT32_MAX), Ranges::Added);
    EXPECT_EQ(set.Add(0, 1), Ranges::Added);
    EXPECT_EQ(set.Count(), INT32_MAX);
    EXPECT_EQ(set.Add(INT32_MAX - 1, INT32_MAX), Ranges::Overlaps);
}

TEST(WireRanges, IsEmptyAgainAfterClear)
{
    Ranges set;
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(set.Add(2 * i, 2 * i + 1), Ranges::Added);
    set.Clear();
    EXPECT_EQ(set.Count(), 0);
    EXPECT_EQ(set.Add(0, 200), Ranges::Added);
}

TEST(WireRanges, AgreesWithASetOfNumbersWhateverTheOrder)
{
    for (unsigned seed = 0; seed < 200; seed++) {
        std::mt19937 random(seed);
        const auto below = [&](unsigned n) { return static_cast<int32_t>(random() % n); };
        Ranges set;
        std::set<int32_t> numbers;
        for (int step = 0; step < 100; step++) {
            const int32_t begin = below(300);
            const int32_t end = begin + below(6);
            const auto first = numbers.lower_bound(begin);
            const bool isFree = first == numbers.end() || *first >= end;
            ASSERT_EQ(set.Add(begin, end), isFree ? Ranges::Added : Ranges::Overlaps)
                << "seed " << seed << " step " << step;
            for (int32_t number = begin; isFree && number < end; number++)
                numbers.insert(number);
            ASSERT_EQ(set.Count(), static_cast<int64_t>(numbers.size()));
        }
    }
}

TEST(WireRanges, TakesManyThatLieApart)
{
    const int32_t count = 20000;
    std::vector<int32_t> order(count);
    for (int32_t i = 0; i < count; i++)
        order[static_cast<size_t>(i)] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    Ranges set;
    for (const int32_t i : order)
        ASSERT_EQ(set.Add(3 * i, 3 * i + 2), Ranges::Added);
    for (const int32_t i : order)
        ASSERT_EQ(set.Add(3 * i + 2, 3 * i + 3), Ranges::Added);
    EXPECT_EQ(set.Count(), 3 * count);
    EXPECT_EQ(set.Add(0, 1), Ranges::Overlaps);
}

#ifndef __SANITIZE_ADDRESS__ // whose realloc is its own

TEST(WireRanges, WithoutMemoryNothingChanges)
{
    using namespace testing_support;
    Ranges set;
    int32_t begin = 0;
    {
        const MemoryFailure failure = MemoryFailure::Of(Realloc);
        while (set.Add(begin, begin + 1) == Ranges::Added)
            begin += 2;
        EXPECT_TRUE(failure.HasHappened());
        EXPECT_EQ(set.Add(begin, begin + 1), Ranges::NoMemory);
        EXPECT_EQ(set.Add(1, 2), Ranges::Added) << "what closes a gap needs none";
    }
    EXPECT_EQ(set.Count(), begin / 2 + 1);
    EXPECT_EQ(set.Add(begin, begin + 1), Ranges::Added);
    EXPECT_EQ(set.Add(0, 3), Ranges::Overlaps);
}

#endif

} // namespace
