// SPDX-License-Identifier: BSD-2-Clause
// What error reports say, where their unit, line and `errno` do not matter:
//
//     EXPECT_EQ(Reports([&] { ... }), Report(ErrorReporter::WARNING, ErrorReporter::OTHER, "the description"));
#ifndef TESTS_SUPPORT_SHORT_REPORTS_H
#define TESTS_SUPPORT_SHORT_REPORTS_H

#include <functional>
#include <string>

#include "Misc/Error.h"
#include "tests/support/testing.h"

namespace testing_support {

/// A report in short.
inline std::string Report(short severity, short type, const std::string& description)
{
    return std::string(ErrorReporter::GetErrorSeverity(severity)) + "|" + ErrorReporter::GetErrorType(type) + "|" +
           description + "\n";
}

/// The reports displayed in `text`, in short.
inline std::string ReportsIn(const std::string& text)
{
    std::string reports;
    for (size_t at = 0; (at = text.find("\nErrorReporter: ", at)) != std::string::npos; at++) {
        const std::string report = text.substr(at);
        reports += ReportField(report, "  Severity Level=") + "|" + ReportField(report, "  Error Type= ") + "|" +
                   ReportField(report, "  Description= ") + "\n";
    }
    return reports;
}

/// The reports that `body` makes, in short.
inline std::string Reports(const std::function<void()>& body) { return ReportsIn(CaptureStderr(body)); }

} // namespace testing_support

#endif
