// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/eventmgr.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/statvfs.h>
#include <sys/times.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/Error/report.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/proginfo.h"
#include "svr4/process.h"

using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: eventmgr.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const short Unset = -1; // in the trace: no event in the slot, or no result yet

static const char WatchedFileSystem[] = "/var";
static const int LeastPercentFree = 10;

// The name of an event. It is a service of the derived class that changes nothing, though it is not declared const.
static const char* NameOf(const EventManager& manager, short event)
{
    return TextOrEmpty(const_cast<EventManager&>(manager).Event_to_Name(event));
}

EventManager::EventManager(const char* ServerName, std::ostream* DebugStrm)
    : myInBasket(ServerName), traceNext(0), CurrentEvent(0), CurrentEventTime(0), CurrentEventResponseRqd(0),
      CurrentEventError(0), EventCount(0), ExitPending(0), CoprocessFlag(0), myPid(getpid()), myParentPid(getppid()),
      LogStreamPtr(DebugStrm)
{
    std::fill_n(traceEvents, TraceSlots, Unset);
    std::fill_n(traceStatus, TraceSlots, Unset);
    std::fill_n(traceTimes, TraceSlots, 0L);
}

EventManager::~EventManager() = default;

short EventManager::GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error)
{
    error = InBasket().receive_event(event, data, responseRqd, AckRqd);
    return error;
}

short EventManager::AcceptEvent(short theEvent, const char* FromProgram, const char* FromNode)
{
    const bool known = theEvent >= 0 && theEvent <= LastEventCode();
    return known && *TextOrEmpty(FromProgram) != '\0' && *TextOrEmpty(FromNode) != '\0';
}

short EventManager::Handle_UNSUPPORTED_event()
{
    const char* name = NameOf(*this, CurrentEvent);
    zeloo::Report(*this, WARNING, UNSUPPORTED_FEATURE, errno, ZELOO_HERE, "Unsupported Event: number=%d, name=%s",
                  CurrentEvent, name);
    if (CurrentEventResponseRqd)
        InBasket().send_response(0, UNSUPPORTED_FEATURE, nullptr, 0);
    return UNSUPPORTED_FEATURE;
}

short EventManager::IsPendingExitOkNow(short& exitnow)
{
    exitnow = 1;
    return 0;
}

short EventManager::Handle_EXIT_event(short& exitnow)
{
    exitnow = 1;
    return 0;
}

// Whether the watched file system has too few free blocks.
static int DiskIsFull(int oldFileFull, long timeFileFull)
{
    struct statvfs disk;
    if (statvfs(WatchedFileSystem, &disk) != 0) {
        std::cout << Dates::GetDateTime() << " can't statvfs " << WatchedFileSystem << std::endl;
        return 1;
    }
    // The share is rounded to single precision, so one that is a hair below a whole percentage counts as that
    // percentage; this is intended. A file system without blocks has no room.
    float share = 0;
    if (disk.f_blocks != 0)
        share = static_cast<float>(static_cast<double>(disk.f_bfree) / static_cast<double>(disk.f_blocks));
    const int available = static_cast<int>(100.0 * share);
    if (MonitoredObject::debug() >= 5) {
        std::cout << "f_bfree = " << disk.f_bfree << ". "
                  << "f_blocks = " << disk.f_blocks << ". "
                  << "available = " << available << "%. " << std::endl;
        std::cout << "OldFileFull = " << oldFileFull << ". "
                  << "TimeFileFull = " << Dates::GetDateTime(timeFileFull) << std::endl;
    }
    return available < LeastPercentFree;
}

int EventManager::FileSystemFull()
{
    static int wasFull = 0;    // the previous result
    static long fullSince = 0; // when fullness was first seen

    if (std::cerr.good() && std::cout.good() && GetErrorCode() != ENOSPC && wasFull != 1)
        return 0;
    const int full = DiskIsFull(wasFull, fullSince);
    if (!full) {
        std::cout.clear();
        std::cerr.clear();
        ClearError();
    }
    if (wasFull == 1 && !full) {
        const char* since = Dates::GetDateTime(fullSince);
        zeloo::Report(*this, WARNING, FILE_SYSTEM_FULL, errno, ZELOO_HERE,
                      "File system full detected at %s, but its ok now.", since);
    }
    if (wasFull == 0 && full)
        fullSince = Dates::CurrentTime();
    wasFull = full;
    return full;
}

void EventManager::dumpOn(std::ostream& out) const
{
    out << "Dumping EventManager data structures:" << std::endl;
    out << "EventCount: " << EventCount << std::endl;
    out << "CurrentEvent: " << NameOf(*this, CurrentEvent) << " (" << CurrentEvent << ")" << std::endl;
    out << "EventTime: " << Dates::GetDateTime(CurrentEventTime) << std::endl;
    dumpTraceOn(out);
    out << "EventManager child process information:\n";
    myChildren.print(out);
    for (UnixProcessSafeArrayIter child(myChildren); child() != nullptr; ++child)
        child()->dumpOn(out);
}

void EventManager::dumpTraceOn(std::ostream& out) const
{
    out << "\nTrace of the most recent events:\n";
    out << "--- Time Stamp --  Status Event\n";
    for (int i = 1; i <= TraceSlots; i++) {
        const int slot = (traceNext + i) % TraceSlots;
        if (traceEvents[slot] == Unset)
            continue;
        char status[8] = "---";
        if (traceStatus[slot] != Unset)
            std::snprintf(status, sizeof status, "%.3d", traceStatus[slot]);
        out << Dates::GetDateTime(traceTimes[slot]) << "  " << status << "    " << NameOf(*this, traceEvents[slot])
            << std::endl;
    }
    out << "End of trace of most recent events.\n\n";
}

