// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ularray.h"

#include <climits>
#include <type_traits>

#include <gtest/gtest.h>

#include "tests/support/assertions.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

void Number(ulongArray& a)
{
    for (int i = 0; i < a.Size(); i++)
        a[i] = static_cast<unsigned long>(i) + 100;
}

TEST(ulongArray, HasTheCellsItIsMadeWith)
{
    EXPECT_EQ(ulongArray(0).Size(), 0);
    EXPECT_EQ(ulongArray(-3).Size(), 0);
    EXPECT_EQ(ulongArray(INT_MIN).Size(), 0);
    ulongArray a(7);
    EXPECT_EQ(a.Size(), 7);
    static_assert(std::is_same<decltype(a[0]), unsigned long&>::value, "a cell can be assigned to");
    Number(a);
    a[6] = 4294967295ul;
    EXPECT_EQ(a.at(0), 100u);
    EXPECT_EQ(a.at(6), 4294967295ul);
}

TEST(ulongArray, GrowsBehindTheOldCells)
{
    ulongArray a(2);
    Number(a);
    a.growBy(3);
    EXPECT_EQ(a.Size(), 5);
    EXPECT_EQ(a.at(0), 100u);
    EXPECT_EQ(a.at(1), 101u);
    a[4] = 9;
    EXPECT_EQ(a.at(4), 9u);
    a.growBy(0);
    a.growBy(-1);
    a.growBy(INT_MIN);
    EXPECT_EQ(a.Size(), 5);
    EXPECT_EQ(a.at(4), 9u);
}

TEST(ulongArray, CopiesAllCells)
{
    ulongArray a(3);
    Number(a);
    ulongArray b(a);
    ASSERT_EQ(b.Size(), 3);
    b[0] = 1;
    EXPECT_EQ(a.at(0), 100u);
    EXPECT_EQ(b.at(2), 102u);
    ulongArray none(0);
    EXPECT_EQ(ulongArray(none).Size(), 0);
}

TEST(ulongArray, AssignmentReplacesAllCells)
{
    ulongArray a(3);
    Number(a);
    ulongArray b(10);
    EXPECT_EQ(&(b = a), &b);
    EXPECT_EQ(b.Size(), 3);
    EXPECT_EQ(b.at(2), 102u);
    b[2] = 1;
    EXPECT_EQ(a.at(2), 102u);

    const unsigned long* cell = &a[0];
    ulongArray& same = a;
    a = same;
    EXPECT_EQ(a.Size(), 3);
    EXPECT_EQ(&a[0], cell) << "self-assignment changes nothing";
    EXPECT_EQ(a.at(1), 101u);

    b = ulongArray(0);
    EXPECT_EQ(b.Size(), 0);
}

TEST(ulongArray, PurgeContentsFreesTheCells)
{
    ulongArray a(3);
    a.PurgeContents();
    EXPECT_EQ(a.Size(), 0);
    a.PurgeContents();
    a.growBy(2);
    EXPECT_EQ(a.Size(), 2);
}

TEST(ulongArray, FailingMemoryIsAnAssertion)
{
    ulongArray a(10);
    Number(a);
    ExpectAssertion("theNewCells != 0", "Misc/ularray", [&] {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        a.growBy(1);
    });
    ExpectAssertion("theNewCells != 0", "Misc/ularray", [&] {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        ulongArray copy(a);
    });
    ExpectAssertion("theNewCells != 0", "Misc/ularray", [&] {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        ulongArray made(1);
    });
}

TEST(ulongArray, MoreCellsThanCanBeCountedIsAnAssertion)
{
    ulongArray a(1);
    ExpectAssertion("theNewCells != 0", "Misc/ularray", [&] { a.growBy(INT_MAX); });
}

} // namespace
