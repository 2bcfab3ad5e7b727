// SPDX-License-Identifier: BSD-2-Clause
// What a centre asks the daemon of another host, through that host's gate.
#ifndef FLEET_REQUEST_H
#define FLEET_REQUEST_H

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
/// the gate's own node or for an event that is not for centres, SERVER_GONE and its kind where no daemon answers, IPC_ERROR
/// where the answer is larger than a message of the engine may be.
struct FleetAnswer {
    short status = 0;
    Buffer data;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// Whether a centre may ask for it: List, Fetch, Run, Move and Clear.
bool IsForCentres(short event);

} // namespace fleet

#endif
