// SPDX-License-Identifier: BSD-2-Clause
// The main loop of a server.
#ifndef MISC_EVENTMGR_H
#define MISC_EVENTMGR_H

#include <ostream>

#include "Misc/Error.h"
#include "Misc/buffer.h"
#include "Misc/export.h"
#include "Misc/ipcq.h"
#include "Misc/unixproc.h"

/// The base of every server program. It owns the server's message queue (the in basket), takes one event at a time
/// from it, screens it, hands it to a handler of the derived class and answers the sender where an answer is due. It
/// remembers the 256 most recent events with their times and results for dumps, and the child processes that the
/// server started.
///
/// A derived class supplies the vocabulary (Event_to_Name to IsExitEvent) and HandleEvent, and calls main(). While a
/// handler runs, CurrentEvent, CurrentEventData and CurrentEventResponseRqd describe its event; when the latter is
/// set the handler itself sends the response, with InBasket().send_response(). A handler's result is an
/// ErrorReporter::ErrorType value, 0 for success.
class ZELOO_API EventManager : public ErrorReporter {
public:
    /// The side of a fork on which InitiateCoprocess returns. Misc/unixproc.h has another enumeration of these names.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
    enum coprocess_types { failP = 0, parentP = 1, childP = 2 };
#pragma GCC diagnostic pop

    /// Creates the queue named `ServerName`, or joins it when it has no other live server. When that fails the object
    /// is usable, but main() returns at once: see InBasket().Created(). `DebugStrm` receives the time stamps of the
    /// events; it may be null and must outlive the object.
    EventManager(const char* ServerName, std::ostream* DebugStrm);
    /// Ends the children as each was started to be ended, and leaves the queue.
    ~EventManager() override;

