// SPDX-License-Identifier: BSD-2-Clause
// Crash files and their maps, as orvcrash reads and shows them. No program is asked for names. The two are divided by a
// line with the character 30.
#include <sstream>

#include "tools/orvcrash/case.h"
#include "tools/orvcrash/modules.h"
#include "tools/orvcrash/reports.h"
#include "tools/orvcrash/text.h"

#include "fuzz/fuzzing.h"

using namespace orvcrash;

// Of JSON: whether every text in it ends, with nothing in it that may not be there.
static bool HasWholeTexts(const std::string& json)
{
    bool inText = false;
    for (std::size_t i = 0; i < json.size(); i++) {
        if (inText && static_cast<unsigned char>(json[i]) < ' ')
            return false;
        if (inText && json[i] == '\\') {
            if (++i == json.size() || std::strchr("\\\"nt", json[i]) == nullptr)
                return false;
        } else if (json[i] == '"') {
            inText = !inText;
        }
    }
    return !inText;
}

// The parts of a file follow each other to its end.
static void CheckParts(const ReportFile& file, const std::string& content)
{
    std::string parts;
    for (std::size_t i = 0; i < file.Count(); i++) {
        bool isCut = true;
        const std::string text = file.Text(i, &isCut);
        FUZZ_CHECK(!isCut && text.substr(0, file.HeadingLine(i).size()) == file.HeadingLine(i));
        parts += text;
    }
    FUZZ_CHECK(parts.size() <= content.size() && content.substr(content.size() - parts.size()) == parts);
}

static void CheckModules(const ModuleBlock& block)
{
    for (const Module& module : block.modules)
        FUZZ_CHECK(module.low < module.high && module.buildId.size() <= 128);
}

static Case CaseOf(const ReportFile& reports, std::size_t number, const ReportFile& map)
{
    bool isCut;
    Case shown = {number + 1, reports.Count(), ReadReport(reports.Text(number, &isCut)), {}, "", {}, {}};
    const long block = BlockOf(reports, number, map);
    FUZZ_CHECK(block < static_cast<long>(map.Count()));
    if (block >= 0) {
        FUZZ_CHECK(map.HeadingLine(static_cast<std::size_t>(block)) == reports.HeadingLine(number));
        shown.block = ReadModules(map.Text(static_cast<std::size_t>(block), &isCut));
    }
    CheckModules(shown.block);
    shown.sources.resize(shown.block.modules.size());
    for (const Frame& frame : shown.report.frames) {
        shown.steps.push_back({frame.returnAddress, frame.address, {}});
        shown.steps.back().name.module = shown.block.modules.empty() ? -1 : 0;
    }
    return shown;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t divided = input.find("\n\x1e\n");
    const std::string content = input.substr(0, divided);
    const std::string mapContent = divided == std::string::npos ? "" : input.substr(divided + 3);
    static const std::string name = fuzzing::Directory() + "/x.sig";
    FUZZ_CHECK(MapOf(name) == fuzzing::Directory() + "/x.map");
    fuzzing::WriteFile(name.c_str(), content);
    fuzzing::WriteFile(MapOf(name).c_str(), mapContent);

    ReportFile reports(name);
    const ReportFile map(MapOf(name));
    FUZZ_CHECK(reports.Problem().empty() && map.Problem().empty());
    CheckParts(map, mapContent);
    reports.KeepBeginning();
    CheckParts(reports, content);
    std::vector<Case> cases;
    for (std::size_t i = 0; i < reports.Count() && i < 10; i++) {
        cases.push_back(CaseOf(reports, i, map));
        std::ostringstream text;
        Print(cases.back(), false, text);
        FUZZ_CHECK(Printable(text.str()) == text.str());
    }
    std::ostringstream json;
    PrintJson(name, "", reports.Count(), cases, json);
    FUZZ_CHECK(Printable(json.str()) == json.str());
    FUZZ_CHECK(HasWholeTexts(json.str()));
    return 0;
}
