// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/strftime.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

namespace {

const time_t Noon = 1795263300; // Sat Nov 21 12:15:00 2026 in UTC

class Strftime : public testing::Test {
protected:
    Strftime() { SetZone("UTC0"); }
    ~Strftime() override
    {
        unsetenv("TZ");
        tzset();
    }

    static void SetZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

    static struct tm Local(time_t t)
    {
        struct tm result;
        EXPECT_NE(localtime_r(&t, &result), nullptr);
        return result;
    }

    static std::string Format(const std::string& format, time_t t = Noon)
    {
        char text[1000];
        const struct tm tm = Local(t);
        const size_t n = svr4::strftime(text, sizeof text, format.c_str(), &tm);
        EXPECT_TRUE(n == 0 || std::strlen(text) == n);
        return std::string(text, n);
    }

    static std::string HostFormat(const std::string& format, time_t t = Noon)
    {
        char text[1000];
        const struct tm tm = Local(t);
        return std::string(text, std::strftime(text, sizeof text, format.c_str(), &tm));
    }
};

TEST_F(Strftime, CIsDateAndTime) { EXPECT_EQ(Format("%C"), "Sat Nov 21 12:15:00 UTC 2026"); }

TEST_F(Strftime, ADayOfOneDigitHasABlankBeforeIt) { EXPECT_EQ(Format("%C", 0), "Thu Jan  1 00:00:00 UTC 1970"); }

TEST_F(Strftime, CFollowsTheTimeZone)
{
    SetZone("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(Format("%C"), "Sat Nov 21 07:15:00 EST 2026");
    EXPECT_EQ(Format("%C", Noon - 120 * 86400), "Fri Jul 24 08:15:00 EDT 2026");
}

TEST_F(Strftime, CStandsAmongOtherText)
{
    EXPECT_EQ(Format("at %C: %Y."), "at Sat Nov 21 12:15:00 UTC 2026: 2026.");
    EXPECT_EQ(Format("%C%C"), "Sat Nov 21 12:15:00 UTC 2026Sat Nov 21 12:15:00 UTC 2026");
    EXPECT_EQ(Format("C%CC"), "CSat Nov 21 12:15:00 UTC 2026C");
    EXPECT_EQ(Format("ABC %C"), "ABC Sat Nov 21 12:15:00 UTC 2026");
}

TEST_F(Strftime, TwoPercentSignsAreOne)
{
    EXPECT_EQ(Format("%%C"), "%C");
    EXPECT_EQ(Format("%%%C"), "%Sat Nov 21 12:15:00 UTC 2026");
    EXPECT_EQ(Format("%%%%C %C"), "%%C Sat Nov 21 12:15:00 UTC 2026");
    EXPECT_EQ(Format("%C%%"), "Sat Nov 21 12:15:00 UTC 2026%");
}

TEST_F(Strftime, EveryOtherConversionIsTheHosts)
{
    for (int c = 1; c < 256; c++) {
        if (c == 'C')
            continue;
        const std::string format = std::string("<%") + static_cast<char>(c) + ">";
        EXPECT_EQ(Format(format), HostFormat(format)) << c;
        // Together with a %C, which has the whole format translated.
        EXPECT_EQ(Format(format + "%C"), HostFormat(format) + "Sat Nov 21 12:15:00 UTC 2026") << c;
    }
}

TEST_F(Strftime, ModifiersAndFlagsSurvive)
{
    for (const char* format : {"%Ey",  "%EY", "%Ec",  "%Ex",  "%EX", "%Od", "%Oe",  "%OH",  "%Om", "%Oy", "%EC",
                               "%OC",  "%_d", "%-d",  "%05d", "%^a", "%#Z", "%+4Y", "%10C", "%-C", "%_C", "%0EC",
                               "%E%C", "%EE", "%EOC", "%E",   "%5",  "%_",  "%5%C", "%_%C", "%-%C"}) {
        SCOPED_TRACE(format);
        EXPECT_EQ(Format(format), HostFormat(format));
        EXPECT_EQ(Format(std::string("%C ") + format), "Sat Nov 21 12:15:00 UTC 2026 " + HostFormat(format));
    }
    EXPECT_EQ(HostFormat("%EC"), "20");
    EXPECT_EQ(HostFormat("%Od"), "21");
}

TEST_F(Strftime, APercentSignAtTheEndIsTheHosts)
{
    EXPECT_EQ(Format("%"), HostFormat("%"));
    EXPECT_EQ(Format("%C %"), HostFormat("%a %b %e %H:%M:%S %Z %Y %"));
}

TEST_F(Strftime, AnEmptyFormatGivesAnEmptyText)
{
    char text[4] = "abc";
    const struct tm tm = Local(Noon);
    EXPECT_EQ(svr4::strftime(text, sizeof text, "", &tm), 0u);
    EXPECT_STREQ(text, "");
}

TEST_F(Strftime, WritesNothingBeyondTheArea)
{
    const struct tm tm = Local(Noon);
    const std::string whole = "Sat Nov 21 12:15:00 UTC 2026";
    for (size_t size = 0; size < 40; size++) {
        // A block of its own size, so that a sanitizer sees a read or write beyond it too.
        std::unique_ptr<char[]> area(new char[size + 1]);
        std::memset(area.get(), 'X', size + 1);
        const size_t n = svr4::strftime(area.get(), size, "%C", &tm);
        EXPECT_EQ(area[size], 'X') << size;
        if (size <= whole.size()) {
            EXPECT_EQ(n, 0u) << size;
        } else {
            EXPECT_EQ(n, whole.size()) << size;
            EXPECT_EQ(area.get(), whole) << size;
        }
    }
}

TEST_F(Strftime, ALongFormatIsTranslatedWhole)
{
    const int times = 20000;
    std::string format, expected;
    for (int i = 0; i < times; i++) {
        format += "%C";
        expected += "Sat Nov 21 12:15:00 UTC 2026";
    }
    std::unique_ptr<char[]> text(new char[expected.size() + 1]);
    const struct tm tm = Local(Noon);
    EXPECT_EQ(svr4::strftime(text.get(), expected.size() + 1, format.c_str(), &tm), expected.size());
    EXPECT_EQ(text.get(), expected);
    EXPECT_EQ(svr4::strftime(text.get(), expected.size(), format.c_str(), &tm), 0u);
}

TEST_F(Strftime, FormatsOfEveryLengthFitTheirTranslation)
{
    for (size_t n = 0; n < 12; n++) {
        const std::string plain(n, 'x');
        EXPECT_EQ(Format(plain + "%C"), plain + "Sat Nov 21 12:15:00 UTC 2026");
        EXPECT_EQ(Format("%C" + plain), "Sat Nov 21 12:15:00 UTC 2026" + plain);
    }
}

TEST_F(Strftime, WithoutMemoryForTheTranslationNothingFits)
{
    if (!testing_support::MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const testing_support::ChildResult child = testing_support::RunInChild([] {
        const std::string format(60u << 20, 'x'); // which would be spelt out in some 700 MB
        const testing_support::MemoryLimit limit(300 << 20);
        char text[100] = "";
        const struct tm tm = Local(Noon);
        CHILD_CHECK(svr4::strftime(text, sizeof text, (format + "%C").c_str(), &tm) == 0);
        CHILD_CHECK(svr4::strftime(text, sizeof text, "%C", &tm) == 28);
    });
    EXPECT_EQ(child.exitCode, 0);
}

} // namespace
