#include <cerrno>
#include <iostream>

#include "Misc/Error/report.h"
#include "Misc/detail/owner.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

IPCQServer::IPCQServer(const char* IPCServerName) : IPCQBase(IPCServerName), ReceiveTimeOutEvent(0)
{
    ReceiveTimeOut = 0;
    long pid;
    const int msqid = connect_to_queue(ServerName, 0, &pid, -1);
    if (msqid < 0) {
        ServerPID = MyPID;
        MyQueueID = create_queue(ServerName, MyPID);
    } else if (add_serverpid_to_queue(msqid, MyPID) >= 0) {
        ServerPID = MyPID;
        MyQueueID = msqid;
    }
}

IPCQServer::~IPCQServer() { Shutdown(); }

void IPCQServer::dumpOn(std::ostream& out) const
{
    out << "IPCQServer Object Begin\n";
    IPCQBase::dumpOn(out);
    out << "IPCQServer::ReceiveTimeOutEvent: " << ReceiveTimeOutEvent << '\n';
    out << "IPCQServer Object End\n";
}

void IPCQServer::SigTermProc(int) { Shutdown(); }

short IPCQServer::receive_event(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd)
{
    short status = 0;
    const short code = ReceiveFromAnybody(REvent, ReceiveTimeOutEvent, Data, status, ResponseRqd, AckRqd);
    if (code == NO_ERRORS)
        return status;
    REvent = 0;
    if (code == SERVER_GONE || code == IPC_ERROR) {
        const int error = errno;
        delete_q_and_semaphore(MyQueueID);
        zeloo::Report(*this, PANIC, code, error, ZELOO_HERE, "Unable to receive data via ipc because %s",
                      GetQueueErrorMsg(error));
    }
    return code;
}

short IPCQServer::send_response(short event, short Status, const void* ptr, long len)
{
    return IPCSend(ProgInfo::GetFullProgramName(), ProgInfo::GetNodeName(), ProgInfo::GetVersion(), SendersPID,
                   SendersProgramName, -1, event, ptr, len, 0, 0, Status);
}

void IPCQServer::Shutdown()
{
    // No set (-1) is no other server either.
    if (Created() && zeloo::IsOwner(MyPID) && remove_serverpid_from_queue(MyQueueID, ServerPID) <= 0) {
        if (debug() >= 2)
            DumpIPCMessages(MyQueueID, std::cout);
        delete_q_and_semaphore(MyQueueID);
    }
    MyQueueID = -1;
    delete InternalQMsgsPtr;
    InternalQMsgsPtr = nullptr;
}
