// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/CstrArray.h"

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/assertions.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"
#include "tests/unit/SafeArray_testing.h"

using namespace testing_support;
using safearray_testing::Printed;
using safearray_testing::PrintOf;

namespace {

std::vector<std::string> Texts(const CStringSafeArray& a)
{
    std::vector<std::string> texts;
    for (CStringSafeArrayIter iter(a); iter(); ++iter)
        texts.push_back(static_cast<const char*>(*iter()));
    return texts;
}

void Fill(CStringSafeArray& a, std::initializer_list<const char*> texts)
{
    for (const char* text : texts)
        a.AddItem(new CString(text));
}

struct CountedString : CString {
    explicit CountedString(const char* s) : CString(s) {}
    ~CountedString() override { gone++; }
    static int gone;
};
int CountedString::gone = 0;

TEST(CStringSafeArray, PrintsUnderItsElementName)
{
    CStringSafeArray a;
    Fill(a, {"one", "two"});
    EXPECT_EQ(Printed(a), PrintOf("CString", 32, {a[0], a[1]}));
    a.SetPurgeMode(1);
    EXPECT_EQ(Printed(a), PrintOf("CString", 32, {a[0], a[1]}, "NOT purgable"));
    a.SetPurgeMode(0);
}

TEST(CStringSafeArray, DumpsAsItsBase)
{
    CStringSafeArray a(3);
    Fill(a, {"one"});
    EXPECT_EQ(Dump(a), "Capacity: 3\nQuantity: 1\nlist[0] = " + Address(a[0]) + "\n");
}

TEST(CStringSafeArray, SortsAlphabeticallyAndFinds)
{
    CStringSafeArray a;
    Fill(a, {"pear", "apple", "fig", "", "Apple", "apples"});
    a.qsort(CString::compare);
    EXPECT_EQ(Texts(a), (std::vector<std::string>{"", "Apple", "apple", "apples", "fig", "pear"}));
    for (unsigned i = 0; i < a.Quantity(); i++) {
        const CString key(*a[static_cast<int>(i)]);
        EXPECT_EQ(a.bsearch(&key, CString::compare), a[static_cast<int>(i)]);
        EXPECT_EQ(a.search(&key, CString::compare), a[static_cast<int>(i)]);
        EXPECT_EQ(a.lfind(&key, CString::compare), a[static_cast<int>(i)]);
    }
    const CString absent("grape");
    EXPECT_EQ(a.bsearch(&absent, CString::compare), nullptr);
    EXPECT_EQ(a.search(&absent, CString::compare), nullptr);
}

TEST(CStringSafeArray, SearchesALargeSortedArray)
{
    CStringSafeArray a;
    for (int i = 999; i >= 0; i--)
        a.AddItem(new CString(std::to_string(i).c_str()));
    a.qsort(CString::compare);
    for (int i = 0; i < 1000; i++) {
        const CString key(std::to_string(i).c_str());
        CString* found = a.search(&key, CString::compare);
        ASSERT_NE(found, nullptr) << i;
        EXPECT_TRUE(*found == key);
    }
}

TEST(CStringSafeArray, ACopyIsDeep)
{
    CStringSafeArray a;
    Fill(a, {"one", "two"});
    CStringSafeArray copy(a);
    EXPECT_EQ(Texts(copy), Texts(a));
    EXPECT_NE(copy[0], a[0]);
    EXPECT_EQ(static_cast<const char*>(*copy[0]), static_cast<const char*>(*a[0])) << "the text itself is shared";
    *copy[0] += "!";
    EXPECT_EQ(Texts(a), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(Texts(copy), (std::vector<std::string>{"one!", "two"}));
}

TEST(CStringSafeArray, ACopyOfAReferringArrayOwnsItsStrings)
{
    CString one("one");
    CStringSafeArray a;
    a.SetPurgeMode(1);
    a.AddItem(one);
    CStringSafeArray copy(a);
    EXPECT_EQ(copy.pf(), 0);
    EXPECT_NE(copy[0], &one);
    EXPECT_EQ(Texts(copy), std::vector<std::string>{"one"});
}

TEST(CStringSafeArray, DeletesThroughTheVirtualDestructor)
{
    CountedString::gone = 0;
    {
        CStringSafeArray a;
        a.AddItem(new CountedString("one"));
        a.AddItem(new CountedString("two"));
        a.RemoveAt(0);
        EXPECT_EQ(CountedString::gone, 1);
    }
    EXPECT_EQ(CountedString::gone, 2);
}

TEST(CStringSafeArray, GetPointersGivesTypedPointers)
{
    CStringSafeArray a;
    EXPECT_EQ(a.GetPointers(), nullptr);
    Fill(a, {"one", "two"});
    std::unique_ptr<CString*[]> pointers(a.GetPointers());
    EXPECT_EQ(pointers[0], a.first());
    EXPECT_EQ(pointers[1], a.last());
}

TEST(CStringSafeArray, IteratorWalksForward)
{
    CStringSafeArray a;
    EXPECT_EQ(CStringSafeArrayIter(a)(), nullptr);
    Fill(a, {"a", "b"});
    CStringSafeArrayIter iter(a);
    EXPECT_TRUE(*iter() == "a");
    ++iter;
    EXPECT_TRUE(*iter() == "b");
    ++iter;
    EXPECT_EQ(iter(), nullptr);
    iter.prev();
    EXPECT_TRUE(*iter() == "b");
}

TEST(CStringSafeArray, ANullFunctionIsAnAssertion)
{
    CStringSafeArray a;
    ExpectAssertion("fptr != NULL", "Misc/SafeArray",
                    [&] { a.qsort(static_cast<CStringSafeArray::Compare>(nullptr)); });
}

} // namespace
