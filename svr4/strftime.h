// SPDX-License-Identifier: BSD-2-Clause
// Times as text.
#ifndef SVR4_STRFTIME_H
#define SVR4_STRFTIME_H

#include <cstddef>
#include <ctime>

namespace svr4 {

/// strftime(3C) of System V: the host's, but "%C" is the date and time as date(1) prints them, such as
/// "Sat Nov 21 12:15:00 UTC 2026". With a modifier, flag or width between, as in "%EC", it is the host's.
///
/// Returns the length of the text, without its terminator. 0 with the contents of `s` unspecified when the text and
/// its terminator need more than `maxsize` characters, of which none is written beyond, or memory fails; 0 also for an
/// empty text.
std::size_t strftime(char* s, std::size_t maxsize, const char* format, const struct tm* timeptr);

} // namespace svr4

#endif
