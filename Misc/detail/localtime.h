// SPDX-License-Identifier: BSD-2-Clause
// The local time, for ordinary calls and for signal handlers.
#ifndef MISC_DETAIL_LOCALTIME_H
#define MISC_DETAIL_LOCALTIME_H

#include <cstdint>
#include <ctime>

namespace zeloo {

/// The broken-down local time at `moment`; all zero when its year does not fit. Every call for about the present also
/// keeps the distance of the local time from universal time.
tm LocalTime(int64_t moment);

/// From now on LocalTime asks nobody: it takes the distance that was kept last, which is that of the present, and so may
/// be an hour wrong for another season or when the program has not asked for the time since the clocks changed. For
/// handlers that do not return and for copies of the process: the host's conversion has a lock, and allocates, and the
/// interrupted code may hold that lock or have damaged the heap.
void KeepLocalOffset();

} // namespace zeloo

#endif
