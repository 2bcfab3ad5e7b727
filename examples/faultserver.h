// SPDX-License-Identifier: BSD-2-Clause
// The fault daemon's server: what it does for each event.
#ifndef EXAMPLES_FAULTSERVER_H
#define EXAMPLES_FAULTSERVER_H

#include "fault.h"
#include "faultjournal.h"
#include "faultlife.h"
#include "faultmessage.h"
#include "faultstore.h"
#include "nodeserver.h"

/// Keeps the faults of many nodes in `store`, moves them through their states and runs commands for them. What it does
/// stands on standard output, a line each (see FaultMessage); its whole state in the dumps of MonitoredObject.
///
/// Another node may do what its access option says (see NodeServer): "read" lets it ask for faults and status. That changes
/// are not needed any more is for this node alone to say.
class FaultServer : public NodeServer {
public:
    /// `commandSeconds` is the time limit of the commands that a client waits for. `journal` has the changes of `store`; it
    /// may be null. Both must outlive the server.
    FaultServer(FaultStore& store, long commandSeconds, const char* remoteAccess, FaultJournal* journal = nullptr);

    const char* Event_to_Name(short event) override { return FaultEventName(event); }
    short Name_to_Event(const char* name) override { return FaultEventNumber(name); }
    short StatusEventCode() override { return StatusEvent; }
    short LastEventCode() override { return FaultEvents - 1; }
    short IsNullEvent(short event) override { return event == NoEvent; }
    short IsExitEvent(short event) override { return event == ExitEvent; }
    short GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error) override;
    short AcceptEvent(short event, const char* program, const char* node) override;
    short Handle_EXIT_event(short& exitnow) override;
    short HandleEvent(short event) override;
    int FileSystemFull() override;                 // never while that could make room
    void dumpOn(std::ostream& out) const override; // what `faultctl status`, SIGUSR1 and a crash show

private:
    short Raise();
    short List(Buffer& answer);
    short Fetch(Buffer& answer);
    short Clear();
    short Run(Buffer& answer);
    short Start();
    short Move();
    short Moves(Buffer& answer);
    short Changes(Buffer& answer);
    short ChangesAreDone();
    short FindFault(const FaultRecord*& fault);
    short FindFault(const FaultId& id, const FaultRecord*& fault);
    short FindForCommand(FaultCommand& request, const FaultRecord*& fault);
    void Tell(const char* happened, const FaultSummary& fault);

    FaultStore& store;
    FaultJournal* const journal; // of the store, or null
    FaultLife life;
    FaultMessage message;
    const long commandSeconds;
};

#endif
