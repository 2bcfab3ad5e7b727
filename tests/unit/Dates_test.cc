// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Dates.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

// A number for a long of 64 bits; where there are 32, some other.
constexpr long Wide(long long number) { return static_cast<long>(number); }

class DatesTest : public testing::Test {
protected:
    DatesTest() { SetZone("EST5EDT,M3.2.0,M11.1.0"); }
    ~DatesTest() override { SetZone("UTC0"); }

    static void SetZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

    // 7 March 1998, 09:05:00 in the zone of these tests.
    static constexpr long Saturday = 889279500;
};

TEST_F(DatesTest, GivesDateAndTimeInTheirFixedFormats)
{
    EXPECT_STREQ(Dates::GetDate(Saturday), "03/07/1998");
    EXPECT_STREQ(Dates::GetTime(Saturday), "09:05:00");
    EXPECT_STREQ(Dates::GetDateTime(Saturday), "03/07/1998 09:05:00");
    tm local = Dates::CurrentTm(Saturday);
    EXPECT_STREQ(Dates::GetDate(&local), "03/07/1998");
    EXPECT_STREQ(Dates::GetTime(&local), "09:05:00");
    EXPECT_STREQ(Dates::GetDateTime(&local), "03/07/1998 09:05:00");
}

TEST_F(DatesTest, WritesTheYearInFourDigits)
{
    tm local = {};
    local.tm_year = 99;
    local.tm_mon = 11;
    local.tm_mday = 31;
    EXPECT_STREQ(Dates::GetDate(&local), "12/31/1999");
    local.tm_isdst = -1;
    EXPECT_STREQ(Dates::GetDate(Dates::CurrentTime(&local)), "12/31/1999");
}

TEST_F(DatesTest, WithoutAMomentTheTextsAreOfNow)
{
    std::string date, time, both;
    long before, after;
    do { // again when a second passes in between
        before = Dates::CurrentTime();
        date = Dates::GetDate();
        time = Dates::GetTime();
        both = Dates::GetDateTime();
        after = Dates::CurrentTime();
    } while (before != after);
    EXPECT_EQ(date, Dates::GetDate(before));
    EXPECT_EQ(time, Dates::GetTime(before));
    EXPECT_EQ(both, date + " " + time);
    EXPECT_EQ(Dates::GetDateTime(both.c_str()), before);
}

TEST_F(DatesTest, BreaksAMomentDownAndPutsItTogether)
{
    const tm local = Dates::CurrentTm(Saturday);
    EXPECT_EQ(local.tm_sec, 0);
    EXPECT_EQ(local.tm_min, 5);
    EXPECT_EQ(local.tm_hour, 9);
    EXPECT_EQ(local.tm_mday, 7);
    EXPECT_EQ(local.tm_mon, 2);
    EXPECT_EQ(local.tm_year, 98);
    EXPECT_EQ(local.tm_wday, 6);
    EXPECT_EQ(local.tm_yday, 65);
    EXPECT_EQ(local.tm_isdst, 0);
    tm copy = local;
    EXPECT_EQ(Dates::CurrentTime(&copy), Saturday);
}

TEST_F(DatesTest, EachTextHasItsOwnBufferThatTheNextCallOverwrites)
{
    const char* date = Dates::GetDate(Saturday);
    const char* time = Dates::GetTime(Saturday);
    const char* both = Dates::GetDateTime(Saturday);
    const char* duration = Dates::Secs_to_Format(1);
    EXPECT_STREQ(date, "03/07/1998");
    EXPECT_STREQ(time, "09:05:00");
    EXPECT_STREQ(both, "03/07/1998 09:05:00");
    EXPECT_EQ(Dates::GetDate(Saturday + 86400), date);
    EXPECT_EQ(Dates::GetTime(Saturday + 1), time);
    EXPECT_STREQ(date, "03/08/1998");
    EXPECT_STREQ(time, "09:05:01");
    EXPECT_STREQ(both, "03/07/1998 09:05:00");
    EXPECT_EQ(Dates::GetDateTime(Saturday + 2), both);
    EXPECT_STREQ(both, "03/07/1998 09:05:02");
    EXPECT_STREQ(date, "03/07/1998") << "the date and time are composed from the other two";
    EXPECT_STREQ(time, "09:05:02");
    EXPECT_EQ(Dates::Secs_to_Format(2), duration);
    EXPECT_STREQ(duration, "  0d  0h  0m  2s");
}

