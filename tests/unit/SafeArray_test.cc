// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/SafeArray.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/Error.h"
#include "tests/support/assertions.h"
#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"
#include "tests/unit/SafeArray_testing.h"

using namespace testing_support;
using namespace safearray_testing;

namespace {

const char Unit[] = "Misc/SafeArray";

// An element that counts its like.
struct Thing {
    explicit Thing(int value) : value(value) { alive++; }
    Thing(const Thing& other) : value(other.value) { alive++; }
    virtual ~Thing() { alive--; }
    int value;
    static int alive;
};
int Thing::alive = 0;

struct LoudThing : Thing {
    explicit LoudThing(int value) : Thing(value) {}
    ~LoudThing() override { gone++; }
    static int gone;
};
int LoudThing::gone = 0;

} // namespace

template <>
const char* SafeArray<Thing>::ElementName()
{
    return "Thing";
}

namespace {

typedef SafeArray<Thing> ThingSafeArray;
typedef SafeArrayIter<Thing> ThingSafeArrayIter;

void Fill(Pointers& a, unsigned quantity)
{
    for (unsigned i = 0; i < quantity; i++)
        a.AddPtr(P(i));
}

int CompareThings(const Thing** a, const Thing** b)
{
    return (*a)->value < (*b)->value ? -1 : (*a)->value > (*b)->value;
}

int CompareAddresses(const void* a, const void* b)
{
    const void* x = *static_cast<void* const*>(a);
    const void* y = *static_cast<void* const*>(b);
    return x < y ? -1 : x > y;
}

TEST(SafeArray, StartsEmptyAndOwning)
{
    Pointers a;
    EXPECT_EQ(a.Capacity(), 0u);
    EXPECT_EQ(a.Quantity(), 0u);
    EXPECT_EQ(a.pf(), 0);
    EXPECT_EQ(a.at(0), nullptr);
    Pointers b(5);
    EXPECT_EQ(b.Capacity(), 5u);
    EXPECT_EQ(b.Quantity(), 0u);
    EXPECT_EQ(b.at(0), nullptr);
    EXPECT_EQ(Pointers(300000).Capacity(), Ceiling);
    EXPECT_EQ(Pointers(UINT_MAX).Capacity(), Ceiling);
}

TEST(SafeArray, GrowsTo32SlotsAndThenDoubles)
{
    Pointers a;
    for (unsigned i = 0; i < 65; i++) {
        a.AddPtr(P(i));
        EXPECT_EQ(a.Capacity(), i < 32 ? 32u : i < 64 ? 64u : 128u) << i;
        EXPECT_EQ(a.Quantity(), i + 1);
    }
    for (unsigned i = 0; i < 65; i++)
        EXPECT_EQ(a.at(i), P(i));
    EXPECT_EQ(a.at(65), nullptr);
    EXPECT_EQ(a.at(UINT_MAX), nullptr);

    Pointers three(3);
    Fill(three, 4);
    EXPECT_EQ(three.Capacity(), 6u);
}

TEST(SafeArray, HoldsUpTo256000Elements)
{
    Pointers a;
    Fill(a, 131073);
    EXPECT_EQ(a.Capacity(), Ceiling) << "twice 131072 is above the ceiling";
    for (unsigned i = 131073; i < Ceiling; i++)
        a.AddPtr(P(i));
    EXPECT_EQ(a.Quantity(), Ceiling);
    EXPECT_EQ(a.Capacity(), Ceiling);
    EXPECT_EQ(a.at(Ceiling - 1), P(Ceiling - 1));
    ExpectAssertion("myQuantity < myCapacity", Unit, [&] { a.AddPtr(P(1)); });
    ExpectAssertion("myQuantity < myCapacity", Unit, [&] { a.InsertAt(Ceiling, P(1)); });
    ExpectAssertion("myQuantity < myCapacity", Unit, [&] { a.InsertPtr(P(Ceiling - 1), P(1)); });

    const std::vector<void*> before = Contents(a);
    a.InsertAt(0, P(Ceiling));
    a.InsertAt(Ceiling - 1, P(Ceiling));
    a.InsertPtr(nullptr, P(Ceiling));
    EXPECT_EQ(Contents(a), before) << "only an append asserts at the ceiling";
}

TEST(SafeArray, ExpandSetsTheCapacityButDropsNoElement)
{
    Pointers a(10);
    a.Expand(0);
    EXPECT_EQ(a.Capacity(), 10u);
    a.Expand(5);
    EXPECT_EQ(a.Capacity(), 15u);
    a.Expand(-5);
    EXPECT_EQ(a.Capacity(), 10u);
    Fill(a, 4);
    a.Expand(-8);
    EXPECT_EQ(a.Capacity(), 4u);
    a.Expand(-4);
    EXPECT_EQ(a.Capacity(), 4u);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(2), P(3)}));
    a.Expand(INT_MAX);
    EXPECT_EQ(a.Capacity(), Ceiling);
    a.Expand(1);
    EXPECT_EQ(a.Capacity(), Ceiling);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(2), P(3)}));
}

