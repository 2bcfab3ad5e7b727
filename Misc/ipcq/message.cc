#include "Misc/ipcq/message.h"

#include <cerrno>
#include <cstring>

#include "Misc/Error/report.h"
#include "Misc/wire/records.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

template <>
const char* SafeArray<IPCQMsg>::ElementName()
{
    return "IPCQMsg";
}
template class SafeArray<IPCQMsg>;

namespace zeloo {

ReceivedMessage LocalMessage;

} // namespace zeloo

IPCQMessage& LocalMsg = zeloo::LocalMessage.area.record.msg;

namespace zeloo {

bool AnyMessage(const ReceivedMessage&) { return true; }

bool CompleteMessage(const ReceivedMessage& message) { return wire::IsComplete(message.msg(), message.length); }

bool FirstBlock(const ReceivedMessage& message)
{
    return wire::StartsEvent(message.msg(), message.length, SegmentSizeOf(message.msg()));
}

int64_t SegmentSizeOf(const IPCQMessage& message) { return message.shmem_id >= 0 ? SegmentSize(message.shmem_id) : -1; }

int TakeMessage(int queue, long channel, ReceivedMessage& message, MessageCheck check, int flags)
{
    for (;;) {
        const ssize_t n =
            svr4::msgrcv(queue, &message.area.record, IPCMessageDataSize + 1, channel, flags | MSG_NOERROR);
        if (n < 0)
            return errno;
        message.length = static_cast<size_t>(n);
        const size_t used = sizeof message.msg().mtype + message.length;
        if (used < sizeof(IPCQMessage))
            std::memset(reinterpret_cast<char*>(&message.area.record) + used, 0, sizeof(IPCQMessage) - used);
        if (check(message))
            return 0;
        ReportMalformed(queue);
    }
}

int PutMessage(int queue, IPCQMessage* message, int flags)
{
    const size_t length = static_cast<size_t>(IPCMessageNonDataSize + message->msg_data_len);
    return svr4::msgsnd(queue, message, length, flags) == 0 ? 0 : errno;
}

void DiscardMessages(int queue, long channel)
{
    svr4::MessageArea<int32_t> area;
    while (svr4::msgrcv(queue, &area.record, 0, channel, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

void ReportMalformed(int queue)
{
    Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, 0, ZELOO_HERE, "Malformed message dropped from queue %d.",
           queue);
}

bool QueueIsGone(int error) { return error == EINVAL || error == EIDRM || error == ENOENT; }

void ReportQueueFailure(int error, long line, const char* what)
{
    Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, error, ModuleId(), line, "%s because %s", what,
           GetQueueErrorMsg(error));
}

} // namespace zeloo
