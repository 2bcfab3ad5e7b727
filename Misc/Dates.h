// SPDX-License-Identifier: BSD-2-Clause
// Times in seconds since the epoch, their fixed text forms, and differences between them.
#ifndef MISC_DATES_H
#define MISC_DATES_H

#include <ctime>

#include "Misc/export.h"

/// Static functions on times. A time is a number of seconds since the epoch or a broken-down local time. Each
/// function that gives a text returns a static buffer that the next call of the same function, in any of its forms,
/// overwrites; GetDateTime overwrites those of GetDate and GetTime as well. A text longer than its buffer is cut.
class ZELOO_API Dates {
public:
    /// The time now. Where a `long` has 32 bits, that ends in January 2038.
    static long CurrentTime() { return AsLong(time(nullptr)); }
    /// The time of a broken-down local time, which is normalised in place (mktime); -1 when it does not fit a `long`.
    static long CurrentTime(tm* TMstruct) { return AsLong(mktime(TMstruct)); }
    /// The broken-down local time now.
    static tm CurrentTm() { return CurrentTm(CurrentTime()); }
    /// The broken-down local time at `moment`; all zero when its year does not fit.
    static tm CurrentTm(long moment);

    /// The date of a broken-down time as MM/DD/YYYY. Up to 11 characters.
    static const char* GetDate(tm* TMstruct);
    /// Today's date as MM/DD/YYYY.
    static const char* GetDate() { return GetDate(CurrentTime()); }
    /// The local date at `moment` as MM/DD/YYYY. Up to 11 characters.
    static const char* GetDate(long moment);
    /// The time of day of a broken-down time as hh:mm:ss on the 24-hour clock. Up to 11 characters.
    static const char* GetTime(tm* TMstruct);
    /// The time of day now as hh:mm:ss.
    static const char* GetTime() { return GetTime(CurrentTime()); }
    /// The local time of day at `moment` as hh:mm:ss. Up to 11 characters.
    static const char* GetTime(long moment);
    /// The date of a broken-down time, a blank and its time of day.
    static const char* GetDateTime(tm* TMstruct);
    /// Today's date, a blank and the time of day now.
    static const char* GetDateTime() { return GetDateTime(CurrentTime()); }
    /// The local date at `moment`, a blank and the time of day.
    static const char* GetDateTime(long moment);
    /// The time that a text of GetDateTime stands for; the host decides whether daylight-saving time was in force.
    /// Nothing is checked: what the text does not have counts as 0 (null has nothing), and fields out of range carry over
    /// into the next larger one (month 13 is January of the next year).
    static long GetDateTime(const char* datetime);

    /// The seconds on the local clock since midnight.
    static long Secs_Into_Today();
    /// Splits a duration in seconds into days, hours, minutes and seconds; a negative one gives negative parts.
    static void Secs_to_DDHHMMSS(long totaltime, int* dd, int* hh, int* mm, int* ss);
    /// A duration in seconds as "  1d  2h  3m  4s": the days in three columns, the rest in two. Up to 19 characters.
    static const char* Secs_to_Format(long totaltime);

    /// The number of midnights in universal time from `d2` to `d1`: two moments a minute apart can be a day apart.
    static long DaysBetween(long d1, long d2);
    /// The whole minutes from `s2` to `s1`, truncated toward zero.
    static long MinsBetween(long s1, long s2);
    /// The seconds from `s2` to `s1`.
    static long SecsBetween(long s1, long s2) { return s1 - s2; }

private:
    // The host's times may be wider than a `long`.
    static long AsLong(time_t moment)
    {
        const long result = static_cast<long>(moment);
        return result == moment ? result : -1;
    }
};

#endif
