// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/strxform.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/objects.h"
#include "tests/support/testing.h"

using testing_support::Text;

namespace {

const long Noon = 1795263300; // Sat Nov 21 12:15:00 2026 in UTC

const char Variable[] = "STRXFORM_TEST_TEMPLATE";
const char TimeVariable[] = "STRXFORM_TEST_TIME";

// Every test starts with none of the variables set, in UTC.
class Environment : public testing::Test {
protected:
    Environment() { SetZone("UTC0"); }
    ~Environment() override
    {
        for (const char* name : {Variable, TimeVariable, "CFTIME", "TZ"})
            unsetenv(name);
        tzset();
    }

    static void SetZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
};

class EnvironmentValueTest : public Environment {};
class StringTransformerTest : public Environment {};

std::string Output(StringTransformer& t)
{
    CString output("old");
    t.GetOutput(output);
    return Text(output);
}

// The whole expansion, each directive written as its character in brackets.
std::string Expand(StringTransformer& t)
{
    t.reset();
    for (char c; t.nextCharacter(c);) {
        t.Output('[');
        t.Output(c);
        t.Output(']');
    }
    return Output(t);
}

std::string Expand(const char* vocabulary, const char* format)
{
    StringTransformer t(vocabulary, format, Variable);
    return Expand(t);
}

TEST_F(EnvironmentValueTest, TheDefaultStandsInForAnUnsetVariable)
{
    EnvironmentValue value("fallback", Variable);
    EXPECT_EQ(Text(value.GetValue()), "fallback");
}

TEST_F(EnvironmentValueTest, AVariableIsPreferred)
{
    setenv(Variable, "set", 1);
    EnvironmentValue value("fallback", Variable);
    EXPECT_EQ(Text(value.GetValue()), "set");
}

TEST_F(EnvironmentValueTest, AnEmptyVariableCountsAsUnset)
{
    setenv(Variable, "", 1);
    EnvironmentValue value("fallback", Variable);
    EXPECT_EQ(Text(value.GetValue()), "fallback");
}

TEST_F(EnvironmentValueTest, EscapesAreResolvedInBoth)
{
    EnvironmentValue value("a\\tb\\101", Variable);
    EXPECT_EQ(Text(value.GetValue()), "a\tbA");
    setenv(Variable, "c\\nd\\x41", 1);
    EnvironmentValue other("a", Variable);
    EXPECT_EQ(Text(other.GetValue()), "c\ndA");
}

TEST_F(EnvironmentValueTest, TheEnvironmentIsReadWhenFirstAskedAndNotAgain)
{
    EnvironmentValue value("fallback", Variable);
    setenv(Variable, "first", 1);
    EXPECT_EQ(Text(value.GetValue()), "first");
    setenv(Variable, "second", 1);
    EXPECT_EQ(Text(value.GetValue()), "first");
    unsetenv(Variable);
    EXPECT_EQ(Text(value.GetValue()), "first");
}

TEST_F(EnvironmentValueTest, AnEmptyValueIsLookedUpAgain)
{
    EnvironmentValue value("", Variable);
    EXPECT_EQ(Text(value.GetValue()), "");
    setenv(Variable, "now", 1);
    EXPECT_EQ(Text(value.GetValue()), "now");
}

TEST_F(EnvironmentValueTest, SetValueReplacesTheEnvironment)
{
    setenv(Variable, "set", 1);
    EnvironmentValue value("fallback", Variable);
    value.SetValue("own\\t");
    EXPECT_EQ(Text(value.GetValue()), "own\t");
    value.SetValue("own again");
    EXPECT_EQ(Text(value.GetValue()), "own again");
    value.SetValue("");
    EXPECT_EQ(Text(value.GetValue()), "set") << "an empty value is none";
}

TEST_F(EnvironmentValueTest, SetValueLeavesItsArgumentAlone)
{
    EnvironmentValue value("", Variable);
    const CString escaped("\\t");
    value.SetValue(escaped);
    EXPECT_EQ(Text(escaped), "\\t");
    EXPECT_EQ(Text(value.GetValue()), "\t");
}

TEST_F(EnvironmentValueTest, ACopyHasAllThreeTexts)
{
    EnvironmentValue unasked("fallback", Variable);
    EnvironmentValue copyOfUnasked(unasked);
    setenv(Variable, "set", 1);
    EXPECT_EQ(Text(copyOfUnasked.GetValue()), "set");
    unsetenv(Variable);
    EnvironmentValue copyOfAsked(copyOfUnasked);
    EXPECT_EQ(Text(copyOfAsked.GetValue()), "set");
    EXPECT_EQ(Text(unasked.GetValue()), "fallback");
    EnvironmentValue assigned("x", "y");
    assigned = copyOfAsked;
    EXPECT_EQ(Text(assigned.GetValue()), "set");
}

TEST_F(EnvironmentValueTest, NullTextsAreEmpty)
{
    EnvironmentValue value(nullptr, nullptr);
    EXPECT_EQ(Text(value.GetValue()), "");
    EnvironmentValue other("fallback", nullptr);
    EXPECT_EQ(Text(other.GetValue()), "fallback");
}

TEST_F(StringTransformerTest, HandsOutTheDirectivesOfItsVocabulary)
{
    StringTransformer t("nd", "core.%n.%d%%x%q", Variable);
    t.reset();
    char c = '?';
    ASSERT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(c, 'n');
    t.Output(CString("app"));
    ASSERT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(c, 'd');
    t.Output('3');
    ASSERT_EQ(t.nextCharacter(c), 0);
    EXPECT_EQ(c, 'd') << "untouched at the end";
    EXPECT_EQ(Output(t), "core.app.3%x%q");
}

TEST_F(StringTransformerTest, IsReadyWithoutReset)
{
    StringTransformer t("n", "%n!", Variable);
    char c;
    EXPECT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(t.nextCharacter(c), 0);
    EXPECT_EQ(Output(t), "!");
}

TEST_F(StringTransformerTest, ExpandsTheDirectivesAndKeepsTheRest)
{
    EXPECT_EQ(Expand("n", ""), "");
    EXPECT_EQ(Expand("n", "plain"), "plain");
    EXPECT_EQ(Expand("n", "%n"), "[n]");
    EXPECT_EQ(Expand("n", "%n%n"), "[n][n]");
    EXPECT_EQ(Expand("n", "n%nn"), "n[n]n");
    EXPECT_EQ(Expand("n", "%%n"), "%n");
    EXPECT_EQ(Expand("n", "%%%n"), "%[n]");
    EXPECT_EQ(Expand("n", "%%%%"), "%%");
    EXPECT_EQ(Expand("n", "%x%N"), "%x%N");
    EXPECT_EQ(Expand("n", "%x%%%y"), "%x%%y");
    EXPECT_EQ(Expand("n", "100\xE9%\xE9"), "100\xE9%\xE9");
    EXPECT_EQ(Expand("\xE9", "%\xE9"), "[\xE9]");
}

TEST_F(StringTransformerTest, APercentSignAtTheEndIsDropped)
{
    EXPECT_EQ(Expand("n", "abc%"), "abc");
    EXPECT_EQ(Expand("n", "%"), "");
    EXPECT_EQ(Expand("n", "%n%"), "[n]");
    EXPECT_EQ(Expand("n", "%%%"), "%");
}

TEST_F(StringTransformerTest, APercentSignInTheVocabularyIsHandedOut) { EXPECT_EQ(Expand("%n", "a%%n%n"), "a[%]n[n]"); }

TEST_F(StringTransformerTest, AnEmptyVocabularyHandsOutNothing)
{
    EXPECT_EQ(Expand("", "%n%%%"), "%n%");
    EXPECT_EQ(Expand(nullptr, "%n"), "%n");
    EXPECT_EQ(Expand("n", nullptr), "");
}

TEST_F(StringTransformerTest, TheTemplateComesFromTheEnvironment)
{
    setenv(Variable, "env %n", 1);
    EXPECT_EQ(Expand("n", "default %n"), "env [n]");
    setenv(Variable, "", 1);
    EXPECT_EQ(Expand("n", "default %n"), "default [n]");
    setenv(Variable, "a\\tb\\045n\\\\", 1);
    EXPECT_EQ(Expand("n", "default %n"), "a\tb[n]\\") << "an escaped percent sign is one like others";
}

TEST_F(StringTransformerTest, TheTemplateIsSettledAtConstruction)
{
    StringTransformer t("n", "first %n", Variable);
    setenv(Variable, "second", 1);
    EXPECT_EQ(Expand(t), "first [n]");
}

TEST_F(StringTransformerTest, StaysAtTheEnd)
{
    StringTransformer t("n", "%n.", Variable);
    EXPECT_EQ(Expand(t), "[n].");
    char c = '?';
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(t.nextCharacter(c), 0);
    EXPECT_EQ(c, '?');
    EXPECT_EQ(Output(t), "[n].");
    t.Output('x');
    EXPECT_EQ(Output(t), "[n].") << "the output was terminated";
}

TEST_F(StringTransformerTest, ResetStartsAnew)
{
    StringTransformer t("n", "a much longer start %n%n", Variable);
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(Output(t), "a much longer start ");
    t.reset();
    EXPECT_EQ(Output(t), "");
    EXPECT_EQ(Expand(t), "a much longer start [n][n]");
    EXPECT_EQ(Expand(t), "a much longer start [n][n]");
}

TEST_F(StringTransformerTest, TheOutputSoFarHasNothingOfAnEarlierExpansion)
{
    StringTransformer t("n", "ab%ncdefghij", Variable);
    EXPECT_EQ(Expand(t), "ab[n]cdefghij");
    t.reset();
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(Output(t), "ab");
}

TEST_F(StringTransformerTest, OutputTakesRunsAndStrings)
{
    StringTransformer t("n", "%n", Variable);
    t.Output("abcdef", 3);
    t.Output("xyz", 0);
    t.Output(nullptr, 5);
    t.Output(CString());
    t.Output(CString("!"));
    EXPECT_EQ(Output(t), "abc!");
}

TEST_F(StringTransformerTest, AZeroByteEndsTheOutput)
{
    StringTransformer t("n", "a%nb", Variable);
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    t.Output("x\0y", 3);
    EXPECT_EQ(t.nextCharacter(c), 0);
    EXPECT_EQ(Output(t), "ax");
    t.reset();
    t.Output('\0');
    t.Output('z');
    EXPECT_EQ(Output(t), "");
}

TEST_F(StringTransformerTest, GrowsAcrossItsFirstSize)
{
    for (unsigned n : {1022u, 1023u, 1024u, 1025u, 2047u, 2048u, 2049u, 5000u}) {
        const std::string run(n, 'x');
        StringTransformer once("n", "<%n>", Variable);
        char c;
        ASSERT_EQ(once.nextCharacter(c), 1);
        once.Output(run.c_str(), n);
        ASSERT_EQ(once.nextCharacter(c), 0);
        EXPECT_EQ(Output(once), "<" + run + ">") << n;

        StringTransformer single("n", "<%n>", Variable);
        ASSERT_EQ(single.nextCharacter(c), 1);
        for (unsigned i = 0; i < n; i++)
            single.Output('x');
        ASSERT_EQ(single.nextCharacter(c), 0);
        EXPECT_EQ(Output(single), "<" + run + ">") << n;
    }
}

TEST_F(StringTransformerTest, ALongExpansionTakesLinearTime)
{
    StringTransformer t("n", "%n", Variable);
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    const unsigned n = 4000000; // without end in sight where every character moves all before it
    for (unsigned i = 0; i < n; i++)
        t.Output(static_cast<char>('a' + i % 26));
    ASSERT_EQ(t.nextCharacter(c), 0);
    const std::string output = Output(t);
    ASSERT_EQ(output.size(), n);
    for (unsigned i = 0; i < n; i++)
        ASSERT_EQ(output[i], static_cast<char>('a' + i % 26)) << i;
}

TEST_F(StringTransformerTest, ALongTemplateIsExpandedWhole)
{
    std::string format, expected;
    for (int i = 0; i < 100000; i++) {
        format += "x%n%%";
        expected += "x[n]%";
    }
    EXPECT_EQ(Expand("n", format.c_str()), expected);
}

TEST_F(StringTransformerTest, ACopyIsAtItsStart)
{
    StringTransformer t("nd", "a%nb%d%C", Variable, "%Y", TimeVariable);
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    t.OutputTime(Noon);
    setenv(Variable, "later", 1);
    setenv(TimeVariable, "later", 1);
    StringTransformer copy(t);
    EXPECT_EQ(Output(copy), "");
    EXPECT_EQ(Expand(copy), "a[n]b[d]%C");
    copy.reset();
    copy.OutputTime(Noon);
    EXPECT_EQ(Output(copy), "2026") << "the time format is copied as it was settled";
    EXPECT_EQ(Output(t), "a2026") << "the original stands where it stood";
    ASSERT_EQ(t.nextCharacter(c), 1);
    EXPECT_EQ(c, 'd');
}

TEST_F(StringTransformerTest, ACopyOutlivesItsOriginal)
{
    StringTransformer* t = new StringTransformer("n", "<%n>", Variable);
    const std::string run(3000, 'x');
    t->Output(run.c_str(), 3000);
    StringTransformer copy(*t);
    delete t;
    EXPECT_EQ(Expand(copy), "<[n]>");
}

TEST_F(StringTransformerTest, TimesAreAsDatePrintsThem)
{
    StringTransformer t("t", "at %t.", Variable);
    char c;
    ASSERT_EQ(t.nextCharacter(c), 1);
    t.OutputTime(Noon);
    ASSERT_EQ(t.nextCharacter(c), 0);
    EXPECT_EQ(Output(t), "at Sat Nov 21 12:15:00 UTC 2026.");
}

TEST_F(StringTransformerTest, TimesAreLocal)
{
    StringTransformer t("t", "", Variable);
    SetZone("EST5EDT,M3.2.0,M11.1.0");
    t.OutputTime(Noon);
    EXPECT_EQ(Output(t), "Sat Nov 21 07:15:00 EST 2026");
}

TEST_F(StringTransformerTest, TheTimeFormatIsThatOfCFTIME)
{
    StringTransformer t("t", "", Variable);
    setenv("CFTIME", "%Y\\055%m", 1);
    t.OutputTime(Noon);
    setenv("CFTIME", "%d", 1);
    t.OutputTime(Noon);
    EXPECT_EQ(Output(t), "2026-112026-11") << "settled by the first time";
    setenv("CFTIME", "", 1);
    StringTransformer other("t", "", Variable);
    other.OutputTime(Noon);
    EXPECT_EQ(Output(other), "Sat Nov 21 12:15:00 UTC 2026");
}

TEST_F(StringTransformerTest, TheTimeFormatMayHaveItsOwnVariable)
{
    setenv("CFTIME", "not used", 1);
    StringTransformer t("t", "", Variable, "%H:%M", TimeVariable);
    t.OutputTime(Noon);
    EXPECT_EQ(Output(t), "12:15");
    setenv(TimeVariable, "%S", 1);
    StringTransformer other("t", "", Variable, "%H:%M", TimeVariable);
    other.OutputTime(Noon);
    EXPECT_EQ(Output(other), "00");
}

TEST_F(StringTransformerTest, ATimeOf39CharactersFits)
{
    const std::string fits(39, 'x');
    StringTransformer t("t", "", Variable, fits.c_str(), TimeVariable);
    t.OutputTime(Noon);
    EXPECT_EQ(Output(t), fits);
}

TEST_F(StringTransformerTest, ALongerTimeWritesNothing)
{
    for (const std::string& format : {std::string(40, 'x'), std::string(5000, 'x'), std::string("%C %C")}) {
        StringTransformer t("t", "<%t>", Variable, format.c_str(), TimeVariable);
        char c;
        ASSERT_EQ(t.nextCharacter(c), 1);
        t.OutputTime(Noon);
        ASSERT_EQ(t.nextCharacter(c), 0);
        EXPECT_EQ(Output(t), "<>");
    }
}

TEST_F(StringTransformerTest, ATimeBeyondTheYearsWritesNothing)
{
    if (sizeof(long) == 4)
        GTEST_SKIP() << "every time has its year here";
    StringTransformer t("t", "", Variable, "%Y", TimeVariable);
    t.OutputTime(LONG_MAX);
    t.OutputTime(LONG_MIN);
    EXPECT_EQ(Output(t), "");
    t.OutputTime(-1);
    EXPECT_EQ(Output(t), "1969");
}

TEST_F(StringTransformerTest, AnEmptyTimeFormatWritesNothing)
{
    StringTransformer t("t", "", Variable, "", TimeVariable);
    t.OutputTime(Noon);
    EXPECT_EQ(Output(t), "");
}

TEST_F(StringTransformerTest, WhatFindsNoMemoryIsLeftOut)
{
    if (!testing_support::MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const testing_support::ChildResult child = testing_support::RunInChild([] {
        const std::string run(100u << 20, 'x');
        StringTransformer t("n", "<%n>", Variable);
        char c;
        CHILD_CHECK(t.nextCharacter(c) == 1);
        {
            const testing_support::MemoryLimit limit(240 << 20);
            t.Output("a", 1);
            for (int i = 0; i < 4; i++)
                t.Output(run.c_str(), static_cast<unsigned>(run.size()));
            t.Output("b", 1);
            CHILD_CHECK(t.nextCharacter(c) == 0);
        }
        CString output;
        t.GetOutput(output);
        // As many runs as found room, with all that is small around them.
        const size_t n = output.strlen();
        CHILD_CHECK(n >= 4 + run.size());
        CHILD_CHECK(n < 4 + 4 * run.size());
        CHILD_CHECK((n - 4) % run.size() == 0);
        CHILD_CHECK(output[n - 2] == 'b');
        CHILD_CHECK(output[n - 1] == '>');
        t.reset();
        t.Output("again", 5);
        t.GetOutput(output);
        CHILD_CHECK(output == "again");
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(StringTransformerTest, TheLargestExpansionIsNotExceeded)
{
    // Refused before a byte is read: the length does not fit behind the one character.
    StringTransformer t("n", "", Variable);
    t.Output('a');
    t.Output("b", UINT_MAX);
    t.Output('c');
    EXPECT_EQ(Output(t), "ac");
}

} // namespace
