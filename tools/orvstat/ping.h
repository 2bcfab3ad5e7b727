// SPDX-License-Identifier: BSD-2-Clause
// Asks a server for a sign of life.
#ifndef TOOLS_ORVSTAT_PING_H
#define TOOLS_ORVSTAT_PING_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "asker.h"
#include "exitcodes.h"

namespace orvstat {

/// An answer of a server.
struct Answer {
    int64_t microseconds; // since the request was about to be sent
    short event;
    short status;
    uint32_t bytes;
};

/// What came of a ping.
struct Ping {
    ExitCode code = Fine;
    std::optional<Answer> response;
    std::optional<Answer> acknowledgement;
    std::string text; // why not all came; empty when both did
};

/// Asks a server on this host, or on another through its relay, for a response and an acknowledgement, and waits less
/// than five seconds in all, whatever the server and the network do; one second when one of the two has come. Fine when
/// any answer came, whatever it says. An answer that comes too late is dropped by the server.
Ping SendPing(const Target& target);

/// Write the result, as lines or as a JSON object.
void WriteText(const Target& target, const Ping& ping, std::ostream& out);
void WriteJson(const Target& target, const Ping& ping, std::ostream& out);

} // namespace orvstat

#endif
