// SPDX-License-Identifier: BSD-2-Clause
// Making and joining the queue of a name, for those who hold its NameLock.
#ifndef MISC_IPCQ_RESOURCES_H
#define MISC_IPCQ_RESOURCES_H

#include "Misc/ipcq/keyfile.h"

namespace zeloo {

/// What came of making a queue.
struct NewQueue {
    int id;             // -1: none was made
    int error;          // why, as an errno
    const char* failed; // what failed, or null when that was to find the key file
};

/// Makes set and queue of a server, as create_queue does.
NewQueue MakeQueue(const KeyFile& file, long serverPid);
/// The rest of create_queue, for which nobody should have to wait: sizes the new queue, or reports the failure. Returns
/// the queue's id or -1.
int FinishQueue(const NewQueue& made, const char* name);

/// The queue of a name, or -1.
int OpenQueue(const KeyFile& file);
/// One try of connect_to_queue at a queue that is there. REQUIRES: `*serverPid` is -1.
int JoinQueue(const KeyFile& file, int msqid, long* serverPid, long requestedPid);

/// Whether a process id is registered on a queue, be it of a live process or of a dead one.
bool IsRegistered(int msqid, long pid);

/// Makes up for a server that had this process id before and died: frees its slots and, with other live servers on the
/// queue, takes one of them for the new server; otherwise the queue is removed. Returns the queue that was joined so,
/// or -1.
int ReplacePredecessor(const KeyFile& file, long pid);

} // namespace zeloo

#endif
