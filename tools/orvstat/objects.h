// SPDX-License-Identifier: BSD-2-Clause
// The message queues and semaphore sets of this host, as its kernel tells of them. This host's own interface.
#ifndef TOOLS_ORVSTAT_OBJECTS_H
#define TOOLS_ORVSTAT_OBJECTS_H

#include <cstdint>
#include <optional>
#include <vector>

#include <sys/types.h>

namespace orvstat {

/// Who an object belongs to, and its mode.
struct Owner {
    uid_t user;
    mode_t mode;
};

/// A message queue. All but the block size is told to everybody, whatever the queue's mode.
struct Queue {
    int id;
    key_t key;
    Owner owner;
    int64_t messages;
    int64_t bytes;
    int64_t capacity;
    pid_t lastSender;   // 0: none yet
    pid_t lastReceiver; // 0: none yet
    int64_t sent;       // seconds since the epoch; 0: never
    int64_t received;
    int64_t changed;
    /// The block size of a process that uses this queue only. Empty without the right to read the queue.
    std::optional<int> blockSize;
};

/// A semaphore set.
struct SemaphoreSet {
    int id;
    key_t key;
    Owner owner;
    unsigned long slotCount;
    int64_t changed;
    /// The process id in each slot, 0 for a free one. Empty without the right to read the set.
    std::optional<std::vector<long>> slots;
};

/// All of them, also those of others. One that goes or comes meanwhile may be there or not.
std::vector<Queue> AllQueues();
std::vector<SemaphoreSet> AllSets();

/// Those with a key, if there are; null when not. The result lies in the argument.
const Queue* QueueOf(key_t key, const std::vector<Queue>& queues);
const SemaphoreSet* SetOf(key_t key, const std::vector<SemaphoreSet>& sets);

/// Read the slots of a set anew; empty when it is gone or must not be read.
std::optional<std::vector<long>> ReadSlots(int setId, unsigned long slotCount);

/// Remove an object. 0, or the host's error number: EINVAL or EIDRM when it is gone, EPERM when it is somebody else's.
int RemoveQueue(int id);
int RemoveSet(int id);

} // namespace orvstat

#endif
