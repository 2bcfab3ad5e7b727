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
        SendBlock, // put CurrentBlock on Channel, then tell with BlockSent
        AwaitAck,  // receive from Channel, and hand what came to Answer
        Done,
        Refused // the answer was no acknowledgement
    };

    /// An event of `total` bytes from the process `sender` to the process `receiver`, in blocks of `blockSize` (limits
    /// as for Cutter).
    SendingSide(long sender, long receiver, int32_t total, int32_t blockSize);

    Step Next() const { return step; }
    /// Whether the event travels in several blocks, and so needs acknowledgement and data channel.
    bool HasSeveral() const { return blocks.HasSeveral(); }
    /// The channel to which or from which the next step goes.
    long Channel() const;
    /// Where an acknowledgement is awaited.
    long AckChannel() const;
    /// Puts the block that is to be sent now into `*message`, the record with the header of the event, whose data begins
    /// at `data`.
    void FillBlock(IPCQMessage* message, const char* data) const;
    /// Says that it has been sent; `*message` describes the next block then, except for its data.
    void BlockSent(IPCQMessage* message);
    /// Takes what came from the acknowledgement channel.
    void Answer(const IPCQMessage& answer, IPCQMessage* message);

private:
    void Advance(IPCQMessage* message);

    long senderPID;
    long receiverPID;
    Cutter blocks;
    bool isFirst = true;
    Step step = SendBlock;
};

/// The receiving side, from a first block (see StartsEvent) on.
class ReceivingSide {
public:
    enum Step {
        Acknowledge, // send an acknowledgement to Sender on AckChannel, then tell with Acknowledged
        AwaitBlock,  // receive from DataChannel, and hand what came to TakeBlock
        Done,
        Broken,     // the event is to be given up: a block does not fit
        OutOfMemory // the event is to be given up
    };

    /// `receiver` is the own process id.
    ReceivingSide(const IPCQMessage& first, long receiver);

    Step Next() const { return step; }
    /// The process that sends the event.
    int32_t Sender() const { return senderPID; }
    long AckChannel() const;
    long DataChannel() const;
    void Acknowledged() { step = AwaitBlock; }
    /// Takes a record of `length` bytes behind its type. A block in a shared-memory segment needs one of `segmentSize`
    /// bytes; negative: there is none. True when the record's data belongs into the event, at its offset.
    bool TakeBlock(const IPCQMessage& message, size_t length, int64_t segmentSize);

private:
    int32_t senderPID;
    long receiverPID;
    Gatherer blocks;
    Step step;
};

} // namespace zeloo::wire

#endif
