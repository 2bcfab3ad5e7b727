// SPDX-License-Identifier: BSD-2-Clause
// What the tests of captured crashes share: children that crash as a program of a name, and the parts of their reports.
#ifndef TESTS_UNIT_CRASH_TESTING_H
#define TESTS_UNIT_CRASH_TESTING_H

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/support/testing.h"

// The tests commit what the undefined-behaviour checker would stop.
#if defined(__clang__)
#define UNCHECKED __attribute__((noinline, no_sanitize("undefined", "address")))
#else
#define UNCHECKED __attribute__((noinline, no_sanitize("undefined"), no_sanitize("address")))
#endif

namespace crash_testing {

using namespace testing_support;

const std::string Directory = "/var/orv/data";

// Lets the process be the program `name` with two arguments.
inline void BecomeProgram(const std::string& name)
{
    static char full[256]; // as any argument not on the heap
    static char one[] = "-d";
    static char two[] = "two words";
    static char* argv[] = {nullptr, one, two, nullptr};
    static char* envp[] = {nullptr};
    snprintf(full, sizeof full, "/opt/orv/bin/%s", name.c_str());
    argv[0] = full;
    ProgInfo::Initialize(3, argv, envp, "1.0");
}

inline std::string CrashFile(const std::string& name) { return Directory + "/" + name + ".sig"; }
inline std::string MapFile(const std::string& name) { return Directory + "/" + name + ".map"; }

// The names of the programs that CrashAs has been, for the end of the test.
inline std::vector<std::string>& CrashedPrograms()
{
    static std::vector<std::string> names;
    return names;
}

struct Crash {
    ChildResult child;
    std::string report; // the crash file, dates as DATE
    std::string err;    // standard error, dates as DATE
};

// An extended regular expression.
class Pattern {
public:
    explicit Pattern(const std::string& text) { regcomp(&compiled, text.c_str(), REG_EXTENDED); }
    ~Pattern() { regfree(&compiled); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // The match in `text` (element 0) and its groups; empty when there is none.
    std::vector<std::string> Match(const std::string& text) const
    {
        regmatch_t found[4];
        std::vector<std::string> groups;
        if (regexec(&compiled, text.c_str(), 4, found, 0) != 0)
            return groups;
        for (const regmatch_t& f : found)
            if (f.rm_so >= 0)
                groups.push_back(text.substr(f.rm_so, f.rm_eo - f.rm_so));
        return groups;
    }

private:
    regex_t compiled;
};

inline std::string WithoutDates(const std::string& text)
{
    static const Pattern date("^[0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}");
    const size_t length = sizeof "mm/dd/yyyy hh:mm:ss" - 1;
    std::string result;
    for (size_t i = 0; i < text.size();) {
        if (isdigit(static_cast<unsigned char>(text[i])) && !date.Match(text.substr(i, length)).empty()) {
            result += "DATE";
            i += length;
        } else {
            result += text[i++];
        }
    }
    return result;
}

// Standard error without what AddressSanitizer says about stacks that it does not know.
inline std::string WithoutSanitizer(const std::string& text)
{
    std::string kept;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, 2, "==") != 0 && line.find("False positive error reports") == std::string::npos &&
            line.find("For details see https://github.com/google/sanitizers") == std::string::npos)
            kept += line + "\n";
    return kept;
}

inline Crash CrashAs(const std::string& name, const std::function<void()>& body)
{
    Crash crash;
    CrashedPrograms().push_back(name);
    crash.child = RunInChild([&] {
        BecomeProgram(name);
        body();
    });
    struct stat status;
    if (stat(CrashFile(name).c_str(), &status) == 0 && S_ISREG(status.st_mode))
        crash.report = WithoutDates(ReadFile(CrashFile(name)));
    crash.err = WithoutDates(WithoutSanitizer(crash.child.err));
    return crash;
}

// What every capture that goes well says on standard error.
inline std::string CaptureMessages(const std::string& name, int sig)
{
    return "\n\nError: DATE. SIGNAL " + std::to_string(sig) +
           " detected....\nCall trace and dump of monitored objects in " + CrashFile(name) + "\n";
}

inline std::string Skipped(int sig)
{
    return "\n\nSignal " + std::to_string(sig) + " detected processing state caputre. siglongjmp out..\n\n";
}

// The parts of one report of a crash file.
struct Report {
    std::string heading; // up to the registers
    std::vector<std::pair<std::string, unsigned long>> registers;
    std::vector<std::pair<unsigned long, unsigned long>> frames; // bp and ip
    unsigned long stackStart = 0, stackSize = 0;
    unsigned long rowBytes = 0; // what the rows and the counts of equal rows stand for
    std::string objects;        // the rest
    std::string problem;        // the first line that is not as it should be

    unsigned long Register(const std::string& name) const
    {
        for (const auto& r : registers)
            if (r.first == name)
                return r.second;
        return 0;
    }
};

inline unsigned long Hex(const std::string& text) { return std::stoul(text, nullptr, 16); }

