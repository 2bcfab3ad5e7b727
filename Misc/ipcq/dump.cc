// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>

#include "Misc/detail/text.h"
#include "Misc/ipcq/message.h"
#include "Misc/wire/blocks.h"
#include "Misc/wire/channels.h"

using zeloo::DumpText;

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char* SpecialEventName(int16_t event)
{
    switch (event) {
    case zeloo::wire::MultiBlockAck: return " (Multi-Block-Ack)";
    case zeloo::wire::MultiBlockData: return " (Multi-Block-Data)";
    case 0: return " (NULL)";
    default: return "";
    }
}

void DumpIPCMessage(const IPCQMessage* pmsg, std::ostream& out)
{
    out << "IPCQMessage: \n\n";
    out << "mtype (to_pid)    = " << pmsg->mtype << '\n';
    DumpText("senders_version   = ", pmsg->senders_version, out);
    out << "senders_pid       = " << pmsg->senders_pid << "\n\n";
    out << "object            = " << pmsg->object << '\n';
    out << "event             = " << pmsg->event << SpecialEventName(pmsg->event) << "\n\n";
    DumpText("destprog          = ", pmsg->destprog, out);
    DumpText("origprog          = ", pmsg->origprog, out);
    DumpText("orignode          = ", pmsg->orignode, out);
    out << "response_rqd      = " << pmsg->response_rqd << '\n';
    out << "ack_rqd           = " << pmsg->ack_rqd << '\n';
    out << "result_code       = " << pmsg->result_code << '\n';
    out << "alloc_data_length = " << pmsg->alloc_data_length << "\n\n";
    out << "parts_left        = " << pmsg->parts_left << '\n';
    out << "curr_data_offset  = " << pmsg->curr_data_offset << "\n\n";
    out << "shmem_id          = " << pmsg->shmem_id << '\n';
    out << "shmem_size        = " << pmsg->shmem_size << '\n';
    if (pmsg->shmem_id >= 0) {
        out << "data in shared memory segment\n";
        return;
    }
    out << "msg_data_len = " << pmsg->msg_data_len << '\n';
    out << "msg_data = ";
    const int32_t length = std::clamp<int32_t>(pmsg->msg_data_len, 0, zeloo::wire::MostInlineData);
    Buffer::hexdumpOn(pmsg->msg_data, static_cast<unsigned>(length), out);
}

void DumpIPCStatus(int ORVM_msqid, std::ostream& out)
{
    struct msqid_ds status = {};
    if (msgctl(ORVM_msqid, IPC_STAT, &status) < 0)
        out << "error in msgctl\n";
    out << "msg_qbytes = " << status.msg_qbytes << '\n';
    out << "msg_cbytes = " << svr4::queue_cbytes(status) << '\n';
    out << "msg_qnum   = " << status.msg_qnum << '\n';
    out << "IPCMessageDataSize =    " << IPCMessageDataSize << '\n';
    out << "IPCMessageNonDataSize = " << IPCMessageNonDataSize << '\n';
    out << "IPCMessageMaxDataLen =  " << IPCMessageMaxDataLen << '\n';
}

void DumpIPCMessages(int ORVM_msqid, std::ostream& out)
{
    zeloo::ReceivedMessage message;
    while (zeloo::TakeMessage(ORVM_msqid, 0, message, IPC_NOWAIT) == 0) {
        out << "Message stranded on queue:\n";
        DumpIPCMessage(&message.msg(), out);
        // A record cut short names no segment: its field is zero, and segment 0 is somebody else's.
        if (zeloo::CompleteMessage(message) && message.msg().shmem_id >= 0)
            delete_shmem_id(message.msg().shmem_id);
    }
}