TEST(SafeArray, ExpandBelowMinusTheCapacityWrapsToTheCeiling)
{
    Pointers none;
    none.Expand(-1);
    EXPECT_EQ(none.Capacity(), Ceiling);
    Pointers a(7);
    a.Expand(-8);
    EXPECT_EQ(a.Capacity(), Ceiling);
    Pointers b(7);
    Fill(b, 2);
    b.Expand(INT_MIN);
    EXPECT_EQ(b.Capacity(), Ceiling);
    EXPECT_EQ(Contents(b), (std::vector<void*>{P(0), P(1)}));
    Pointers c(7);
    c.Expand(-7);
    EXPECT_EQ(c.Capacity(), 0u);
    c.AddPtr(P(0));
    EXPECT_EQ(c.Capacity(), 32u);
}

TEST(SafeArray, ExpandReportsThatMemoryFailed)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the allocator is the sanitizer's";
#endif
    const ChildResult child = RunInChild([] {
        Pointers a(10);
        Fill(a, 10);
        const MemoryFailure failure = MemoryFailure::FromSize(20 * sizeof(void*), Realloc);
        a.AddPtr(P(10));
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(ReportField(child.err, "  Severity Level="), "PANIC");
    EXPECT_EQ(ReportField(child.err, "  Error Type= "), ErrorReporter::GetErrorType(ErrorReporter::OUT_OF_MEMORY));
    EXPECT_EQ(ReportField(child.err, "  Module= ").substr(0, 17), "$Id: SafeArray.cc");
    EXPECT_GT(std::stoi(ReportField(child.err, "  Line= ")), 0);
    EXPECT_EQ(ReportField(child.err, "  Description= "), "Memory allocation failure in SafeArray::Expand().");
    EXPECT_EQ(child.err.find("Assertion"), std::string::npos) << "the report itself ends the process";
    EXPECT_EQ(child.out, "");
}

TEST(SafeArray, ShrinkToFitLeavesTheElementsTheirSlots)
{
    Pointers a(100);
    Fill(a, 3);
    a.ShrinkToFit();
    EXPECT_EQ(a.Capacity(), 3u);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(2)}));
    a.ShrinkToFit();
    EXPECT_EQ(a.Capacity(), 3u);

    Pointers empty(100);
    empty.ShrinkToFit();
    EXPECT_EQ(empty.Capacity(), 0u);
    EXPECT_EQ(empty.at(0), nullptr);
    empty.ShrinkToFit();
    EXPECT_EQ(empty.Capacity(), 0u);
}

TEST(SafeArray, AddPtrAssertsAnElement)
{
    Pointers a;
    ExpectAssertion("v != NULL", Unit, [&] { a.AddPtr(nullptr); });
}

TEST(SafeArray, InsertAtShiftsTheRest)
{
    Pointers a;
    a.InsertAt(0, P(1)); // an array without slots takes it as an append
    EXPECT_EQ(a.Capacity(), 32u);
    a.InsertAt(1, P(3));
    a.InsertAt(1, P(2));
    a.InsertAt(0, P(0));
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(2), P(3)}));

    Pointers full(2);
    Fill(full, 2);
    full.InsertAt(1, P(9));
    EXPECT_EQ(Contents(full), (std::vector<void*>{P(0), P(9), P(1)}));
    EXPECT_EQ(full.Capacity(), 4u);
}

TEST(SafeArray, InsertAtAssertsIndexThenElement)
{
    Pointers a;
    Fill(a, 2);
    ExpectAssertion("index <= myQuantity", Unit, [&] { a.InsertAt(3, P(9)); });
    ExpectAssertion("index <= myQuantity", Unit, [&] { a.InsertAt(3, nullptr); });
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertAt(1, nullptr); });
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertAt(2, nullptr); });
    Pointers none;
    ExpectAssertion("index <= myQuantity", Unit, [&] { none.InsertAt(1, P(9)); });
}

