// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/strftime.h"

#include <cstdlib>
#include <cstring>

[[maybe_unused]] static const char* ModuleId() { return "$Id: strftime.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

constexpr char DateAndTime[] = "%a %b %e %H:%M:%S %Z %Y";

// The length of the conversion at `p`, a "%": flags, a width and a modifier may stand before its letter. All of it
// counts, since the host takes "%E%" for one conversion, so that a "C" behind that is no part of a "%C".
static std::size_t ConversionLength(const char* p)
{
    std::size_t n = 1;
    n += std::strspn(p + n, "_-0^#+");
    n += std::strspn(p + n, "0123456789");
    n += std::strspn(p + n, "EO") != 0;
    return p[n] != '\0' ? n + 1 : n;
}

// `format` with every "%C" spelt out, to be released with free(). Null when memory fails.
static char* SpellOut(const char* format)
{
    const std::size_t length = std::strlen(format);
    // No two characters become more than DateAndTime.
    char* translated = static_cast<char*>(std::malloc(length / 2 * (sizeof DateAndTime - 1) + 2));
    if (translated == nullptr)
        return nullptr;
    char* to = translated;
    while (*format != '\0') {
        const std::size_t n = *format == '%' ? ConversionLength(format) : 1;
        const bool isDateAndTime = n == 2 && format[1] == 'C';
        const char* from = isDateAndTime ? DateAndTime : format;
        const std::size_t count = isDateAndTime ? sizeof DateAndTime - 1 : n;
        std::memcpy(to, from, count);
        to += count;
        format += n;
    }
    *to = '\0';
    return translated;
}

std::size_t strftime(char* s, std::size_t maxsize, const char* format, const struct tm* timeptr)
{
    if (std::strstr(format, "%C") == nullptr)
        return std::strftime(s, maxsize, format, timeptr);
    char* translated = SpellOut(format);
    if (translated == nullptr)
        return 0;
    const std::size_t length = std::strftime(s, maxsize, translated, timeptr);
    std::free(translated);
    return length;
}

} // namespace svr4
