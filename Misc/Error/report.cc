// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Error/report.h"

#include <cstdarg>
#include <cstdio>
#include <new>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: Error.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

static std::unique_ptr<char[]> Format(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::unique_ptr<char[]> text(length >= 0 ? new (std::nothrow) char[length + size_t(1)] : nullptr);
    if (text != nullptr)
        std::vsnprintf(text.get(), length + size_t(1), format, again);
    va_end(again);
    return text;
}

std::unique_ptr<char[]> NewFormatted(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    auto text = Format(format, arguments);
    va_end(arguments);
    return text;
}

static void ReportAs(const ErrorReporter& reporter, short severity, short type, int error, const char* module,
                     long line, const char* format, va_list arguments)
{
    char text[1024]; // usually enough: reports are made when memory has run out, too
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    const auto whole = length >= int(sizeof text) ? Format(format, again) : nullptr;
    va_end(again);
    errno = error;
    reporter._ReportError(severity, type, whole != nullptr ? whole.get() : text, module, line);
}

void Report(const ErrorReporter& reporter, short severity, short type, int error, const char* module, long line,
            const char* format, ...)
{
    const svr4::SavedErrno savedErrno;
    va_list arguments;
    va_start(arguments, format);
    ReportAs(reporter, severity, type, error, module, line, format, arguments);
    va_end(arguments);
}

void Report(short severity, short type, int error, const char* module, long line, const char* format, ...)
{
    const svr4::SavedErrno savedErrno; // making a reporter clears it
    const ErrorReporter reporter;
    va_list arguments;
    va_start(arguments, format);
    ReportAs(reporter, severity, type, error, module, line, format, arguments);
    va_end(arguments);
}

} // namespace zeloo
