// SPDX-License-Identifier: BSD-2-Clause
// Programs of the host that are asked.
#ifndef TOOLS_ORVCRASH_COMMAND_H
#define TOOLS_ORVCRASH_COMMAND_H

#include <string>
#include <vector>

namespace orvcrash {

/// Whether a program of this name is on the PATH.
bool HasProgram(const char* name);

/// Runs a program of the PATH without input and without its complaints, and puts what it writes to standard output into
/// `output`. False when it cannot be run, fails, takes longer than a minute, writes more than 256 MB or goes on behind
/// its output; it is killed then. The ends of children must not be ignored (SIGCHLD).
bool Run(const std::vector<std::string>& arguments, std::string* output);

} // namespace orvcrash

#endif
