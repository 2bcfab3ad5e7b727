// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/transfer.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "Misc/Error/report.h"
#include "Misc/detail/timedcall.h"
#include "Misc/ipcq/wait.h"
#include "Misc/wire/channels.h"
#include "Misc/wire/records.h"
#include "Misc/wire/transfer.h"
#include "svr4/errno.h"
#include "svr4/process.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long AckSeconds = 300;
static const long FirstSlice = 1;              // milliseconds: the own mail may be just what fills the queue
static const long IdleSlice = 100;             // of a server's wait for an event, in which nothing is urgent
static const long PatientSlice = 500;          // of a client that stands in nobody's way: a thousand of them may wait
static const int64_t GraceMilliseconds = 1000; // in which a stranger puts back what he took off the data channel

namespace zeloo {

using wire::Owner;
using wire::ReceivingSide;
using wire::SendingSide;

namespace {

// Whether a partner has gone and has had its say: what it put on the queue at last may still be there, or a stranger may
// have it in hand, so one more slice is waited for that.
class PartnerWatch {
public:
    bool HasLeft(long partner)
    {
        const bool hadGone = hasGone;
        hasGone = svr4::has_ended(partner);
        return hadGone && hasGone;
    }
    bool IsSuspicious() const { return hasGone; }

private:
    bool hasGone = false;
};

// A wait within a transfer: its partner is watched, the mail is kept and others' records go back.
class TransferAttempt : public Attempt {
public:
    TransferAttempt(const QueueEnd& ownEnd, long partnerPID, short codeWhenGone)
        : end(ownEnd), partner(partnerPID), gone(codeWhenGone)
    {
    }
    long Partner() const { return partner; }
    long FirstSlice() const override { return ::FirstSlice; }
    bool Hurries() const override { return watch.IsSuspicious(); }
    short Look() override
    {
        end.mail.Save(2 * MostSaved);
        end.mail.GatherEarly();
        end.mail.GiveBack();
        end.mail.ClearTheDead(partner);
        ReportMoreMalformed(end.queue);
        return watch.HasLeft(partner) ? gone : short(ErrorReporter::NO_ERRORS);
    }

protected:
    const QueueEnd& end;
    long partner;

private:
    PartnerWatch watch;
    short gone;
};

// Puts LocalMsg on the queue.
class PutAttempt : public TransferAttempt {
public:
    PutAttempt(const QueueEnd& ownEnd, long receiver)
        : TransferAttempt(ownEnd, receiver, ErrorReporter::IPC_SEND_PROCESS_GONE)
    {
    }
    // It may be the own mail that fills the queue. Room is used as soon as there is some: a flood leaves it no time.
    int Try(int flags) override
    {
        int error = PutMessage(end.queue, &LocalMsg, flags);
        while (error == EAGAIN && end.mail.SaveOne(MostSaved))
            error = PutMessage(end.queue, &LocalMsg, flags);
        return error;
    }
};

// Puts a block of an own event on the queue.
class SendAttempt : public PutAttempt {
public:
    SendAttempt(const QueueEnd& ownEnd, const SendingSide& event) : PutAttempt(ownEnd, event.Partner()), side(event) {}
    long LongestSlice() const override
    {
        return side.IsFirst() && !end.object.is_a_server() ? PatientSlice : PutAttempt::LongestSlice();
    }
    short Look() override
    {
        const short code = PutAttempt::Look();
        end.mail.AcceptEarly(partner);
        return code;
    }

private:
    const SendingSide& side;
};

// Puts an acknowledgement on the queue, unless it is no longer for this event. Who waits for one sends nothing else: the
// event's sender has given it up, or has died and left its process id to another, who would take it for its own.
class AckPutAttempt : public PutAttempt {
public:
    AckPutAttempt(const QueueEnd& ownEnd, const ReceivingSide& event) : PutAttempt(ownEnd, event.Partner()), side(event)
    {
    }
    short Look() override
    {
        const short code = PutAttempt::Look();
        return code == ErrorReporter::NO_ERRORS && end.mail.HasNewerEvent(side) ? BrokenEvent : code;
    }

private:
    const ReceivingSide& side;
};

// Takes the partner's records from a channel, and no others.
class ReceiveAttempt : public TransferAttempt {
public:
    ReceiveAttempt(const QueueEnd& ownEnd, long partnerPID, long fromChannel, ReceivedMessage& place)
        : TransferAttempt(ownEnd, partnerPID, ErrorReporter::IPC_RECV_PROCESS_GONE), message(place),
          channel(fromChannel)
    {
    }
    int Try(int flags) override
    {
        const int error = TakeMessage(end.queue, channel, message, flags);
        if (error != 0)
            return error;
        switch (wire::OwnerOf(message.msg(), message.length, partner, end.pid)) {
        case Owner::Partner: return 0;
        case Owner::Nobody: ReportMalformed(end.queue); return TryAgain;
        default: end.mail.PutBack(message); return TryLater;
        }
    }

protected:
    ReceivedMessage& message;

private:
    long channel;
};

class AckAttempt : public ReceiveAttempt {
public:
    using ReceiveAttempt::ReceiveAttempt;
    short Look() override
    {
        const short code = ReceiveAttempt::Look();
        end.mail.AcceptEarly(partner);
        return code;
    }
};

// Takes a later block, unless the partner has given up the event.
class BlockAttempt : public ReceiveAttempt {
public:
    BlockAttempt(const QueueEnd& ownEnd, const ReceivingSide& event)
        : ReceiveAttempt(ownEnd, event.Partner(), event.Channel(), LocalMessage), side(event)
    {
    }
    int Try(int flags) override
    {
        const int error = ReceiveAttempt::Try(flags);
        if (error == ENOMSG && !isWaiting) {
            isWaiting = true;
            end.mail.Save(MostSaved); // it may be what leaves no room for the block
        }
        return error;
    }
    short Look() override
    {
        const short code = ReceiveAttempt::Look();
        if (code != ErrorReporter::NO_ERRORS || !end.mail.HasNewerEvent(side))
            return code;
        // The partner puts its next event on the queue behind the blocks of this one: what was there has been read.
        const int64_t now = MillisecondsNow();
        if (isSuperseded)
            return now - since >= GraceMilliseconds ? BrokenEvent : code;
        isSuperseded = true;
        since = now;
        return code;
    }

private:
    const ReceivingSide& side;
    bool isWaiting = false;
    bool isSuperseded = false;
    int64_t since = 0;
};

// Takes an event from the own channel, whoever sent it.
class FirstBlockAttempt : public Attempt {
public:
    FirstBlockAttempt(const QueueEnd& ownEnd, long partnerPID) : end(ownEnd), partner(partnerPID) {}
    int Try(int flags) override
    {
        const int error = TakeMessage(end.queue, end.pid, LocalMessage, flags);
        if (error != 0) {
            wasEmpty = true;
            return error;
        }
        if (FirstBlock(LocalMessage, end.pid)) {
            if (wasEmpty)
                end.mail.NoteAlive(LocalMsg.senders_pid);
            return 0;
        }
        ReportMalformed(end.queue);
        return TryAgain;
    }
    long FirstSlice() const override
    {
        if (partner != 0)
            return PatientSlice;
        return end.mail.HasToTend() || MoreAreMalformed() ? IdleSlice : 0;
    }
    long LongestSlice() const override { return partner != 0 ? PatientSlice : IdleSlice; }
    bool Hurries() const override { return watch.IsSuspicious(); }
    short Look() override
    {
        end.mail.GiveBack();
        end.mail.ClearTheDead(0);
        ReportMoreMalformed(end.queue);
        return partner != 0 && watch.HasLeft(partner) ? ErrorReporter::IPC_RECV_PROCESS_GONE : ErrorReporter::NO_ERRORS;
    }

