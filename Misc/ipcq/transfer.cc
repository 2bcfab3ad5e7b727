#include "Misc/ipcq/transfer.h"

#include "Misc/ipcq/message.h"
#include "Misc/ipcq/wait.h"
#include "Misc/wire/records.h"
#include "Misc/wire/transfer.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long AckSeconds = 300;

namespace zeloo {

using wire::ReceivingSide;
using wire::SendingSide;

static short SendLocalMsg(const QueueEnd& end, long channel, long receiver)
{
    end.object.IPCDrain();
    if (receiver != 0 && !process_exists(receiver))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    LocalMsg.mtype = static_cast<int32_t>(channel);
    return SendMessage(end.queue, &LocalMsg, receiver, end.sendTimeOut, &end.object);
}

// The acknowledgement does not go through LocalMsg, which holds the event that is being sent.
static short AwaitAck(const QueueEnd& end, long receiver, SendingSide& event)
{
    ReceivedMessage answer;
    end.object.IPCDrain();
    const short code =
        ReceiveMessage(end.queue, event.Channel(), answer, CompleteMessage, receiver, AckSeconds, &end.object);
    if (code == ErrorReporter::NO_ERRORS)
        event.Answer(answer.msg(), &LocalMsg);
    return code;
}

short SendEvent(const QueueEnd& end, long receiver, const char* data, int32_t length, int blockSize)
{
    SendingSide event(end.pid, receiver, length, blockSize);
    if (event.HasSeveral()) // an acknowledgement that is there already came too late for an earlier event
        DiscardMessages(end.queue, event.AckChannel());
    for (;;) {
        short code = ErrorReporter::NO_ERRORS;
        switch (event.Next()) {
        case SendingSide::SendBlock:
            event.FillBlock(&LocalMsg, data);
            code = SendLocalMsg(end, event.Channel(), receiver);
            if (code == ErrorReporter::NO_ERRORS)
                event.BlockSent(&LocalMsg);
            break;
        case SendingSide::AwaitAck: code = AwaitAck(end, receiver, event); break;
        case SendingSide::Done: return ErrorReporter::NO_ERRORS;
        case SendingSide::Refused: return ErrorReporter::IPC_ERROR;
        }
        if (code != ErrorReporter::NO_ERRORS)
            return code;
    }
}

// Puts the data of LocalMsg, which has been checked, into its place.
static bool PlaceData(Buffer& data)
{
    if (LocalMsg.shmem_id < 0) {
        data.PutDataAt(static_cast<unsigned>(LocalMsg.curr_data_offset), LocalMsg.msg_data,
                       static_cast<unsigned>(LocalMsg.msg_data_len));
        return true;
    }
    if (!copy_from_shmem(LocalMsg.shmem_id, data, LocalMsg.curr_data_offset, LocalMsg.shmem_size))
        return false;
    delete_shmem_id(LocalMsg.shmem_id);
    return true;
}

static short Acknowledge(const QueueEnd& end, ReceivingSide& event)
{
    if (!process_exists(event.Sender()))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    // The sender waits for the acknowledgement now: what is on the data channel already belongs to an earlier event,
    // which broke off.
    DiscardMessages(end.queue, event.DataChannel());
    wire::MakeAck(&LocalMsg, static_cast<int32_t>(end.pid));
    const short code = SendLocalMsg(end, event.AckChannel(), event.Sender());
    event.Acknowledged();
    return code;
}

static short AwaitBlock(const QueueEnd& end, ReceivingSide& event, Buffer& data)
{
    end.object.IPCDrain();
    const short code = ReceiveMessage(end.queue, event.DataChannel(), LocalMessage, AnyMessage, event.Sender(),
                                      end.receiveTimeOut, &end.object);
    if (code != ErrorReporter::NO_ERRORS)
        return code;
    const bool isTaken = event.TakeBlock(LocalMsg, LocalMessage.length, SegmentSizeOf(LocalMsg));
    return isTaken && !PlaceData(data) ? BrokenTransfer : short(ErrorReporter::NO_ERRORS);
}

static short ReportNoRoom(const QueueEnd& end)
{
    end.object._ReportError(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, "Receieve event data storage",
                            ModuleId(), __LINE__);
    return ErrorReporter::OUT_OF_MEMORY;
}

// Takes the blocks that are due, until the event is whole or broken.
static short ReceiveLaterBlocks(const QueueEnd& end, ReceivingSide& event, Buffer& data)
{
    for (;;) {
        short code = ErrorReporter::NO_ERRORS;
        switch (event.Next()) {
        case ReceivingSide::Acknowledge: code = Acknowledge(end, event); break;
        case ReceivingSide::AwaitBlock: code = AwaitBlock(end, event, data); break;
        case ReceivingSide::Done: return ErrorReporter::NO_ERRORS;
        case ReceivingSide::Broken: return BrokenTransfer;
        case ReceivingSide::OutOfMemory: return ReportNoRoom(end);
        }
        if (code != ErrorReporter::NO_ERRORS)
            return code;
    }
}

short ReceiveData(const QueueEnd& end, Buffer& data)
{
    const unsigned size = static_cast<unsigned>(LocalMsg.alloc_data_length);
    if (size == 0)
        return ErrorReporter::NO_ERRORS;
    data.ReSize(size);
    if (data.Size() != size)
        return ReportNoRoom(end);
    ReceivingSide event(LocalMsg, end.pid);
    if (!PlaceData(data))
        return BrokenTransfer;
    const short code = ReceiveLaterBlocks(end, event, data);
    if (code == BrokenTransfer) // what comes yet is discarded by the sender's next event
        DiscardMessages(end.queue, event.DataChannel());
    return code;
}

} // namespace zeloo
