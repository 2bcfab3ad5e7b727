// SPDX-License-Identifier: BSD-2-Clause
// What orvstat ends with: as faultctl does, and what only an operator's tool has to tell apart.
#ifndef TOOLS_ORVSTAT_EXITCODES_H
#define TOOLS_ORVSTAT_EXITCODES_H

namespace orvstat {

enum ExitCode {
    Fine = 0,
    Wrong = 1, // something is stale, was not removed, or did not answer
    WrongUsage = 2,
    NoServer = 3,
    NoRights = 4
};

} // namespace orvstat

#endif
