// SPDX-License-Identifier: BSD-2-Clause
#include "format.h"

#include <cstdarg>
#include <cstdio>

namespace orvstat {

std::string Format(const char* format, ...)
{
    char text[2048] = "";
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

} // namespace orvstat
