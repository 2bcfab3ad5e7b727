// SPDX-License-Identifier: BSD-2-Clause
#include "text.h"

#include <charconv>
#include <cstdio>

namespace orvcrash {

// The length of the UTF-8 character that `text` begins with, or 0. C1 controls, overlong forms and surrogates are none.
static size_t CharacterLength(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto follows = [&](size_t i) { return i < text.size() && (byte(i) & 0xc0) == 0x80; };
    const unsigned first = byte(0);
    if (first < 0x80)
        return (first >= 0x20 && first != 0x7f) || first == '\t' || first == '\n' ? 1 : 0;
    if (first >= 0xc2 && first <= 0xdf && follows(1))
        return first == 0xc2 && byte(1) < 0xa0 ? 0 : 2;
    if (first >= 0xe0 && first <= 0xef && follows(1) && follows(2)) {
        if ((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f))
            return 0;
        return 3;
    }
    if (first >= 0xf0 && first <= 0xf4 && follows(1) && follows(2) && follows(3)) {
        if ((first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f))
            return 0;
        return 4;
    }
    return 0;
}

std::string Printable(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = CharacterLength(text);
        if (length != 0) {
            result.append(text.substr(0, length));
            text.remove_prefix(length);
            continue;
        }
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[0])));
        result += escaped;
        text.remove_prefix(1);
    }
    return result;
}

void ForEachLine(std::string_view text, const std::function<void(std::string_view line)>& take)
{
    while (!text.empty()) {
        const size_t end = text.find('\n');
        take(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

bool ReadHex(std::string_view text, uint64_t* number)
{
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, *number, 16);
    return !text.empty() && read.ec == std::errc() && read.ptr == end;
}

bool ReadDecimal(std::string_view text, long* number)
{
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, *number);
    return !text.empty() && read.ec == std::errc() && read.ptr == end;
}

bool TakePrefix(std::string_view& text, std::string_view prefix)
{
    if (text.substr(0, prefix.size()) != prefix)
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

bool TakeUntil(std::string_view& text, std::string_view separator, std::string_view* taken)
{
    const size_t end = text.find(separator);
    if (end == std::string_view::npos)
        return false;
    *taken = text.substr(0, end);
    text.remove_prefix(end + separator.size());
    return true;
}

std::string Hex(uint64_t number)
{
    char digits[24];
    snprintf(digits, sizeof digits, "%08llx", static_cast<unsigned long long>(number));
    return digits;
}

} // namespace orvcrash