    /// Whether nothing else was waiting shortly before the event came.
    bool WasEmpty() const { return wasEmpty; }

private:
    const QueueEnd& end;
    long partner;
    PartnerWatch watch;
    bool wasEmpty = false;
};

} // namespace

// ---- Sending ----

static short SendLocalMsg(const QueueEnd& end, long channel, PutAttempt& attempt, Patience patience)
{
    if (!end.mail.IsAlive(attempt.Partner()))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    LocalMsg.mtype = static_cast<int32_t>(channel);
    return WaitFor(attempt, patience, ErrorReporter::IPC_SEND_TIME_OUT, "ipc_send failure");
}

// How long a wait may last that begins when the partner is within the transfer: the transfer limit, or what the contract
// says without one.
static Patience WithinTransfer(const QueueEnd& end, long seconds)
{
    return end.transferTimeOut > 0 ? Patience::BySeconds(end.transferTimeOut) : Patience::InSteps(seconds);
}

static void ReportSilence(const QueueEnd& end, long partner)
{
    Report(end.object, ErrorReporter::WARNING, ErrorReporter::IPC_RECV_TIME_OUT, 0, ZELOO_HERE,
           "Multi-block event dropped, process %ld was silent for %ld seconds.", partner, end.transferTimeOut);
}

static short SendBlock(const QueueEnd& end, SendingSide& event, const char* data)
{
    const Patience patience =
        event.IsFirst() ? Patience::InSteps(end.sendTimeOut) : WithinTransfer(end, end.sendTimeOut);
    event.FillBlock(&LocalMsg, data);
    if (event.IsFirst())
        end.mail.SaveBeforeSending();
    SendAttempt attempt(end, event);
    const short code = SendLocalMsg(end, event.Channel(), attempt, patience);
    if (code == ErrorReporter::NO_ERRORS)
        event.BlockSent(&LocalMsg);
    return code;
}

// The acknowledgement does not go through LocalMsg, which holds the event that is being sent.
static short AwaitAck(const QueueEnd& end, SendingSide& event)
{
    ReceivedMessage answer;
    end.mail.Save(MostSaved);
    end.mail.AcceptEarly(event.Partner());
    AckAttempt attempt(end, event.Partner(), event.Channel(), answer);
    const short code =
        WaitFor(attempt, WithinTransfer(end, AckSeconds), ErrorReporter::IPC_RECV_TIME_OUT, "ipc_recv failure");
    if (code == ErrorReporter::NO_ERRORS)
        event.Answer(answer.msg(), &LocalMsg);
    else if (code == ErrorReporter::IPC_RECV_TIME_OUT && end.transferTimeOut > 0)
        ReportSilence(end, event.Partner());
    return code;
}

static short SendBlocks(const QueueEnd& end, SendingSide& event, const char* data)
{
    for (;;) {
        short code = ErrorReporter::NO_ERRORS;
        switch (event.Next()) {
        case SendingSide::ForgetAcks:
            end.mail.Sweep(event.Channel(), event.Partner());
            event.Forgotten();
            break;
        case SendingSide::SendBlock: code = SendBlock(end, event, data); break;
        case SendingSide::AwaitAck: code = AwaitAck(end, event); break;
        case SendingSide::Done: return ErrorReporter::NO_ERRORS;
        case SendingSide::Refused: return ErrorReporter::IPC_ERROR;
        }
        if (code != ErrorReporter::NO_ERRORS)
            return code;
    }
}

short SendEvent(const QueueEnd& end, long receiver, const char* data, int32_t length, int blockSize)
{
    SendingSide event(end.pid, receiver, length, blockSize);
    end.mail.NoteCorrespondent(receiver);
    const short code = SendBlocks(end, event, data);
    const svr4::SavedErrno savedErrno;
    if (code != ErrorReporter::NO_ERRORS && code != ErrorReporter::SERVER_GONE && event.HasSeveral()) {
        end.mail.ClearPair(end.pid, receiver);
        if (end.object.is_a_server()) // a server's own channel is its own business
            end.mail.TakeBackFirstBlock(receiver);
    }
    end.mail.EndTransfer();
    return code;
}

// ---- Receiving ----

short ReceiveFirstBlock(const QueueEnd& end, long partner)
{
    FirstBlockAttempt attempt(end, partner);
    const Patience patience =
        partner != 0 ? Patience::InSteps(end.receiveTimeOut) : Patience::Exactly(end.receiveTimeOut);
    const short code = WaitFor(attempt, patience, ErrorReporter::IPC_RECV_TIME_OUT, "ipc_recv failure");
    if (code != ErrorReporter::NO_ERRORS)
        std::memset(static_cast<void*>(&LocalMsg), 0, sizeof LocalMsg);
    else
        end.mail.SaveBehind(attempt.WasEmpty());
    return code;
}

static short Acknowledge(const QueueEnd& end, ReceivingSide& event)
{
    end.mail.Save(MostSaved);
    if (end.mail.HasNewerEvent(event))
        return BrokenEvent;
    wire::MakeAck(&LocalMsg, static_cast<int32_t>(end.pid));
    AckPutAttempt attempt(end, event);
    const short code = SendLocalMsg(end, event.Channel(), attempt, WithinTransfer(end, end.sendTimeOut));
    event.Acknowledged();
    return code;
}

static short AwaitBlock(const QueueEnd& end, ReceivingSide& event, Buffer& data)
{
    BlockAttempt attempt(end, event);
    const short code =
        WaitFor(attempt, WithinTransfer(end, end.receiveTimeOut), ErrorReporter::IPC_RECV_TIME_OUT, "ipc_recv failure");
    if (code == ErrorReporter::IPC_RECV_TIME_OUT && end.transferTimeOut > 0) {
        ReportSilence(end, event.Partner());
        return StalledEvent;
    }
    if (code != ErrorReporter::NO_ERRORS)
        return code;
    const bool isTaken = event.TakeBlock(LocalMsg, LocalMessage.length, SegmentSizeOf(LocalMsg));
    return isTaken && !PlaceData(LocalMsg, data) ? BrokenEvent : short(ErrorReporter::NO_ERRORS);
}

static short ReportNoRoom(const QueueEnd& end)
{
    end.object._ReportError(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, "Receieve event data storage",
                            ModuleId(), __LINE__);
    return ErrorReporter::OUT_OF_MEMORY;
}

// Takes the blocks that are due, until the event is whole or broken.
static short ReceiveBlocks(const QueueEnd& end, ReceivingSide& event, Buffer& data)
{
    for (;;) {
        short code = ErrorReporter::NO_ERRORS;
        switch (event.Next()) {
        case ReceivingSide::ForgetBlocks:
            end.mail.ForgetBlocks(event.Partner());
            event.Forgotten();
            break;
        case ReceivingSide::Acknowledge: code = Acknowledge(end, event); break;
        case ReceivingSide::AwaitBlock: code = AwaitBlock(end, event, data); break;
        case ReceivingSide::Done: return ErrorReporter::NO_ERRORS;
        case ReceivingSide::Broken: return BrokenEvent;
        case ReceivingSide::OutOfMemory: return ReportNoRoom(end);
        }
        if (code != ErrorReporter::NO_ERRORS)
            return code;
    }
}

// Receives what is still missing of an event.
static short ReceiveRest(const QueueEnd& end, ReceivingSide& event, Buffer& data)
{
    const long sender = event.Partner();
    if (event.Next() != ReceivingSide::Done) {
        end.mail.NoteCorrespondent(sender);
        end.mail.Open(wire::DataChannel(sender, end.pid));
    }
    const short code = ReceiveBlocks(end, event, data);
    const svr4::SavedErrno savedErrno;
    if (code == ErrorReporter::NO_ERRORS) {
        end.mail.NoteWholeEvent(sender);
    } else if (code != ErrorReporter::SERVER_GONE) {
        end.mail.ClearPair(sender, end.pid);
        end.mail.NoteCorrespondent(sender, true); // it may be about to send more
    }
    end.mail.EndTransfer();
    return code;
}

short ReceiveData(const QueueEnd& end, Buffer& data)
{
    const unsigned size = static_cast<unsigned>(LocalMsg.alloc_data_length);
    if (size == 0)
        return ErrorReporter::NO_ERRORS;
    if (LocalMsg.parts_left > 0 && LocalMsg.shmem_id < 0) {
        const std::unique_ptr<EarlyEvent> early(end.mail.TakeEarly(LocalMsg.senders_pid));
        if (early != nullptr) {
            data.AssignPtr(early->data.ReleasePtr(), size);
            return ReceiveRest(end, early->event, data);
        }
    }
    data.ReSize(size);
    if (data.Size() != size)
        return ReportNoRoom(end);
    ReceivingSide event(LocalMsg, end.pid);
    if (!PlaceData(LocalMsg, data))
        return BrokenEvent;
    return event.Next() == ReceivingSide::Done ? short(ErrorReporter::NO_ERRORS) : ReceiveRest(end, event, data);
}

} // namespace zeloo
