// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Option.h"

#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "tests/support/assertions.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"
#include "tests/unit/SafeArray_testing.h"

using namespace testing_support;
using safearray_testing::Printed;
using safearray_testing::PrintOf;

namespace {

using testing_support::Text;

std::string Text(const Option& option) { return Text(option.Name) + "=" + Text(option.Value); }

void Put(Buffer& b, const std::vector<Option>& options)
{
    ZELostream out(b);
    for (const Option& option : options)
        out << option;
}

int ByName(const Option** a, const Option** b) { return Text((*a)->Name).compare(Text((*b)->Name)); }

std::vector<std::string> Texts(const OptionSafeArray& a)
{
    std::vector<std::string> texts;
    for (unsigned i = 0; i < a.Quantity(); i++)
        texts.push_back(Text(*a[static_cast<int>(i)]));
    return texts;
}

struct CountedOption : Option {
    using Option::Option;
    ~CountedOption() override { gone++; }
    static int gone;
};
int CountedOption::gone = 0;

TEST(Option, StartsEmpty)
{
    const Option option;
    EXPECT_EQ(Text(option), "=");
    EXPECT_EQ(option.Name.strlen(), 0u);
    EXPECT_EQ(option.Value.strlen(), 0u);
}

TEST(Option, HasCopiesOfItsTexts)
{
    char name[] = "port";
    char value[] = "7";
    const Option option(name, value);
    name[0] = 'q';
    value[0] = '8';
    EXPECT_EQ(Text(option), "port=7");
}

TEST(Option, ANullTextIsEmpty)
{
    EXPECT_EQ(Text(Option("port", nullptr)), "port=");
    EXPECT_EQ(Text(Option(nullptr, "7")), "=7");
    EXPECT_EQ(Text(Option(nullptr, nullptr)), "=");
}

TEST(Option, ACopySharesTheTextsUntilOneChanges)
{
    Option option("port", "7");
    Option copy(option);
    EXPECT_EQ(static_cast<const char*>(copy.Name), static_cast<const char*>(option.Name));
    EXPECT_EQ(static_cast<const char*>(copy.Value), static_cast<const char*>(option.Value));
    copy.Value += "7";
    option.Name += "s";
    EXPECT_EQ(Text(option), "ports=7");
    EXPECT_EQ(Text(copy), "port=77");
}

TEST(Option, AssignmentCopiesNameAndValue)
{
    Option option("port", "7");
    Option other("host", "a");
    Option& result = option = other;
    EXPECT_EQ(&result, &option);
    EXPECT_EQ(Text(option), "host=a");
    EXPECT_EQ(Text(other), "host=a");
    other.Value = "b";
    EXPECT_EQ(Text(option), "host=a");
}

TEST(Option, SelfAssignmentChangesNothing)
{
    Option option("port", "7");
    const Option& same = option;
    const char* name = option.Name;
    const char* value = option.Value;
    option = same;
    EXPECT_EQ(Text(option), "port=7");
    EXPECT_EQ(static_cast<const char*>(option.Name), name);
    EXPECT_EQ(static_cast<const char*>(option.Value), value);
}

TEST(Option, IsDeletedThroughItsBase)
{
    static_assert(std::has_virtual_destructor<Option>::value, "programs derive from Option");
    CountedOption::gone = 0;
    Option* option = new CountedOption("port", "7");
    delete option;
    EXPECT_EQ(CountedOption::gone, 1);
}

TEST(Option, StreamsNameThenValue)
{
    Buffer b;
    Put(b, {Option("port", "7")});
    EXPECT_EQ(Bytes(b), "4|port1|7");
}

TEST(Option, StreamsAnEmptyTextAsALengthOfZero)
{
    Buffer b;
    Put(b, {Option("port", nullptr), Option(nullptr, "7"), Option()});
    EXPECT_EQ(Bytes(b), "4|port0|0|1|70|0|");
}

TEST(Option, ReadsBackInTheOrderWritten)
{
    Buffer b;
    Put(b, {Option("port", "7"), Option("", "x|y 3|"), Option("host", "")});
    EXPECT_EQ(Bytes(b), "4|port1|70|6|x|y 3|4|host0|");
    ZEListream in(b);
    Option first("old", "old"), second("old", "old"), third("old", "old");
    in >> first >> second >> third;
    EXPECT_EQ(Text(first), "port=7");
    EXPECT_EQ(Text(second), "=x|y 3|");
    EXPECT_EQ(Text(third), "host=");
    EXPECT_EQ(in.tellg(), b.Size());
    EXPECT_TRUE(in.good());
}

TEST(Option, StreamOperatorsReturnTheirStream)
{
    Buffer b;
    ZELostream out(b);
    EXPECT_EQ(&(out << Option("port", "7")), &out);
    out.flush();
    ZEListream in(b);
    Option option;
    EXPECT_EQ(&(in >> option), &in);
    EXPECT_EQ(Text(option), "port=7");
}

TEST(Option, TravelsThroughAnOrdinaryStream)
{
    std::stringstream text;
    {
        ZELostream out(text);
        out << Option("port", "7") << Option("host", "a b");
    }
    EXPECT_EQ(text.str(), "4|port1|74|host3|a b");
    ZEListream in(text);
    Option first, second;
    in >> first >> second;
    EXPECT_EQ(Text(first), "port=7");
    EXPECT_EQ(Text(second), "host=a b");
}

TEST(Option, AShortReadSetsTheErrorFlag)
{
    for (const char* cut : {"4|port9|7777", "9|port"}) {
        SCOPED_TRACE(cut);
        Buffer b;
        b.Append(cut);
        ZEListream in(b);
        Option option;
        const std::string said = CaptureStdout([&] { in >> option; });
        EXPECT_FALSE(in.good());
        EXPECT_NE(said, "");
        EXPECT_EQ(Text(option.Name).substr(0, 4), "port");
    }
}

TEST(OptionSafeArray, PrintsUnderItsElementName)
{
    OptionSafeArray a(3);
    a.AddItem(new Option("port", "7"));
    a.AddItem(*new Option("host", "a"));
    EXPECT_EQ(Printed(a), PrintOf("Option", 3, {a[0], a[1]}));
}

TEST(OptionSafeArray, PrintsWhenEmptyAndReferring)
{
    OptionSafeArray a;
    a.SetPurgeMode(1);
    EXPECT_EQ(Printed(a), PrintOf("Option", 0, {}, "NOT purgable"));
}

TEST(OptionSafeArray, AddsAndInserts)
{
    OptionSafeArray a;
    EXPECT_EQ(a.first(), nullptr);
    EXPECT_EQ(a.last(), nullptr);
    EXPECT_EQ(a[0], nullptr);
    EXPECT_EQ(a.GetPointers(), nullptr);
    a.AddItem(new Option("b", "1"));
    a.AddItem(*new Option("d", "2"));
    a.InsertItem(0, new Option("a", "3"));
    a.InsertItem(2, *new Option("c", "4"));
    EXPECT_EQ(Texts(a), (std::vector<std::string>{"a=3", "b=1", "c=4", "d=2"}));
    EXPECT_EQ(Text(*a.first()), "a=3");
    EXPECT_EQ(Text(*a.last()), "d=2");
    EXPECT_EQ(a[4], nullptr);
    EXPECT_EQ(a[-1], nullptr);
    std::unique_ptr<Option*[]> pointers(a.GetPointers());
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(pointers[static_cast<size_t>(i)], a[i]);
}

TEST(OptionSafeArray, ACopyIsDeepAndOwns)
{
    Option port("port", "7");
    OptionSafeArray a(5);
    a.SetPurgeMode(1);
    a.AddItem(port);
    OptionSafeArray copy(a);
    EXPECT_EQ(copy.pf(), 0);
    EXPECT_EQ(copy.Capacity(), 5u);
    ASSERT_EQ(copy.Quantity(), 1u);
    EXPECT_NE(copy[0], &port);
    EXPECT_EQ(static_cast<const char*>(copy[0]->Name), static_cast<const char*>(port.Name)) << "the text is shared";
    copy[0]->Value = "8";
    EXPECT_EQ(Text(port), "port=7");
    EXPECT_EQ(Text(*copy[0]), "port=8");
}

TEST(OptionSafeArray, DuplicatesAnItem)
{
    OptionSafeArray a;
    Option port("port", "7");
    std::unique_ptr<Option> copy(static_cast<Option*>(a.duplicateItem(&port)));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(Text(*copy), "port=7");
    EXPECT_EQ(a.duplicateItem(nullptr), nullptr);
    EXPECT_EQ(a.Quantity(), 0u);
}

TEST(OptionSafeArray, DeletesWhatItOwns)
{
    CountedOption::gone = 0;
    {
        OptionSafeArray a;
        a.AddItem(new CountedOption("a", "1"));
        a.AddItem(new CountedOption("b", "2"));
        a.RemoveAt(0);
        EXPECT_EQ(CountedOption::gone, 1);
        a.DeleteItem(nullptr);
    }
    EXPECT_EQ(CountedOption::gone, 2);
}

TEST(OptionSafeArray, LeavesWhatItRefersTo)
{
    CountedOption option("a", "1");
    CountedOption::gone = 0;
    {
        OptionSafeArray a;
        a.SetPurgeMode(1);
        a.AddItem(option);
        a.AddItem(option);
        a.RemovePtr(&option);
        EXPECT_EQ(a.Quantity(), 1u);
    }
    EXPECT_EQ(CountedOption::gone, 0);
    EXPECT_EQ(Text(option), "a=1");
}

TEST(OptionSafeArray, SortsAndFinds)
{
    OptionSafeArray a;
    for (const char* name : {"q", "c", "x", "a", "m"})
        a.AddItem(new Option(name, "1"));
    const Option last("m", "");
    EXPECT_EQ(a.lfind(&last, ByName), a[4]);
    EXPECT_EQ(a.search(&last, ByName), a[4]) << "few elements need no order";
    a.qsort(ByName);
    EXPECT_EQ(Texts(a), (std::vector<std::string>{"a=1", "c=1", "m=1", "q=1", "x=1"}));
    for (int i = 0; i < 5; i++) {
        const Option key(a[i]->Name, "another value");
        EXPECT_EQ(a.bsearch(&key, ByName), a[i]);
        EXPECT_EQ(a.lfind(&key, ByName), a[i]);
        EXPECT_EQ(a.search(&key, ByName), a[i]);
    }
    const Option absent("b", "1");
    EXPECT_EQ(a.bsearch(&absent, ByName), nullptr);
    EXPECT_EQ(a.lfind(&absent, ByName), nullptr);
    EXPECT_EQ(a.search(&absent, ByName), nullptr);
}

TEST(OptionSafeArray, ANullFunctionOrElementIsAnAssertion)
{
    OptionSafeArray a;
    const Option key;
    ExpectAssertion("fptr != NULL", "Misc/SafeArray",
                    [&] { a.lfind(&key, static_cast<OptionSafeArray::Compare>(nullptr)); });
    ExpectAssertion("fptr != NULL", "Misc/SafeArray",
                    [&] { a.bsearch(&key, static_cast<OptionSafeArray::Compare>(nullptr)); });
    ExpectAssertion("fptr != NULL", "Misc/SafeArray",
                    [&] { a.search(&key, static_cast<OptionSafeArray::Compare>(nullptr)); });
    ExpectAssertion("v != NULL", "Misc/SafeArray", [&] { a.AddItem(static_cast<Option*>(nullptr)); });
}

} // namespace