TEST(SafeArray, InsertPtrPutsTheElementBehindAnother)
{
    Pointers a;
    const std::string err = CaptureStderr([&] {
        a.InsertPtr(nullptr, P(1));
        a.InsertPtr(nullptr, P(0));
        a.InsertPtr(P(1), P(3));
        a.InsertPtr(P(1), P(2));
        a.InsertPtr(P(2), P(1)); // twice in the array from here on
        a.InsertPtr(P(1), P(7)); // goes behind the first
    });
    EXPECT_EQ(err, "");
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(7), P(2), P(1), P(3)}));
}

TEST(SafeArray, InsertPtrSaysThatThePlaceIsUnknown)
{
    Pointers a;
    EXPECT_EQ(CaptureStderr([&] { a.InsertPtr(P(5), P(9)); }), "Error: invalid index to SafeArrayBase::InsertPtr()\n");
    EXPECT_EQ(a.Quantity(), 0u);
    EXPECT_EQ(a.Capacity(), 0u);
    Fill(a, 2);
    EXPECT_EQ(CaptureStderr([&] { a.InsertPtr(P(5), P(9)); }), "Error: invalid index to SafeArrayBase::InsertPtr()\n");
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1)}));
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertPtr(P(0), nullptr); });
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertPtr(P(5), nullptr); });
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertPtr(nullptr, nullptr); });
}

TEST(SafeArray, RemoveAtClosesTheGapAndKeepsTheCapacity)
{
    Pointers a;
    Fill(a, 4);
    a.RemoveAt(1);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(2), P(3)}));
    a.RemoveAt(2);
    a.RemoveAt(0);
    EXPECT_EQ(Contents(a), std::vector<void*>{P(2)});
    EXPECT_EQ(a.at(1), nullptr);
    a.RemoveAt(0);
    EXPECT_EQ(a.Quantity(), 0u);
    EXPECT_EQ(a.Capacity(), 32u);
    EXPECT_EQ(a.deleted, (std::vector<void*>{P(1), P(3), P(0), P(2)}));
    ExpectAssertion("index < myQuantity", Unit, [&] { a.RemoveAt(0); });
    Fill(a, 2);
    ExpectAssertion("index < myQuantity", Unit, [&] { a.RemoveAt(2); });
}

TEST(SafeArray, RemovePtrRemovesTheFirstOfItsKind)
{
    Pointers a;
    a.RemovePtr(P(0));
    Fill(a, 3);
    a.AddPtr(P(1));
    a.RemovePtr(P(1));
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(2), P(1)}));
    a.RemovePtr(P(9));
    EXPECT_EQ(a.Quantity(), 3u);
    EXPECT_EQ(a.deleted, std::vector<void*>{P(1)});
    ExpectAssertion("ptr != NULL", Unit, [&] { a.RemovePtr(nullptr); });
}

TEST(SafeArray, ThePurgeModeDecidesWhatIsDeleted)
{
    struct {
        short mode;
        bool removalDeletes;
        bool clearing;
    } const cases[] = {
        {0, true, true}, {1, false, false}, {2, false, true}, {-1, false, true}, {SHRT_MAX, false, true}};
    for (const auto& c : cases) {
        Pointers a;
        a.SetPurgeMode(c.mode);
        EXPECT_EQ(a.pf(), c.mode);
        Fill(a, 4);
        a.RemoveAt(0);
        a.RemovePtr(P(1));
        std::vector<void*> expected;
        if (c.removalDeletes)
            expected = {P(0), P(1)};
        EXPECT_EQ(a.deleted, expected) << c.mode;
        EXPECT_EQ(Contents(a), (std::vector<void*>{P(2), P(3)}));

        a.DeleteAllItems();
        if (c.clearing)
            expected.insert(expected.end(), {P(2), P(3)});
        EXPECT_EQ(a.deleted, expected) << c.mode;
        EXPECT_EQ(a.Quantity(), c.clearing ? 0u : 2u) << c.mode;
        EXPECT_EQ(a.Capacity(), 32u);
        EXPECT_EQ(a.at(0), c.clearing ? nullptr : P(2));
    }
}

TEST(SafeArray, ReverseTurnsTheOrderRound)
{
    for (unsigned quantity = 0; quantity < 6; quantity++) {
        Pointers a;
        Fill(a, quantity);
        std::vector<void*> expected = Contents(a);
        std::reverse(expected.begin(), expected.end());
        a.reverse();
        EXPECT_EQ(Contents(a), expected);
    }
}

