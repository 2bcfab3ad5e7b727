// SPDX-License-Identifier: BSD-2-Clause
// The module map beside a crash file.
#ifndef TOOLS_ORVCRASH_MODULES_H
#define TOOLS_ORVCRASH_MODULES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "reports.h"

namespace orvcrash {

struct Module {
    uint64_t low, high, bias;
    std::string buildId; // hexadecimal; empty when the file has none
    std::string path;
};

/// What the map says of one report.
struct ModuleBlock {
    long pid = 0; // 0 when it is not known
    std::vector<Module> modules;
    std::vector<std::string> damage;
};

ModuleBlock ReadModules(std::string_view text);

/// The name of the map of a crash file that has not been given: FILE.map for FILE.sig, FILE.map.old for FILE.sig.old.
/// Empty for other names.
std::string MapOf(const std::string& crashFile);

/// The number of the block of the map that belongs to report `number`, or -1: reports and blocks of the same first line
/// belong together from the last ones on, as the oldest ones may be lacking.
long BlockOf(const ReportFile& reports, size_t number, const ReportFile& map);

} // namespace orvcrash

#endif
