// SPDX-License-Identifier: BSD-2-Clause
#include <cstdio>

#include "case.h"
#include "text.h"

namespace orvcrash {

namespace {

std::string Quoted(const std::string& text)
{
    std::string result = "\"";
    for (const char c : Printable(text)) {
        if (c == '"' || c == '\\')
            result += '\\';
        if (c == '\n')
            result += "\\n";
        else if (c == '\t')
            result += "\\t";
        else
            result += c;
    }
    return result + "\"";
}

std::string Number(uint64_t value)
{
    char digits[24];
    snprintf(digits, sizeof digits, "\"0x%llx\"", static_cast<unsigned long long>(value));
    return digits;
}

// The members of an object or array, with their commas.
class List {
public:
    explicit List(char begin, char end_p) : text(1, begin), end(end_p) {}
    void Add(const std::string& value) { text += (text.size() > 1 ? "," : "") + value; }
    void Add(const char* name, const std::string& value) { Add("\"" + std::string(name) + "\":" + value); }
    std::string Text() const { return text + end; }

private:
    std::string text;
    char end;
};

std::string Texts(const std::vector<std::string>& texts)
{
    List list('[', ']');
    for (const std::string& text : texts)
        list.Add(Quoted(text));
    return list.Text();
}

std::string OrNull(const std::string& text)
{
    if (text.empty())
        return "null";
    return Quoted(text);
}

std::string OrNull(long number)
{
    if (number == 0)
        return "null";
    return std::to_string(number);
}

void AddPlace(const Place& place, List* list)
{
    list->Add("function", OrNull(place.function));
    list->Add("file", OrNull(place.file));
    list->Add("line", OrNull(place.line));
}

std::string StepText(const Step& step, const std::vector<Module>& modules)
{
    List list('{', '}');
    list.Add("address", Number(step.address));
    const Name& name = step.name;
    std::string frame = "null", module = "null", offset = "null";
    if (step.frame)
        frame = Number(*step.frame);
    if (name.module >= 0) {
        module = Quoted(modules[name.module].path);
        offset = Number(name.offset);
    }
    list.Add("frame", frame);
    list.Add("module", module);
    list.Add("offset", offset);
    AddPlace(name.places.empty() ? Place() : name.places[0], &list);
    List inlined('[', ']');
    for (size_t i = 1; i < name.places.size(); i++) {
        List place('{', '}');
        AddPlace(name.places[i], &place);
        inlined.Add(place.Text());
    }
    list.Add("inlined_in", inlined.Text());
    return list.Text();
}

std::string ModuleText(const Module& module, const Names::Source& source)
{
    List list('{', '}');
    list.Add("path", Quoted(module.path));
    list.Add("build_id", OrNull(module.buildId));
    list.Add("low", Number(module.low));
    list.Add("high", Number(module.high));
    list.Add("bias", Number(module.bias));
    list.Add("names_from", OrNull(source.used));
    list.Add("problem", OrNull(source.problem));
    return list.Text();
}

std::string ObjectText(const Object& object)
{
    List list('{', '}');
    list.Add("tag", std::to_string(object.tag));
    list.Add("whole", object.isWhole ? "true" : "false");
    list.Add("text", Quoted(object.text));
    return list.Text();
}

template <class Element, class Text>
std::string Elements(const std::vector<Element>& elements, const Text& text)
{
    List list('[', ']');
    for (const Element& element : elements)
        list.Add(text(element));
    return list.Text();
}

void AddHeading(const Case& shown, List* list)
{
    const Report& report = shown.report;
    list->Add("number", std::to_string(shown.number));
    if (report.hasHeading) {
        list->Add("date", Quoted(report.heading.date));
        list->Add("signal", std::to_string(report.heading.signal));
        list->Add("signal_name", Quoted(SignalName(report.heading.signal)));
        list->Add("command", Quoted(report.heading.command));
    } else {
        for (const char* name : {"date", "signal", "signal_name", "command"})
            list->Add(name, "null");
    }
    list->Add("pid", OrNull(shown.block.pid));
}

std::string CaseText(const Case& shown)
{
    const Report& report = shown.report;
    List list('{', '}');
    AddHeading(shown, &list);
    List registers('{', '}');
    for (const auto& r : report.registers)
        registers.Add(Quoted(r.first) + ":" + Number(r.second));
    list.Add("registers", registers.Text());
    list.Add("frames", Elements(shown.steps, [&](const Step& step) { return StepText(step, shown.block.modules); }));
    list.Add("frames_left_out", std::to_string(report.framesLeftOut));
    List modules('[', ']');
    for (size_t i = 0; i < shown.block.modules.size(); i++)
        modules.Add(ModuleText(shown.block.modules[i], shown.sources[i]));
    list.Add("modules", modules.Text());
    List stack('{', '}');
    stack.Add("heading", OrNull(report.stackHeading));
    stack.Add("rows", Texts(report.stackRows));
    list.Add("stack", stack.Text());
    list.Add("object_lines", Texts(report.objectLines));
    list.Add("objects", Elements(report.objects, ObjectText));
    list.Add("remarks", Texts(report.remarks));
    std::vector<std::string> damage = report.damage;
    damage.insert(damage.end(), shown.block.damage.begin(), shown.block.damage.end());
    list.Add("damage", Texts(damage));
    list.Add("map_problem", OrNull(shown.mapProblem));
    return list.Text();
}

} // namespace

void PrintJson(const std::string& file, const std::string& map, size_t count, const std::vector<Case>& cases,
               std::ostream& out)
{
    List list('{', '}');
    list.Add("file", Quoted(file));
    list.Add("map", OrNull(map));
    list.Add("count", std::to_string(count));
    list.Add("reports", Elements(cases, CaseText));
    out << list.Text() << '\n';
}

} // namespace orvcrash