TEST(SafeArray, GetPointersCopiesThePointers)
{
    Pointers a(4);
    EXPECT_EQ(a.GetPointers(), nullptr);
    Fill(a, 3);
    std::unique_ptr<void*[]> copy(a.GetPointers());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::vector<void*>(copy.get(), copy.get() + 3), Contents(a));
    copy[0] = nullptr;
    EXPECT_EQ(a.at(0), P(0));

    const MemoryFailure failure = MemoryFailure::FromSize(3 * sizeof(void*), NewArray);
    EXPECT_EQ(a.GetPointers(), nullptr);
}

TEST(SafeArray, SearchesAssertKeyAndThenFunction)
{
    Pointers a;
    Fill(a, 20);
    ExpectAssertion("key != NULL", Unit, [&] { a.bsearch(nullptr, CompareAddresses); });
    ExpectAssertion("key != NULL", Unit, [&] { a.bsearch(nullptr, nullptr); });
    ExpectAssertion("fptr != NULL", Unit, [&] { a.bsearch(P(0), nullptr); });
    ExpectAssertion("key != NULL", Unit, [&] { a.lfind(nullptr, CompareAddresses); });
    ExpectAssertion("key != NULL", Unit, [&] { a.lfind(nullptr, nullptr); });
    ExpectAssertion("fptr != NULL", Unit, [&] { a.lfind(P(0), nullptr); });
    ExpectAssertion("key != NULL", Unit, [&] { a.search(nullptr, CompareAddresses); });
    ExpectAssertion("fptr != NULL", Unit, [&] { a.search(P(0), nullptr); });
    ExpectAssertion("fptr != NULL", Unit, [&] { a.qsort(static_cast<int (*)(const void*, const void*)>(nullptr)); });
    Pointers none;
    ExpectAssertion("key != NULL", Unit, [&] { none.bsearch(nullptr, CompareAddresses); });
    ExpectAssertion("fptr != NULL", Unit, [&] { none.lfind(P(0), nullptr); });
    EXPECT_EQ(none.bsearch(P(0), CompareAddresses), nullptr);
    EXPECT_EQ(none.lfind(P(0), CompareAddresses), nullptr);
    EXPECT_EQ(none.search(P(0), CompareAddresses), nullptr);
    none.qsort(CompareAddresses);
    EXPECT_EQ(none.Quantity(), 0u);
}

TEST(SafeArray, QsortAndBsearchAgree)
{
    std::mt19937 random(1);
    for (unsigned quantity = 1; quantity < 100; quantity++) {
        std::vector<void*> model;
        for (unsigned i = 0; i < quantity; i++)
            model.push_back(P(2 * i + 1));
        std::vector<void*> shuffled = model;
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        Pointers a;
        for (void* p : shuffled)
            a.AddPtr(p);
        a.qsort(CompareAddresses);
        ASSERT_EQ(Contents(a), model);
        for (unsigned i = 0; i < 2 * quantity + 2; i++) {
            void* expected = i % 2 == 1 && i < 2 * quantity ? P(i) : nullptr;
            EXPECT_EQ(a.bsearch(P(i), CompareAddresses), expected);
            EXPECT_EQ(a.lfind(P(i), CompareAddresses), expected);
            EXPECT_EQ(a.search(P(i), CompareAddresses), expected);
        }
    }
}

TEST(SafeArray, SearchIsLinearBelow16Elements)
{
    Pointers a;
    for (unsigned i = 15; i > 0; i--)
        a.AddPtr(P(i)); // in the wrong order for a binary search
    for (unsigned i = 1; i <= 15; i++)
        EXPECT_EQ(a.search(P(i), CompareAddresses), P(i));
    a.InsertAt(0, P(16));
    EXPECT_EQ(a.search(P(16), CompareAddresses), nullptr) << "from 16 elements on the search is binary";
    EXPECT_EQ(a.lfind(P(16), CompareAddresses), P(16));
    a.reverse();
    EXPECT_EQ(a.search(P(16), CompareAddresses), P(16));
}

TEST(SafeArray, LfindGivesTheFirstMatch)
{
    ThingSafeArray a;
    for (int value : {5, 3, 3, 1})
        a.AddItem(new Thing(value));
    Thing key(3);
    EXPECT_EQ(a.lfind(&key, CompareThings), a[1]);
    EXPECT_EQ(a.search(&key, CompareThings), a[1]);
    Thing absent(4);
    EXPECT_EQ(a.lfind(&absent, CompareThings), nullptr);
}

