// SPDX-License-Identifier: BSD-2-Clause
// What a program of the fleet says of what lasts.
#ifndef FLEET_COMPLAINTS_H
#define FLEET_COMPLAINTS_H

#include <iostream>
#include <string>

namespace fleet {

/// Says on standard error what does not work, once for as long as it is the same, and that it works again.
class Complaints {
public:
    /// `program` stands before each line.
    explicit Complaints(const char* program) : program(program) {}

    /// An empty text: it works.
    void Note(const std::string& problem)
    {
        if (problem != current)
            std::cerr << program << ": " << (problem.empty() ? "goes on" : problem) << std::endl;
        current = problem;
    }

private:
    const char* program;
    std::string current;
};

} // namespace fleet

#endif
