// SPDX-License-Identifier: BSD-2-Clause
// Texts with numbers in them.
#ifndef TOOLS_ORVSTAT_FORMAT_H
#define TOOLS_ORVSTAT_FORMAT_H

#include <string>

namespace orvstat {

/// The text that printf would write, cut at 2047 characters.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

} // namespace orvstat

#endif
