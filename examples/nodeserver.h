// SPDX-License-Identifier: BSD-2-Clause
// What the servers that run on a host have in common: answers, and who may ask.
#ifndef EXAMPLES_NODESERVER_H
#define EXAMPLES_NODESERVER_H

#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/eventmgr.h"
#include "Misc/mobject.h"

/// Whether `text` is an access option.
bool IsAccessOption(const char* text);

/// A server with a state dump, that answers nothing and exit events, and looks at who sends an event.
///
/// Events from this node are always accepted. What another node may do is its access option in the node list
/// /var/orv/data/orvnodes.dat: with "full" or "global" everything, with "read" what changes nothing, with any other
/// nothing. A node that is not listed is reported and logged once, and has `remoteAccess` as its option; with "global"
/// there every node may do everything, and the list is not looked at.
class NodeServer : public EventManager, public MonitoredObject {
public:
    NodeServer(const char* name, const char* remoteAccess);

    short Handle_NULL_event() override;
    short Handle_EXIT_event(short& exitnow) override;
    void dumpOn(std::ostream& out) const override;

protected:
    static const short TickEvent = -1; // the time-out of a receive; no client's event

    /// Whether a node may send an event that only asks, or any.
    bool IsAllowed(const char* node, bool onlyAsks) const;
    /// Answers the sender of the current event when it waits. The answer carries the event's own number.
    void Answer(short status, const Buffer& data);
    /// Appends the state dump to `answer`.
    short Status(Buffer& answer) const;

private:
    const CString remoteAccess;
};

#endif
