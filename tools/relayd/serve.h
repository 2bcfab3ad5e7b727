// SPDX-License-Identifier: BSD-2-Clause
// What relayd does for one connection.
#ifndef TOOLS_RELAYD_SERVE_H
#define TOOLS_RELAYD_SERVE_H

#include <map>
#include <string>

#include "Misc/ipctli.h"
#include "signals.h"

namespace relayd {

/// What the command line says.
struct Settings {
    std::string service = "orvd";
    std::map<short, std::string> others; // servers by object number
    int mostConnections = 256;
    int keepAliveSeconds = 120;
    bool trustsNodeNames = false;

    /// The server that gets the events for an object.
    const char* ServerOf(short object) const
    {
        const auto other = others.find(object);
        return other != others.end() ? other->second.c_str() : service.c_str();
    }
};

/// Passes the events of a connection on until it ends, its server goes, or one names a node that its peer is not.
void Serve(IPCTli& connection, const Settings& settings, const SignalsHeld& signals);

} // namespace relayd

#endif
