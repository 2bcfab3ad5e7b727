// SPDX-License-Identifier: BSD-2-Clause
// The two sides of an event that travels over a queue: what each has to do next. Neither asks the system for anything:
// what comes is handed in, what is due is told.
#ifndef MISC_WIRE_TRANSFER_H
#define MISC_WIRE_TRANSFER_H

#include <cstddef>

#include "Misc/records.h"
#include "Misc/wire/blocks.h"

namespace zeloo::wire {

/// The sending side. The first of several blocks goes on the receiver's own channel and is acknowledged; the others
/// follow on the data channel without waiting.
class SendingSide {
public:
    enum Step {
        ForgetAcks, // take the partner's records off Channel: they came too late for earlier events; then tell with Forgotten
        SendBlock, // fill a block and put it on Channel, then tell with BlockSent
        AwaitAck,  // receive the partner's record from Channel, and hand it to Answer
        Done,
        Refused // the answer was no acknowledgement
    };

    /// An event of `total` bytes from the process `sender` to the process `receiver`, in blocks of `blockSize` (limits
    /// as for Cutter).
    SendingSide(long sender, long receiver, int32_t total, int32_t blockSize);

    Step Next() const { return step; }
    /// The process whose records belong to the transfer.
    long Partner() const { return receiverPID; }
    /// The channel to which or from which the next step goes.
    long Channel() const;
    /// Whether the event travels in several blocks.
    bool HasSeveral() const { return blocks.HasSeveral(); }
    /// Whether the next block is the first one.
    bool IsFirst() const { return isFirst; }
    void Forgotten() { step = SendBlock; }
    /// Puts the block that is to be sent now into `*message`, the record with the header of the event, whose data begins
    /// at `data`.
    void FillBlock(IPCQMessage* message, const char* data) const;
    /// Says that it has been sent; `*message` describes the next block then, except for its data.
    void BlockSent(IPCQMessage* message);
    /// Takes the partner's record.
    void Answer(const IPCQMessage& answer, IPCQMessage* message);

private:
    void Advance(IPCQMessage* message);

    long senderPID;
    long receiverPID;
    Cutter blocks;
    bool isFirst = true;
    Step step;
};

/// The receiving side, from a first block (see StartsEvent) on.
class ReceivingSide {
public:
    enum Step {
        ForgetBlocks, // take the partner's records off Channel: they belong to an earlier event, since the partner waits now
                      // for the acknowledgement; then tell with Forgotten
        Acknowledge, // put an acknowledgement on Channel, then tell with Acknowledged
        AwaitBlock,  // receive the partner's record from Channel, and hand it to TakeBlock
        Done,
        Broken,     // the event is to be given up: a block does not fit
        OutOfMemory // the event is to be given up
    };

    /// `receiver` is the own process id.
    ReceivingSide(const IPCQMessage& first, long receiver);

    Step Next() const { return step; }
    /// The process that sends the event.
    long Partner() const { return senderPID; }
    long Channel() const;
    void Forgotten() { step = Acknowledge; }
    void Acknowledged() { step = AwaitBlock; }
    /// Takes the partner's record of `length` bytes behind its type. A block in a shared-memory segment needs one of
    /// `segmentSize` bytes; negative: there is none. True when the record's data belongs into the event, at its offset.
    bool TakeBlock(const IPCQMessage& message, size_t length, int64_t segmentSize);
    /// The event is Broken: the data of a block that it took cannot be had.
    void GiveUp() { step = Broken; }
    /// Whether a message on the own channel, which came after the first block, says that the partner has gone on to
    /// another event. What is on the data channel still counts; with nothing there this event is to be given up.
    bool IsEndedBy(const IPCQMessage& newer) const { return newer.senders_pid == senderPID; }

private:
    long senderPID;
    long receiverPID;
    Gatherer blocks;
    Step step;
};

} // namespace zeloo::wire

#endif
