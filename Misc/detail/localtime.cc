// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/localtime.h"

#include <csignal>
#include <cstdint>

[[maybe_unused]] static const char* ModuleId() { return "$Id: localtime.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

constexpr int64_t SecondsPerHour = 3600;
constexpr int64_t SecondsPerDay = 86400;
constexpr int64_t DaysPerEra = 146097;  // the 400 years after which the calendar repeats
constexpr int64_t DaysToEpoch = 719468; // from March 1st of the year 0

// Two words that a handler may read between any two instructions.
volatile long offset = 0; // of the local time from universal time, in seconds
volatile sig_atomic_t isKept = 0;

int64_t FloorOf(int64_t a, int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

// The days from the epoch to a date. The year begins in March, so that the leap day is its last.
int64_t DaysTo(int64_t year, int64_t month, int64_t day)
{
    year -= month <= 2 ? 1 : 0;
    const int64_t era = FloorOf(year, 400);
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * DaysPerEra + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - DaysToEpoch;
}

// The broken-down form of a number of seconds, as it is.
tm BrokenDown(int64_t seconds)
{
    const int64_t days = FloorOf(seconds, SecondsPerDay);
    const int64_t rest =
        (seconds % SecondsPerDay + SecondsPerDay) % SecondsPerDay; // the first moment of a day may not fit
    const int64_t shifted = days + DaysToEpoch;
    const int64_t era = FloorOf(shifted, DaysPerEra);
    const int64_t dayOfEra = shifted - era * DaysPerEra;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int64_t month = monthFromMarch + (monthFromMarch < 10 ? 3 : -9);
    const int64_t year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
    tm result = {};
    if (year - 1900 > INT32_MAX || year - 1900 < -INT32_MAX)
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

tm LocalTime(int64_t moment)
{
    if (isKept) {
        int64_t seconds;
        return __builtin_add_overflow(moment, offset, &seconds) ? tm() : BrokenDown(seconds);
    }
    const time_t seconds = moment;
    tm local = {};
    tzset();
    if (localtime_r(&seconds, &local) == nullptr)
        return {};
    const int64_t distance = time(nullptr) - moment;
    if (distance > -SecondsPerHour && distance < SecondsPerHour)
        offset =
            static_cast<long>(DaysTo(int64_t{local.tm_year} + 1900, local.tm_mon + 1, local.tm_mday) * SecondsPerDay +
                              local.tm_hour * SecondsPerHour + local.tm_min * 60 + local.tm_sec - moment);
    return local;
}

void KeepLocalOffset() { isKept = 1; }

} // namespace zeloo
