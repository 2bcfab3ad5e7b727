// One event over a queue: moves the messages of the two sides of a transfer.
#ifndef MISC_IPCQ_TRANSFER_H
#define MISC_IPCQ_TRANSFER_H

#include "Misc/ipcq.h"

namespace zeloo {

/// The end of a queue that sends or receives: its object, which saves its mail while it waits and reports, and what
/// the object keeps to itself.
struct QueueEnd {
    IPCQBase& object;
    int queue;
    long pid;
    long sendTimeOut;
    long receiveTimeOut;
};

/// Sends the event whose header stands in LocalMsg, with `length` bytes at `data`, to a process. Returns a code.
short SendEvent(const QueueEnd& end, long receiver, const char* data, int32_t length, int blockSize);

/// The result of ReceiveData for an event of which a block does not fit; no error type is negative.
constexpr short BrokenTransfer = -1;

/// Gathers the data of the event whose first block, which has been checked, stands in LocalMsg. Returns a code or
/// BrokenTransfer; what came of a broken event stays in `data`.
short ReceiveData(const QueueEnd& end, Buffer& data);

} // namespace zeloo

#endif
