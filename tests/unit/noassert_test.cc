// SPDX-License-Identifier: BSD-2-Clause
// Built against the arrays and strings compiled with assertions off: what the operations then do instead.
#include "Misc/SafeArray.h"

#include <climits>
#include <csignal>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/CstrArray.h"
#include "Misc/detail/assertion.h"
#include "Misc/ularray.h"
#include "tests/support/assertions.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"
#include "tests/unit/SafeArray_testing.h"

#ifndef ZELOO_NO_ASSERTIONS
#error "this test is about assertions that are off"
#endif

using namespace testing_support;
using namespace safearray_testing;

namespace {

const char InsertAtWarning[] = "Warning: invalid index to SafeArrayBase::InsertAt()...\n";

TEST(AssertionsOff, TheExpressionIsNotEvaluated)
{
    int evaluations = 0;
    ZELOO_ASSERT(++evaluations == 0, "Misc/unit");
    EXPECT_EQ(evaluations, 0);
    ExpectAssertion("evaluations != 0", "Misc/unit", [&] { ZELOO_REQUIRE(evaluations != 0, "Misc/unit"); });
}

TEST(AssertionsOff, AFullArrayAtItsCeilingIsLeftAlone)
{
    Pointers a;
    for (unsigned i = 0; i < Ceiling; i++)
        a.AddPtr(P(i));
    const std::string err = CaptureStderr([&] {
        a.AddPtr(P(Ceiling));
        a.InsertAt(Ceiling, P(Ceiling));
        a.InsertAt(0, P(Ceiling));
        a.InsertPtr(P(Ceiling - 1), P(Ceiling));
        a.InsertPtr(nullptr, P(Ceiling));
    });
    EXPECT_EQ(err, "");
    ASSERT_EQ(a.Quantity(), Ceiling);
    EXPECT_EQ(a.Capacity(), Ceiling);
    for (unsigned i = 0; i < Ceiling; i++)
        ASSERT_EQ(a.at(i), P(i));
    EXPECT_EQ(CaptureStderr([&] { a.InsertAt(Ceiling + 1, P(Ceiling)); }), InsertAtWarning);
    EXPECT_EQ(a.Quantity(), Ceiling);
}

TEST(AssertionsOff, AnInsertionBeyondTheEndWarnsAndAppends)
{
    Pointers a;
    EXPECT_EQ(CaptureStderr([&] { a.InsertAt(7, P(0)); }), InsertAtWarning);
    EXPECT_EQ(CaptureStderr([&] { a.InsertAt(UINT_MAX, P(1)); }), InsertAtWarning);
    EXPECT_EQ(CaptureStderr([&] { a.InsertAt(2, P(2)); }), "") << "the end itself is no error";
    EXPECT_EQ(CaptureStderr([&] { a.InsertAt(4, P(3)); }), InsertAtWarning);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1), P(2), P(3)}));
}

TEST(AssertionsOff, ARemovalBeyondTheEndDoesNothing)
{
    Pointers a;
    const std::string err = CaptureStderr([&] {
        a.RemoveAt(0);
        a.AddPtr(P(0));
        a.RemoveAt(1);
        a.RemoveAt(UINT_MAX);
        a.RemovePtr(nullptr);
    });
    EXPECT_EQ(err, "");
    EXPECT_EQ(Contents(a), std::vector<void*>{P(0)});
    EXPECT_TRUE(a.deleted.empty());
}

TEST(AssertionsOff, ANullElementIsStoredAndPointedOut)
{
    CStringSafeArray a(3);
    a.AddItem(static_cast<CString*>(nullptr));
    a.AddItem(new CString("one"));
    a.InsertItem(1, static_cast<CString*>(nullptr));
    std::ostringstream address;
    address << static_cast<const void*>(a[2]);
    std::ostringstream os;
    a.print(os);
    EXPECT_EQ(os.str(), "SafeArray(CString)***************\n"
                        "********** Capacity =3\n"
                        "********** Quantity =3\n"
                        "********** This SafeArray is purgable.\n"
                        "****SafeArray(CString)[0] address = 0\n"
                        "NULL SafeArray entry\n"
                        "****SafeArray(CString)[1] address = 0\n"
                        "NULL SafeArray entry\n"
                        "****SafeArray(CString)[2] address = " +
                            address.str() + "\n");

    CStringSafeArray copy(a);
    ASSERT_EQ(copy.Quantity(), 1u) << "there is nothing to copy in a null element";
    EXPECT_TRUE(*copy[0] == "one");
    a.RemoveAt(0);
    a.RemovePtr(nullptr);
    EXPECT_EQ(a.Quantity(), 1u);
    a.InsertItem(0, static_cast<CString*>(nullptr));
    a.DeleteAllItems();
    EXPECT_EQ(a.Quantity(), 0u);
}

TEST(AssertionsOff, OnlyElementsAreDeleted)
{
    Pointers a;
    a.AddPtr(P(0));
    a.AddPtr(nullptr);
    a.AddPtr(P(1));
    a.DeleteAllItems();
    EXPECT_EQ(a.deleted, (std::vector<void*>{P(0), P(1)}));
}

TEST(AssertionsOff, FailingMemoryInExpandIsStillAPanic)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the allocator is the sanitizer's";
#endif
    const ChildResult child = RunInChild([] {
        Pointers a;
        const MemoryFailure failure = MemoryFailure::FromSize(32 * sizeof(void*), Realloc);
        a.AddPtr(P(0));
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(ReportField(child.err, "  Severity Level="), "PANIC");
    EXPECT_EQ(ReportField(child.err, "  Description= "), "Memory allocation failure in SafeArray::Expand().");
}

TEST(AssertionsOff, CallsWithoutADefinedResultStillStop)
{
    Pointers a;
    typedef int (*Compare)(const void*, const void*);
    const Compare none = nullptr;
    const Compare equal = [](const void*, const void*) { return 0; };
    ExpectAssertion("key != NULL", "Misc/SafeArray", [&] { a.bsearch(nullptr, equal); });
    ExpectAssertion("fptr != NULL", "Misc/SafeArray", [&] { a.bsearch(P(0), none); });
    ExpectAssertion("key != NULL", "Misc/SafeArray", [&] { a.lfind(nullptr, equal); });
    ExpectAssertion("fptr != NULL", "Misc/SafeArray", [&] { a.lfind(P(0), none); });
    ExpectAssertion("key != NULL", "Misc/SafeArray", [&] { a.search(nullptr, equal); });
    ExpectAssertion("fptr != NULL", "Misc/SafeArray", [&] { a.qsort(none); });
    ExpectAssertion("theNewCells != 0", "Misc/ularray", [] {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        ulongArray cells(1);
    });
    const CString text("one");
    const CString* some = &text;
    const CString* null = nullptr;
    ExpectAssertion("a != NULL", "Misc/cstring", [&] { CString::compare(nullptr, &some); });
    ExpectAssertion("*a != NULL", "Misc/cstring", [&] { CString::compare(&null, &some); });
    ExpectAssertion("b != NULL", "Misc/cstring", [&] { CString::compare(&some, nullptr); });
    ExpectAssertion("*b != NULL", "Misc/cstring", [&] { CString::compare(&some, &null); });
}

} // namespace
