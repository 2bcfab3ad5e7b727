// SPDX-License-Identifier: BSD-2-Clause
// Messages as the kernel's queue moves them.
#ifndef MISC_IPCQ_MESSAGE_H
#define MISC_IPCQ_MESSAGE_H

#include <cstddef>

#include "Misc/ipcq.h"
#include "svr4/ipc.h"

namespace zeloo {

/// A message as it comes off a queue, in place. One byte more is asked for than a message may have, so that one that is
/// too long is noticed.
struct ReceivedMessage {
    struct Record {
        IPCQMessage msg;
        char excess[4];
    };
    svr4::MessageArea<Record> area;
    size_t length; // bytes received behind the type

    IPCQMessage& msg() { return area.record.msg; }
    const IPCQMessage& msg() const { return area.record.msg; }
};

/// The place of LocalMsg.
extern ReceivedMessage LocalMessage;

/// Whether header and inline data lie within what was received.
bool CompleteMessage(const ReceivedMessage& message);
/// Whether it is a sound first block for the process `receiver`, with its segment if it names one.
bool FirstBlock(const ReceivedMessage& message, long receiver);

/// Takes the oldest message of a channel (0: of any) off the queue; the bytes that it did not fill become zero. `flags`
/// are those of msgrcv. Returns 0 or the `errno` of msgrcv.
int TakeMessage(int queue, long channel, ReceivedMessage& message, int flags);

/// Puts a message, which lies in a svr4::MessageArea, on the channel that its type names. `flags` are those of msgsnd.
/// Returns 0 or the `errno` of msgsnd.
int PutMessage(int queue, IPCQMessage* message, int flags);

/// Calls `take` for the messages that wait on a channel, off the queue, oldest first; those that come meanwhile are left
/// to another time. Stops when `take` gives false.
template <class Function>
void TakeWaiting(int queue, long channel, Function take);

/// How many messages there are on a queue; 0 when it has gone.
unsigned long WaitingMessages(int queue);

/// Takes the messages that wait on a channel off the queue and drops them.
void DiscardMessages(int queue, long channel);

/// Reports a malformed message, which has been dropped: the first at once, those of the next second as a number.
void ReportMalformed(int queue);
/// Reports the number of those that have not been reported, if it is time.
void ReportMoreMalformed(int queue);
/// Whether there are such.
bool MoreAreMalformed();

/// Bytes of a shared-memory segment, or -1 when there is none.
int64_t SegmentSize(long shmid);
/// The same for the segment that a message names; -1 when it names none.
int64_t SegmentSizeOf(const IPCQMessage& message);

/// Whether a failed operation says that the queue has been removed.
bool QueueIsGone(int error);
/// Reports that `what` failed, and why.
void ReportQueueFailure(int error, long line, const char* what);

/// The size of the blocks that are sent: the last positive value of IPCMessageMaxDataLen, within the record.
int SendingBlockSize();

template <class Function>
void TakeWaiting(int queue, long channel, Function take)
{
    ReceivedMessage message;
    unsigned long left = 1;
    for (bool isFirst = true; left > 0 && TakeMessage(queue, channel, message, IPC_NOWAIT) == 0; isFirst = false) {
        left = isFirst ? WaitingMessages(queue) : left - 1; // of all channels; asked only when there is something
        if (!take(message))
            return;
    }
}

} // namespace zeloo

#endif
