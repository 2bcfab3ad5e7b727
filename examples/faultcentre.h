// SPDX-License-Identifier: BSD-2-Clause
// What the server of a centre, which has the faults of many hosts, and its clients agree on.
#ifndef EXAMPLES_FAULTCENTRE_H
#define EXAMPLES_FAULTCENTRE_H

#include <vector>

#include "fault.h"

const char CentreServerName[] = "orvcentre";
const char CentreKeyFile[] = "/opt/orv/bin/orvcentre"; // names the queue of the server

/// The events of a centre, with the object that each takes as its data and the one that answers it.
enum CentreEvent : short {
    CentreNoEvent,      // nothing             nothing; a sign of life
    CentreStatusEvent,  // nothing             the state of the server, a plain text
    CentreListEvent,    // CentreListRequest   CentreList
    CentreWatchEvent,   // CentreWatchRequest  CentreChanges
    CentreRequestEvent, // CentreRequest       CentreTicket, with which the answer is asked for
    CentreAnswerEvent,  // CentreTicket        CentreAnswer, once
    CentreExitEvent,    // nothing             nothing; the server ends
    CentreEvents        // their number
};

/// The name of an event; "(unknown)" for a number that is none.
const char* CentreEventName(short event);
/// The event of that name; -1 when there is none.
short CentreEventNumber(const char* name);

/// A fault of a host's daemon, and what happened to it last.
struct CentreFault {
    CString node; // the host
    FaultChange::Kind kind = FaultChange::Raised;
    long time = 0;      // when that happened, in seconds since the epoch, by the clock of the host
    FaultSummary fault; // of one that was cleared only the id

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// Asks for faults, in an order that stays the same.
struct CentreListRequest {
    CString node;  // of that host only; empty: of all
    CString after; // those behind that place, which an earlier answer told; empty: from the first on

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct CentreList {
    CString after; // the place of the last one; empty: there are no more
    std::vector<CentreFault> faults;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// Asks for what has changed since.
struct CentreWatchRequest {
    long since = -1; // what an earlier answer told; -1: nothing yet, only where the changes stand

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// The last change of each fault that was changed since, in their order.
struct CentreChanges {
    long since = 0;     // what the next request is to tell
    bool isAll = false; // there are no more
    std::vector<CentreFault> faults;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// An event for the daemon of a host: ListEvent, FetchEvent, RunEvent, MoveEvent or ClearEvent.
struct CentreRequest {
    CString node;
    short event = NoEvent;
    Buffer data;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct CentreTicket {
    long number = 0;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct CentreAnswer {
    enum Progress : int {
        Waits,    // ask again
        Answered, // by the daemon, with `status` and `data`
        NoGate,   // none of that host is there
        Silent,   // no answer came in time: what was asked for may have been done
        Lost,     // a part of the answer did not come; what was asked for has been done
        States    // their number
    };
    Progress progress = Waits;
    short status = 0;
    Buffer data;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

#endif