TEST(SafeArray, DumpOnListsThePointers)
{
    Pointers a;
    std::ostringstream empty;
    a.dumpOn(empty);
    EXPECT_EQ(empty.str(), "Capacity: 0\nQuantity: 0\n");
    Fill(a, 2);
    std::ostringstream os;
    a.dumpOn(os);
    EXPECT_EQ(os.str(),
              "Capacity: 32\nQuantity: 2\nlist[0] = " + Address(P(0)) + "\nlist[1] = " + Address(P(1)) + "\n");
}

TEST(SafeArray, BehavesAsAVectorOfPointers)
{
    std::mt19937 random(2);
    Pointers a;
    std::vector<void*> model;
    unsigned capacity = 0;
    const auto makeRoom = [&] {
        if (model.size() == capacity)
            capacity += capacity == 0 ? 32 : capacity;
    };
    for (int step = 0; step < 50000; step++) {
        void* p = P(random() % 200);
        const unsigned index = model.empty() ? 0 : static_cast<unsigned>(random() % model.size());
        const auto found = std::find(model.begin(), model.end(), p);
        switch (random() % 8) {
        case 0:
        case 1:
            a.AddPtr(p);
            makeRoom();
            model.push_back(p);
            break;
        case 2:
            a.InsertAt(index, p);
            makeRoom();
            model.insert(model.begin() + index, p);
            break;
        case 3:
            if (found == model.end())
                break;
            {
                const auto place = found - model.begin() + 1;
                a.InsertPtr(p, P(300));
                makeRoom();
                model.insert(model.begin() + place, P(300));
            }
            break;
        case 4:
        case 5:
            if (model.empty())
                break;
            a.RemoveAt(index);
            model.erase(model.begin() + index);
            break;
        case 6:
            a.RemovePtr(p);
            if (found != model.end())
                model.erase(found);
            break;
        default:
            if (random() % 20 != 0)
                break;
            a.ShrinkToFit();
            capacity = static_cast<unsigned>(model.size());
            break;
        }
        ASSERT_EQ(a.Quantity(), model.size());
        ASSERT_EQ(a.Capacity(), capacity);
        ASSERT_EQ(a.at(a.Quantity()), nullptr);
        if (step % 16 == 0) {
            ASSERT_EQ(Contents(a), model);
        }
    }
    EXPECT_EQ(Contents(a), model);
}

// ---- the typed pattern

TEST(TypedArray, OwnsItsElements)
{
    {
        ThingSafeArray a;
        for (int i = 0; i < 40; i++)
            a.AddItem(new Thing(i));
        EXPECT_EQ(Thing::alive, 40);
        a.RemoveAt(3);
        EXPECT_EQ(Thing::alive, 39);
        a.RemovePtr(a[7]);
        EXPECT_EQ(Thing::alive, 38);
        a.DeleteItem(nullptr);
    }
    EXPECT_EQ(Thing::alive, 0);
}

TEST(TypedArray, ARemovalInMode1OnlyUnlinks)
{
    Thing a(1), b(2);
    {
        ThingSafeArray referring;
        referring.SetPurgeMode(1);
        referring.AddItem(&a);
        referring.AddItem(b);
        EXPECT_EQ(referring[1], &b) << "by reference is not by copy";
        referring.RemovePtr(&a);
        EXPECT_EQ(referring.Quantity(), 1u);
        EXPECT_EQ(Thing::alive, 2);
        referring.DeleteAllItems();
        EXPECT_EQ(referring.Quantity(), 1u);
    }
    EXPECT_EQ(Thing::alive, 2);
}

TEST(TypedArray, Mode2KeepsWhatIsRemovedAndDeletesWhatIsLeft)
{
    Thing* removed = new Thing(1);
    {
        ThingSafeArray a;
        a.SetPurgeMode(2);
        a.AddItem(removed);
        a.AddItem(new Thing(2));
        a.RemoveAt(0);
        EXPECT_EQ(Thing::alive, 2);
    }
    EXPECT_EQ(Thing::alive, 1);
    delete removed;
}

TEST(TypedArray, DeletesThroughTheVirtualDestructor)
{
    LoudThing::gone = 0;
    {
        ThingSafeArray a;
        a.AddItem(new LoudThing(1));
        a.AddItem(*new LoudThing(2));
        a.RemoveAt(0);
        EXPECT_EQ(LoudThing::gone, 1);
    }
    EXPECT_EQ(LoudThing::gone, 2);
    EXPECT_EQ(Thing::alive, 0);
}

