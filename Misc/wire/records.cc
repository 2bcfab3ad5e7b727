// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/records.h"

#include <cstring>

#include "Misc/detail/text.h"
#include "Misc/wire/channels.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: records.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Both records are external interfaces, shared with builds of other compilers, word sizes and ages.
static_assert(sizeof(IPCQMessage) == 2004 && sizeof(TliMsgStruct) == 1904);
static_assert(offsetof(IPCQMessage, mtype) == 0 && offsetof(IPCQMessage, senders_version) == 4 &&
              offsetof(IPCQMessage, senders_pid) == 24 && offsetof(IPCQMessage, object) == 28 &&
              offsetof(IPCQMessage, event) == 30 && offsetof(IPCQMessage, destprog) == 32 &&
              offsetof(IPCQMessage, origprog) == 112 && offsetof(IPCQMessage, orignode) == 192 &&
              offsetof(IPCQMessage, response_rqd) == 272 && offsetof(IPCQMessage, ack_rqd) == 274 &&
              offsetof(IPCQMessage, result_code) == 276 && offsetof(IPCQMessage, padding1) == 278 &&
              offsetof(IPCQMessage, alloc_data_length) == 280 && offsetof(IPCQMessage, parts_left) == 284 &&
              offsetof(IPCQMessage, padding2) == 286 && offsetof(IPCQMessage, curr_data_offset) == 288 &&
              offsetof(IPCQMessage, shmem_id) == 292 && offsetof(IPCQMessage, shmem_size) == 296 &&
              offsetof(IPCQMessage, msg_data_len) == 300 && offsetof(IPCQMessage, msg_data) == 304);
static_assert(offsetof(TliMsgStruct, object) == 0 && offsetof(TliMsgStruct, QueueExistCheck) == 2 &&
              offsetof(TliMsgStruct, senders_version) == 4 && offsetof(TliMsgStruct, parts_left) == 24 &&
              offsetof(TliMsgStruct, send_data_length) == 26 && offsetof(TliMsgStruct, curr_data_offset) == 28 &&
              offsetof(TliMsgStruct, event) == 32 && offsetof(TliMsgStruct, orignode) == 34 &&
              offsetof(TliMsgStruct, origprog) == 114 && offsetof(TliMsgStruct, response_rqd) == 194 &&
              offsetof(TliMsgStruct, ack_rqd) == 196 && offsetof(TliMsgStruct, result_code) == 198 &&
              offsetof(TliMsgStruct, alloc_data_length) == 200 && offsetof(TliMsgStruct, msg_data) == 204);

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

bool StartsEvent(const IPCQMessage& message, size_t length, int64_t segmentSize, long receiver)
{
    if (!IsComplete(message, length) || !Terminated(message.senders_version) || !Terminated(message.destprog) ||
        !Terminated(message.origprog) || !Terminated(message.orignode) || message.senders_pid == receiver)
        return false;
    const Block block = BlockOf(message);
    if (Gatherer::Judge(block) == Gatherer::Misfit || !HasItsSegment(block, segmentSize))
        return false;
    // Every block but the last carries something, so a total has a most number of blocks; and a transfer is tied to
    // its sender's process id.
    return block.partsLeft == 0 || (block.partsLeft - 1 <= block.total - block.length && message.senders_pid > 0);
}

bool ContinuesEvent(const IPCQMessage& message, size_t length, int64_t segmentSize)
{
    return IsComplete(message, length) && message.event == MultiBlockData &&
           HasItsSegment(BlockOf(message), segmentSize);
}

Owner OwnerOf(const IPCQMessage& message, size_t length, long partner, long self)
{
    if (length < size_t(IPCMessageNonDataSize) || length > size_t(IPCMessageDataSize))
        return Owner::Nobody;
    if (message.senders_pid == partner)
        return Owner::Partner;
    if (!IsComplete(message, length))
        return Owner::Nobody;
    return message.senders_pid == self ? Owner::Self : Owner::Stranger;
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
    PutPlace(message, block);
    message->shmem_id = -1;
    message->msg_data_len = block.length;
    if (block.length > 0)
        std::memcpy(message->msg_data, data, static_cast<size_t>(block.length));
}

Block BlockOf(const TliMsgStruct& record)
{
    return {record.alloc_data_length, record.curr_data_offset, record.send_data_length, record.parts_left, true};
}

bool HasSoundTexts(const TliMsgStruct& record)
{
    return Terminated(record.senders_version) && Terminated(record.orignode) && Terminated(record.origprog);
}

void PutBlock(TliMsgStruct* record, const Block& block, const char* data)
{
    record->alloc_data_length = block.total;
    PutPlace(record, block);
    record->send_data_length = static_cast<int16_t>(block.length);
    if (block.length > 0)
        std::memcpy(record->msg_data, data, static_cast<size_t>(block.length));
}

static void Reverse(int16_t* number)
{
    *number = static_cast<int16_t>(__builtin_bswap16(static_cast<uint16_t>(*number)));
}

static void Reverse(int32_t* number)
{
    *number = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(*number)));
}

void ReverseIntegers(TliMsgStruct* record)
{
    for (int16_t* number : {&record->object, &record->QueueExistCheck, &record->parts_left, &record->send_data_length,
                            &record->event, &record->response_rqd, &record->ack_rqd, &record->result_code})
        Reverse(number);
    Reverse(&record->curr_data_offset);
    Reverse(&record->alloc_data_length);
}

} // namespace zeloo::wire
