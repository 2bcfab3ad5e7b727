// SPDX-License-Identifier: BSD-2-Clause
// What the processes of a storm share: one page of memory with the state of the storm and the counters of all.
#ifndef TESTS_SYSTEM_STORM_SHARED_H
#define TESTS_SYSTEM_STORM_SHARED_H

#include <atomic>
#include <cstdint>

#include "tests/support/monotonic.h"

namespace storm {

constexpr int MostClients = 64;

const char ServerName[] = "storm";
const char FarHost[] = "far"; // another address of this host, so that it counts as another host
const short Object = 7;

/// What a client is doing, for those who look for one to kill and for one that hangs.
struct Slot {
    std::atomic<int32_t> pid;
    std::atomic<uint32_t> bytes;   // of the request under way
    std::atomic<uint32_t> number;  // of that request
    std::atomic<int64_t> since;    // when it began; 0: there is none
    std::atomic<const char*> what; // a literal
};

/// Every counter is for the whole mode.
struct Shared {
    // ---- State ----
    std::atomic<uint32_t> reign;       // goes up when a server comes and before it is killed: odd while there is one
    std::atomic<uint32_t> stops;       // goes up before a process is stopped
    std::atomic<int32_t> stopped;      // processes that are stopped now
    std::atomic<bool> clientsAreToEnd; // each after the request under way
    std::atomic<bool> serverIsToEnd;   // when nothing waits any more
    std::atomic<int32_t> serverPID;
    Slot clients[MostClients];

    // ---- Counters ----
    std::atomic<uint64_t> answers;
    std::atomic<uint64_t> lost; // requests without an answer, though server and client lived; and what ended by itself
    std::atomic<uint64_t> doubled;
    std::atomic<uint64_t> damaged;
    std::atomic<uint64_t> misordered;
    std::atomic<uint64_t> left;         // messages on the queue when all clients had ended
    std::atomic<int64_t> slowest;       // nanoseconds
    std::atomic<uint64_t> queueBytes;   // the limit of the queue
    std::atomic<uint64_t> failedStarts; // servers that did not get their queue at once
    std::atomic<uint32_t> notes;
};

/// The page; made before the first fork.
extern Shared* shared;
void MakeShared();
/// Sets everything to zero, for the next mode.
void ResetShared();

using testing_support::Now;
using testing_support::SleepMilliseconds;

/// Writes a line about a fault to the standard error of the storm, whatever the process's own one is. A mode writes
/// the first 40.
[[gnu::format(printf, 1, 2)]] void Note(const char* format, ...);
/// The processes of the storm have the reports of the library go to `path`.
void SendReportsTo(const char* path);

/// What a client and a server are told.
struct Orders {
    bool isFar;         // over TCP through the relay
    bool onlyLarge;     // events of several blocks only
    long transferLimit; // of the server, in seconds
};

void RunServer(const Orders& orders);
/// `identity` is different for each client process of a mode.
void RunClient(const Orders& orders, Slot& slot, uint32_t identity);

} // namespace storm

#endif
