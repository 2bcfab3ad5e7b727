// SPDX-License-Identifier: BSD-2-Clause
// What faultd and faultctl agree on: the events, and the objects that travel as their data.
#ifndef EXAMPLES_FAULT_H
#define EXAMPLES_FAULT_H

#include <cerrno>
#include <vector>

#include "Misc/FaultId.h"
#include "Misc/Option.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"

const char FaultServerName[] = "orvd";
const char FaultKeyFile[] = "/opt/orv/bin/orvd"; // names the queue of the server
const char FaultVersion[] = "1.0";
const char FirstFaultState[] = "new"; // of a fault that was raised

/// The events of faultd, with the object that each takes as its data and the one that answers it.
enum FaultEvent : short {
    NoEvent,     // nothing                    nothing; a sign of life
    StatusEvent, // nothing                    the state of the server, a plain text
    RaiseEvent,  // FaultRecord                nothing; a fault that is there already is replaced
    ListEvent,   // nothing                    FaultList
    FetchEvent,  // FaultId                    FaultRecord
    ClearEvent,  // FaultId                    nothing
    RunEvent,    // FaultCommand               CommandResult
    StartEvent,  // FaultCommand               nothing; the command runs when its turn comes
    MoveEvent,   // FaultMove                  nothing
    MovesEvent,  // FaultId                    a plain text: abbreviation "|" title "|" of each state to move to
    ExitEvent,   // nothing                    nothing; the server ends
    // Those of a journal, which a server without one does not support:
    ChangesEvent,     // ChangesRequest        FaultChangeList
    ChangesDoneEvent, // ChangesDone           nothing; from the server's own host only
    FaultEvents       // their number
};

/// The name of an event; "(unknown)" for a number that is none.
const char* FaultEventName(short event);
/// The event of that name; -1 when there is none.
short FaultEventNumber(const char* name);

const unsigned FaultNodeLimit = 79;    // characters of a node name or of the name of an option
const unsigned FaultTextLimit = 4000;  // characters of a text, a command or the value of an option
const unsigned FaultOptionLimit = 100; // options of a fault

/// Whether `id` can be the name of a fault: a node name of 1 to FaultNodeLimit visible characters other than / and :,
/// a number from 0 to 2147483647, and the text that belongs to them.
bool IsFaultId(const FaultId& id);

/// A fault as it is listed; `hdr.myId` names it.
class FaultSummary : public Fault {
public:
    long raised = 0; // seconds since the epoch
    CString state;   // the abbreviation; see FaultLife
    CString text;
    OptionSafeArray options;
    int attached = 0; // bytes of the attachment

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct FaultRecord {
    FaultSummary summary;
    Buffer attachment; // of summary.attached bytes

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct FaultList {
    std::vector<FaultSummary> faults;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// A shell command for a fault.
struct FaultCommand {
    FaultId id;
    CString command;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// A state that a fault is to move to, by its abbreviation.
struct FaultMove {
    FaultId id;
    CString state;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// A change of the faults, as a journal keeps it.
struct FaultChange {
    enum Kind : int {
        Began,   // what was said before of the faults here is void; a Raised for each that is there follows
        Raised,  // `fault` is there, whole, in its state, in the place of the one of its id
        Moved,   // the fault of that id is in that state: no more of `fault` counts
        Cleared, // the fault of that id is gone: no more of `fault` counts
        Kinds    // their number
    };
    long number = 0; // from 1 on
    long time = 0;   // when it happened, in seconds since the epoch
    Kind kind = Began;
    FaultRecord fault; // which Began has none of

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// The changes that are wanted: the first `most` of those with numbers beyond `since`.
struct ChangesRequest {
    long since = 0;
    int most = 1;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// Changes in the order of their numbers.
struct FaultChangeList {
    CString journal; // the name of the journal that numbered them, which no other one has, of any host or time
    long last = 0;   // the number of its newest change
    std::vector<FaultChange> changes;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// The changes up to that number, that one included, are not needed any more.
struct ChangesDone {
    long number = 0;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

struct CommandResult {
    int exitStatus = 0; // -1 when the command was killed for its time
    Buffer output;

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

/// Appends `object` to `data`.
template <class Object>
void Pack(const Object& object, Buffer& data)
{
    ZELostream out(data); // its end flushes it
    object.printOn(out);
}

/// Reads `object` from `data`, which came from another process. False when that is not exactly one whole object, and, with
/// ENOMEM in `errno`, when there is no memory for all of it: without memory a text is empty.
template <class Object>
bool Unpack(Buffer& data, Object& object)
{
    errno = 0;
    ZEListream in(data);
    object.scanFrom(in);
    return errno != ENOMEM && in.good() && in.tellg() == data.Size();
}

#endif
