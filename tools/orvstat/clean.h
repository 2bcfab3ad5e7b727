// SPDX-License-Identifier: BSD-2-Clause
// Removes what a dead server left.
#ifndef TOOLS_ORVSTAT_CLEAN_H
#define TOOLS_ORVSTAT_CLEAN_H

#include <ostream>
#include <string>

#include "exitcodes.h"

namespace orvstat {

/// What was done, and why no more.
struct Cleaning {
    ExitCode code = Fine;
    int removedQueue = -1; // -1: none
    int removedSet = -1;
    std::string text; // without the server's name
};

/// Removes queue and semaphore set of a server name if its server is dead, and nothing otherwise: not while a server
/// lives, starts or ends, nor a queue of which nothing tells whose it is. Takes some seconds at most.
Cleaning Clean(const std::string& name);

/// Write the result, as a line or as a JSON object.
void WriteText(const std::string& name, const Cleaning& cleaning, std::ostream& out);
void WriteJson(const std::string& name, const Cleaning& cleaning, std::ostream& out);

} // namespace orvstat

#endif