TEST(TypedArray, ReadsGiveNullOutsideTheFilledPart)
{
    ThingSafeArray a(8);
    EXPECT_EQ(a.first(), nullptr);
    EXPECT_EQ(a.last(), nullptr);
    EXPECT_EQ(a[0], nullptr);
    EXPECT_EQ(a.GetPointers(), nullptr);
    Thing* one = new Thing(1);
    Thing* two = new Thing(2);
    Thing* three = new Thing(3);
    a.InsertItem(0, three);
    a.InsertItem(0, *one);
    a.InsertItem(1, two);
    EXPECT_EQ(a.first(), one);
    EXPECT_EQ(a.last(), three);
    EXPECT_EQ(a[1], two);
    EXPECT_EQ(a[3], nullptr);
    EXPECT_EQ(a[-1], nullptr);
    EXPECT_EQ(a[INT_MIN], nullptr);
    std::unique_ptr<Thing*[]> pointers(a.GetPointers());
    EXPECT_EQ(pointers[0], one);
    EXPECT_EQ(pointers[1], two);
    EXPECT_EQ(pointers[2], three);
}

TEST(TypedArray, ItemsMeetTheSameAssertions)
{
    ThingSafeArray a;
    Thing thing(1);
    ExpectAssertion("v != NULL", Unit, [&] { a.AddItem(static_cast<Thing*>(nullptr)); });
    ExpectAssertion("NewItem != NULL", Unit, [&] { a.InsertItem(0, static_cast<Thing*>(nullptr)); });
    ExpectAssertion("index <= myQuantity", Unit, [&] { a.InsertItem(1, thing); });
    ExpectAssertion("key != NULL", Unit, [&] { a.search(static_cast<const Thing*>(nullptr), CompareThings); });
    ExpectAssertion("fptr != NULL", Unit, [&] { a.qsort(static_cast<ThingSafeArray::Compare>(nullptr)); });
}

TEST(TypedArray, ACopyOwnsDeepCopies)
{
    Thing one(1);
    Thing two(2);
    ThingSafeArray a(10);
    a.SetPurgeMode(1);
    a.AddItem(one);
    a.AddItem(two);
    {
        ThingSafeArray copy(a);
        EXPECT_EQ(copy.pf(), 0);
        EXPECT_EQ(copy.Capacity(), 10u);
        ASSERT_EQ(copy.Quantity(), 2u);
        EXPECT_EQ(Thing::alive, 4);
        EXPECT_NE(copy[0], &one);
        EXPECT_EQ(copy[0]->value, 1);
        EXPECT_EQ(copy[1]->value, 2);
        copy[0]->value = 9;
        EXPECT_EQ(one.value, 1);
    }
    EXPECT_EQ(Thing::alive, 2);
    ThingSafeArray none((ThingSafeArray()));
    EXPECT_EQ(none.Capacity(), 0u);
}

TEST(TypedArray, DuplicateItemCopiesOneElement)
{
    ThingSafeArray a;
    Thing thing(5);
    Thing* copy = static_cast<Thing*>(a.duplicateItem(&thing));
    EXPECT_NE(copy, &thing);
    EXPECT_EQ(copy->value, 5);
    EXPECT_EQ(a.Quantity(), 0u);
    a.DeleteItem(copy);
    EXPECT_EQ(Thing::alive, 1);
    EXPECT_EQ(a.duplicateItem(nullptr), nullptr);
}

TEST(TypedArray, SortsAndSearchesWithATypedFunction)
{
    ThingSafeArray a;
    for (int i = 0; i < 50; i++)
        a.AddItem(new Thing(i * 37 % 50));
    a.qsort(CompareThings);
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(a[i]->value, i);
    Thing key(17);
    EXPECT_EQ(a.bsearch(&key, CompareThings), a[17]);
    EXPECT_EQ(a.lfind(&key, CompareThings), a[17]);
    EXPECT_EQ(a.search(&key, CompareThings), a[17]);
    key.value = 50;
    EXPECT_EQ(a.bsearch(&key, CompareThings), nullptr);
}

// Compares the values only down to tens, so that many are equal.
int CompareTens(const Thing** a, const Thing** b) { return (*a)->value / 10 - (*b)->value / 10; }

int CompareTensForC(const void* a, const void* b)
{
    return (*static_cast<const Thing* const*>(a))->value / 10 - (*static_cast<const Thing* const*>(b))->value / 10;
}

