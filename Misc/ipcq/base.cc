// SPDX-License-Identifier: BSD-2-Clause
#include <cerrno>
#include <cstring>
#include <new>

#include <unistd.h>

#include "Misc/Error/report.h"
#include "Misc/detail/owner.h"
#include "Misc/detail/text.h"
#include "Misc/ipcq/transfer.h"
#include "Misc/proginfo.h"
#include "Misc/wire/blocks.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

InternalQMessage::InternalQMessage()
    : object(0), event(0), origprog(), orignode(), response_rqd(0), ack_rqd(0), result_code(0)
{
}

InternalQMessage::InternalQMessage(const InternalQMessage& other) = default;

InternalQMessage::~InternalQMessage() = default;

ZELOO_DEFINE_ARRAY(InternalQMessage);

InternalQMessageSafeArray* InternalQMsgsPtr = nullptr;

IPCQBase::IPCQBase(const char* pServerName)
    : ReceiveTimeOut(900), SendTimeOut(60), MyQueueID(-1), MyPID(getpid()), ServerPID(-1),
      ServerName(zeloo::NewText(pServerName)), SendersPID(-1), SendersProgramName(), SendersNodeName(),
      TransferTimeOut(0), mail(new (std::nothrow) zeloo::Mail(*this))
{
}

IPCQBase::~IPCQBase()
{
    delete mail;
    delete[] ServerName;
}

void IPCQBase::dumpOn(std::ostream& out) const
{
    out << "IPCQBase::ServerName     : " << zeloo::TextOrEmpty(ServerName) << '\n';
    out << "IPCQBase::ServerPID      : " << ServerPID << '\n';
    out << "IPCQBase::MyQueueID      : " << MyQueueID << '\n';
    out << "IPCQBase::ReceiveTimeOut : " << ReceiveTimeOut << '\n';
    out << "IPCQBase::SendTimeOut    : " << SendTimeOut << '\n';
    out << "IPCQBase::MyPID          : " << MyPID << '\n';
    out << "IPCQBase::SendersPID     : " << SendersPID << '\n';
    out << "IPCQBase::SendersProgram : " << SendersProgramName << '\n';
    out << "IPCQBase::SendersNodeName: " << SendersNodeName << '\n';
}

short IPCQBase::IPCSend(const char* FromProg, const char* FromNode, const char* FromVersion, long ToPID,
                        const char* ToProg, short Object, short event, const void* ptr, long len,
                        short response_required, short ack_required, short status)
{
    const bool internal = ToPID == MyPID;
    if (!internal && MyQueueID < 0)
        return IPC_CONNECTION_LOST;
    if (!internal && mail == nullptr)
        return OUT_OF_MEMORY;
    const int blockSize = zeloo::SendingBlockSize();
    const int64_t longest = internal ? INT32_MAX : zeloo::wire::Cutter::LongestData(blockSize);
    if (len < 0 || len > longest || (ptr == nullptr && len > 0)) {
        errno = 0;
        _ReportError(WARNING, BAD_IPC_PARAMETER, "IPCSend data or data length not valid.", ModuleId(), __LINE__);
        return IPC_ERROR;
    }
    if (internal && (response_required || ack_required)) {
        errno = 0;
        _ReportError(WARNING, IPC_ERROR, "IPCSend deadlock condition.", ModuleId(), __LINE__);
        return IPC_ERROR; // a process cannot wait for its own reply
    }
    if (internal)
        return SendInternal(FromProg, FromNode, Object, event, ptr, len, status);

    std::memset(static_cast<void*>(&LocalMsg), 0, sizeof LocalMsg);
    LocalMsg.senders_pid = static_cast<int32_t>(MyPID);
    zeloo::CopyText(LocalMsg.senders_version, FromVersion);
    LocalMsg.object = Object;
    LocalMsg.event = event;
    zeloo::CopyText(LocalMsg.destprog, ToProg);
    zeloo::CopyText(LocalMsg.origprog, FromProg);
    zeloo::CopyText(LocalMsg.orignode, FromNode);
    LocalMsg.response_rqd = response_required;
    LocalMsg.ack_rqd = ack_required;
    LocalMsg.result_code = status;
    return zeloo::SendEvent(End(), ToPID, static_cast<const char*>(ptr), static_cast<int32_t>(len), blockSize);
}

short IPCQBase::SendInternal(const char* FromProg, const char* FromNode, short Object, short event, const void* ptr,
                             long len, short status)
{
    InternalQMessage* message = new (std::nothrow) InternalQMessage;
    if (message != nullptr && len > 0)
        message->data.PutDataAt(0, ptr, static_cast<unsigned>(len));
    if (message == nullptr || message->data.Size() != static_cast<unsigned>(len)) {
        _ReportError(WARNING, OUT_OF_MEMORY, "IPCSend internal data", ModuleId(), __LINE__);
        delete message;
        return OUT_OF_MEMORY;
    }
    message->object = Object;
    message->event = event;
    zeloo::CopyText(message->origprog, FromProg);
    zeloo::CopyText(message->orignode, FromNode);
    message->result_code = status;

    if (InternalQMsgsPtr == nullptr)
        InternalQMsgsPtr = new (std::nothrow) InternalQMessageSafeArray;
    if (InternalQMsgsPtr == nullptr) {
        _ReportError(WARNING, OUT_OF_MEMORY, "IPCSend internal messages", ModuleId(), __LINE__);
        delete message;
        return OUT_OF_MEMORY;
    }
    InternalQMsgsPtr->AddItem(message);
    return NO_ERRORS;
}

