// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/cstring.h"

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using testing_support::BufferOf;
using testing_support::CaptureStdout;
using testing_support::ChildResult;
using testing_support::Dump;
using testing_support::MemoryFailure;
using testing_support::NewArray;
using testing_support::NewObject;
using testing_support::RunInChild;
using testing_support::Streamed;

namespace {

// Made before main and destroyed after it.
CString globalEmpty;
CString globalText("made before main");
CString globalCopy(globalText);

const int AnyAllocation = NewObject | NewArray;

const char* Text(const CString& s) { return s; }

std::string Str(const CString& s) { return Text(s); }

int Users(const CString& s) { return std::atoi(Dump(s).c_str() + std::strlen("CStringRep::dumpOn() \ncount <")); }

TEST(CStringRep, EachConstructorCountsOneUser)
{
    CStringRep empty;
    EXPECT_EQ(empty.count, 1);
    EXPECT_EQ(empty.len, 0u);
    EXPECT_STREQ(empty.rep, "");

    CStringRep abc("abc");
    EXPECT_EQ(abc.count, 1);
    EXPECT_EQ(abc.len, 3u);
    EXPECT_STREQ(abc.rep, "abc");

    char* taken = new char[3]{'x', 'y', '\0'};
    char* const block = taken;
    CStringRep over(&taken);
    EXPECT_EQ(taken, nullptr);
    EXPECT_EQ(over.rep, block);
    EXPECT_EQ(over.len, 2u);
    EXPECT_EQ(over.count, 1);

    CStringRep copy(abc);
    EXPECT_NE(copy.rep, abc.rep);
    EXPECT_STREQ(copy.rep, "abc");
    EXPECT_EQ(copy.len, 3u);

    CStringRep room(5u);
    EXPECT_EQ(room.len, 5u);
    std::memset(room.rep, 'a', 5);
    EXPECT_STREQ(room.rep, "aaaaa");
}

TEST(CStringRep, WithoutMemoryTheLengthIsZero)
{
    CStringRep abc("abc");
    const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
    CStringRep text("abc");
    EXPECT_EQ(text.rep, nullptr);
    EXPECT_EQ(text.len, 0u);
    CStringRep room(5u);
    EXPECT_EQ(room.rep, nullptr);
    EXPECT_EQ(room.len, 0u);
    CStringRep copy(abc);
    EXPECT_EQ(copy.rep, nullptr);
    EXPECT_EQ(copy.len, 0u);
    CStringRep copyOfNothing(copy);
    EXPECT_EQ(copyOfNothing.rep, nullptr);
    EXPECT_EQ(copyOfNothing.len, 0u);
}

TEST(CStringRep, ClonesOnlyWhatIsShared)
{
    CStringRep r("abc");
    EXPECT_EQ(r.clone(1), &r);
    EXPECT_EQ(r.clone(0), &r);
    r.count = 2;
    CStringRep* copy = r.clone(1);
    ASSERT_NE(copy, &r);
    EXPECT_EQ(copy->count, 1);
    EXPECT_STREQ(copy->rep, "abc");
    CStringRep* room = r.clone(0);
    ASSERT_NE(room, &r);
    EXPECT_EQ(room->count, 1);
    EXPECT_EQ(room->len, 3u);
    EXPECT_EQ(r.count, 2) << "the old count is the caller's business";
    delete copy;
    delete room;
}

TEST(CStringRep, CloneStopsTheProcessWithoutMemory)
{
    for (const int copy : {0, 1}) {
        const ChildResult child = RunInChild([copy] {
            CStringRep r("abc");
            r.count = 2;
            const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
            r.clone(copy);
        });
        EXPECT_EQ(child.signal, SIGABRT);
        const std::string expected = "Assertion failed: t != NULL, file Misc/cstring, line ";
        EXPECT_EQ(child.err.substr(0, expected.size()), expected);
    }
}

TEST(CStringRep, DumpsCountAndText)
{
    CStringRep r("some text");
    r.count = 7;
    std::ostringstream os;
    r.dumpOn(os);
    EXPECT_EQ(os.str(), "CStringRep::dumpOn() \ncount <7> rep <some text> \n");
}

TEST(CString, StaticStringsWorkBeforeAndAfterMain)
{
    EXPECT_EQ(Str(globalEmpty), "");
    EXPECT_EQ(Str(globalCopy), "made before main");
    EXPECT_EQ(Text(globalCopy), Text(globalText));
    const ChildResult child = RunInChild([] {
        static CString* late = nullptr;
        static CString local("local");
        std::atexit([] {
            late = new CString; // made when some static strings are gone
            CHILD_CHECK(late->strlen() == 0 && *late == "");
            std::_Exit(0);
        });
        std::exit(2);
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(CString, EmptyStringsShareOneRepresentation)
{
    const int before = Users(globalEmpty);
    {
        CString a, b(""), c(static_cast<const char*>(nullptr)), d("abc", 0), e("", 5), f(nullptr, 5), g("text");
        g = "";
        CString h(Buffer(0)), i(b);
        CString j("x");
        j = static_cast<const char*>(nullptr);
        for (const CString* s : {&a, &b, &c, &d, &e, &f, &g, &h, &i, &j}) {
            EXPECT_EQ(Text(*s), Text(globalEmpty));
            EXPECT_EQ(s->strlen(), 0u);
        }
        EXPECT_EQ(Users(a), before + 10);
    }
    EXPECT_EQ(Users(globalEmpty), before);
}

TEST(CString, TheEmptyRepresentationGoesWithItsLastUser)
{
    const ChildResult child = RunInChild([] {
        const auto allocationsOfAnEmptyString = [] {
            return testing_support::SizesAllocated(AnyAllocation, [] { CString s; }).size();
        };
        CHILD_CHECK(allocationsOfAnEmptyString() == 0); // shared with globalEmpty
        globalEmpty = "not empty";
        CHILD_CHECK(allocationsOfAnEmptyString() == 1); // made and freed each time
        CHILD_CHECK(allocationsOfAnEmptyString() == 1);
        CString keeper;
        CHILD_CHECK(Users(keeper) == 1);
        CHILD_CHECK(allocationsOfAnEmptyString() == 0);
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(CString, IsMadeFromTextsAndTheirParts)
{
    EXPECT_EQ(Str(CString("abc")), "abc");
    EXPECT_EQ(CString("abc").strlen(), 3u);
    EXPECT_EQ(Str(CString("abcdef", 3)), "abc");
    const CString shorter("ab", 4294967295u);
    EXPECT_EQ(Str(shorter), "ab");
    EXPECT_EQ(shorter.strlen(), 2u);
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(Str(CString(unterminated, 3)), "xyz");
}

TEST(CString, TakesABufferUpToItsFirstZero)
{
    EXPECT_EQ(Str(CString(BufferOf("abc"))), "abc");
    EXPECT_EQ(Str(CString(BufferOf(std::string("ab\0cd", 5)))), "ab");
    EXPECT_EQ(Str(CString(BufferOf(std::string("\0cd", 3)))), "");
    EXPECT_EQ(CString(BufferOf(std::string("abc\0", 4))).strlen(), 3u);
}

TEST(CString, CopiesShareAndChangesDoNot)
{
    CString b("text");
    CString a(b);
    EXPECT_EQ(Text(a), Text(b));
    EXPECT_EQ(Dump(a), "CStringRep::dumpOn() \ncount <2> rep <text> \n");
    a += "x";
    EXPECT_EQ(Str(b), "text");
    EXPECT_EQ(Str(a), "textx");
    EXPECT_EQ(Users(b), 1);
    a = b;
    EXPECT_EQ(Users(b), 2);
    a.toUpper();
    EXPECT_EQ(Str(b), "text");
    EXPECT_EQ(Str(a), "TEXT");
    EXPECT_EQ(Users(a), 1);
    const char* before = a;
    a.toLower();
    EXPECT_EQ(Text(a), before) << "a private text is converted in place";
}

TEST(CString, AnAssignmentToItselfChangesNothing)
{
    CString a("abc");
    const char* text = a;
    CString& same = a;
    a = same;
    EXPECT_EQ(Text(a), text);
    EXPECT_EQ(Users(a), 1);
    const CString b(a);
    a = b;
    EXPECT_EQ(Users(a), 2) << "already shared";
    a = static_cast<const char*>(a) + 1;
    EXPECT_EQ(Str(a), "bc");
    EXPECT_EQ(Str(b), "abc");
}

TEST(CString, WritingThroughTheIndexChangesAllSharers)
{
    CString a("abc");
    const CString b(a);
    a[1] = 'X';
    EXPECT_EQ(Str(b), "aXc");
    EXPECT_EQ(b[3], '\0');
}

TEST(CString, AZeroByteIsACharacterForEditing)
{
    const auto make = [] {
        CString s("abcdef");
        s[2] = '\0';
        return s;
    };
    CString s = make();
    EXPECT_EQ(s.strlen(), 6u);
    EXPECT_TRUE(s == "ab");
    s.ReplaceAll('\0', "c");
    EXPECT_TRUE(s == "abcdef");

    s = make();
    s.Delete(2, 1);
    EXPECT_EQ(Str(s), "abdef");

    s = make();
    s.Insert(6, "g");
    EXPECT_EQ(s.strlen(), 2u) << "the result's length ends at the zero byte";
    EXPECT_EQ(std::memcmp(Text(s), "ab\0defg", 8), 0);

    s = make();
    s += 'g';
    EXPECT_EQ(std::memcmp(Text(s), "ab\0defg", 8), 0);

    s = make();
    s.toUpper();
    EXPECT_EQ(s.strlen(), 6u);
    EXPECT_EQ(std::memcmp(Text(s), "AB\0DEF", 7), 0);

    s = make();
    s.flatten();
    EXPECT_EQ(Str(s), "ab def");

    s = make();
    EXPECT_EQ(Streamed(s), std::string("6|ab\0def", 8));

    s = make();
    CString t("x");
    t.Insert(0, s);
    EXPECT_EQ(std::memcmp(Text(t), "ab\0defx", 8), 0);
}

TEST(CString, ComparesByTheText)
{
    const CString a("abc"), b("abc"), c("abd"), d("abcd"), e(a);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a == e);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == d);
    EXPECT_TRUE(a != c);
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(a == "abc");
    EXPECT_FALSE(a == "abcd");
    EXPECT_TRUE(a != "ab");
    EXPECT_FALSE(a != "abc");

    CString cut("abcd");
    cut[3] = '\0';
    EXPECT_FALSE(cut == a) << "stored lengths differ";
    EXPECT_TRUE(cut == "abc");

    const CString *pa = &a, *pb = &b, *pc = &c;
    EXPECT_EQ(CString::compare(&pa, &pb), 0);
    EXPECT_LT(CString::compare(&pa, &pc), 0);
    EXPECT_GT(CString::compare(&pc, &pa), 0);
}

TEST(CString, CompareStopsOnNull)
{
    static const CString text("x");
    static const CString* good = &text;
    static const CString* null = nullptr;
    const struct {
        const CString **a, **b;
        const char* expression;
    } cases[] = {
        {nullptr, nullptr, "a != NULL"},
        {&null, nullptr, "*a != NULL"},
        {&good, nullptr, "b != NULL"},
        {&good, &null, "*b != NULL"},
    };
    for (const auto& c : cases) {
        const ChildResult child = RunInChild([&c] { CString::compare(c.a, c.b); });
        EXPECT_EQ(child.signal, SIGABRT);
        const std::string expected = std::string("Assertion failed: ") + c.expression + ", file Misc/cstring, line ";
        EXPECT_EQ(child.err.substr(0, expected.size()), expected);
    }
}

TEST(CString, ConcatenatesAndSharesWhereNothingIsAdded)
{
    const CString a("ab"), b("cd"), empty;
    EXPECT_EQ(Str(a + b), "abcd");
    EXPECT_EQ(Str(a + "x"), "abx");
    EXPECT_EQ(Text(a + empty), Text(a));
    EXPECT_EQ(Text(a + ""), Text(a));
    EXPECT_EQ(Text(empty + b), Text(b));
    EXPECT_EQ(Str(empty + empty), "");
    EXPECT_EQ(Str(a), "ab");

    CString c(a);
    c += empty;
    c += "";
    c += static_cast<const char*>(nullptr);
    EXPECT_EQ(Text(c), Text(a));
    c += b;
    EXPECT_EQ(Str(c), "abcd");
    c += c;
    EXPECT_EQ(Str(c), "abcdabcd");
    c += static_cast<const char*>(c) + 6;
    EXPECT_EQ(Str(c), "abcdabcdcd");
    c += c[1];
    EXPECT_EQ(Str(c), "abcdabcdcdb");
    const char* before = c;
    c += '\0';
    EXPECT_NE(Text(c), before) << "always a new text";
    EXPECT_EQ(c.strlen(), 11u);
}

TEST(CString, DeletesWithinItsLength)
{
    CString s("abcdef");
    s.Delete(1, 2);
    EXPECT_EQ(Str(s), "adef");
    const char* before = s;
    s.Delete(4, 1);
    s.Delete(5, 1);
    s.Delete(4294967295u, 4294967295u);
    s.Delete(1, 0);
    EXPECT_EQ(Text(s), before);
    s.Delete(2, 4294967295u);
    EXPECT_EQ(Str(s), "ad");
    s.Delete(0, 2);
    EXPECT_EQ(s.strlen(), 0u);
}

TEST(CString, InsertsWithinItsLength)
{
    CString s("ad");
    s.Insert(1, "bc");
    EXPECT_EQ(Str(s), "abcd");
    s.Insert(4, "x");
    s.Insert(5, 'y');
    s.Insert(0, CString("<"));
    EXPECT_EQ(Str(s), "<abcdxy");
    const char* before = s;
    s.Insert(8, "x");
    s.Insert(8, 'x');
    s.Insert(8, CString("x"));
    s.Insert(0, CString());
    s.Insert(0, static_cast<const char*>(nullptr));
    EXPECT_EQ(Text(s), before);
    s.Insert(0, "");
    EXPECT_NE(Text(s), before) << "an empty C string still makes an equal copy";
    EXPECT_EQ(Str(s), "<abcdxy");
    before = s;
    s.Insert(1, '\0');
    EXPECT_NE(Text(s), before);
    EXPECT_EQ(Str(s), "<abcdxy");
    s.Insert(1, s);
    EXPECT_EQ(Str(s), "<<abcdxyabcdxy");
}

TEST(CString, ReplacesEveryOccurrence)
{
    CString s("a.b..c");
    const char* before = s;
    s.ReplaceAll('x', "y");
    s.ReplaceAll('.', nullptr);
    s.ReplaceAll('\0', "y");
    EXPECT_EQ(Text(s), before);
    s.ReplaceAll('.', "--");
    EXPECT_EQ(Str(s), "a--b----c");
    s.ReplaceAll('-', "");
    EXPECT_EQ(Str(s), "abc");
    s.ReplaceAll('b', s);
    EXPECT_EQ(Str(s), "aabcc");
    CString empty;
    empty.ReplaceAll('a', "b");
    EXPECT_EQ(Text(empty), Text(globalEmpty));
}

TEST(CString, TrimsWhiteSpaceAtEitherEnd)
{
    CString s(" \t\r\n\v\fa b \n");
    s.lTrim();
    EXPECT_EQ(Str(s), "a b \n");
    const char* before = s;
    s.lTrim();
    EXPECT_EQ(Text(s), before);
    s.rTrim();
    EXPECT_EQ(Str(s), "a b");
    before = s;
    s.rTrim();
    EXPECT_EQ(Text(s), before);
    for (void (CString::*trim)() : {&CString::lTrim, &CString::rTrim}) {
        CString blank("   ");
        (blank.*trim)();
        EXPECT_EQ(Str(blank), "");
        EXPECT_EQ(blank.strlen(), 0u);
        (blank.*trim)();
        EXPECT_EQ(Str(blank), "");
    }
    CString high("\xa0x\xa0");
    high.lTrim();
    high.rTrim();
    EXPECT_EQ(Str(high), "\xa0x\xa0");
}

TEST(CString, ConvertsCaseAndUnprintables)
{
    CString s("aZ1\xe4");
    s.toUpper();
    EXPECT_EQ(Str(s), "AZ1\xe4");
    s.toLower();
    EXPECT_EQ(Str(s), "az1\xe4");

    const CString source("a\tb\nc\x01\x7f\xff d");
    CString flat(source), print(source);
    flat.flatten();
    EXPECT_EQ(Str(flat), "a b c    d");
    print.makeprintable();
    EXPECT_EQ(Str(print), "a\tb\nc    d");
    EXPECT_EQ(Str(source), "a\tb\nc\x01\x7f\xff d");
    const char* before = flat;
    flat.flatten();
    EXPECT_EQ(Text(flat), before);
    CString empty;
    empty.toUpper();
    empty.flatten();
    EXPECT_EQ(Str(empty), "");
}

TEST(CString, ConvertsLineEnds)
{
    CString dos("a\r\nb\nc\r"), unix("a\r\nb\nc\r");
    dos.toDos();
    EXPECT_EQ(Str(dos), "a\r\nb\r\nc\r");
    unix.toUnix();
    EXPECT_EQ(Str(unix), "a\nb\nc\r");
    CString feeds("\n\n\r\r\n");
    feeds.toDos();
    EXPECT_EQ(Str(feeds), "\r\n\r\n\r\r\n");
    feeds.toUnix();
    EXPECT_EQ(Str(feeds), "\n\n\r\n");
    EXPECT_EQ(feeds.strlen(), 4u);
    CString empty;
    empty.toDos();
    empty.toUnix();
    EXPECT_EQ(Str(empty), "");
}

TEST(CString, EscapesWhatTheModeNames)
{
    CString s("a.b*");
    s.toEscape(1);
    EXPECT_EQ(Str(s), "a.b*");
    s.toEscape(0);
    EXPECT_EQ(Str(s), "a.b\\*");

    CString all("'\"\\\b\t\n\v\f\r!$?[]|/()*+ ~{\x01\x07\x0e\x7f\x80\xff");
    CString bare(all);
    all.toEscape(0);
    EXPECT_EQ(Str(all), "\\'\\\"\\\\\\b\\t\\n\\v\\f\\r\\!\\$\\?\\[\\]\\|\\/\\(\\)\\*\\+ ~{"
                        "\\001\\007\\016\\177\\200\\377");
    bare.toEscape(2);
    EXPECT_EQ(Str(bare), "\\'\\\"\\\\\\b\\t\\n\\v\\f\\r!$?[]|/()*+ ~{\\001\\007\\016\\177\\200\\377");
    CString empty;
    empty.toEscape(0);
    empty.toLiteral();
    EXPECT_EQ(Text(empty), Text(globalEmpty));
}

TEST(CString, EveryByteIsEscapedAndComesBack)
{
    for (const short mode : {0, 1}) {
        for (int c = 1; c < 256; c++) {
            const char source[] = {'a', static_cast<char>(c), '7', '\0'};
            char escaped[16];
            std::memset(escaped, '#', sizeof escaped);
            EXPECT_EQ(CString::literal_to_escape(escaped, source, mode), escaped);
            EXPECT_EQ(std::strlen(escaped), CString::literal_to_escape_strlen(source, mode)) << c;
            char back[16];
            EXPECT_EQ(CString::escape_to_literal(back, escaped), back);
            EXPECT_STREQ(back, source) << c;
        }
    }
}

TEST(CString, ResolvesEscapes)
{
    const struct {
        const char *escaped, *literal;
    } cases[] = {
        {"\\101\\x41\\x\\q", "AAxq"},
        {"\\1234", "S4"},
        {"plain", "plain"},
        {"\\!\\\"\\$\\'\\(\\)\\*\\+\\/\\?\\[\\\\\\]\\|", "!\"$'()*+/?[\\]|"},
        {"\\b\\f\\n\\r\\t\\v", "\b\f\n\r\t\v"},
        {"\\8\\~\\ \\\xff", "8~ \xff"},
        {"\\18\\1", "\x01"
                    "8\x01"},
        {"\\777", "\xff"},
        {"\\x4a\\x4A\\x414\\xag\\x\\x41", "JJA4\ngxA"},
        {"text\\", "text"},
        {"\\", ""},
        {"\\\\\\", "\\"},
        {"a\\0b", "a"}, // the text ends at the zero byte
    };
    for (const auto& c : cases) {
        CString s(c.escaped);
        s.toLiteral();
        EXPECT_EQ(Str(s), c.literal) << c.escaped;
    }
    char inPlace[] = "\\101\\t\\x42";
    CString::escape_to_literal(inPlace, inPlace);
    EXPECT_STREQ(inPlace, "A\tB");
    char bytes[8];
    CString::escape_to_literal(bytes, "a\\0b");
    EXPECT_EQ(std::memcmp(bytes, "a\0b", 4), 0);
}

TEST(CString, ExtractsTheFirstToken)
{
    const struct {
        const char *text, *delimiters, *token, *rest;
    } cases[] = {
        {"abc def", " ", "abc", "def"},
        {"\"abc\" def", " ", "abc", " def"},
        {"'a b' c", " ", "a b", " c"},
        {"\"'a' b", " ", "a", " b"},
        {"abc", " ", "abc", ""},
        {"a,b;c", ";,", "a", "b;c"},
        {"  abc def", " ", "abc", "c def"}, // skipped delimiters are not counted
        {"   ", " ", "", "   "},
        {"", " ", "", ""},
        {"\"", " ", "", ""},
        {"\"\" x", " ", " x", ""},
        {"a b", "", "a b", ""},
    };
    for (const auto& c : cases) {
        CString s(c.text), token("old");
        s.ExtractToken(token, c.delimiters);
        EXPECT_EQ(Str(token), c.token) << c.text;
        EXPECT_EQ(Str(s), c.rest) << c.text;
    }
    CString s("a:b"), token(":");
    s.ExtractToken(token, token);
    EXPECT_EQ(Str(token), "a");
    EXPECT_EQ(Str(s), "b");
    s.ExtractToken(s, ":");
    EXPECT_EQ(Str(s), "");
}

// A text of this length and of all those around it, short and long, through what makes new ones.
TEST(CString, LongTextsAreLikeShortOnes)
{
    CString grown;
    std::string expected;
    for (int i = 0; i < 1100; i++) {
        grown += static_cast<char>('a' + i % 26);
        expected += static_cast<char>('a' + i % 26);
        ASSERT_EQ(Str(grown), expected);
        ASSERT_EQ(grown.strlen(), expected.size());
        const CString shared(grown);
        CString upper(shared);
        upper.toUpper();
        ASSERT_EQ(upper.strlen(), expected.size());
        ASSERT_EQ(Str(upper + grown), Str(upper) + expected);
        ASSERT_EQ(Str(shared), expected);
    }
    for (; !expected.empty(); expected.pop_back()) {
        ASSERT_EQ(Str(grown), expected);
        grown.Delete(grown.strlen() - 1, 1);
    }
    EXPECT_EQ(Str(grown), "");
}

// Whoever wrote it: the string, one that shares the text, a copy made for one that changes, or an appended one.
TEST(CString, AZeroByteEndsWhatIsBuiltFromIt)
{
    CString s("abcdef");
    const CString sharing(s);
    sharing[2] = '\0';
    EXPECT_EQ(s.strlen(), 6u);
    CString appended(s);
    appended += 'x';
    EXPECT_EQ(Str(appended), "ab");
    EXPECT_EQ(appended.strlen(), 2u);
    appended += 'y';
    EXPECT_EQ(Str(appended), "aby");
    CString tail("12");
    tail += s;
    EXPECT_EQ(Str(tail), "12ab");
    EXPECT_EQ(tail.strlen(), 4u);
    CString upper(s);
    upper.toUpper();
    EXPECT_EQ(upper.strlen(), 6u);
    upper += "tail";
    EXPECT_EQ(upper.strlen(), 2u);
    CString flat("abc");
    const CString other(flat);
    char& last = flat[2];
    flat.makeprintable(); // which is given a copy
    last = '\0';
    CString end(other);
    end += 'x';
    EXPECT_EQ(end.strlen(), 2u);
    flat += 'x';
    EXPECT_EQ(Str(flat), "abcx");
    CString zero("a");
    zero += '\0';
    EXPECT_EQ(zero.strlen(), 1u);
    zero += 'b';
    EXPECT_EQ(Str(zero), "ab");
}

TEST(CString, ExtractsNoTokenWithoutMemory)
{
    for (const char* text : {"abc def", "\"abc\" def", "\"'abc' def", "abc", "\"", "  abc"}) {
        CString whole(text), expected;
        whole.ExtractToken(expected, " ");
        bool isDone = false;
        for (long allowed = 0; !isDone; allowed++) {
            CString s(text), token("before");
            {
                const MemoryFailure failure = MemoryFailure::After(allowed, AnyAllocation);
                s.ExtractToken(token, " ");
            }
            isDone = s == whole;
            EXPECT_EQ(Str(s), isDone ? Str(whole) : text) << text << allowed;
            EXPECT_EQ(Str(token), isDone ? Str(expected) : "before") << text << allowed;
            ASSERT_LT(allowed, 20);
        }
    }
}

TEST(CString, FindsTheCharactersThatAwkTakes)
{
    EXPECT_EQ(CString("a.b").find_awk_chars(), 1);
    EXPECT_EQ(CString("^").find_awk_chars(), 1);
    EXPECT_EQ(CString("a*b$").find_awk_chars(), 0);
    EXPECT_EQ(CString().find_awk_chars(), 0);
}

TEST(CString, EnclosesInQuotes)
{
    std::unique_ptr<char[]> quoted(CString::EncloseWithQuotes("a b"));
    EXPECT_STREQ(quoted.get(), "\"a b\"");
    quoted.reset(CString::EncloseWithQuotes(""));
    EXPECT_STREQ(quoted.get(), "\"\"");
    const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
    EXPECT_EQ(CString::EncloseWithQuotes("a"), nullptr);
}

TEST(CString, ReadsAFileWhole)
{
    testing_support::TemporaryDirectory dir;
    const std::string path = dir.File("f");
    testing_support::WriteFile(path, std::string("two\nlines\0and a zero", 20));
    const int descriptors = testing_support::OpenDescriptors();
    std::unique_ptr<char[]> text(CString::FileNameToCharPtr(path.c_str()));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::memcmp(text.get(), "two\nlines\0and a zero", 21), 0);
    testing_support::WriteFile(path, "");
    text.reset(CString::FileNameToCharPtr(path.c_str()));
    EXPECT_STREQ(text.get(), "");
    EXPECT_EQ(CString::FileNameToCharPtr(dir.File("none").c_str()), nullptr);
    EXPECT_EQ(CString::FileNameToCharPtr(dir.Path().c_str()), nullptr) << "a directory has no content to read";
    {
        const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
        EXPECT_EQ(CString::FileNameToCharPtr(path.c_str()), nullptr);
    }
    EXPECT_EQ(testing_support::OpenDescriptors(), descriptors);
}

TEST(CString, WithoutMemoryTextsStayAsTheyAre)
{
    CString s("a\n*\\x41 ");
    const char* before = s;
    const CString other("other");
    {
        const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
        s += "x";
        s += other;
        s += 'x';
        s.Insert(0, "x");
        s.Insert(0, other);
        s.ReplaceAll('a', "x");
        s.Delete(0, 1);
        s.rTrim();
        s.toDos();
        s.toUnix();
        s.toEscape(0);
        s.toLiteral();
    }
    EXPECT_EQ(Text(s), before);
    EXPECT_EQ(Str(s), "a\n*\\x41 ");
}

TEST(CString, WithoutMemoryNewTextsAreEmpty)
{
    CString assigned("abc");
    const Buffer buffer = BufferOf("abc");
    const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
    CString a("abc");
    CString b("abc", 2);
    CString c(buffer);
    assigned = "def";
    for (const CString* s : {&a, &b, &c, &assigned})
        EXPECT_EQ(Text(*s), Text(globalEmpty));
}

TEST(CString, ALongTextWhoseSecondBlockCannotBeHadIsEmpty)
{
    const std::string text(5000, 'x');
    const MemoryFailure failure = MemoryFailure::OfSize(sizeof(CStringRep), testing_support::NewObject);
    const CString s(text.c_str());
    EXPECT_TRUE(failure.HasHappened());
    EXPECT_EQ(Str(s), "");
}

TEST(CString, ARepresentationWithoutMemoryHasNoText)
{
    const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
    const CStringRep rep;
    EXPECT_EQ(rep.rep, nullptr);
    EXPECT_EQ(rep.len, 0u);
}

TEST(CString, ThereIsAnEmptyStringEvenWithoutAnyMemory)
{
    const ChildResult child = RunInChild([] {
        globalEmpty = "not empty";
        {
            const MemoryFailure failure = MemoryFailure::Of(AnyAllocation);
            CString a;
            CString b("text");
            CHILD_CHECK(a.strlen() == 0);
            CHILD_CHECK(a == "");
            CHILD_CHECK(Text(a) == Text(b));
        }
        CString again;
        again += "x";
        CString other;
        CHILD_CHECK(again == "x");
        CHILD_CHECK(other == "");
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(CString, TextsHaveTheOrderOfStrcmp)
{
    const char* const inOrder[] = {"", "A", "a", "aa", "ab", "b", "\x7f", "\x80", "\xff"};
    for (size_t i = 0; i < std::size(inOrder); i++) {
        for (size_t j = 0; j < std::size(inOrder); j++) {
            const char* const p = inOrder[i];
            const char* const q = inOrder[j];
            const CString a(p);
            const CString b(q);
            const auto expect = [i, j](bool less, bool greater, bool lessOrEqual, bool greaterOrEqual, bool equal,
                                       bool different) {
                EXPECT_EQ(less, i < j) << i << " and " << j;
                EXPECT_EQ(greater, i > j) << i << " and " << j;
                EXPECT_EQ(lessOrEqual, i <= j) << i << " and " << j;
                EXPECT_EQ(greaterOrEqual, i >= j) << i << " and " << j;
                EXPECT_EQ(equal, i == j) << i << " and " << j;
                EXPECT_EQ(different, i != j) << i << " and " << j;
            };
            expect(a<b, a> b, a <= b, a >= b, a == b, a != b);
            expect(a<q, a> q, a <= q, a >= q, a == q, a != q);
            expect(p<b, p> b, p <= b, p >= b, p == b, p != b);
        }
    }
}

TEST(CString, ANullTextEqualsNoStringAndSortsBeforeAll)
{
    const char* const null = nullptr;
    for (const CString& s : {CString(), CString("a")}) {
        EXPECT_FALSE(s == null || null == s || s < null || null > s || s <= null || null >= s);
        EXPECT_TRUE(s != null && null != s && s > null && null < s && s >= null && null <= s);
    }
}

TEST(CString, ASetHoldsEachTextOnce)
{
    std::set<CString> texts;
    for (const char* text : {"b", "a", "b", "", "a"})
        texts.insert(text);
    std::string all;
    for (const CString& s : texts)
        all += Str(s) + ",";
    EXPECT_EQ(all, ",a,b,");
    EXPECT_EQ(texts.count("a"), 1u);
    EXPECT_EQ(texts.count("c"), 0u);
}

TEST(CString, ACharacterIsAddedBehindOrBefore)
{
    const CString s("abc");
    EXPECT_EQ(Str(s + 'd'), "abcd");
    EXPECT_EQ(Str('d' + s), "dabc");
    EXPECT_EQ(Str(CString() + 'd' + "e" + s[0]), "dea");
    EXPECT_EQ(Str('d' + CString()), "d");
    EXPECT_EQ(Str(s), "abc");
    EXPECT_STREQ(s + 1, "bc") << "a number is a distance";
}

TEST(CString, IsAssignedTheBytesOfABuffer)
{
    CString s("before");
    const CString sharing(s);
    Buffer b = BufferOf(std::string("ab\0cd", 5));
    EXPECT_EQ(&(s = b), &s);
    EXPECT_EQ(Str(s), "ab");
    EXPECT_EQ(s.strlen(), 2u);
    EXPECT_EQ(Str(sharing), "before");
    b[0] = 'x';
    EXPECT_EQ(Str(s), "ab") << "a copy";
    s = static_cast<const Buffer&>(BufferOf("whole"));
    EXPECT_EQ(Str(s), "whole");
    s = Buffer();
    EXPECT_EQ(Text(s), Text(globalEmpty));
}

TEST(CString, IsIndexedByAnyIntegralType)
{
    const CString s("abc");
    for (const char* p : {&s[1], &s[1u], &s[1l], &s[1ul], &s[1ll], &s[size_t{1}], &s[short{1}], &s['\1'], &s[true]})
        EXPECT_EQ(p, Text(s) + 1);
}

TEST(CString, DumpsItsRepresentation)
{
    const std::string out =
        CaptureStdout([] { EXPECT_EQ(Dump(CString("abc")), "CStringRep::dumpOn() \ncount <1> rep <abc> \n"); });
    EXPECT_EQ(out, "");
}

} // namespace