short EventManager::main()
{
    short status = 0;
    short exitnow = InBasket().Created() ? 0 : 1;
    while (!exitnow) {
        short ackRqd = 0;
        GetNextEvent(CurrentEvent, CurrentEventData, CurrentEventResponseRqd, ackRqd, CurrentEventError);
        BeginTrace();
        if (FileSystemFull()) {
            status = RefuseEvent(ackRqd, exitnow);
            EndTrace(status);
            if (ExitPending)
                IsPendingExitOkNow(exitnow);
            continue;
        }
        const bool logging = logEvents() && LogStreamPtr != nullptr;
        if (logging)
            TimeStampS(CurrentEvent, InBasket().LastSendersProgramName(), InBasket().LastSendersNodeName(),
                       *LogStreamPtr);
        const bool accepted =
            AcceptEvent(CurrentEvent, InBasket().LastSendersProgramName(), InBasket().LastSendersNodeName());
        status = accepted ? HandleAcceptedEvent(exitnow) : RejectEvent(logging);
        EndTrace(status);
        if (ackRqd == 1)
            InBasket().send_response(StatusEventCode(), status, nullptr, 0);
        if (logging)
            TimeStampE(CurrentEvent, *LogStreamPtr);
        if (!exitnow && accepted)
            HandlePostEvent();
        if (!exitnow && ExitPending)
            status = IsPendingExitOkNow(exitnow);
    }
    return status;
}

void EventManager::BeginTrace()
{
    CurrentEventTime = Dates::CurrentTime();
    EventCount++;
    if (traceNext >= TraceSlots)
        traceNext = 0;
    traceEvents[traceNext] = CurrentEvent;
    traceTimes[traceNext] = CurrentEventTime;
    traceStatus[traceNext] = Unset;
}

void EventManager::EndTrace(short status)
{
    traceStatus[traceNext] = status;
    traceNext++;
}

// Answers the current event while the file system is full.
short EventManager::RefuseEvent(short AckRqd, short& exitnow)
{
    short status = FILE_SYSTEM_FULL;
    if (IsExitEvent(CurrentEvent) &&
        std::strcmp(InBasket().LastSendersNodeName(), TextOrEmpty(ProgInfo::GetNodeName())) == 0) {
        exitnow = 1;
        status = 0;
    }
    // A sender that asked for both gets both.
    if (AckRqd)
        InBasket().send_response(0, status, nullptr, 0);
    if (CurrentEventResponseRqd)
        InBasket().send_response(0, status, nullptr, 0);
    return status;
}

short EventManager::RejectEvent(bool logging)
{
    if (logging)
        RejectEventStamp(*LogStreamPtr);
    if (CurrentEventResponseRqd)
        InBasket().send_response(0, EVENT_REJECTED, nullptr, 0);
    return EVENT_REJECTED;
}

short EventManager::HandleAcceptedEvent(short& exitnow)
{
    HandlePreEvent();
    if (IsNullEvent(CurrentEvent))
        return Handle_NULL_event();
    if (IsExitEvent(CurrentEvent))
        return Handle_EXIT_event(exitnow);
    return HandleEvent(CurrentEvent);
}

EventManager::coprocess_types EventManager::InitiateCoprocess()
{
    const int pid = svr4::fork_held(MonitoredObject::UnMonitor);
    if (pid < 0)
        return failP;
    if (pid > 0)
        return parentP;
    CoprocessFlag = 1;
    myParentPid = myPid;
    myPid = getpid();
    return childP;
}

void EventManager::CoprocessExit(int status) { _exit(status); }

void EventManager::Compact()
{
    if (MonitoredObject::debug() >= 2)
        std::cout << "EventManager::Compact()" << std::endl;
    for (unsigned i = 0; i < myChildren.Quantity();) {
        if (myChildren[static_cast<int>(i)]->exists())
            i++;
        else
            myChildren.RemoveAt(i);
    }
    myChildren.ShrinkToFit();
}

// The start mark of the event that is being timed.
static clock_t StartClock = 0;
static struct tms StartTimes;

void EventManager::TimeStampS(short const event, const char* FromProgram, const char* FromNode, std::ostream& out)
{
    if (MonitoredObject::debug() < 1)
        return;
    out << "----\nEventBeg: " << NameOf(*this, event) << "\nFrom: [" << TextOrEmpty(FromProgram) << "] ("
        << TextOrEmpty(FromNode) << ")" << std::endl;
    StartClock = times(&StartTimes);
}

// The seconds between two marks of a clock, which may have begun anew behind its largest number meanwhile.
static double SecondsBetween(clock_t from, clock_t to)
{
    static const double rate = static_cast<double>(sysconf(_SC_CLK_TCK));
    return static_cast<double>(static_cast<unsigned long>(to) - static_cast<unsigned long>(from)) / rate;
}

void EventManager::TimeStampE(short const event, std::ostream& out)
{
    if (MonitoredObject::debug() < 1)
        return;
    struct tms now;
    const clock_t clock = times(&now);
    out << "EventEnd: "
        << "Real=" << SecondsBetween(StartClock, clock) << ", "
        << "User=" << SecondsBetween(StartTimes.tms_utime, now.tms_utime) << ", "
        << "Sys=" << SecondsBetween(StartTimes.tms_stime, now.tms_stime) << ". " << Dates::GetDateTime() << " "
        << NameOf(*this, event) << std::endl;
}

void EventManager::RejectEventStamp(std::ostream& out)
{
    if (MonitoredObject::debug() >= 1)
        out << "Event REJECTED..." << std::endl;
}
