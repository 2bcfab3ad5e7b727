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

/// What a receiver asks of a message; one that does not meet it is malformed.
typedef bool (*MessageCheck)(const ReceivedMessage&);
bool AnyMessage(const ReceivedMessage&);
/// Header and inline data lie within what was received.
bool CompleteMessage(const ReceivedMessage&);
/// A sound first block, with its segment if it names one.
bool FirstBlock(const ReceivedMessage&);

/// Takes the oldest message of a channel (0: of any) that meets `check` off the queue; the bytes that it did not fill
/// become zero. The others are dropped with a report. `flags` are those of msgrcv. Returns 0 or the `errno` of msgrcv.
int TakeMessage(int queue, long channel, ReceivedMessage& message, MessageCheck check, int flags);

/// Puts a message, which lies in a svr4::MessageArea, on the queue. Returns 0 or the `errno` of msgsnd.
int PutMessage(int queue, IPCQMessage* message, int flags);

/// Takes the messages that wait on a channel off the queue and drops them.
void DiscardMessages(int queue, long channel);

/// Reports a malformed message.
void ReportMalformed(int queue);

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

} // namespace zeloo

#endif
