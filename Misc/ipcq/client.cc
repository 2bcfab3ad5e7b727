// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>

#include "Misc/detail/owner.h"
#include "Misc/detail/text.h"
#include "Misc/ipcq.h"
#include "Misc/ipcq/ends.h"
#include "Misc/ipcq/message.h"
#include "Misc/ipcq/resources.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

IPCQClient::IPCQClient(short Object, const char* IPCServerName, unsigned short TimeOutValue, long RequestedServerPID)
    : IPCQBase(IPCServerName), DestObject(Object), ClientVersion(), ClientProgram(), ClientNode()
{
    if (IPCServerName == nullptr)
        return;
    RegisterProgram();
    const short seconds = static_cast<short>(std::min<int>(TimeOutValue, INT16_MAX));
    MyQueueID = connect_to_queue(ServerName, seconds, &ServerPID, RequestedServerPID);
    // What waits before the process has asked for anything was for a dead process with the same id, unless the process
    // is a server of the queue itself.
    if (Connected() && zeloo::IsFirstClientOn(MyQueueID) && !zeloo::IsRegistered(MyQueueID, MyPID))
        zeloo::DiscardMessages(MyQueueID, MyPID);
}

IPCQClient::~IPCQClient() { Shutdown(); }

void IPCQClient::dumpOn(std::ostream& out) const
{
    out << "IPCQClient Object Begin\n";
    IPCQBase::dumpOn(out);
    DumpIdentityOn("IPCQClient", out);
    out << "IPCQClient Object End\n";
}

void IPCQClient::SigTermProc(int) { LeaveQueue(); }

short IPCQClient::SendToServer(short event, const void* ptr, long len, short response, short ack)
{
    const short code = IPCSend(ClientProgram, ClientNode, ClientVersion, ServerPID, ServerName, DestObject, event, ptr,
                               len, response, ack, -1);
    if (code != NO_ERRORS) {
        GiveBackOthersMail();
        MyQueueID = -1;
    }
    return code;
}

short IPCQClient::receive_response(short& REvent, Buffer& Data)
{
    short status = 0;
    short responseRqd;
    short ackRqd;
    const short code = IPCReceive(REvent, ServerPID, 0, Data, status, responseRqd, ackRqd);
    if (code == NO_ERRORS)
        return status;
    REvent = 0;
    return code;
}

void IPCQClient::dumpQueueInfoOn(std::ostream& out)
{
    out << "Dumping queue: " << MyQueueID << '\n';
    out << "Server: " << zeloo::TextOrEmpty(ServerName) << " ServerPID: " << ServerPID << '\n';
    out << "IPC Status: \n";
    DumpIPCStatus(MyQueueID, out);
    out << "Outstanding Messages:\n";
    if (zeloo::IsOwner(MyPID))
        DumpIPCMessages(MyQueueID, out);
}

void IPCQClient::Shutdown()
{
    if (Connected() && zeloo::IsOwner(MyPID))
        IPCDrain();
    GiveBackOthersMail();
}