TEST(TypedArray, SortsAndFindsAmongEqualsAsTheCLibraryDoes)
{
    std::mt19937 random(1);
    for (int quantity = 1; quantity < 60; quantity++) {
        ThingSafeArray a;
        for (int i = 0; i < quantity; i++)
            a.AddItem(new Thing(static_cast<int>(random() % 50)));
        const std::unique_ptr<Thing*[]> pointers(a.GetPointers());
        const size_t n = static_cast<size_t>(quantity);
        std::qsort(pointers.get(), n, sizeof(Thing*), CompareTensForC);
        a.qsort(CompareTens);
        for (int i = 0; i < quantity; i++)
            ASSERT_EQ(a[i], pointers[static_cast<size_t>(i)]) << quantity;
        for (int value = 0; value < 60; value += 5) {
            const Thing key(value);
            const Thing* const address = &key;
            const void* place = std::bsearch(&address, pointers.get(), n, sizeof(Thing*), CompareTensForC);
            const Thing* expected = place != nullptr ? *static_cast<Thing* const*>(place) : nullptr;
            EXPECT_EQ(a.bsearch(&key, CompareTens), expected) << quantity;
            EXPECT_EQ(static_cast<SafeArrayBase&>(a).bsearch(&key, CompareTensForC), expected) << quantity;
        }
    }
}

ThingSafeArray* inner; // sorted by each comparison of the outer one

int SortInnerAndCompare(const Thing** a, const Thing** b)
{
    inner->qsort(CompareThings);
    inner->reverse();
    return CompareThings(a, b);
}

TEST(TypedArray, AComparisonMaySortAndSearchAnotherArray)
{
    ThingSafeArray outer;
    ThingSafeArray other;
    inner = &other;
    for (int i = 0; i < 20; i++) {
        outer.AddItem(new Thing(i * 7 % 20));
        other.AddItem(new Thing(i));
    }
    outer.qsort(SortInnerAndCompare);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(outer[i]->value, i);
        EXPECT_EQ(other[i]->value, 19 - i);
    }
    const Thing key(13);
    EXPECT_EQ(outer.search(&key, SortInnerAndCompare), outer[13]);
}

TEST(TypedArray, PrintShowsModeSizesAndAddresses)
{
    ThingSafeArray a;
    std::ostringstream empty;
    a.print(empty);
    EXPECT_EQ(empty.str(), "SafeArray(Thing)***************\n"
                           "********** Capacity =0\n"
                           "********** Quantity =0\n"
                           "********** This SafeArray is purgable.\n");
    Thing one(1);
    Thing two(2);
    a.AddItem(one);
    a.AddItem(two);
    for (short mode : {1, 2}) {
        a.SetPurgeMode(mode);
        std::ostringstream os;
        a.print(os);
        EXPECT_EQ(os.str(), "SafeArray(Thing)***************\n"
                            "********** Capacity =32\n"
                            "********** Quantity =2\n"
                            "********** This SafeArray is NOT purgable.\n"
                            "****SafeArray(Thing)[0] address = " +
                                Address(&one) +
                                "\n"
                                "****SafeArray(Thing)[1] address = " +
                                Address(&two) + "\n");
    }
    a.SetPurgeMode(1);
}

// ---- iterators

// The walk as a position from -1 (before the first element) to one past the last; an empty array has one position
// between the two, at no element.
struct Walk {
    int quantity;
    int position = 0;
    int Last() const { return quantity > 0 ? quantity - 1 : 0; }
    void Next() { position = std::min(position + 1, Last() + 1); }
    void Prev() { position = std::max(position - 1, -1); }
    void* Current() const
    {
        return position >= 0 && position < quantity ? P(static_cast<unsigned>(position)) : nullptr;
    }
    unsigned Index() const { return static_cast<unsigned>(std::clamp(position, 0, Last())); }
};

enum Step { Next, Prev, ResetBackward, ResetForward, Steps };

void Take(SafeArrayIterBase& iter, Walk& walk, int step)
{
    switch (step) {
    case Next:
        iter.next();
        walk.Next();
        break;
    case Prev:
        iter.prev();
        walk.Prev();
        break;
    case ResetBackward:
        iter.resetBackward();
        walk.position = 0;
        break;
    default:
        iter.resetForward();
        walk.position = walk.Last();
        break;
    }
}