class Lines {
public:
    explicit Lines(const std::string& text_p) : text(text_p) {}
    std::string Peek() const
    {
        const size_t end = text.find('\n', at);
        return end == std::string::npos ? text.substr(at) : text.substr(at, end - at);
    }
    void Skip() { at = std::min(text.size(), at + Peek().size() + 1); }
    // Takes a line that matches; what the groups of the pattern matched goes into `groups`, from element 1 on.
    bool Take(const std::string& pattern, std::vector<std::string>* groups)
    {
        if (at >= text.size())
            return false;
        *groups = Pattern("^" + pattern + "$").Match(Peek());
        if (groups->empty())
            return false;
        Skip();
        return true;
    }
    std::string Rest() const { return text.substr(at); }

private:
    std::string text;
    size_t at = 0;
};

inline void ParseRows(Lines& lines, Report* report)
{
    std::vector<std::string> match;
    unsigned long address = report->stackStart;
    const unsigned long end = report->stackStart + report->stackSize;
    while (!lines.Peek().empty()) {
        const std::string line = lines.Peek();
        if (lines.Take("\t dup ([0-9]+) line\\(s\\)", &match)) {
            address += 16 * std::stoul(match[1]);
        } else if (lines.Take("([0-9a-f]+):( [0-9a-f]{8}){4} \\[[ -~]{16}\\]", &match)) {
            if (Hex(match[1]) != address)
                report->problem = "address: " + line;
            if (address < end)
                address += 16;
        } else {
            report->problem = "row: " + line;
            return;
        }
    }
    report->rowBytes = address - report->stackStart;
}

inline Report Parse(const std::string& text)
{
    Report report;
    Lines lines(text);
    std::vector<std::string> match;
    while (lines.Peek().compare(0, 6, "u_ar0[") != 0 && !lines.Rest().empty()) {
        report.heading += lines.Peek() + "\n";
        lines.Skip();
    }
    while (lines.Take("u_ar0\\[([A-Z]+)\\]=([0-9a-f]{8,})", &match))
        report.registers.emplace_back(match[1], Hex(match[2]));
    if (!lines.Take("Dynamic link:\tReturn Address:", &match)) {
        report.problem = lines.Peek();
        return report;
    }
    while (lines.Take("bp=([0-9a-f]{8,})\tip=([0-9a-f]{8,})", &match))
        report.frames.emplace_back(Hex(match[1]), Hex(match[2]));
    const bool hasEmptyLine = lines.Peek().empty();
    lines.Skip();
    if (!hasEmptyLine || !lines.Take("Stack: 0x([0-9a-f]+) -- \\[size ([0-9]+)\\[0x([0-9a-f]+)\\] bytes\\]", &match)) {
        report.problem = lines.Peek();
        return report;
    }
    report.stackStart = Hex(match[1]);
    report.stackSize = std::stoul(match[2]);
    if (report.stackSize != Hex(match[3]))
        report.problem = "size: " + match[0];
    ParseRows(lines, &report);
    lines.Skip();
    report.objects = lines.Rest();
    return report;
}

inline std::string Heading(const std::string& name, int sig)
{
    return "\nDATE. SIGNAL " + std::to_string(sig) + " detected. ProgInfo=/opt/orv/bin/" + name +
           " -d two words \n\n......initiating dump...\n\n";
}

const std::vector<std::string> RegisterLabels = {"SS",  "UESP", "EFL", "CS",  "EIP", "ERR", "TRAPNO",
                                                 "EAX", "ECX",  "EDX", "EBX", "ESP", "EBP", "ESI",
                                                 "EDI", "DS",   "ES",  "FS",  "GS"};

// Checks one whole report but for the object dump, which it returns.
inline std::string CheckReport(const std::string& text, const std::string& name, int sig)
{
    const Report report = Parse(text);
    EXPECT_EQ(report.problem, "");
    EXPECT_EQ(report.heading, Heading(name, sig));
    std::vector<std::string> labels;
    for (const auto& r : report.registers)
        labels.push_back(r.first);
    EXPECT_EQ(labels, RegisterLabels);
    EXPECT_NE(report.Register("EIP"), 0u);
    EXPECT_EQ(report.Register("ESP"), report.Register("UESP"));
    unsigned long below = report.Register("UESP") - 1;
    for (const auto& frame : report.frames) {
        EXPECT_GT(frame.first, below);
        below = frame.first;
    }
    if (!report.frames.empty()) {
        EXPECT_EQ(report.frames[0].first, report.Register("EBP"));
    }
    EXPECT_EQ(report.rowBytes, report.stackSize);
    return report.objects;
}

inline int* volatile nowhere = nullptr; // not for the compiler to see

UNCHECKED inline void WriteToNull() { *nowhere = 1; }

// The line of a capture that cannot go on.
inline std::string Left(int sig, const std::string& message)
{
    return "Handle of signal " + std::to_string(sig) + " exit: " + message + "\n";
}

class Capture : public testing::Test {
protected:
    void SetUp() override
    {
        if (access(Directory.c_str(), W_OK) != 0)
            GTEST_SKIP() << Directory << " is not there";
    }
    void TearDown() override
    {
        for (const std::string& name : CrashedPrograms())
            for (const char* suffix : {"", ".old"})
                unlink((MapFile(name) + suffix).c_str());
        CrashedPrograms().clear();
    }
};

} // namespace crash_testing

#endif
