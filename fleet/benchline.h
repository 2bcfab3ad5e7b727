// SPDX-License-Identifier: BSD-2-Clause
// The command lines of the programs that measure.
#ifndef FLEET_BENCHLINE_H
#define FLEET_BENCHLINE_H

#include <cstring>
#include <string>
#include <vector>

#include "options.h"

namespace fleet {

/// [--engine URL[,URL...]] MODE NUMBER...
struct BenchLine {
    EngineAddress engine;
    std::string mode;
    std::vector<long> numbers;

    /// Whether it is that mode, with so many numbers.
    bool Is(const char* name, std::size_t count) const { return mode == name && numbers.size() == count; }
};

/// False when it is not such a line.
inline bool ReadBenchLine(int argc, char** argv, BenchLine* line)
{
    int at = 1;
    for (; at + 1 < argc && std::strncmp(argv[at], "--", 2) == 0; at += 2)
        if (!ReadEngineOption(argv[at], argv[at + 1], &line->engine))
            return false;
    line->mode = at < argc ? argv[at] : "";
    while (++at < argc) {
        line->numbers.push_back(0);
        if (!ReadCount(argv[at], &line->numbers.back()))
            return false;
    }
    return true;
}

} // namespace fleet

#endif
