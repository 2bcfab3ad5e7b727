// SPDX-License-Identifier: BSD-2-Clause
// The texts of error reports:
//
//     EXPECT_EQ(ReportsInFull([&] { ... }), WarningReport("unit", "the error type", ENOENT, "the description"));
#ifndef TESTS_SUPPORT_REPORTS_H
#define TESTS_SUPPORT_REPORTS_H

#include <functional>
#include <string>

namespace testing_support {

/// The line of an error report that begins with `label` in what Display wrote, without the label; the first one.
std::string ReportField(const std::string& output, const std::string& label);

/// A report of a unit of Misc. The defaults are those of a warning without an `errno` in a program without ProgInfo,
/// with the texts that WithoutVariables puts in the place of what changes.
struct ReportFields {
    std::string unit;
    std::string type;
    std::string description;
    std::string severity = "WARNING";
    std::string code = "Application Error.";
    std::string program = "";
    std::string count = "<count>";
};

/// The report as Display writes it.
std::string DisplayedReport(const ReportFields& fields);
/// The same of a warning; `error` is the `errno` of the report.
std::string WarningReport(const std::string& unit, const std::string& type, int error, const std::string& description);

/// Reports as Display writes them, with the places of time, count and line taken by "<time>", "<count>" and "<line>".
std::string WithoutVariables(const std::string& reports);
/// What `body` reports, so.
std::string ReportsInFull(const std::function<void()>& body);

} // namespace testing_support

#endif
