// SPDX-License-Identifier: BSD-2-Clause
// The text that a reader sees.
#include <iomanip>

#include "case.h"
#include "text.h"

namespace orvcrash {

namespace {

class Printer {
public:
    Printer(const Case& shown_p, bool inColour_p, std::ostream& out_p)
        : shown(shown_p), report(shown_p.report), inColour(inColour_p), out(out_p)
    {
    }
    void PrintAll();

private:
    void Section(const std::string& name) { out << '\n' << Marked("\033[1m", name) << '\n'; }
    // In colour, if there is one.
    std::string Marked(const char* colour, const std::string& text) const
    {
        if (!inColour)
            return text;
        return colour + text + "\033[0m";
    }
    void Warn(const std::string& text) { out << "  " << Marked("\033[31m", Printable(text)) << '\n'; }

    void PrintHead();
    void PrintRegisters();
    void PrintSteps();
    void PrintStep(size_t number, const Step& step);
    void PrintModules();
    void PrintStack();
    void PrintObjects();

    const Case& shown;
    const Report& report;
    const bool inColour;
    std::ostream& out;
};

// Text of several lines, each moved to the right.
std::string Indented(const std::string& text)
{
    std::string result;
    ForEachLine(Printable(text),
                [&](std::string_view line) { result.append(line.empty() ? "" : "    ").append(line).append("\n"); });
    return result;
}

void Printer::PrintHead()
{
    std::string title = "Report " + std::to_string(shown.number) + " of " + std::to_string(shown.count);
    if (report.hasHeading)
        title += ": " + report.heading.date + ", " + SignalName(report.heading.signal);
    out << Marked("\033[1m", title) << '\n';
    if (report.hasHeading) {
        out << "  signal   " << report.heading.signal;
        if (const std::string text = SignalText(report.heading.signal); !text.empty())
            out << " (" << text << ')';
        out << "\n  command  " << Printable(report.heading.command) << '\n';
    }
    if (shown.block.pid != 0)
        out << "  process  " << shown.block.pid << '\n';
    if (!shown.mapProblem.empty())
        Warn(shown.mapProblem);
    for (const auto* list : {&report.damage, &shown.block.damage})
        for (const std::string& damage : *list)
            Warn(damage);
}

void Printer::PrintRegisters()
{
    Section("Registers");
    constexpr size_t InRow = 4;
    for (size_t i = 0; i < report.registers.size(); i++) {
        out << "  " << std::left << std::setw(6) << Printable(report.registers[i].first) << ' ' << std::right
            << std::setw(16) << Hex(report.registers[i].second);
        if (i % InRow == InRow - 1 || i + 1 == report.registers.size())
            out << '\n';
    }
}

std::string Located(const Place& place)
{
    std::string text = "??";
    if (!place.function.empty())
        text = place.function;
    if (!place.file.empty()) {
        text += " at " + place.file;
        if (place.line != 0)
            text += ":" + std::to_string(place.line);
    }
    return Printable(text);
}

void Printer::PrintStep(size_t number, const Step& step)
{
    out << "  " << std::left << std::setw(5) << "#" + std::to_string(number) << std::right << std::setw(16)
        << Hex(step.address);
    const Name& name = step.name;
    if (name.module < 0) {
        out << '\n';
        return;
    }
    const std::string& path = shown.block.modules[name.module].path;
    if (name.places.empty()) {
        out << "  " << Printable(path) << "+0x" << std::hex << name.offset << std::dec << '\n';
        return;
    }
    out << "  " << Located(name.places[0]);
    if (name.places[0].file.empty())
        out << " in " << Printable(path);
    out << '\n';
    for (size_t i = 1; i < name.places.size(); i++)
        out << std::string(25, ' ') << "inlined in " << Located(name.places[i]) << '\n';
}

void Printer::PrintSteps()
{
    Section("Frames");
    const size_t first = shown.steps.size() - report.frames.size(); // where the signal found the program
    size_t number = 0;
    for (size_t i = 0; i <= shown.steps.size(); i++) {
        if (report.framesLeftOut != 0 && i == first + report.leftOutBehind) {
            out << "       " << report.framesLeftOut << " frames left out\n";
            number += report.framesLeftOut;
        }
        if (i < shown.steps.size())
            PrintStep(number++, shown.steps[i]);
    }
}

void Printer::PrintModules()
{
    Section("Modules");
    for (size_t i = 0; i < shown.block.modules.size(); i++) {
        const Module& module = shown.block.modules[i];
        const Names::Source& source = shown.sources[i];
        out << "  " << std::setw(16) << Hex(module.low) << '-' << Hex(module.high) << "  " << Printable(module.path)
            << '\n';
        if (!source.used.empty() && source.used != module.path)
            out << "      names from " << Printable(source.used) << '\n';
        if (!source.problem.empty())
            out << "      " << Marked("\033[31m", "no names: " + Printable(source.problem)) << '\n';
    }
}

void Printer::PrintStack()
{
    Section("Stack");
    out << "  " << Printable(report.stackHeading) << '\n';
    for (const std::string& row : report.stackRows)
        out << "  " << Printable(row) << '\n';
}

void Printer::PrintObjects()
{
    Section("Objects");
    for (const std::string& line : report.objectLines)
        out << "  " << Printable(line) << '\n';
    for (const Object& object : report.objects) {
        out << "\n  " << Marked("\033[1m", "object " + std::to_string(object.tag));
        if (!object.isWhole)
            out << Marked("\033[31m", " (not whole)");
        out << '\n' << Indented(object.text);
    }
}

void Printer::PrintAll()
{
    PrintHead();
    if (!report.registers.empty())
        PrintRegisters();
    if (!shown.steps.empty() || report.framesLeftOut != 0)
        PrintSteps();
    if (!shown.block.modules.empty())
        PrintModules();
    if (!report.stackHeading.empty())
        PrintStack();
    if (report.hasObjects)
        PrintObjects();
    for (const std::string& remark : report.remarks)
        out << "\n  " << Printable(remark) << '\n';
}

} // namespace

void Print(const Case& shown, bool inColour, std::ostream& out) { Printer(shown, inColour, out).PrintAll(); }

} // namespace orvcrash
