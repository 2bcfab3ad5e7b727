// SPDX-License-Identifier: BSD-2-Clause
#include <cerrno>
#include <utility>

#include "Misc/Error/report.h"
#include "Misc/detail/owner.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/ipcq.h"
#include "Misc/ipcq/ends.h"
#include "Misc/ipcq/resources.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Whether the queue has a live server already. `*joined` becomes the queue when this process is one of them now.
static bool JoinServers(const zeloo::KeyFile& file, long pid, int* joined)
{
    if (zeloo::LiveServers() == 0) // a slot with the own process id is a dead predecessor's
        *joined = zeloo::ReplacePredecessor(file, pid);
    if (*joined >= 0)
        return true;
    long first = -1;
    const int found = zeloo::OpenQueue(file);
    if (found < 0 || zeloo::JoinQueue(file, found, &first, -1) < 0)
        return false;
    if (add_serverpid_to_queue(found, pid) >= 0)
        *joined = found;
    return true;
}

IPCQServer::IPCQServer(const char* IPCServerName) : IPCQBase(IPCServerName), ReceiveTimeOutEvent(0)
{
    ReceiveTimeOut = 0;
    const zeloo::KeyFile file(ServerName);
    zeloo::NewQueue made = {-1, 0, nullptr};
    bool isFirst;
    {
        // Also keeps a signal from ending the process before the object knows what it has to remove.
        const zeloo::NameLock lock(file);
        isFirst = !JoinServers(file, MyPID, &MyQueueID);
        if (isFirst) {
            made = zeloo::MakeQueue(file, MyPID);
            MyQueueID = made.id;
        }
        if (isFirst || Created())
            ServerPID = MyPID;
        if (Created())
            zeloo::CountServer(1);
    }
    if (isFirst)
        zeloo::FinishQueue(made, ServerName);
}

IPCQServer::~IPCQServer() { Shutdown(); }

void IPCQServer::dumpOn(std::ostream& out) const
{
    out << "IPCQServer Object Begin\n";
    IPCQBase::dumpOn(out);
    out << "IPCQServer::ReceiveTimeOutEvent: " << ReceiveTimeOutEvent << '\n';
    out << "IPCQServer Object End\n";
}

// Runs in signal handlers. `*queue` becomes -1.
static void GiveUpQueue(int* queue, const char* name, long pid, short debugLevel)
{
    const zeloo::KeyFile file(name);
    const zeloo::NameLock lock(file);
    const int msqid = *queue;
    if (msqid < 0) // a handler has left it meanwhile
        return;
    *queue = -1;
    zeloo::CountServer(-1);
    if (remove_serverpid_from_queue(msqid, pid) > 0) // no set (-1) is no other server either
        return;
    if (debugLevel >= 2)
        DumpIPCMessages(msqid, std::cout);
    delete_q_and_semaphore(msqid);
}

static void Leave(int* queue, const char* name, long maker, long pid, short debugLevel)
{
    if (!zeloo::IsOwner(maker))
        *queue = -1;
    else if (*queue >= 0)
        GiveUpQueue(queue, name, pid, debugLevel);
}

// No memory is given back: the interrupted code may be in the middle of the heap, or have begun to free the same.
void IPCQServer::SigTermProc(int) { Leave(&MyQueueID, ServerName, MyPID, ServerPID, debug()); }

short IPCQServer::receive_event(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd)
{
    short status = 0;
    const short code = ReceiveFromAnybody(REvent, ReceiveTimeOutEvent, Data, status, ResponseRqd, AckRqd);
    if (code == NO_ERRORS)
        return status;
    REvent = 0;
    if (code == SERVER_GONE || code == IPC_ERROR) {
        const int error = errno;
        {
            const zeloo::KeyFile file(ServerName);
            const zeloo::NameLock lock(file);
            delete_q_and_semaphore(MyQueueID);
        }
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
    Leave(&MyQueueID, ServerName, MyPID, ServerPID, debug());
    if (zeloo::IsOwner(MyPID))
        delete std::exchange(InternalQMsgsPtr, nullptr);
}
