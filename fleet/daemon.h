// SPDX-License-Identifier: BSD-2-Clause
// The fault daemon of this host, as its gate asks it.
#ifndef FLEET_DAEMON_H
#define FLEET_DAEMON_H

#include <memory>
#include <string>

#include "Misc/ipcq.h"

#include "examples/fault.h"

namespace fleet {

/// A client of the server "orvd" of this host, and of no other: what a gate says of its node must come from there. It
/// joins the server's queue when it is asked something, and again after the server has been started anew.
class Daemon {
public:
    /// As `node`, or, when that is empty, as this node: the server's node list decides what it may do.
    explicit Daemon(const std::string& node = "");

    /// Sends an event and waits for its answer, which takes as long as the server does. Returns the server's status, or
    /// the code of what failed.
    short Ask(short event, const Buffer& request, Buffer& answer);

private:
    const std::string node;
    std::unique_ptr<IPCQClient> client;
};

} // namespace fleet

#endif
