// SPDX-License-Identifier: BSD-2-Clause
// What a centre asks the daemon of another host, through that host's gate.
#ifndef FLEET_REQUEST_H
#define FLEET_REQUEST_H

#include <string>

#include <nats/nats.h>

#include "examples/fault.h"

namespace fleet {

/// An event for the daemon, in the name of the node of the centre that asks. Reading one takes no name but one of 1 to
/// FaultNodeLimit visible characters.
struct FleetRequest {
    CString centre;
    short event = 0;
    Buffer data;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// What the daemon answered, or the gate for it: INVALID_DATA to what is no request, EVENT_REJECTED to one in the name of
/// the gate's own node or for an event that is not for centres, SERVER_GONE and its kind where no daemon answers.
struct FleetAnswer {
    short status = 0;
    Buffer data;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// An answer on its way. It goes in parts, whatever its size, since the engine's messages have a limit: each is a message
/// that tells how many follow it.
class AnswerParts {
public:
    /// Sends an answer to the subject `to`.
    static natsStatus Send(natsConnection* connection, const std::string& to, const FleetAnswer& answer);

    /// Takes a message that has come. False when it is not the next part of an answer, or makes it larger than any daemon's.
    bool Take(natsMsg* message);
    /// Whether all parts have come.
    bool IsWhole() const { return left == 0; }
    /// Reads the answer. False when it is none.
    bool Read(FleetAnswer* answer) { return Unpack(data, *answer); }

private:
    long left = -1; // parts to come; -1: none has come yet
    Buffer data;
};

/// Whether a centre may ask for it: List, Fetch, Run, Move and Clear.
bool IsForCentres(short event);

} // namespace fleet

#endif
