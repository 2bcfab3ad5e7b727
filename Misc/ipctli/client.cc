// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipctli.h"

#include <new>
#include <ostream>
#include <utility>

#include "Misc/detail/text.h"
#include "Misc/ipctli/names.h"
#include "Misc/wire/channels.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

IPCTliClient::IPCTliClient(short Object, const char* IPCServerName, const char* ServerNodeName, short CheckForIPCQueue)
    : DestObject(Object), ClientVersion(), ClientProgram(), ClientNode(), ReceiveTimeOut(900), SendTimeOut(60),
      SendersProgramName(), SendersNodeName(), ptli(nullptr)
{
    if (IPCServerName == nullptr)
        return;
    RegisterProgram();
    const char* host = ServerNodeName != nullptr ? ServerNodeName : IPCTli::get_default_hostname(IPCServerName);
    if (host == nullptr || *host == '\0')
        return;
    ptli = new (std::nothrow) IPCTli;
    if (ptli == nullptr)
        return;
    if (!ptli->Topen(host, zeloo::ServiceOf(IPCServerName)) || (CheckForIPCQueue && !Probe()))
        Disconnect();
}

IPCTliClient::~IPCTliClient() { Disconnect(); }

void IPCTliClient::dumpOn(std::ostream& out) const
{
    out << "IPCTliClient Object Begin\n";
    DumpIdentityOn("IPCTliClient", out);
    if (Connected())
        ptli->dumpOn(out);
    out << "IPCTliClient Object End\n";
}

// Asks the server whether it serves the object.
short IPCTliClient::Probe()
{
    TliMsgStruct record = {};
    record.object = DestObject;
    record.QueueExistCheck = 1;
    Buffer data;
    return ptli->send_block(&record, nullptr, 0) == NO_ERRORS && ptli->recv_block(&record, data) == NO_ERRORS &&
           record.result_code != 0;
}

void IPCTliClient::Disconnect() { delete std::exchange(ptli, nullptr); }

short IPCTliClient::TLISend(const char* FromProg, const char* FromNode, const char* FromVers, short Object, short event,
                            const void* ptr, long len, short response_required, short ack_required)
{
    if (!Connected())
        return IPC_CONNECTION_LOST;
    TliMsgStruct record = {};
    record.object = Object;
    zeloo::CopyText(record.senders_version, FromVers);
    record.event = event;
    zeloo::CopyText(record.orignode, FromNode);
    zeloo::CopyText(record.origprog, FromProg);
    record.response_rqd = response_required;
    record.ack_rqd = ack_required;
    record.result_code = -1;
    return ptli->send_block(&record, ptr, len);
}

short IPCTliClient::TLIReceive(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd)
{
    REvent = 0;
    ResponseRqd = 0;
    AckRqd = 0;
    SendersProgramName[0] = '\0';
    SendersNodeName[0] = '\0';
    Data.PurgeContents();
    if (!Connected())
        return IPC_CONNECTION_LOST;

    TliMsgStruct record;
    const short code = ptli->recv_block(&record, Data);
    if (code != NO_ERRORS) {
        Disconnect();
        return code;
    }
    zeloo::CopyText(SendersProgramName, record.origprog);
    zeloo::CopyText(SendersNodeName, record.orignode);
    ResponseRqd = record.response_rqd;
    AckRqd = record.ack_rqd;
    if (record.event == zeloo::wire::ServerGoing) {
        Disconnect();
        Data.PurgeContents();
        return SERVER_GONE;
    }
    REvent = record.event;
    return record.result_code;
}

short IPCTliClient::SendToServer(short event, const void* ptr, long len, short response, short ack)
{
    const short code = TLISend(ClientProgram, ClientNode, ClientVersion, DestObject, event, ptr, len, response, ack);
    if (code != NO_ERRORS)
        Disconnect();
    return code;
}

short IPCTliClient::receive_response(short& REvent, Buffer& Data)
{
    REvent = 0;
    if (!Connected())
        return IPC_CONNECTION_LOST;
    short responseRqd;
    short ackRqd;
    return TLIReceive(REvent, Data, responseRqd, ackRqd);
}
