// SPDX-License-Identifier: BSD-2-Clause
// Lines of files that nobody vouches for.
#ifndef TOOLS_ORVCRASH_TEXT_H
#define TOOLS_ORVCRASH_TEXT_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orvcrash {

/// Takes the text as far as a terminal and a reader can: what is neither UTF-8 nor a tab nor a line end is written as \xNN.
std::string Printable(std::string_view text);

/// Hands each line of `text`, without its end, to `take`.
void ForEachLine(std::string_view text, const std::function<void(std::string_view line)>& take);

/// Reads a hexadecimal number of at most 16 digits, all of `text`.
bool ReadHex(std::string_view text, uint64_t* number);
/// Reads a decimal number, all of `text`.
bool ReadDecimal(std::string_view text, long* number);

/// Takes `prefix` off the beginning of `text`, if that is there.
bool TakePrefix(std::string_view& text, std::string_view prefix);
/// Takes what stands before `separator`, and that, off the beginning of `text`. False when there is none.
bool TakeUntil(std::string_view& text, std::string_view separator, std::string_view* taken);

/// At least eight digits, as a crash file writes them.
std::string Hex(uint64_t number);

} // namespace orvcrash

#endif
