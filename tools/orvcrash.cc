// SPDX-License-Identifier: BSD-2-Clause
// Shows the crash files that MonitoredObject leaves. Nothing in them, nor in the maps beside them, is believed without a
// look. Needs nothing of this library, and so runs where a file was brought to.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "orvcrash/case.h"
#include "orvcrash/modules.h"
#include "orvcrash/reports.h"
#include "orvcrash/text.h"

using namespace orvcrash;

static const char Usage[] =
    "usage: orvcrash FILE [--map FILE] [--report NUMBER|last|all] [--root DIRECTORY] [--json]\n"
    "       orvcrash --help | --version\n"
    "Shows what a crash file (/var/orv/data/PROGRAM.sig) says: signal, registers, frames with function, file and "
    "line,\n"
    "stack and objects.\n"
    "  --map FILE        where the modules were (default: PROGRAM.map beside PROGRAM.sig)\n"
    "  --report NUMBER   show this report, counted from 1; `last` (default) or `all`\n"
    "  --root DIRECTORY  look for the program and its shared objects below this directory; the debug files are those\n"
    "                    in DIRECTORY/usr/lib/debug/.build-id\n"
    "  --json            print one JSON object\n"
    "Exit codes: 0 shown, 1 nothing to show, or it could not be written, 2 wrong usage.\n";

namespace {

const long All = 0; // reports, in place of the number of one
const long Last = -1;

struct Settings {
    std::string file, map, root;
    long report = Last;
    bool isJson = false;
};

bool ReadReportOption(const std::string& text, long* report)
{
    if (text == "last")
        *report = Last;
    else if (text == "all")
        *report = All;
    else
        return ReadDecimal(text, report) && *report > 0;
    return true;
}

// Reads the arguments; false when they are wrong.
bool ReadOptions(int argc, char** argv, Settings* settings)
{
    std::string report = "last";
    for (int i = 1; i < argc; i++) {
        const std::string argument = argv[i];
        std::string* value = argument == "--map"      ? &settings->map
                             : argument == "--root"   ? &settings->root
                             : argument == "--report" ? &report
                                                      : nullptr;
        if (value != nullptr) {
            if (++i == argc || *argv[i] == '\0')
                return false;
            *value = argv[i];
        } else if (argument == "--json") {
            settings->isJson = true;
        } else if (argument[0] == '-' || argument.empty() || !settings->file.empty()) {
            return false;
        } else {
            settings->file = argument;
        }
    }
    return !settings->file.empty() && ReadReportOption(report, &settings->report);
}

int Fail(const std::string& text)
{
    std::cerr << "orvcrash: " << Printable(text) << '\n';
    return 1;
}

// Which reports are asked for: from `*from` on, below `*to`. False when there is none.
bool Choose(long report, size_t count, size_t* from, size_t* to)
{
    *to = report > 0 ? static_cast<size_t>(report) : count;
    *from = report == All ? 0 : *to - 1;
    return *to <= count;
}

// Reads report `number`, from 0 on, and what the map says of it.
Case ReadCase(const ReportFile& reports, size_t number, const ReportFile* map, const Settings& settings)
{
    Case result;
    result.number = number + 1;
    result.count = reports.Count();
    bool isCut = false;
    result.report = ReadReport(reports.Text(number, &isCut));
    if (isCut)
        result.report.damage.emplace_back("the report is very large: only its beginning has been read");
    if (map == nullptr) {
        result.mapProblem = "no map: addresses have no names";
    } else if (!map->Problem().empty()) {
        result.mapProblem = "no map: " + settings.map + ": " + map->Problem();
    } else if (const long block = BlockOf(reports, number, *map); block < 0) {
        result.mapProblem = settings.map + " has nothing about this report";
    } else {
        result.block = ReadModules(map->Text(static_cast<size_t>(block), &isCut));
    }
    FindNames(result, settings.root);
    return result;
}

bool IsInColour()
{
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

// A file without a heading may be the end of a crash file, or anything else.
bool HoldsReport(const ReportFile& reports)
{
    if (reports.Count() != 1 || !reports.HeadingLine(0).empty())
        return reports.Count() > 0;
    bool isCut;
    return !ReadReport(reports.Text(0, &isCut)).IsEmpty();
}

int Show(Settings settings)
{
    ReportFile reports(settings.file);
    if (!reports.Problem().empty())
        return Fail(settings.file + ": " + reports.Problem());
    reports.KeepBeginning();
    if (!HoldsReport(reports))
        return Fail(settings.file + ": no crash report in it");
    size_t from, to;
    if (!Choose(settings.report, reports.Count(), &from, &to))
        return Fail(settings.file + ": has " + std::to_string(reports.Count()) + " report(s)");
    if (settings.map.empty())
        settings.map = MapOf(settings.file);
    ReportFile map(settings.map);

    const bool inColour = IsInColour();
    std::vector<Case> cases;
    for (size_t i = from; i < to; i++) {
        Case one = ReadCase(reports, i, settings.map.empty() ? nullptr : &map, settings);
        if (settings.isJson) {
            cases.push_back(std::move(one));
            continue;
        }
        if (i > from)
            std::cout << "\n\n";
        Print(one, inColour, std::cout);
    }
    if (!map.Problem().empty())
        settings.map.clear();
    if (settings.isJson)
        PrintJson(settings.file, settings.map, reports.Count(), cases, std::cout);
    if (std::cout.flush())
        return 0;
    return Fail("the output could not be written");
}

} // namespace

int main(int argc, char** argv)
{
    setenv("LC_ALL", "C", 1); // for the programs whose output is read
    signal(SIGCHLD, SIG_DFL); // how they end is asked
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::cout << "orvcrash " TOOL_VERSION "\n";
        return 0;
    }
    Settings settings;
    if (!ReadOptions(argc, argv, &settings)) {
        std::cerr << Usage;
        return 2;
    }
    return Show(settings);
}
