// SPDX-License-Identifier: BSD-2-Clause
// The server of a centre: what it does for each event.
#ifndef FLEET_CENTRESERVER_H
#define FLEET_CENTRESERVER_H

#include <sys/types.h>

#include "Misc/eventmgr.h"
#include "Misc/mobject.h"

#include "asker.h"
#include "examples/faultcentre.h"
#include "fleetview.h"

namespace fleet {

/// Shows the faults of all hosts, and passes events on to their daemons. It has nothing of its own: what it shows is in the
/// engine, and the daemon of a host decides what this node may do there.
///
/// Events from this node are always accepted. What another node may do is its access option in the node list of this host:
/// with "full" or "global" everything, with "read" all that changes nothing, with any other nothing. A node that is not
/// listed has `remoteAccess` as its option.
class CentreServer : public EventManager, public MonitoredObject {
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
    short Handle_NULL_event() override;
    short Handle_EXIT_event(short& exitnow) override;
    short HandleEvent(short event) override;
    void dumpOn(std::ostream& out) const override;

    /// Whether the applier is still there.
    bool HasApplier() const { return hasApplier; }

private:
    short Status(Buffer& answer);
    short List(Buffer& answer);
    short Watch(Buffer& answer);
    short Request(Buffer& answer);
    short GiveAnswer(Buffer& answer);
    bool IsAllowed(const char* node, bool onlyAsks);
    void Answer(short status, const Buffer& data);

    FleetView& view;
    Asker& asker;
    const CString remoteAccess;
    const pid_t applier;
    bool hasApplier = true;
};

} // namespace fleet

#endif
