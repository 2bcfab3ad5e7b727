// SPDX-License-Identifier: BSD-2-Clause
// How the library's units report: a formatted description through one function.
#ifndef MISC_ERROR_REPORT_H
#define MISC_ERROR_REPORT_H

#include <memory>

#include "Misc/Error.h"

/// The place of a report: the unit's ModuleId and this line.
#define ZELOO_HERE ModuleId(), __LINE__

namespace zeloo {

/// Makes a report through `reporter`. `error` is the `errno` that it shows, 0 for none; the caller's `errno` is kept.
[[gnu::format(printf, 7, 8)]] void Report(const ErrorReporter& reporter, short severity, short type, int error,
                                          const char* module, long line, const char* format, ...);
/// The same through a reporter of its own, for functions that belong to no object.
[[gnu::format(printf, 6, 7)]] void Report(short severity, short type, int error, const char* module, long line,
                                          const char* format, ...);

/// The formatted text; null when memory fails.
[[gnu::format(printf, 1, 2)]] std::unique_ptr<char[]> NewFormatted(const char* format, ...);

} // namespace zeloo

#endif