    /// The name of an event, for dumps and reports. Called with any number that a sender may have put in a message,
    /// so it has a name for unknown ones too.
    virtual const char* Event_to_Name(short event) = 0;
    /// The number of the event of that name.
    virtual short Name_to_Event(const char* name) = 0;
    /// Waits for the next event. Fills in its number, its data, whether the sender waits for a response or for an
    /// acknowledgement, and the result of the receive, which is also returned.
    virtual short GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error);
    /// Whether an event is handled at all: 1 when it is in 0..LastEventCode() and the sender gave its program and its
    /// node (neither null nor empty), else 0.
    virtual short AcceptEvent(short theEvent, const char* FromProgram, const char* FromNode);
    /// The event number that acknowledgements carry.
    virtual short StatusEventCode() = 0;
    /// The highest event number of the server.
    virtual short LastEventCode() = 0;
    /// Whether the event only asks for a sign of life; it goes to Handle_NULL_event.
    virtual short IsNullEvent(short event) = 0;
    /// Whether the event asks the server to end; it goes to Handle_EXIT_event.
    virtual short IsExitEvent(short event) = 0;
    /// Does nothing and returns 0. A server that answers such events overrides it.
    virtual short Handle_NULL_event() { return 0; }
    /// For HandleEvent to call when it does not know CurrentEvent: reports a WARNING of type UNSUPPORTED_FEATURE,
    /// answers a waiting sender with that code and returns it.
    virtual short Handle_UNSUPPORTED_event();
    /// Asked after every event while ExitPending is set: sets `exitnow` to 1 when the server may end by now. Its
    /// result becomes the result of main(), except while the file system is full. The default always agrees, with 0.
    virtual short IsPendingExitOkNow(short& exitnow);
    /// Sets `exitnow` to 1, which ends main(), and returns 0. An override that must finish something first leaves
    /// `exitnow` alone and sets ExitPending.
    virtual short Handle_EXIT_event(short& exitnow);
    /// Handles every accepted event that is neither null nor exit, and answers the sender. Returns the result code.
    virtual short HandleEvent(short event) = 0;
    /// Called after an accepted event, unless the server is ending. Does nothing.
    virtual void HandlePostEvent() {}
    /// Called before every accepted event. Does nothing.
    virtual void HandlePreEvent() {}
    /// Whether the current event is stamped on the debug stream. 1.
    virtual int logEvents() { return 1; }
    /// Non-zero in the child of InitiateCoprocess.
    virtual int isCoprocess() { return CoprocessFlag; }
    /// 1 when the file system of /var has less than 10 percent of its blocks free, or cannot be asked; else 0. The disk
    /// is looked at only on a suspicion: standard output or standard error has failed, the last error reported was
    /// ENOSPC, or the file system was full the last time. With room again the suspicions are cleared, and the recovery
    /// is reported once, as a WARNING of type FILE_SYSTEM_FULL.
    virtual int FileSystemFull();
    /// Writes the counters, the current event, the trace of the most recent events (the current one last, with the
    /// status "---") and the children.
    virtual void dumpOn(std::ostream& out) const;

    /// The server's message queue.
    IPCQServer& InBasket() { return myInBasket; }

    /// Handles events until an exit event (or a pending exit) ends the server, and returns the result of the last one;
    /// 0 at once when there is no queue. An event that is not accepted gets the result EVENT_REJECTED. While the file
    /// system is full no event is handled and the result is FILE_SYSTEM_FULL, but an exit event from this node ends
    /// the server. A sender that waits is answered with the result in both cases.
    short main();

    /// Forks. In the child, which goes on as a co-process of the server, the process ids of this object are the child's
    /// and signals act as by default, from its first moment on: it never cleans up after its parent. The child must
    /// leave through CoprocessExit and must not return to main(): the queue is the parent's.
    coprocess_types InitiateCoprocess();
    /// Ends the co-process without destructors and without flushing streams, as both are the parent's business.
    [[noreturn]] void CoprocessExit(int status);
    /// Drops the children that no longer exist. A child that has ended but was not waited for still exists.
    void Compact();

    /// Writes the name of the event and its sender, at debug level 1 and above, and starts the clock that TimeStampE
    /// reads. The clock is one for all event managers of the process.
    void TimeStampS(short const event, const char* FromProgram, const char* FromNode, std::ostream& out);
    /// Writes, at debug level 1 and above, the seconds since TimeStampS: real time, and user and system time of this
    /// process; then the time of day and the name of the event.
    void TimeStampE(short const event, std::ostream& out);
    /// Writes, at debug level 1 and above, that the event was rejected.
    void RejectEventStamp(std::ostream& out);

    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

protected:
    static const int TraceSlots = 256; ///< The events that the trace holds.

    IPCQServer myInBasket;           ///< The server's end of its queue.
    short traceEvents[TraceSlots];   ///< Their numbers; -1: the slot is unused.
    short traceStatus[TraceSlots];   ///< Their results; -1: the event is being handled, or the slot is unused.
    long traceTimes[TraceSlots];     ///< When they came, in seconds since the epoch.
    int traceNext;                   ///< The slot of the current or the next event; TraceSlots stands for slot 0.
    short CurrentEvent;              ///< The number of the event that is being handled.
    long CurrentEventTime;           ///< When it came, in seconds since the epoch.
    Buffer CurrentEventData;         ///< Its data.
    short CurrentEventResponseRqd;   ///< Whether its sender waits for a response.
    short CurrentEventError;         ///< The result of the last receive.
    long EventCount;                 ///< The events taken so far.
    short ExitPending;               ///< Set by a derived class whose exit must wait.
    short CoprocessFlag;             ///< Not 0 in the child of InitiateCoprocess.
    long myPid;                      ///< The process id of the server, or of the co-process.
    long myParentPid;                ///< The process id of its parent.
    std::ostream* LogStreamPtr;      ///< Where time stamps go; not owned, may be null.
    UnixProcessSafeArray myChildren; ///< The child processes that the server started; owned.

private:
    void BeginTrace();
    void EndTrace(short status);
    short RefuseEvent(short AckRqd, short& exitnow);
    short RejectEvent(bool logging);
    short HandleAcceptedEvent(short& exitnow);
    void dumpTraceOn(std::ostream& out) const;
};

#endif
