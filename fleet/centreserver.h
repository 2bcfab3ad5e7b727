// SPDX-License-Identifier: BSD-2-Clause
// The server of a centre: what it does for each event.
#ifndef FLEET_CENTRESERVER_H
#define FLEET_CENTRESERVER_H

#include <sys/types.h>

#include "asker.h"
#include "examples/faultcentre.h"
#include "examples/nodeserver.h"
#include "fleetview.h"

namespace fleet {

/// Shows the faults of all hosts, and passes events on to their daemons. It has nothing of its own: what it shows is in the
/// engine, and the daemon of a host decides what this node may do there.
///
/// Another node may do what its access option in the node list of this host says (see NodeServer): "read" lets it do all
/// that changes nothing.
class CentreServer : public NodeServer {
public:
    /// `applier` is a child of this process, without which the server ends.
    CentreServer(FleetView& view, Asker& asker, const char* remoteAccess, pid_t applier);

    const char* Event_to_Name(short event) override { return CentreEventName(event); }
    short Name_to_Event(const char* name) override { return CentreEventNumber(name); }
    short StatusEventCode() override { return CentreStatusEvent; }
    short LastEventCode() override { return CentreEvents - 1; }
    short IsNullEvent(short event) override { return event == CentreNoEvent; }
    short IsExitEvent(short event) override { return event == CentreExitEvent; }
    short GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error) override;
    short AcceptEvent(short event, const char* program, const char* node) override;
    short HandleEvent(short event) override;
    void dumpOn(std::ostream& out) const override;

    /// Whether the applier is still there.
    bool HasApplier() const { return hasApplier; }

private:
    short List(Buffer& answer);
    short Watch(Buffer& answer);
    short Request(Buffer& answer);
    short GiveAnswer(Buffer& answer);

    FleetView& view;
    Asker& asker;
    const pid_t applier;
    bool hasApplier = true;
};

} // namespace fleet

#endif