TEST_F(DatesTest, YearsOfMoreThanFourDigitsAreCutToTheBuffers)
{
    tm local = Dates::CurrentTm(Saturday);
    local.tm_year = 12345 - 1900;
    EXPECT_STREQ(Dates::GetDate(&local), "03/07/12345");
    local.tm_year = 123456 - 1900;
    EXPECT_STREQ(Dates::GetDate(&local), "03/07/12345");
    local.tm_year = INT_MAX;
    local.tm_mon = INT_MAX;
    local.tm_mday = INT_MIN;
    local.tm_hour = local.tm_min = local.tm_sec = INT_MIN;
    EXPECT_STREQ(Dates::GetDate(&local), "2147483648/");
    EXPECT_STREQ(Dates::GetTime(&local), "-2147483648");
    EXPECT_STREQ(Dates::GetDateTime(&local), "2147483648/ -2147483648");
}

TEST_F(DatesTest, MomentsBeyondTheCalendarDoNoHarm)
{
    EXPECT_LE(strlen(Dates::GetDateTime(LONG_MAX)), 23u);
    if (sizeof(long) == 4)
        return; // the year of the last one is 2038
    EXPECT_EQ(Dates::CurrentTm(LONG_MIN).tm_year, 0);
    EXPECT_EQ(Dates::CurrentTm(LONG_MAX).tm_year, 0);
}

TEST_F(DatesTest, ParsingGivesTheMomentBack)
{
    const long summer = 900000000;
    for (const long moment :
         {0L, 1L, 86399L, Saturday, summer, summer + 1, 2147483647L, Wide(4102444799), -86400L * 365}) {
        const std::string text = Dates::GetDateTime(moment);
        EXPECT_EQ(Dates::GetDateTime(text.c_str()), moment) << text;
        EXPECT_EQ(Dates::GetDateTime(Dates::GetDateTime(moment)), moment) << text;
    }
}

TEST_F(DatesTest, ParsingCarriesFieldsOutOfRange)
{
    EXPECT_EQ(Dates::GetDateTime("13/01/1998 00:00:00"), Dates::GetDateTime("01/01/1999 00:00:00"));
    EXPECT_EQ(Dates::GetDateTime("02/30/1998 25:61:61"), Dates::GetDateTime("03/03/1998 02:02:01"));
    EXPECT_EQ(Dates::GetDateTime("00/00/1998 00:00:00"), Dates::GetDateTime("11/30/1997 00:00:00"));
}

TEST_F(DatesTest, WhatAParsedTextDoesNotHaveCountsAsZero)
{
    EXPECT_EQ(Dates::GetDateTime("03/07/1998"), Dates::GetDateTime("03/07/1998 00:00:00"));
    EXPECT_EQ(Dates::GetDateTime("03/07/1998 09:05"), Saturday);
    EXPECT_EQ(Dates::GetDateTime("03/07/1998 09:05:00 and more"), Saturday);
    EXPECT_EQ(Dates::GetDateTime("3/7/1998 9:5:0"), Saturday);
    SetZone("UTC0");
    const long yearBefore0 = sizeof(long) == 4 ? -1 : Wide(-62169984000); // 30 November: month 0 and day 0 of year 0
    EXPECT_EQ(Dates::GetDateTime(""), yearBefore0);
    EXPECT_EQ(Dates::GetDateTime("rubbish"), yearBefore0);
    EXPECT_EQ(Dates::GetDateTime(static_cast<const char*>(nullptr)), yearBefore0);
    EXPECT_EQ(Dates::GetDateTime("01/01/99999 00:00:00"), Dates::GetDateTime("01/01/9999 09:00:00"))
        << "four digits of the year are read, the fifth is the hour";
}

