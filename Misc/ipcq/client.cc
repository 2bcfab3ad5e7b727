#include <algorithm>

#include "Misc/detail/owner.h"
#include "Misc/detail/text.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

IPCQClient::IPCQClient(short Object, const char* IPCServerName, unsigned short TimeOutValue, long RequestedServerPID)
    : IPCQBase(IPCServerName), DestObject(Object), ClientVersion(), ClientProgram(), ClientNode()
{
    if (IPCServerName == nullptr)
        return;
    RegisterVersion(ProgInfo::GetVersion());
    RegisterProgramName(ProgInfo::GetFullProgramName());
    RegisterNodeName(ProgInfo::GetNodeName());
    const short seconds = static_cast<short>(std::min<int>(TimeOutValue, INT16_MAX));
    MyQueueID = connect_to_queue(ServerName, seconds, &ServerPID, RequestedServerPID);
}

IPCQClient::~IPCQClient() { Shutdown(); }

void IPCQClient::dumpOn(std::ostream& out) const
{
    out << "IPCQClient Object Begin\n";
    IPCQBase::dumpOn(out);
    out << "IPCQClient::DestObject   : " << DestObject << '\n';
    out << "IPCQClient::ClientVersion: " << ClientVersion << '\n';
    out << "IPCQClient::ClientProgram: " << ClientProgram << '\n';
    out << "IPCQClient::ClientNode   : " << ClientNode << '\n';
    out << "IPCQClient Object End\n";
}

void IPCQClient::SigTermProc(int) { Shutdown(); }

void IPCQClient::RegisterVersion(const char* version) { zeloo::CopyText(ClientVersion, version); }

void IPCQClient::RegisterProgramName(const char* program) { zeloo::CopyText(ClientProgram, program); }

void IPCQClient::RegisterNodeName(const char* node) { zeloo::CopyText(ClientNode, node); }

short IPCQClient::send_event(short event, const void* ptr, long len) { return SendToServer(event, ptr, len, 0, 0); }

short IPCQClient::send_event_with_response(short event, const void* ptr, long len)
{
    return SendToServer(event, ptr, len, 1, 0);
}

short IPCQClient::send_event_wait_ack(short event, const void* ptr, long len)
{
    const short code = SendToServer(event, ptr, len, 0, 1);
    if (code != NO_ERRORS)
        return code;
    short ackEvent;
    Buffer ackData;
    return receive_response(ackEvent, ackData);
}

short IPCQClient::SendToServer(short event, const void* ptr, long len, short response, short ack)
{
    const short code = IPCSend(ClientProgram, ClientNode, ClientVersion, ServerPID, ServerName, DestObject, event, ptr,
                               len, response, ack, -1);
    if (code != NO_ERRORS)
        MyQueueID = -1;
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
    DumpIPCMessages(MyQueueID, out);
}

void IPCQClient::Shutdown()
{
    if (Connected() && zeloo::IsOwner(MyPID))
        IPCDrain();
}
