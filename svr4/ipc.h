// SPDX-License-Identifier: BSD-2-Clause
// System V IPC where the host's differs: 4-byte message types, process ids in semaphores, keys in status records.
#ifndef SVR4_IPC_H
#define SVR4_IPC_H

#include <cstddef>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/types.h>

namespace svr4 {

/// A message record preceded by the room that the host's wider type field needs, so that it is sent and received in
/// place. Record begins with its 4-byte message type; the text follows it.
template <class Record>
struct alignas(long) MessageArea {
    char headroom[sizeof(long) > 4 ? sizeof(long) - 4 : 4];
    Record record;
};

/// msgsnd(2) of a record that begins with a 4-byte type: `textlen` bytes behind the type are sent. The record is as
/// before when the call returns. REQUIRES: the record lies in a MessageArea. Returns 0, or -1 with `errno`.
int msgsnd(int msqid, void* record, size_t textlen, int flags);

/// msgrcv(2) into such a record of at most `textlen` bytes behind the type. REQUIRES: the record lies in a
/// MessageArea. Returns the number of bytes received behind the type, or -1 with `errno` and the record as before.
ssize_t msgrcv(int msqid, void* record, size_t textlen, long type, int flags);

/// The key recorded in the permission block of a queue's status.
key_t queue_key(const struct msqid_ds& status);
/// The number of bytes on the queue.
unsigned long queue_cbytes(const struct msqid_ds& status);

/// The process id held by slot `index` of a semaphore set: 0 for a free slot, -1 with `errno` on failure. The host's
/// semaphores end at 32767: a slot that holds this value belongs to the process that set it last.
long semaphore_pid(int semid, int index);

/// Stores a process id in slot `index` (0 frees it). A process id of 32767 or more can be stored only by that process
/// (ERANGE for others). Returns 0, or -1 with `errno`.
int set_semaphore_pid(int semid, int index, long pid);

/// The number of slots of a semaphore set, or -1 with `errno`.
int semaphore_count(int semid);

} // namespace svr4

#endif