zeloo::QueueEnd IPCQBase::End()
{
    return {*this, *mail, MyQueueID, MyPID, SendTimeOut, ReceiveTimeOut, TransferTimeOut};
}

short IPCQBase::IPCReceive(short& REvent, long MessageSenderPID, short TimeOutEvent, Buffer& Data, short& EventStatus,
                           short& ResponseRqd, short& AckRqd)
{
    const short code = ReceiveEvent(REvent, MessageSenderPID, TimeOutEvent, Data, EventStatus, ResponseRqd, AckRqd);
    switch (code) {
    case zeloo::BrokenEvent: errno = 0; return IPC_ERROR;
    case zeloo::StalledEvent: return IPC_RECV_TIME_OUT;
    default: return code;
    }
}

short IPCQBase::ReceiveEvent(short& REvent, long MessageSenderPID, short TimeOutEvent, Buffer& Data, short& EventStatus,
                             short& ResponseRqd, short& AckRqd)
{
    ClearEvent(Data, EventStatus, ResponseRqd, AckRqd);
    if (MessageSenderPID == 0 && InternalQMsgsPtr != nullptr && InternalQMsgsPtr->Quantity() > 0)
        return ReceiveInternal(REvent, Data, EventStatus, ResponseRqd, AckRqd);
    if (MyQueueID < 0)
        return IPC_CONNECTION_LOST;
    if (mail == nullptr)
        return OUT_OF_MEMORY;

    const short code = TakeFirstBlock(MessageSenderPID);
    if (code == IPC_RECV_TIME_OUT) {
        zeloo::CopyText(SendersProgramName, "Internal");
        zeloo::CopyText(SendersNodeName, ProgInfo::GetNodeName());
        REvent = TimeOutEvent;
        return NO_ERRORS;
    }
    if (code != NO_ERRORS)
        return code;

    REvent = LocalMsg.event;
    SendersPID = LocalMsg.senders_pid;
    zeloo::CopyText(SendersProgramName, LocalMsg.origprog);
    zeloo::CopyText(SendersNodeName, LocalMsg.orignode);
    ResponseRqd = LocalMsg.response_rqd;
    AckRqd = LocalMsg.ack_rqd;
    EventStatus = LocalMsg.result_code;
    return zeloo::ReceiveData(End(), Data);
}

short IPCQBase::ReceiveFromAnybody(short& REvent, short TimeOutEvent, Buffer& Data, short& EventStatus,
                                   short& ResponseRqd, short& AckRqd)
{
    for (;;) {
        const short code = ReceiveEvent(REvent, 0, TimeOutEvent, Data, EventStatus, ResponseRqd, AckRqd);
        if (code == zeloo::BrokenEvent)
            zeloo::Report(*this, WARNING, IPC_ERROR, 0, ZELOO_HERE, "Multi-block event dropped, a block does not fit.");
        else if (code != zeloo::StalledEvent)
            return code;
    }
}

void IPCQBase::ClearEvent(Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd)
{
    ResponseRqd = 0;
    AckRqd = 0;
    EventStatus = 0;
    SendersProgramName[0] = '\0';
    SendersNodeName[0] = '\0';
    Data.PurgeContents();
}

short IPCQBase::ReceiveInternal(short& REvent, Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd)
{
    const InternalQMessage* message = InternalQMsgsPtr->first();
    REvent = message->event;
    SendersPID = MyPID;
    zeloo::CopyText(SendersProgramName, message->origprog);
    zeloo::CopyText(SendersNodeName, message->orignode);
    ResponseRqd = message->response_rqd;
    AckRqd = message->ack_rqd;
    EventStatus = message->result_code;
    const unsigned size = message->data.Size();
    if (size > 0)
        Data.PutDataAt(0, static_cast<const void*>(message->data), size);
    InternalQMsgsPtr->RemoveAt(0);
    if (Data.Size() == size)
        return NO_ERRORS;
    _ReportError(WARNING, OUT_OF_MEMORY, "Receieve event data storage", ModuleId(), __LINE__);
    return OUT_OF_MEMORY;
}

// Puts the first block of the next event into LocalMsg: a saved one if there is one, else from the queue.
short IPCQBase::TakeFirstBlock(long MessageSenderPID)
{
    mail->ClearTheDead(0);
    while (const IPCQMsg* saved = MsgArray.first()) {
        LocalMsg = saved->msg;
        zeloo::LocalMessage.length = static_cast<size_t>(IPCMessageNonDataSize + LocalMsg.msg_data_len);
        MsgArray.RemoveAt(0);
        mail->Save(zeloo::MostSaved);
        if (zeloo::FirstBlock(zeloo::LocalMessage, MyPID))
            return NO_ERRORS;
        zeloo::ReportMalformed(MyQueueID);
    }
    return zeloo::ReceiveFirstBlock(End(), MessageSenderPID);
}

void IPCQBase::IPCDrain()
{
    if (mail != nullptr && zeloo::IsOwner(MyPID))
        mail->Save(zeloo::MostSaved);
}

void IPCQBase::GiveBackOthersMail()
{
    if (mail != nullptr && MyQueueID >= 0 && zeloo::IsOwner(MyPID))
        mail->GiveAllBack();
}

// For a handler that ends the process.
void IPCQBase::LeaveQueue()
{
    if (mail != nullptr && MyQueueID >= 0 && zeloo::IsOwner(MyPID))
        mail->Leave();
}

void DrainIPCMessages(int ORVM_msqid, long FromChannel, IPCQMsgSafeArray& MsgArray)
{
    zeloo::SaveMail(ORVM_msqid, FromChannel, MsgArray, zeloo::MostSaved);
}
