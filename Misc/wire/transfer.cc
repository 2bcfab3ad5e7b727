// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/transfer.h"

#include "Misc/wire/channels.h"
#include "Misc/wire/records.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: transfer.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo::wire {

SendingSide::SendingSide(long sender, long receiver, int32_t total, int32_t blockSize)
    : senderPID(sender), receiverPID(receiver), blocks(total, blockSize), step(HasSeveral() ? ForgetAcks : SendBlock)
{
}

long SendingSide::Channel() const
{
    if (step == ForgetAcks || step == AwaitAck)
        return AckChannel(senderPID, receiverPID);
    return isFirst ? receiverPID : DataChannel(senderPID, receiverPID);
}

void SendingSide::FillBlock(IPCQMessage* message, const char* data) const
{
    const Block& block = blocks.Current();
    PutBlock(message, block, data + block.offset);
}

void SendingSide::BlockSent(IPCQMessage* message)
{
    if (!isFirst || !HasSeveral()) {
        Advance(message);
        return;
    }
    step = AwaitAck;
    message->event = MultiBlockData; // of all that follow
}

void SendingSide::Answer(const IPCQMessage& answer, IPCQMessage* message)
{
    if (answer.event != MultiBlockAck) {
        step = Refused;
        return;
    }
    Advance(message);
}

void SendingSide::Advance(IPCQMessage* message)
{
    blocks.Advance();
    isFirst = false;
    step = blocks.IsDone() ? Done : SendBlock;
    PutPlace(message, blocks.Current());
}

ReceivingSide::ReceivingSide(const IPCQMessage& first, long receiver)
    : senderPID(first.senders_pid), receiverPID(receiver), step(Done)
{
    if (blocks.Begin(BlockOf(first)) == Gatherer::More)
        step = ForgetBlocks;
}

long ReceivingSide::Channel() const
{
    return step == Acknowledge ? AckChannel(senderPID, receiverPID) : DataChannel(senderPID, receiverPID);
}

bool ReceivingSide::TakeBlock(const IPCQMessage& message, size_t length, int64_t segmentSize)
{
    const Gatherer::Result result =
        ContinuesEvent(message, length, segmentSize) ? blocks.Add(BlockOf(message)) : Gatherer::Misfit;
    switch (result) {
    case Gatherer::Whole: step = Done; break;
    case Gatherer::More: step = AwaitBlock; break;
    case Gatherer::Misfit: step = Broken; break;
    case Gatherer::NoMemory: step = OutOfMemory; break;
    }
    return step == Done || step == AwaitBlock;
}

} // namespace zeloo::wire
