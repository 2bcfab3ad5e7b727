// SPDX-License-Identifier: BSD-2-Clause
// What the processes of a storm of a fleet share: memory with what was asked of each host, what was seen of it, and the
// state of the storm.
#ifndef TESTS_SYSTEM_FLEETSTORM_SHARED_H
#define TESTS_SYSTEM_FLEETSTORM_SHARED_H

#include <atomic>
#include <cstdint>
#include <string>

#include "examples/fault.h"
#include "tests/support/monotonic.h"

namespace fleetstorm {

constexpr int MostHosts = 400;
constexpr int Centres = 2;
constexpr int Engines = 3;
constexpr uint32_t MostOps = 8192;   // of a host
constexpr uint32_t MostSeen = 16384; // of a host
constexpr int FaultsOfHost = 12;     // different ones, which come and go

/// What a program that stands on a host was asked for, one after the other. The number of an operation is its index, and
/// the text of the fault that it raises.
struct Op {
    FaultChange::Kind kind;
    int32_t fault; // its number
    int32_t state; // that it moves to, an index into States
    uint32_t attached;
    int64_t asked; // nanoseconds, as Now() gives them
    bool isDone;   // the daemon said so, or had it after it was killed; otherwise it has not happened
};

/// A change as the stream has it.
struct SeenChange {
    FaultChange::Kind kind;
    int32_t fault;
    int32_t state;
    int32_t op; // of one that is raised: what its text says; -1: none that was asked for
    uint32_t attached;
    uint32_t journal; // counts from 0
    long number;
};

/// A fault as it is shown somewhere.
struct Shown {
    int32_t op = -1; // that raised it; -1: it is not there
    int32_t state = 0;
    uint32_t attached = 0;
    bool operator==(const Shown& other) const
    {
        return op == other.op && (op < 0 || (state == other.state && attached == other.attached));
    }
};

struct HostLog {
    std::atomic<uint32_t> ops;  // those that are settled
    std::atomic<uint32_t> seen; // by the observer
    Op op[MostOps];
    SeenChange change[MostSeen];
};

/// What a centre shows, taken when everything is at rest.
struct CentreLook {
    std::atomic<uint32_t> round; // the shared one, once this is its look
    Shown fault[MostHosts][FaultsOfHost];
};

struct Shared {
    // ---- State ----
    std::atomic<bool> driversAreToEnd; // each when its daemon has answered all
    std::atomic<bool> othersAreToEnd;
    std::atomic<uint32_t> driversEnded;
    std::atomic<uint32_t> round;       // goes up when the centres are to be looked at
    std::atomic<uint32_t> pieceRound;  // the same of the attachments in the stream
    std::atomic<uint32_t> piecesKnown; // the round of which the next two tell
    std::atomic<uint32_t> piecesLost;  // attachments that are not there, or not as they were
    std::atomic<uint32_t> piecesLeft;  // messages of attachments that belong to no fault
    std::atomic<uint64_t> read;        // by the observer: the number of its last message in the stream
    std::atomic<uint32_t> looksInStep; // that found all servers of the engine there and in step, one after the other
    std::atomic<int32_t> leader;       // of the stream: the number of a server, or -1
    std::atomic<uint32_t> leaders;     // servers that lead the stream or the faults' bucket, a bit each

    // ---- Counters ----
    std::atomic<uint64_t> asked, done, unknown, refused, large;
    std::atomic<uint64_t> strange;   // what nobody asked for, or what cannot be read
    std::atomic<uint64_t> forgotten; // acknowledged changes that the daemon itself has not any more
    std::atomic<uint64_t> backwards; // changes of a fault that a centre showed before earlier ones
    std::atomic<uint64_t> shown;     // changes that the centres showed to those who watch
    std::atomic<uint64_t> withheld;  // removals that waited for the observer
    std::atomic<int64_t> slowest;    // nanoseconds from a raise to a centre
    std::atomic<uint64_t> delays[7]; // how many took up to 0.25, 0.5, 1, 2, 5, 15 seconds, or more
    std::atomic<uint32_t> notes;

    CentreLook looks[Centres];
    HostLog host[MostHosts];
};

const char* const States[] = {"new", "working", "waiting_escalation", "escalated", "solved", "closed"};
constexpr int StateCount = 6;
/// The index of a state; -1: there is none of that name.
int StateIndex(const CString& name);

/// The settings of the storm.
struct Settings {
    long seconds = 600;
    int hosts = 200;
    unsigned long seed = 1;
    double rate = 100;     // operations a second, of all hosts
    std::string directory; // of the logs, and of what the engine stores
    std::string engine;    // the URLs of its servers
    bool isCalm = false;   // nothing is killed
    bool spares = false;   // the servers of the engine that lead
};

std::string HostName(int index);
/// The index of a host of that name; -1: there is none.
int HostIndex(const std::string& name);
std::string OpText(uint32_t op);
/// The number that such a text tells; -1: none.
int32_t OpOfText(const CString& text);
/// The bytes of an attachment.
std::string Attachment(int host, uint32_t op, uint32_t size);

extern Shared* shared;
void MakeShared();
using testing_support::Now;
using testing_support::SleepMilliseconds;
/// Writes a line about a fault; the first 60 of a storm.
[[gnu::format(printf, 1, 2)]] void Note(const char* format, ...);

// What the processes run. They end when they are told by what they share.
void RunDriver(const Settings& settings, int host);
void RunObserver(const Settings& settings);
void RunDoorkeeper(const Settings& settings);
void RunLookout(const Settings& settings);
void RunWatcher(const Settings& settings, int centre);

} // namespace fleetstorm

#endif