TEST(SafeArrayIter, EveryWalkOfEightStepsIsAsTheModelSays)
{
    const int length = 8;
    for (int quantity = 0; quantity <= 4; quantity++) {
        Pointers a;
        Fill(a, static_cast<unsigned>(quantity));
        for (int code = 0; code < 1 << (2 * length); code++) {
            SafeArrayIterBase iter(a);
            Walk walk{quantity};
            for (int i = 0; i < length; i++) {
                Take(iter, walk, code >> (2 * i) & (Steps - 1));
                ASSERT_EQ(iter.curr(), walk.Current()) << quantity << ' ' << code << ' ' << i;
                ASSERT_EQ(iter.getCurrentIterIndex(), walk.Index()) << quantity << ' ' << code << ' ' << i;
            }
        }
    }
}

TEST(SafeArrayIter, AnEmptyArrayGivesNullAtOnce)
{
    ThingSafeArray a(5);
    ThingSafeArrayIter iter(a);
    EXPECT_EQ(iter(), nullptr);
    EXPECT_EQ(iter.getCurrentIterIndex(), 0u);
    ++iter;
    EXPECT_EQ(iter(), nullptr);
}

TEST(SafeArrayIter, GivesTheElementsAndThenNull)
{
    ThingSafeArray a;
    Thing* first = new Thing(1);
    Thing* second = new Thing(2);
    a.AddItem(first);
    a.AddItem(second);
    ThingSafeArrayIter iter(a);
    EXPECT_EQ(iter(), first);
    ++iter;
    EXPECT_EQ(iter(), second);
    ++iter;
    EXPECT_EQ(iter(), nullptr);
    ++iter;
    EXPECT_EQ(iter(), nullptr);
    iter.prev();
    EXPECT_EQ(iter(), second);
    iter.prev();
    iter.prev();
    EXPECT_EQ(iter(), nullptr);
    ++iter;
    EXPECT_EQ(iter(), first);
}

TEST(SafeArrayIter, SeesWhatIsAddedBehindIt)
{
    Pointers a;
    Fill(a, 1);
    SafeArrayIterBase iter(a);
    a.AddPtr(P(1));
    iter.next();
    EXPECT_EQ(iter.curr(), P(1));
    iter.next();
    EXPECT_EQ(iter.curr(), nullptr);
    a.AddPtr(P(2));
    iter.next();
    EXPECT_EQ(iter.curr(), nullptr) << "once past the end it stays there";
    iter.prev();
    EXPECT_EQ(iter.curr(), P(2));
}

TEST(SafeArrayIter, AnIteratorBeyondAShortenedArrayEndsItsWalk)
{
    Pointers a;
    Fill(a, 5);
    SafeArrayIterBase iter(a);
    iter.resetForward();
    for (int i = 0; i < 4; i++)
        a.RemoveAt(0);
    iter.next();
    EXPECT_EQ(iter.curr(), nullptr);
    iter.prev();
    EXPECT_EQ(iter.curr(), P(4));
    EXPECT_EQ(iter.getCurrentIterIndex(), 0u);
}

TEST(SafeArrayIter, ACopyStandsAtTheSameElement)
{
    Pointers a;
    Fill(a, 3);
    SafeArrayIterBase iter(a);
    iter.next();
    SafeArrayIterBase copy(iter);
    EXPECT_EQ(copy.curr(), P(1));
    EXPECT_EQ(copy.getCurrentIterIndex(), 1u);
    copy.next();
    EXPECT_EQ(copy.curr(), P(2));
    EXPECT_EQ(iter.curr(), P(1));
}

TEST(SafeArrayIter, ACopyReadsTheElementAnew)
{
    Pointers a;
    Fill(a, 2);
    SafeArrayIterBase iter(a);
    a.InsertAt(0, P(9));
    EXPECT_EQ(iter.curr(), P(0));
    EXPECT_EQ(SafeArrayIterBase(iter).curr(), P(9));

    iter.resetForward();
    iter.next();
    EXPECT_EQ(iter.curr(), nullptr);
    SafeArrayIterBase copy(iter);
    EXPECT_EQ(copy.curr(), P(1)) << "off the end, but with the last element as its current one";
    copy.next();
    EXPECT_EQ(copy.curr(), P(1)) << "it is past the end and stays there";
    copy.prev();
    EXPECT_EQ(copy.curr(), P(1));
    copy.prev();
    EXPECT_EQ(copy.curr(), P(0));

    iter.resetBackward();
    iter.prev();
    EXPECT_EQ(SafeArrayIterBase(iter).curr(), P(9));
}

} // namespace
