// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Hierarc.h"

#include <climits>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/SafeArray.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "tests/support/failing_memory.h"

template <>
const char* SafeArray<HierarchicNum>::ElementName()
{
    return "HierarchicNum";
}

namespace {

std::string Text(const HierarchicNum& h) { return static_cast<const char*>(h); }

std::vector<unsigned long> Levels(const HierarchicNum& h)
{
    std::vector<unsigned long> levels;
    for (int i = 0; h.is_valid_level(i); i++)
        levels.push_back(h.at_level(i));
    EXPECT_EQ(levels.size(), static_cast<size_t>(h.get_num_levels()));
    return levels;
}

// A text of `n` levels, all 1.
std::string Deep(int n)
{
    std::string text = "1";
    for (int i = 1; i < n; i++)
        text += ".1";
    return text;
}

TEST(HierarchicNum, StartsWithoutLevels)
{
    HierarchicNum h;
    EXPECT_EQ(h.get_num_levels(), 0);
    EXPECT_EQ(h.is_valid(), 0);
    EXPECT_EQ(Text(h), "");
    EXPECT_EQ(h.is_valid_level(0), 0);
    EXPECT_EQ(h.at_level(0), 0u);
}

TEST(HierarchicNum, HasNoTextWithoutMemoryAndKeepsItsLevels)
{
    HierarchicNum h("1.2");
    {
        const auto failure = testing_support::MemoryFailure::OfNext(testing_support::NewArray);
        h.inc();
        EXPECT_TRUE(failure.HasHappened());
    }
    EXPECT_EQ(Text(h), "");
    EXPECT_EQ(h.at_level(1), 3u);
    h.inc();
    EXPECT_EQ(Text(h), "1.4");
}

TEST(HierarchicNum, ParsesAText)
{
    HierarchicNum h("1.2.3");
    EXPECT_EQ(h.get_num_levels(), 3);
    EXPECT_EQ(h.is_valid(), 1);
    EXPECT_EQ(Text(h), "1.2.3");
    EXPECT_EQ(Levels(h), (std::vector<unsigned long>{1, 2, 3}));
    EXPECT_EQ(h.is_valid_level(-1), 0);
    EXPECT_EQ(h.is_valid_level(0), 1);
    EXPECT_EQ(h.is_valid_level(2), 1);
    EXPECT_EQ(h.is_valid_level(3), 0);
    EXPECT_EQ(h.at_level(-1), 0u);
    EXPECT_EQ(h.at_level(INT_MIN), 0u);
    EXPECT_EQ(h.at_level(INT_MAX), 0u);
}

TEST(HierarchicNum, BadTextsKeepTheLevelsBeforeTheFault)
{
    struct {
        const char* text;
        int valid;
        const char* kept;
    } const cases[] = {{nullptr, 0, ""},
                       {"", 0, ""},
                       {".", 0, ""},
                       {".1", 0, ""},
                       {"1.", 0, "1"},
                       {"1.2.", 0, "1.2"},
                       {"1..2", 0, "1"},
                       {"12a", 0, ""},
                       {"1.12a", 0, "1"},
                       {"1.a", 0, "1"},
                       {" 1", 0, ""},
                       {"1 ", 0, ""},
                       {"1.2 .3", 0, "1"},
                       {"-1", 0, ""},
                       {"+1", 0, ""},
                       {"1,2", 0, ""},
                       {"a", 0, ""},
                       {"1.2.3\n", 0, "1.2"},
                       {"\xb2", 0, ""},
                       {"1.\xff", 0, "1"},
                       {"0", 1, "0"},
                       {"007.10", 1, "7.10"},
                       {"0.0", 1, "0.0"},
                       {"000", 1, "0"},
                       {"4294967295", 1, "4294967295"}};
    for (const auto& c : cases) {
        HierarchicNum h(c.text);
        EXPECT_EQ(h.is_valid(), c.valid) << (c.text ? c.text : "null");
        EXPECT_EQ(Text(h), c.kept) << (c.text ? c.text : "null");
        HierarchicNum assigned("9.9.9");
        assigned = c.text;
        EXPECT_EQ(assigned.is_valid(), c.valid) << (c.text ? c.text : "null");
        EXPECT_EQ(Text(assigned), c.kept) << (c.text ? c.text : "null");
    }
}

TEST(HierarchicNum, LevelsWrapAt32Bits)
{
    EXPECT_EQ(Text(HierarchicNum("4294967296")), "0");
    EXPECT_EQ(Text(HierarchicNum("4294967297.1")), "1.1");
    EXPECT_EQ(Text(HierarchicNum("99999999999999999999")), "1661992959"); // 10^20 - 1 modulo 2^32
}

TEST(HierarchicNum, ConvertsToItsText)
{
    const HierarchicNum h("3.4");
    const char* text = h;
    EXPECT_STREQ(text, "3.4");
    std::ostringstream os;
    os << h;
    EXPECT_EQ(os.str(), "3.4");
}

TEST(HierarchicNum, AssignmentCopiesAll)
{
    HierarchicNum a("1.2.x");
    HierarchicNum b("5.6.7.8");
    EXPECT_EQ(&(b = a), &b);
    EXPECT_EQ(Text(b), "1.2");
    EXPECT_EQ(b.is_valid(), 0);
    EXPECT_EQ(Levels(b), (std::vector<unsigned long>{1, 2}));
    b.inc();
    EXPECT_EQ(Text(a), "1.2") << "the levels are not shared";

    HierarchicNum c("1.2");
    HierarchicNum& same = c;
    c = same;
    EXPECT_EQ(Text(c), "1.2");
    EXPECT_EQ(c.is_valid(), 1);
    HierarchicNum copy(c);
    copy.inc();
    EXPECT_EQ(Text(copy), "1.3");
    EXPECT_EQ(Text(c), "1.2");
    c = HierarchicNum();
    EXPECT_EQ(Text(c), "");
    EXPECT_EQ(c.is_valid(), 0);
}

TEST(HierarchicNum, CanBeAssignedItsOwnText)
{
    HierarchicNum h("1.2.3");
    h = static_cast<const char*>(h);
    EXPECT_EQ(Text(h), "1.2.3");
    EXPECT_EQ(h.is_valid(), 1);
    h = static_cast<const char*>(h) + 2;
    EXPECT_EQ(Text(h), "2.3");
}

TEST(HierarchicNum, IncAndDecWorkOnTheLastLevel)
{
    HierarchicNum h("1.9");
    h.inc();
    EXPECT_EQ(Text(h), "1.10");
    EXPECT_EQ(h.at_level(1), 10u);
    h.dec();
    h.dec();
    EXPECT_EQ(Text(h), "1.8");

    h = "1.0";
    h.dec();
    EXPECT_EQ(Text(h), "1.4294967295");
    EXPECT_EQ(h.at_level(1), 4294967295ul);
    h.inc();
    EXPECT_EQ(Text(h), "1.0");
    EXPECT_EQ(h.is_valid(), 1);

    HierarchicNum none;
    none.inc();
    none.dec();
    EXPECT_EQ(none.get_num_levels(), 0);
    EXPECT_EQ(Text(none), "");

    HierarchicNum invalid("3.4.");
    invalid.inc();
    EXPECT_EQ(Text(invalid), "3.5");
    EXPECT_EQ(invalid.is_valid(), 0);
}

TEST(HierarchicNum, AddLevelAppends)
{
    HierarchicNum h("1");
    h.add_level(20);
    h.add_level(0);
    EXPECT_EQ(Text(h), "1.20.0");
    EXPECT_EQ(h.is_valid(), 1);
    h.add_level(static_cast<unsigned long>(0x100000002));
    EXPECT_EQ(Text(h), "1.20.0.2");
    HierarchicNum none;
    none.add_level(5);
    EXPECT_EQ(Text(none), "5");
    EXPECT_EQ(none.is_valid(), 0) << "the validity is that of the last text";
}

// The sizes, in cells, of the level arrays that `body` allocates. The texts of the numbers below are chosen so that no
// block of characters has the size of whole cells.
std::vector<std::size_t> CellsAllocated(const std::function<void()>& body)
{
    std::vector<std::size_t> cells;
    for (std::size_t size : testing_support::SizesAllocated(testing_support::NewArray, body))
        if (size % sizeof(unsigned long) == 0)
            cells.push_back(size / sizeof(unsigned long));
    return cells;
}

TEST(HierarchicNum, EightLevelsMakeTheCellsGrowFrom7To12)
{
    typedef std::vector<std::size_t> Sizes;
    EXPECT_EQ(CellsAllocated([] { HierarchicNum h("1.2.3.4.5.6.7"); }), Sizes{7});
    EXPECT_EQ(CellsAllocated([] { HierarchicNum h("1.2.3.4.5.6.7.88"); }), (Sizes{7, 12}));
    EXPECT_EQ(CellsAllocated([] { HierarchicNum h("1.2.3.4.5.6.7.8.9.0.1.2.3.4"); }), (Sizes{7, 12, 17}));
    EXPECT_EQ(Text(HierarchicNum("1.2.3.4.5.6.7.8.9.0.1.2.3.4")), "1.2.3.4.5.6.7.8.9.0.1.2.3.4");
}

TEST(HierarchicNum, AssigningATextFreesTheLevelsFirst)
{
    HierarchicNum h("1.2.3");
    EXPECT_EQ(CellsAllocated([&] { h = "1.2.3.4.5.6"; }), (std::vector<std::size_t>{5, 10}));
    EXPECT_EQ(Text(h), "1.2.3.4.5.6");
}

TEST(HierarchicNum, HoldsAtMost32767Levels)
{
    const std::string most = Deep(32767);
    HierarchicNum h((most + ".1").c_str());
    EXPECT_EQ(h.is_valid(), 0);
    EXPECT_EQ(h.get_num_levels(), 32767);
    EXPECT_EQ(Text(h), most);
    h.add_level(1);
    EXPECT_EQ(h.get_num_levels(), 32767);
    EXPECT_EQ(Text(h), most);

    const auto read = [&h](const std::string& text) {
        std::stringstream stream(std::to_string(text.size()) + "|" + text);
        ZEListream in(stream);
        in >> h;
    };
    read(most);
    EXPECT_EQ(h.is_valid(), 1);
    EXPECT_EQ(h.get_num_levels(), 32767);
    const HierarchicNum same(h);
    EXPECT_EQ(h.relation(same), 4);
    h.inc();
    EXPECT_EQ(h.at_level(32766), 2u);
    EXPECT_EQ(h.relation(same), 0);
    read(Deep(32766));
    EXPECT_EQ(h.relation(same), 24);
    EXPECT_EQ(same.relation(h), 3);
    ASSERT_EQ(Deep(32768).size(), 65535u) << "what a stream can carry";
    read(Deep(32768));
    EXPECT_EQ(h.is_valid(), 0);
    EXPECT_EQ(h.get_num_levels(), 32767);
}

TEST(HierarchicNum, TheWidestTextFits)
{
    std::string text = "4294967295";
    for (int i = 1; i < 100; i++)
        text += ".4294967295";
    EXPECT_EQ(Text(HierarchicNum(text.c_str())), text);
}

TEST(HierarchicNum, SortsByLevelsAndThenByDepth)
{
    const char* const inOrder[] = {"", "0", "0.1", "1", "1.2", "1.2.1", "1.10", "2", "10"};
    for (size_t i = 0; i < std::size(inOrder); i++) {
        for (size_t j = 0; j < std::size(inOrder); j++) {
            const HierarchicNum a(inOrder[i]);
            const HierarchicNum b(inOrder[j]);
            const int sign = i < j ? -1 : i > j;
            const int result = a.compare_with(b);
            EXPECT_EQ((result > 0) - (result < 0), sign) << inOrder[i] << " and " << inOrder[j];
            EXPECT_EQ(a < b, sign < 0);
            EXPECT_EQ(a <= b, sign <= 0);
            EXPECT_EQ(a > b, sign > 0);
            EXPECT_EQ(a >= b, sign >= 0);
            EXPECT_EQ(a == b, sign == 0);
            EXPECT_EQ(a != b, sign != 0);
            const HierarchicNum* pa = &a;
            const HierarchicNum* pb = &b;
            EXPECT_EQ(HierarchicNum::compare(&pa, &pb), result);
        }
    }
}

TEST(HierarchicNum, ATextIsComparedAsTheNumberThatItMakes)
{
    const char* const inOrder[] = {"", "0", "1", "1.2", "1.2.1", "1.10", "02"};
    for (size_t i = 0; i < std::size(inOrder); i++) {
        for (size_t j = 0; j < std::size(inOrder); j++) {
            const HierarchicNum h(inOrder[i]);
            const char* const text = inOrder[j];
            const CString s(text);
            EXPECT_TRUE((h < text) == (i < j) && (text > h) == (i < j)) << i << " and " << j;
            EXPECT_TRUE((h > text) == (i > j) && (text < h) == (i > j)) << i << " and " << j;
            EXPECT_TRUE((h <= text) == (i <= j) && (text >= h) == (i <= j)) << i << " and " << j;
            EXPECT_TRUE((h >= text) == (i >= j) && (text <= h) == (i >= j)) << i << " and " << j;
            EXPECT_TRUE((h == text) == (i == j) && (text == h) == (i == j)) << i << " and " << j;
            EXPECT_TRUE((h != text) == (i != j) && (text != h) == (i != j)) << i << " and " << j;
            EXPECT_TRUE((h < s) == (i < j) && (s > h) == (i < j)) << i << " and " << j;
            EXPECT_TRUE((h == s) == (i == j) && (s == h) == (i == j)) << i << " and " << j;
        }
    }
    EXPECT_TRUE(HierarchicNum("7.10") == "007.10");
    EXPECT_TRUE(CString("007.10") == HierarchicNum("7.10"));
    char own[] = "1.2";
    EXPECT_TRUE(HierarchicNum("1.2") == own && own >= HierarchicNum("1.2"));
    EXPECT_TRUE(HierarchicNum() == static_cast<const char*>(nullptr));
}

TEST(HierarchicNum, CompareGivesTheDifference)
{
    EXPECT_EQ(HierarchicNum("1.2").compare_with("1.10"), -8);
    EXPECT_EQ(HierarchicNum("1.2.9.9").compare_with("1.2"), 2);
    EXPECT_EQ(HierarchicNum("1").compare_with("1.2.3.4"), -3);
    EXPECT_EQ(HierarchicNum("0").compare_with("4294967295"), 1) << "the difference wraps";
    EXPECT_EQ(HierarchicNum("4294967295").compare_with("0"), -1);
    EXPECT_EQ(HierarchicNum("2147483648").compare_with("0"), INT_MIN);
    EXPECT_EQ(HierarchicNum("0").compare_with("2147483648"), INT_MIN);
}

TEST(HierarchicNum, SortsAndSearchesInAnArray)
{
    SafeArray<HierarchicNum> a;
    for (const char* text : {"2", "1.10", "1.2.1", "1", "1.2"})
        a.AddItem(new HierarchicNum(text));
    a.qsort(HierarchicNum::compare);
    std::string order;
    for (unsigned i = 0; i < a.Quantity(); i++)
        order += Text(*a[static_cast<int>(i)]) + " ";
    EXPECT_EQ(order, "1 1.2 1.2.1 1.10 2 ");
    const HierarchicNum key("1.2.1");
    EXPECT_EQ(a.bsearch(&key, HierarchicNum::compare), a[2]);
    EXPECT_EQ(a.search(&key, HierarchicNum::compare), a[2]);
}

TEST(HierarchicNum, SamePrefixComparesTheFirstLevels)
{
    const HierarchicNum a("1.2.3");
    const HierarchicNum b("1.2.4.5");
    EXPECT_EQ(a.samePrefix(1, b), 1);
    EXPECT_EQ(a.samePrefix(2, b), 1);
    EXPECT_EQ(a.samePrefix(3, b), 0);
    EXPECT_EQ(a.samePrefix(4, b), 0);
    EXPECT_EQ(b.samePrefix(4, a), 0);
    EXPECT_EQ(a.samePrefix(3, a), 1);
    EXPECT_EQ(a.samePrefix(0, b), 0);
    EXPECT_EQ(a.samePrefix(-1, b), 0);
    EXPECT_EQ(a.samePrefix(SHRT_MIN, b), 0);
    EXPECT_EQ(a.samePrefix(1, HierarchicNum()), 0);
    EXPECT_EQ(HierarchicNum().samePrefix(1, a), 0);
}

TEST(HierarchicNum, RelationTellsTheFamily)
{
    struct {
        const char* a;
        const char* b;
        int relation;
    } const cases[] = {{"1.2.3", "1.2", 3}, {"1.2.3.4", "1.2", 1}, {"1.2.3.4.5", "1.2", 1}, {"1.2", "1.2.3", 24},
                       {"1", "1.2.3", 16},  {"1", "1.2.3.4", 16},  {"1.2", "1.2", 4},       {"1.3", "1.2.5", 0},
                       {"1.2.5", "1.3", 0}, {"1.2", "1.3", 0},     {"2", "1", 0},           {"", "", 0},
                       {"", "1", 0},        {"1", "", 0},          {"1.2", "", 0},          {"2.2", "1.2", 0},
                       {"007.1", "7", 3}};
    for (const auto& c : cases)
        EXPECT_EQ(HierarchicNum(c.a).relation(c.b), c.relation) << c.a << " to " << c.b;
}

TEST(HierarchicNum, TravelsAsItsText)
{
    Buffer buffer;
    {
        ZELostream out(buffer);
        out << HierarchicNum("007.10") << HierarchicNum() << HierarchicNum("1.2.");
    }
    const std::string expected = "4|7.10"
                                 "0|"
                                 "3|1.2";
    ASSERT_EQ(buffer.Size(), expected.size());
    EXPECT_EQ(std::string(buffer.GetCString(), expected.size()), expected);

    ZEListream in(buffer);
    HierarchicNum h("5.5.5");
    in >> h;
    EXPECT_EQ(Text(h), "7.10");
    EXPECT_EQ(h.is_valid(), 1);
    in >> h;
    EXPECT_EQ(Text(h), "");
    EXPECT_EQ(h.is_valid(), 0);
    in >> h;
    EXPECT_EQ(Text(h), "1.2");
    EXPECT_EQ(h.is_valid(), 1) << "the text of an invalid number is well-formed";
}

TEST(HierarchicNum, ReadingFreesNoLevels)
{
    std::stringstream text("8|1.2.3.44");
    ZEListream in(text);
    HierarchicNum h("1");
    EXPECT_EQ(CellsAllocated([&] { in >> h; }), std::vector<std::size_t>()) << "four levels fit the seven cells";
    EXPECT_EQ(Text(h), "1.2.3.44");
}

} // namespace
