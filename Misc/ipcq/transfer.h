// SPDX-License-Identifier: BSD-2-Clause
// One event over a queue: moves the messages of the two sides of a transfer.
#ifndef MISC_IPCQ_TRANSFER_H
#define MISC_IPCQ_TRANSFER_H

#include "Misc/ipcq/mail.h"

namespace zeloo {

/// The end of a queue that sends or receives: its object, which reports, and what the object keeps to itself.
struct QueueEnd {
    IPCQBase& object;
    Mail& mail;
    int queue;
    long pid;
    long sendTimeOut;
    long receiveTimeOut;
    long transferTimeOut;
};

/// Sends the event whose header stands in LocalMsg, with `length` bytes at `data`, to a process. Returns a code. What it
/// has put on the queue for an event that failed is taken back.
short SendEvent(const QueueEnd& end, long receiver, const char* data, int32_t length, int blockSize);

/// Puts the first block of the next event into LocalMsg. With a non-zero `partner` it is a response of that process,
/// which is watched. Returns a code.
short ReceiveFirstBlock(const QueueEnd& end, long partner);

/// Results of ReceiveData for an event that is to be dropped: a block does not fit, or its sender has gone on to another
/// event; its sender was silent for the transfer limit. No error type is negative.
constexpr short BrokenEvent = -1;
constexpr short StalledEvent = -2;

/// Gathers the data of the event whose first block, which has been checked, stands in LocalMsg. Returns a code or one of
/// the above; what came of an event that failed stays in `data`.
short ReceiveData(const QueueEnd& end, Buffer& data);

} // namespace zeloo

#endif
