// SPDX-License-Identifier: BSD-2-Clause
// A report together with what the map and the files of its modules say, ready to be shown.
#ifndef TOOLS_ORVCRASH_CASE_H
#define TOOLS_ORVCRASH_CASE_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "modules.h"
#include "names.h"
#include "reports.h"

namespace orvcrash {

/// A step of the call trace. The first one is where the signal found the program, the others where it would return to.
struct Step {
    uint64_t address;
    std::optional<uint64_t> frame; // its address
    Name name;
};

/// What is known of one report.
struct Case {
    size_t number = 0, count = 0; // from 1 on, of so many
    Report report;
    ModuleBlock block;
    std::string mapProblem;             // why there are no modules
    std::vector<Names::Source> sources; // of the modules
    std::vector<Step> steps;
};

/// The name of a signal ("SIGSEGV"), or its number, and what it means.
std::string SignalName(long signal);
std::string SignalText(long signal);

/// Completes the case whose report and block have been read: finds the names.
void FindNames(Case& whole, const std::string& root);

/// Shows it as text, section by section.
void Print(const Case& shown, bool inColour, std::ostream& out);

/// Shows all as one JSON object. `map` is the path of the map, or empty.
void PrintJson(const std::string& file, const std::string& map, size_t count, const std::vector<Case>& cases,
               std::ostream& out);

} // namespace orvcrash

#endif
