// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/mail.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "Misc/wire/channels.h"
#include "Misc/wire/records.h"
#include "svr4/briefwait.h"
#include "svr4/errno.h"
#include "svr4/process.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int64_t ClearingInterval = 100 * 1000000;       // nanoseconds between two looks at the correspondents
static const struct timespec Moment = {0, 10 * 1000 * 1000}; // between two tries to give back
static const int MostMoments = 100;

namespace zeloo {

using wire::AckChannel;
using wire::DataChannel;
using wire::Owner;

void SaveMail(int queue, long channel, IPCQMsgSafeArray& saved, unsigned most)
{
    const svr4::SavedErrno savedErrno;
    if (saved.Quantity() >= most)
        return;
    static IPCQMsg* spare = nullptr; // there before a message is taken off the queue
    if (spare == nullptr)
        spare = new (std::nothrow) IPCQMsg;
    if (spare == nullptr)
        return;
    TakeWaiting(queue, channel, [&](const ReceivedMessage& message) {
        if (!CompleteMessage(message)) {
            ReportMalformed(queue);
            return true;
        }
        spare->msg = message.msg();
        saved.AddItem(spare);
        spare = saved.Quantity() < most ? new (std::nothrow) IPCQMsg : nullptr;
        return spare != nullptr;
    });
}

// ---- Correspondents ----

Correspondents::~Correspondents() { std::free(list); }

void Correspondents::Note(long pid, bool isUnfinished)
{
    for (unsigned i = 0; i < count; i++)
        if (list[i].pid == pid) {
            list[i].isUnfinished |= isUnfinished;
            return;
        }
    if (count == capacity) {
        const unsigned larger = capacity + 16;
        void* room = std::realloc(list, larger * sizeof *list);
        if (room == nullptr)
            return;
        list = static_cast<Entry*>(room);
        capacity = larger;
    }
    list[count++] = {static_cast<int32_t>(pid), isUnfinished, false};
}

void Correspondents::NoteFinished(long pid)
{
    for (unsigned i = 0; i < count; i++)
        if (list[i].pid == pid)
            list[i].isUnfinished = false;
}

bool Correspondents::IsUnfinished(long pid) const
{
    for (unsigned i = 0; i < count; i++)
        if (list[i].pid == pid)
            return list[i].isUnfinished;
    return false;
}

void Correspondents::ForgetFinished()
{
    for (unsigned i = count; i-- > 0;)
        if (!list[i].isUnfinished)
            RemoveAt(i);
}

// ---- Own mail ----

// Whether what comes for this process is for a server in it.
bool Mail::IsServersMail() const { return !object.is_a_server() && object.MyPID == object.ServerPID; }

void Mail::Save(unsigned most)
{
    if (object.MyQueueID >= 0 && !IsServersMail())
        SaveMail(object.MyQueueID, object.MyPID, object.MsgArray, most);
}

void Mail::SaveBehind(bool wasEmpty)
{
    if (object.is_a_server() && !wasEmpty)
        Save(MostSaved);
    isAnswered = true;
}

void Mail::SaveBeforeSending()
{
    if (!object.is_a_server() && !isAnswered)
        Save(MostSaved);
    isAnswered = false;
}

bool Mail::SaveOne(unsigned most)
{
    const unsigned before = object.MsgArray.Quantity();
    if (before < most)
        Save(before + 1);
    return object.MsgArray.Quantity() > before;
}

bool Mail::HasNewerEvent(const wire::ReceivingSide& event) const
{
    for (unsigned i = 0; i < object.MsgArray.Quantity(); i++)
        if (event.IsEndedBy(object.MsgArray[i]->msg))
            return true;
    return false;
}

// ---- Partners ----

void Mail::NoteAlive(long pid)
{
    alivePID = pid;
    aliveTick = svr4::LastTick();
}

bool Mail::IsAlive(long pid) const { return (pid == alivePID && svr4::LastTick() == aliveTick) || process_exists(pid); }

// ---- Others' records ----

void Mail::Sweep(long channel, long owner)
{
    TakeWaiting(object.MyQueueID, channel, [&](const ReceivedMessage& message) {
        const Owner found = wire::OwnerOf(message.msg(), message.length, owner, object.MyPID);
        if (found == Owner::Nobody)
            ReportMalformed(object.MyQueueID);
        else if (found != Owner::Partner && !Keep(message.msg()))
            return false;
        return true;
    });
    GiveBack();
}

bool Mail::Keep(const IPCQMessage& message)
{
    IPCQMsg* holder = new (std::nothrow) IPCQMsg;
    if (holder == nullptr) {
        (void)GivesBack(message); // the room that it had is there still
        return false;
    }
    holder->msg = message;
    const svr4::SignalsHeld held(svr4::all_but_faults()); // a handler reads the array
    aside.AddItem(holder);
    return true;
}

bool Mail::StaysAway(const IPCQMessage& message) const
{
    if (message.senders_pid != object.MyPID)
        return false;
    return message.mtype == openChannel || IsReadEarly(message.mtype);
}

void Mail::PutBack(ReceivedMessage& message)
{
    if (StaysAway(message.msg()) || PutMessage(object.MyQueueID, &message.msg(), IPC_NOWAIT) == EAGAIN)
        Keep(message.msg());
}

void Mail::GiveBack()
{
    for (unsigned i = 0; i < aside.Quantity();) {
        const IPCQMessage& kept = aside[i]->msg;
        if (StaysAway(kept)) {
            i++;
            continue;
        }
        const svr4::SignalsHeld held(svr4::all_but_faults()); // one in between would let Leave give it once more
        if (!GivesBack(kept))
            return;
        aside.RemoveAt(i);
    }
}

// Puts a kept record on the queue, or drops it when its addressee has gone. False when there is no room for it.
bool Mail::GivesBack(const IPCQMessage& kept) const
{
    svr4::MessageArea<IPCQMessage> area;
    area.record = kept;
    return !process_exists(wire::Addressee(kept.mtype, kept.senders_pid)) ||
           PutMessage(object.MyQueueID, &area.record, IPC_NOWAIT) != EAGAIN;
}

void Mail::EndTransfer()
{
    openChannel = 0;
    if (object.is_a_server())
        GiveBack();
    else
        GiveAllBack();
}

void Mail::GiveAllBack()
{
    GiveBack();
    for (int moment = 0; aside.Quantity() > 0 && moment < MostMoments; moment++) {
        nanosleep(&Moment, nullptr);
        GiveBack();
    }
}

void Mail::Leave()
{
    if (!IsServersMail())
        DiscardMessages(object.MyQueueID, object.MyPID);
    int moment = 0;
    for (unsigned i = 0; i < aside.Quantity(); i++)
        while (!StaysAway(aside[i]->msg) && !GivesBack(aside[i]->msg) && moment++ < MostMoments)
            nanosleep(&Moment, nullptr);
}

// ---- What nobody reads any more ----

void Mail::ClearPair(long sender, long receiver)
{
    Sweep(DataChannel(sender, receiver), sender);
    Sweep(AckChannel(sender, receiver), receiver);
}

void Mail::TakeBackFirstBlock(long receiver)
{
    TakeWaiting(object.MyQueueID, receiver, [&](const ReceivedMessage& message) {
        const bool isTheBlock = message.msg().senders_pid == object.MyPID && message.msg().parts_left > 0;
        return isTheBlock || !CompleteMessage(message) || Keep(message.msg());
    });
    GiveBack();
}

void Mail::ForgetBlocks(long sender)
{
    const long channel = DataChannel(sender, object.MyPID);
    Sweep(channel, sender);
    if (correspondents.IsUnfinished(sender)) {
        nanosleep(&Moment, nullptr); // a stranger may have had one in hand
        Sweep(channel, sender);
    }
}

void Mail::NoteCorrespondent(long pid, bool isUnfinished)
{
    if (object.is_a_server())
        correspondents.Note(pid, isUnfinished);
}

void Mail::ClearTheDead(long partner)
{
    if (correspondents.Quantity() == 0)
        return;
    const int64_t now = svr4::LastTick();
    if (now - lastClearing < ClearingInterval)
        return;
    lastClearing = now;
    // An empty queue says that everything has been read, unless somebody has some of it in hand.
    const bool wasEmpty = isEmpty;
    isEmpty = partner == 0 && aside.Quantity() == 0 && WaitingMessages(object.MyQueueID) == 0;
    if (wasEmpty && isEmpty)
        correspondents.ForgetFinished();
    if (isEmpty)
        return;
    for (unsigned i = correspondents.Quantity(); i-- > 0;) {
        Correspondents::Entry& correspondent = correspondents[i];
        const long pid = correspondent.pid;
        if (pid == partner || AwaitsEarlyBlocks(pid))
            continue;
        const bool hadGone = correspondent.hasGone;
        correspondent.hasGone = svr4::has_ended(pid);
        if (correspondent.hasGone) {
            DiscardMessages(object.MyQueueID, pid);
            ClearPair(object.MyPID, pid);
            ClearPair(pid, object.MyPID);
            if (hadGone) // at the first look somebody may have had some of it in hand
                correspondents.RemoveAt(i);
        } else if (partner == 0) {
            Sweep(DataChannel(pid, object.MyPID), pid); // no event is under way to which they could belong
        }
    }
}

} // namespace zeloo
