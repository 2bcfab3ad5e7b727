// SPDX-License-Identifier: BSD-2-Clause
#include "reports.h"

#include "text.h"

namespace orvcrash {

bool Report::Register(std::string_view label, uint64_t* value) const
{
    for (const auto& r : registers)
        if (r.first == label) {
            *value = r.second;
            return true;
        }
    return false;
}

namespace {

/// Reads a report line by line. What fits nowhere is kept as damage, and the reading goes on.
class Reader {
public:
    void Take(std::string_view line)
    {
        number++;
        if (part == Objects)
            TakeOfObjects(line);
        else if (!line.empty() && !TakeKnown(line))
            Strange(line);
    }
    Report Finish();

private:
    enum Part { Beginning, Registers, Frames, Stack, Objects };

    bool TakeKnown(std::string_view line);
    bool TakeRegister(std::string_view line);
    bool TakeFrame(std::string_view line);
    bool TakeRow(std::string_view line);
    bool TakeRemark(std::string_view line);
    void TakeOfObjects(std::string_view line);
    void EndObject(bool isWhole);
    void Strange(std::string_view line);

    Report report;
    Part part = Beginning;
    size_t number = 0; // of the line
    size_t strange = 0;
    bool inDump = false;   // the line before the registers was there
    bool isCut = false;    // the capture has left something out
    bool isOpen = false;   // the last object has no end yet
    bool isClosed = false; // the last line of all objects was there
};

// Lines that are not as they should be, of which a damaged file may have as many as it likes.
void Reader::Strange(std::string_view line)
{
    constexpr size_t MostShown = 20;
    constexpr size_t MostOfLine = 200;
    if (++strange <= MostShown)
        report.damage.push_back("line " + std::to_string(number) + " is not understood: " +
                                std::string(line.substr(0, MostOfLine)) + (line.size() > MostOfLine ? "..." : ""));
}

bool Reader::TakeRegister(std::string_view line)
{
    std::string_view label;
    uint64_t value;
    if (!TakePrefix(line, "u_ar0[") || !TakeUntil(line, "]=", &label) || !ReadHex(line, &value))
        return false;
    report.registers.emplace_back(label, value);
    part = Registers;
    return true;
}

bool Reader::TakeFrame(std::string_view line)
{
    std::string_view address;
    Frame frame;
    long number;
    if (TakePrefix(line, "\t ")) {
        if (!TakeUntil(line, " frame(s) left out", &address) || !ReadDecimal(address, &number) || number <= 0)
            return false;
        report.framesLeftOut = static_cast<size_t>(number);
        report.leftOutBehind = report.frames.size();
        return true;
    }
    if (!TakePrefix(line, "bp=") || !TakeUntil(line, "\tip=", &address) || !ReadHex(address, &frame.address) ||
        !ReadHex(line, &frame.returnAddress))
        return false;
    report.frames.push_back(frame);
    return true;
}

bool Reader::TakeRow(std::string_view line)
{
    const std::string_view whole = line;
    std::string_view address;
    uint64_t value;
    if (!TakePrefix(line, "\t dup ") && (!TakeUntil(line, ": ", &address) || !ReadHex(address, &value)))
        return false;
    report.stackRows.emplace_back(whole);
    return true;
}

bool Reader::TakeRemark(std::string_view line)
{
    if (line.substr(0, 25) != "*** The rest is left out:")
        return false;
    report.remarks.emplace_back(line);
    isCut = true;
    return true;
}

bool Reader::TakeKnown(std::string_view line)
{
    if (number == 1 && ReadHeading(line, &report.heading))
        return report.hasHeading = true;
    if (line == "......initiating dump...")
        return inDump = true;
    if (line == "Dynamic link:\tReturn Address:") {
        part = Frames;
        return report.hasFrames = true;
    }
    if (line.substr(0, 9) == "Stack: 0x" && report.stackHeading.empty()) {
        part = Stack;
        report.stackHeading = line;
        return true;
    }
    if (line == "Monitored Objects: ") {
        part = Objects;
        return report.hasObjects = true;
    }
    if (TakeRegister(line) || (part == Frames && TakeFrame(line)) || (part == Stack && TakeRow(line)) ||
        TakeRemark(line))
        return true;
    if (part == Beginning && report.hasHeading && !inDump) { // an argument with a line end in it
        report.heading.command += '\n';
        report.heading.command += line;
        return true;
    }
    return false;
}

void Reader::EndObject(bool isWhole)
{
    isOpen = false;
    Object& object = report.objects.back();
    object.isWhole = isWhole;
    if (!object.text.empty()) // the line end before the line that ends it
        object.text.pop_back();
}

void Reader::TakeOfObjects(std::string_view line)
{
    std::string_view rest = line;
    long tag;
    if (TakePrefix(rest, "*** Begin dump of object tag: ") && ReadDecimal(rest, &tag) &&
        (!isOpen || tag > report.objects.back().tag)) {
        if (isOpen)
            EndObject(false);
        report.objects.push_back({tag, "", false});
        isOpen = true;
    } else if (isOpen && TakePrefix(rest = line, "*** End dump of object tag:   ") && ReadDecimal(rest, &tag) &&
               tag == report.objects.back().tag) {
        EndObject(true);
    } else if (TakeRemark(line)) {
        if (isOpen)
            EndObject(false);
    } else if (isOpen) {
        report.objects.back().text.append(line).append("\n");
    } else if (line == "*** End Dump of all Monitored Objects ***") {
        isClosed = true;
    } else if (!line.empty() && line != "*** Dump of all Monitored Objects ***") {
        isClosed |= line == "No objects currently being monitored...";
        report.objectLines.emplace_back(line);
    }
}

// Says what is not there. After a remark of the capture that is no damage.
Report Reader::Finish()
{
    std::string& command = report.heading.command;
    if (!command.empty() && command.back() == ' ') // one stands behind each argument
        command.pop_back();
    if (strange > report.damage.size())
        report.damage.push_back(std::to_string(strange - report.damage.size()) + " more lines are not understood");
    const auto missing = [&](bool is, const char* what) {
        if (is)
            report.damage.emplace_back(what);
    };
    missing(!report.hasHeading, "the first line is missing: date, signal and command are not known");
    missing(report.registers.empty(), "the registers are missing");
    missing(!report.hasFrames && !isCut, "the frames are missing");
    missing(report.stackHeading.empty() && !isCut, "the stack is missing");
    missing(!report.hasObjects && !isCut, "the objects are missing: the report ends before them");
    if (isOpen) {
        EndObject(false);
        if (!isCut)
            report.damage.push_back("the report ends within the object of tag " +
                                    std::to_string(report.objects.back().tag));
    } else if (report.hasObjects && !isClosed && !isCut) {
        report.damage.emplace_back("the report ends among the objects");
    }
    return std::move(report);
}

} // namespace

Report ReadReport(std::string_view text)
{
    Reader reader;
    ForEachLine(text, [&](std::string_view line) { reader.Take(line); });
    return reader.Finish();
}

} // namespace orvcrash
