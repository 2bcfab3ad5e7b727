#include "Misc/wire/queue_record.h"

#include <cstring>

#include "Misc/detail/text.h"
#include "Misc/wire/channels.h"
#include "Misc/wire/gatherer.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: queue_record.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo::wire {

bool IsComplete(const IPCQMessage& message, size_t length)
{
    if (length < size_t(IPCMessageNonDataSize) || length > size_t(IPCMessageDataSize))
        return false;
    return message.msg_data_len >= 0 && size_t(message.msg_data_len) <= length - IPCMessageNonDataSize;
}

Block BlockOf(const IPCQMessage& message)
{
    const bool isInline = message.shmem_id < 0;
    return {message.alloc_data_length, message.curr_data_offset, isInline ? message.msg_data_len : message.shmem_size,
            message.parts_left, isInline};
}

static bool HasItsSegment(const Block& block, int64_t segmentSize)
{
    return block.isInline || segmentSize >= block.length;
}

bool StartsEvent(const IPCQMessage& message, size_t length, int64_t segmentSize)
{
    if (!IsComplete(message, length) || !Terminated(message.senders_version) || !Terminated(message.destprog) ||
        !Terminated(message.origprog) || !Terminated(message.orignode))
        return false;
    const Block block = BlockOf(message);
    Gatherer event;
    const Gatherer::Result result = event.Begin(block);
    if (result != Gatherer::Whole && result != Gatherer::More)
        return false;
    if (!HasItsSegment(block, segmentSize))
        return false;
    // Every block but the last carries something, so a total has a most number of blocks; and a transfer is tied to
    // its sender's process id.
    return block.partsLeft == 0 || (block.partsLeft - 1 <= block.total - block.length && message.senders_pid > 0);
}

bool ContinuesEvent(const IPCQMessage& message, size_t length, int64_t segmentSize, int32_t sender)
{
    return IsComplete(message, length) && message.event == MultiBlockData && message.senders_pid == sender &&
           HasItsSegment(BlockOf(message), segmentSize);
}

void MakeAck(IPCQMessage* message, int32_t receiver)
{
    std::memset(static_cast<void*>(message), 0, sizeof *message);
    message->senders_pid = receiver;
    message->shmem_id = -1;
    message->event = MultiBlockAck;
}

void PutBlock(IPCQMessage* message, const Block& block, const char* data)
{
    message->alloc_data_length = block.total;
    message->parts_left = static_cast<int16_t>(block.partsLeft);
    message->curr_data_offset = block.offset;
    message->shmem_id = -1;
    message->msg_data_len = block.length;
    if (block.length > 0)
        std::memcpy(message->msg_data, data, static_cast<size_t>(block.length));
}

} // namespace zeloo::wire
