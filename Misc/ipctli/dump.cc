// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipctli.h"

#include <algorithm>
#include <ostream>

#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

void DumpTliMessage(const TliMsgStruct* pmsg, std::ostream& out)
{
    out << "TliMessage\n\n";
    out << "QueueExistCheck =  " << (pmsg->QueueExistCheck ? "TRUE" : "FALSE") << '\n';
    out << "object =           " << pmsg->object << '\n';
    zeloo::DumpText("senders_version  = ", pmsg->senders_version, out);
    out << "parts_left =       " << pmsg->parts_left << '\n';
    out << "send_data_length = " << pmsg->send_data_length << '\n';
    out << "curr_data_offset = " << pmsg->curr_data_offset << "\n\n";
    out << "event =              " << pmsg->event << (pmsg->event == 0 ? " (NULL)" : "") << "\n\n";
    zeloo::DumpText("origprog: ", pmsg->origprog, out);
    zeloo::DumpText("orignode: ", pmsg->orignode, out);
    out << "response_rqd: " << pmsg->response_rqd << '\n';
    out << "ack_rqd     : " << pmsg->ack_rqd << '\n';
    out << "result_code : " << pmsg->result_code << '\n';
    out << "alloc_data_length: " << pmsg->alloc_data_length << '\n';
    out << "msg_data = ";
    const int length = std::clamp<int>(pmsg->send_data_length, 0, sizeof pmsg->msg_data);
    Buffer::hexdumpOn(pmsg->msg_data, static_cast<unsigned>(length), out);
}
