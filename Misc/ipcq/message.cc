// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/message.h"

#include <cerrno>
#include <cstring>

#include "Misc/Error/report.h"
#include "Misc/detail/timedcall.h"
#include "Misc/wire/records.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ZELOO_DEFINE_ARRAY(IPCQMsg);

namespace zeloo {

ReceivedMessage LocalMessage;

} // namespace zeloo

IPCQMessage& LocalMsg = zeloo::LocalMessage.area.record.msg;

namespace zeloo {

bool CompleteMessage(const ReceivedMessage& message) { return wire::IsComplete(message.msg(), message.length); }

bool FirstBlock(const ReceivedMessage& message, long receiver)
{
    return wire::StartsEvent(message.msg(), message.length, SegmentSizeOf(message.msg()), receiver);
}

int64_t SegmentSizeOf(const IPCQMessage& message) { return message.shmem_id >= 0 ? SegmentSize(message.shmem_id) : -1; }

int TakeMessage(int queue, long channel, ReceivedMessage& message, int flags)
{
    const ssize_t n = svr4::msgrcv(queue, &message.area.record, IPCMessageDataSize + 1, channel, flags | MSG_NOERROR);
    if (n < 0)
        return errno;
    message.length = static_cast<size_t>(n);
    const size_t used = sizeof message.msg().mtype + message.length;
    if (used < sizeof(IPCQMessage))
        std::memset(reinterpret_cast<char*>(&message.area.record) + used, 0, sizeof(IPCQMessage) - used);
    return 0;
}

int PutMessage(int queue, IPCQMessage* message, int flags)
{
    const size_t length = static_cast<size_t>(IPCMessageNonDataSize + message->msg_data_len);
    return svr4::msgsnd(queue, message, length, flags) == 0 ? 0 : errno;
}

unsigned long WaitingMessages(int queue)
{
    struct msqid_ds status;
    return msgctl(queue, IPC_STAT, &status) == 0 ? status.msg_qnum : 0;
}

void DiscardMessages(int queue, long channel)
{
    TakeWaiting(queue, channel, [](const ReceivedMessage&) { return true; });
}

// Who puts rubbish on a queue can do it many thousand times a second.
static const int64_t ReportMilliseconds = 1000;
static int64_t lastReport = -ReportMilliseconds;
static long unreported = 0;

void ReportMalformed(int queue)
{
    unreported++;
    ReportMoreMalformed(queue);
}

bool MoreAreMalformed() { return unreported > 0; }

void ReportMoreMalformed(int queue)
{
    const int64_t now = MillisecondsNow();
    if (unreported == 0 || now - lastReport < ReportMilliseconds)
        return;
    if (unreported == 1)
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, 0, ZELOO_HERE,
               "Malformed message dropped from queue %d.", queue);
    else
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, 0, ZELOO_HERE,
               "%ld malformed messages dropped from queue %d.", unreported, queue);
    lastReport = now;
    unreported = 0;
}

bool QueueIsGone(int error) { return error == EINVAL || error == EIDRM || error == ENOENT; }

void ReportQueueFailure(int error, long line, const char* what)
{
    Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, error, ModuleId(), line, "%s because %s", what,
           GetQueueErrorMsg(error));
}

} // namespace zeloo
