// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/localtime.h"

#include <csignal>

[[maybe_unused]] static const char* ModuleId() { return "$Id: localtime.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

constexpr long SecondsPerHour = 3600;
constexpr long SecondsPerDay = 86400;
constexpr long DaysPerEra = 146097;  // the 400 years after which the calendar repeats
constexpr long DaysToEpoch = 719468; // from March 1st of the year 0

// Two words that a handler may read between any two instructions.
volatile long offset = 0; // of the local time from universal time, in seconds
volatile sig_atomic_t isKept = 0;

long FloorOf(long a, long b) { return a / b - (a % b < 0 ? 1 : 0); }

// The days from the epoch to a date. The year begins in March, so that the leap day is its last.
long DaysTo(long year, long month, long day)
{
    year -= month <= 2 ? 1 : 0;
    const long era = FloorOf(year, 400);
    const long yearOfEra = year - era * 400;
    const long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * DaysPerEra + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - DaysToEpoch;
}

// The broken-down form of a number of seconds, as it is.
tm BrokenDown(long seconds)
{
    const long days = FloorOf(seconds, SecondsPerDay);
    const long rest =
        (seconds % SecondsPerDay + SecondsPerDay) % SecondsPerDay; // the first moment of a day may not fit
    const long shifted = days + DaysToEpoch;
    const long era = FloorOf(shifted, DaysPerEra);
    const long dayOfEra = shifted - era * DaysPerEra;
    const long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long monthFromMarch = (5 * dayOfYear + 2) / 153;
    const long month = monthFromMarch + (monthFromMarch < 10 ? 3 : -9);
    const long year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
    tm result = {};
    if (year - 1900 > 2147483647L || year - 1900 < -2147483647L)
        return result;
    result.tm_sec = static_cast<int>(rest % 60);
    result.tm_min = static_cast<int>(rest / 60 % 60);
    result.tm_hour = static_cast<int>(rest / SecondsPerHour);
    result.tm_mday = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    result.tm_mon = static_cast<int>(month - 1);
    result.tm_year = static_cast<int>(year - 1900);
    result.tm_wday = static_cast<int>(((days + 4) % 7 + 7) % 7);
    result.tm_yday = static_cast<int>(days - DaysTo(year, 1, 1));
    result.tm_isdst = -1;
    return result;
}

} // namespace

tm LocalTime(long moment)
{
    if (isKept) {
        long seconds;
        return __builtin_add_overflow(moment, offset, &seconds) ? tm() : BrokenDown(seconds);
    }
    const time_t seconds = moment;
    tm local = {};
    tzset();
    if (localtime_r(&seconds, &local) == nullptr)
        return {};
    const long distance = time(nullptr) - moment;
    if (distance > -SecondsPerHour && distance < SecondsPerHour)
        offset = DaysTo(local.tm_year + 1900L, local.tm_mon + 1L, local.tm_mday) * SecondsPerDay +
                 local.tm_hour * SecondsPerHour + local.tm_min * 60L + local.tm_sec - moment;
    return local;
}

void KeepLocalOffset() { isKept = 1; }

} // namespace zeloo
