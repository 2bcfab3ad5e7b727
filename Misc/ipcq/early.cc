// SPDX-License-Identifier: BSD-2-Clause
#include <new>

#include "Misc/ipcq/mail.h"
#include "Misc/wire/records.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const size_t MostEarlyBytes = 16U << 20; // of announced data, unless it is one event's

namespace zeloo {

using wire::Owner;

static bool IsAwaited(const wire::ReceivingSide& event) { return event.Next() == wire::ReceivingSide::AwaitBlock; }

Mail::~Mail()
{
    while (EarlyEvent* early = earlyEvents) {
        earlyEvents = early->next;
        delete early;
    }
}

bool PlaceData(const IPCQMessage& message, Buffer& data)
{
    if (message.shmem_id < 0) {
        data.PutDataAt(static_cast<unsigned>(message.curr_data_offset), message.msg_data,
                       static_cast<unsigned>(message.msg_data_len));
        return true;
    }
    if (!copy_from_shmem(message.shmem_id, data, message.curr_data_offset, message.shmem_size))
        return false;
    delete_shmem_id(message.shmem_id);
    return true;
}

bool Mail::AwaitsEarlyBlocks(long sender) const
{
    for (const EarlyEvent* early = earlyEvents; early != nullptr; early = early->next)
        if (early->event.Partner() == sender && IsAwaited(early->event))
            return true;
    return false;
}

bool Mail::IsReadEarly(long channel) const
{
    for (const EarlyEvent* early = earlyEvents; early != nullptr; early = early->next)
        if (IsAwaited(early->event) && early->event.Channel() == channel)
            return true;
    return false;
}

// Whether no later message comes from the sender of this one.
static bool IsLastOf(const IPCQMsgSafeArray& messages, unsigned index)
{
    const int32_t sender = messages[index]->msg.senders_pid;
    for (unsigned i = index + 1; i < messages.Quantity(); i++)
        if (messages[i]->msg.senders_pid == sender)
            return false;
    return true;
}

// The first block of the partner's oldest saved event that has not been acknowledged; null when there is none. One in a
// segment waits for its turn: it is looked at again then, and copying takes the segment away.
const IPCQMessage* Mail::NextEarly(long partner) const
{
    const EarlyEvent* early = earlyEvents;
    for (unsigned i = 0; i < object.MsgArray.Quantity(); i++) {
        const IPCQMessage& first = object.MsgArray[i]->msg;
        const size_t length = static_cast<size_t>(IPCMessageNonDataSize + first.msg_data_len);
        if (first.senders_pid != partner || first.parts_left == 0 || first.shmem_id >= 0 ||
            !wire::StartsEvent(first, length, -1, object.MyPID))
            continue;
        while (early != nullptr && early->event.Partner() != partner)
            early = early->next;
        if (early == nullptr)
            return IsLastOf(object.MsgArray, i) ? &first : nullptr; // else it was given up
        early = early->next;
    }
    return nullptr;
}

void Mail::AcceptEarly(long partner)
{
    if (AwaitsEarlyBlocks(partner))
        return;
    const IPCQMessage* first = NextEarly(partner);
    if (first == nullptr)
        return;
    EarlyEvent** last = &earlyEvents;
    size_t bytes = static_cast<size_t>(first->alloc_data_length);
    for (; *last != nullptr; last = &(*last)->next)
        bytes += (*last)->data.Size();
    if (earlyEvents != nullptr && bytes > MostEarlyBytes)
        return;
    EarlyEvent* early = new (std::nothrow) EarlyEvent(*first, object.MyPID);
    if (early == nullptr)
        return;
    early->data.ReSize(static_cast<unsigned>(first->alloc_data_length));

    wire::ReceivingSide& event = early->event;
    ForgetBlocks(partner);
    event.Forgotten();
    svr4::MessageArea<IPCQMessage> area;
    wire::MakeAck(&area.record, static_cast<int32_t>(object.MyPID));
    area.record.mtype = static_cast<int32_t>(event.Channel());
    // Without memory or room it is acknowledged in its turn.
    if (early->data.Size() == 0 || !PlaceData(*first, early->data) ||
        PutMessage(object.MyQueueID, &area.record, IPC_NOWAIT) != 0) {
        delete early;
        return;
    }
    event.Acknowledged();
    *last = early;
    NoteCorrespondent(partner);
}

void Mail::GatherEarly()
{
    for (EarlyEvent* early = earlyEvents; early != nullptr; early = early->next)
        if (IsAwaited(early->event))
            GatherEarly(*early);
}

void Mail::GatherEarly(EarlyEvent& early)
{
    wire::ReceivingSide& event = early.event;
    TakeWaiting(object.MyQueueID, event.Channel(), [&](const ReceivedMessage& message) {
        switch (wire::OwnerOf(message.msg(), message.length, event.Partner(), object.MyPID)) {
        case Owner::Partner:
            if (event.TakeBlock(message.msg(), message.length, SegmentSizeOf(message.msg())) &&
                !PlaceData(message.msg(), early.data))
                event.GiveUp();
            return IsAwaited(event);
        case Owner::Nobody: ReportMalformed(object.MyQueueID); return true;
        default: return Keep(message.msg());
        }
    });
    GiveBack();
}

EarlyEvent* Mail::TakeEarly(long sender)
{
    EarlyEvent** place = &earlyEvents;
    while (*place != nullptr && (*place)->event.Partner() != sender)
        place = &(*place)->next;
    EarlyEvent* early = *place;
    if (early != nullptr)
        *place = early->next;
    return early;
}

} // namespace zeloo
