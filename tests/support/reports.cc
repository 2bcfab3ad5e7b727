// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/reports.h"

#include "Misc/Error.h"
#include "tests/support/testing.h"

namespace testing_support {

std::string ReportField(const std::string& output, const std::string& label)
{
    const size_t at = output.find(label);
    if (at == std::string::npos)
        return "";
    const size_t start = at + label.size();
    return output.substr(start, output.find('\n', start) - start);
}

std::string DisplayedReport(const ReportFields& fields)
{
    return "\nErrorReporter: <time>  Total Error Count= " + fields.count + "\n  Program=" + fields.program +
           "\n  Severity Level=" + fields.severity + "\n  Error Type= " + fields.type +
           "\n  Error Code= " + fields.code + "\n  Module= $Id: " + fields.unit +
           ".cc,v 1.1 2026/11/21 12:00:00 orv Exp $\n  Line= <line>" + "\n  Description= " + fields.description +
           "\n\n";
}

std::string WarningReport(const std::string& unit, const std::string& type, int error, const std::string& description)
{
    ReportFields fields = {unit, type, description};
    if (error != 0)
        fields.code = std::to_string(error) + " : " + ErrorReporter::GetErrorDesc(error);
    return DisplayedReport(fields);
}

std::string WithoutVariables(const std::string& reports)
{
    const std::string text = Replaced(WithoutTimes(reports), "Count= [0-9]+", "Count= <count>");
    return Replaced(text, "Line= [1-9][0-9]*", "Line= <line>");
}

std::string ReportsInFull(const std::function<void()>& body) { return WithoutVariables(CaptureStderr(body)); }

} // namespace testing_support
