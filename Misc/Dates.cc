// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Dates.h"

#include <cstdarg>
#include <cstdio>

#include "Misc/detail/localtime.h"
#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: Dates.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long SecondsPerMinute = 60;
static const long SecondsPerHour = 3600;
static const long SecondsPerDay = 86400;

static char dateText[12];
static char timeText[12];
static char durationText[20];

// Writes a text into its buffer, cut to what fits.
template <size_t N>
[[gnu::format(printf, 2, 3)]] static const char* Fill(char (&buffer)[N], const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(buffer, N, format, arguments);
    va_end(arguments);
    return buffer;
}

tm Dates::CurrentTm(long moment) { return zeloo::LocalTime(moment); }

// The local time at `moment`, valid until the next call.
static tm* Local(long moment)
{
    static tm local;
    local = Dates::CurrentTm(moment);
    return &local;
}

const char* Dates::GetDate(tm* TMstruct)
{
    return Fill(dateText, "%02lld/%02d/%04lld", TMstruct->tm_mon + 1LL, TMstruct->tm_mday, TMstruct->tm_year + 1900LL);
}

const char* Dates::GetDate(long moment) { return GetDate(Local(moment)); }

const char* Dates::GetTime(tm* TMstruct)
{
    return Fill(timeText, "%02d:%02d:%02d", TMstruct->tm_hour, TMstruct->tm_min, TMstruct->tm_sec);
}

const char* Dates::GetTime(long moment) { return GetTime(Local(moment)); }

const char* Dates::GetDateTime(tm* TMstruct)
{
    static char text[sizeof dateText + sizeof timeText];
    return Fill(text, "%s %s", GetDate(TMstruct), GetTime(TMstruct));
}

const char* Dates::GetDateTime(long moment) { return GetDateTime(Local(moment)); }

long Dates::GetDateTime(const char* datetime)
{
    tm local = {};
    // The widths of the format bound the numbers; what it does not find stays 0, and mktime normalises the rest.
    (void)sscanf(zeloo::TextOrEmpty(datetime), "%02d/%02d/%04d %02d:%02d:%02d", &local.tm_mon, &local.tm_mday,
                 &local.tm_year, &local.tm_hour, &local.tm_min, &local.tm_sec);
    local.tm_mon -= 1;
    local.tm_year -= 1900;
    local.tm_isdst = -1;
    return CurrentTime(&local);
}

long Dates::Secs_Into_Today()
{
    const tm now = CurrentTm();
    return now.tm_hour * SecondsPerHour + now.tm_min * SecondsPerMinute + now.tm_sec;
}

void Dates::Secs_to_DDHHMMSS(long totaltime, int* dd, int* hh, int* mm, int* ss)
{
    *dd = static_cast<int>(totaltime / SecondsPerDay);
    *hh = static_cast<int>(totaltime % SecondsPerDay / SecondsPerHour);
    *mm = static_cast<int>(totaltime % SecondsPerHour / SecondsPerMinute);
    *ss = static_cast<int>(totaltime % SecondsPerMinute);
}

const char* Dates::Secs_to_Format(long totaltime)
{
    int dd, hh, mm, ss;
    Secs_to_DDHHMMSS(totaltime, &dd, &hh, &mm, &ss);
    return Fill(durationText, "%3dd %2dh %2dm %2ds", dd, hh, mm, ss);
}

long Dates::DaysBetween(long d1, long d2)
{
    return d1 / SecondsPerDay - d2 / SecondsPerDay; // intended: day boundaries in universal time, not elapsed days
}

long Dates::MinsBetween(long s1, long s2) { return SecsBetween(s1, s2) / SecondsPerMinute; }
