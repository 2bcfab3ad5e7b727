// SPDX-License-Identifier: BSD-2-Clause
// What orvstat says of the servers of a host.
#ifndef TOOLS_ORVSTAT_REPORT_H
#define TOOLS_ORVSTAT_REPORT_H

#include <cstdint>
#include <ostream>
#include <string>

#include "exitcodes.h"
#include "servers.h"

namespace orvstat {

enum class Form { Text, ColouredText, Json };

/// Writes the table of the servers and, in text, a line for each thing that an operator may want to mend.
void Report(const Host& host, Form form, int64_t now, std::ostream& out);

/// What a server's state asks for: Wrong when a named one is stale or has lost its set, else NoRights when the state of
/// one could not be told.
ExitCode ExitCodeOf(const Host& host);

/// Why a server is not simply up, without its name; empty when it is.
std::string RemarkOn(const Server& server);

/// "server 4711 is dead"; "no server is registered" when the process id is 0.
std::string DeadServer(long pid);

/// "no message", "1 message, 300 bytes", "2 messages, 600 bytes".
std::string Messages(const Queue& queue);

} // namespace orvstat

#endif
