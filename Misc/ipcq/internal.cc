#include <cerrno>
#include <new>

#include "Misc/detail/text.h"
#include "Misc/ipcq.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

InternalQMessage::InternalQMessage()
    : object(0), event(0), origprog(), orignode(), response_rqd(0), ack_rqd(0), result_code(0)
{
}

InternalQMessage::InternalQMessage(const InternalQMessage& other) = default;

InternalQMessage::~InternalQMessage() = default;

template <>
const char* SafeArray<InternalQMessage>::ElementName()
{
    return "InternalQMessage";
}
template class SafeArray<InternalQMessage>;

InternalQMessageSafeArray* InternalQMsgsPtr = nullptr;

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