TEST_F(DatesTest, SecondsIntoToday)
{
    SetZone("UTC0");
    long before, seconds, after;
    do {
        before = Dates::CurrentTime();
        seconds = Dates::Secs_Into_Today();
        after = Dates::CurrentTime();
    } while (before != after);
    EXPECT_EQ(seconds, before % 86400);
    SetZone("XXX-5:30");
    do {
        before = Dates::CurrentTime();
        seconds = Dates::Secs_Into_Today();
        after = Dates::CurrentTime();
    } while (before != after);
    EXPECT_EQ(seconds, (before + 19800) % 86400);
}

TEST_F(DatesTest, WritesADurationInDaysHoursMinutesAndSeconds)
{
    EXPECT_STREQ(Dates::Secs_to_Format(93784), "  1d  2h  3m  4s");
    EXPECT_STREQ(Dates::Secs_to_Format(0), "  0d  0h  0m  0s");
    EXPECT_STREQ(Dates::Secs_to_Format(86399), "  0d 23h 59m 59s");
    EXPECT_STREQ(Dates::Secs_to_Format(999L * 86400 + 86399), "999d 23h 59m 59s");
    EXPECT_STREQ(Dates::Secs_to_Format(-93784), " -1d -2h -3m -4s");
    EXPECT_STREQ(Dates::Secs_to_Format(-86399), "  0d -23h -59m -59s");
    if (sizeof(long) == 4)
        return; // 68 years are the most
    EXPECT_STREQ(Dates::Secs_to_Format(Wide(999999LL * 86400 + 86399)), "999999d 23h 59m 59s");
    EXPECT_STREQ(Dates::Secs_to_Format(Wide(9999999LL * 86400 + 86399)), "9999999d 23h 59m 59");
}

TEST_F(DatesTest, TakesADurationApart)
{
    int dd, hh, mm, ss;
    Dates::Secs_to_DDHHMMSS(93784, &dd, &hh, &mm, &ss);
    EXPECT_EQ(dd, 1);
    EXPECT_EQ(hh, 2);
    EXPECT_EQ(mm, 3);
    EXPECT_EQ(ss, 4);
    Dates::Secs_to_DDHHMMSS(-3599, &dd, &hh, &mm, &ss);
    EXPECT_EQ(dd, 0);
    EXPECT_EQ(hh, 0);
    EXPECT_EQ(mm, -59);
    EXPECT_EQ(ss, -59);
    Dates::Secs_to_DDHHMMSS(LONG_MIN, &dd, &hh, &mm, &ss);
    EXPECT_EQ(hh, sizeof(long) == 4 ? -3 : -15);
    EXPECT_EQ(mm, sizeof(long) == 4 ? -14 : -30);
    EXPECT_EQ(ss, -8);
}

TEST_F(DatesTest, CountsDaysMinutesAndSecondsBetweenMoments)
{
    EXPECT_EQ(Dates::DaysBetween(86400, 86399), 1) << "a second apart, but across midnight";
    EXPECT_EQ(Dates::DaysBetween(86399, 0), 0) << "nearly a day apart, on one day";
    EXPECT_EQ(Dates::DaysBetween(0, 86400 * 3), -3);
    EXPECT_EQ(Dates::DaysBetween(1, -86399), 0) << "truncated toward zero on both sides";
    EXPECT_EQ(Dates::MinsBetween(0, 119), -1);
    EXPECT_EQ(Dates::MinsBetween(119, 0), 1);
    EXPECT_EQ(Dates::MinsBetween(59, 0), 0);
    EXPECT_EQ(Dates::MinsBetween(120, 0), 2);
    EXPECT_EQ(Dates::SecsBetween(5, 7), -2);
    EXPECT_EQ(Dates::SecsBetween(7, 5), 2);
}

} // namespace
