// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ProcMgr.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>

#include <sys/types.h>

#include "Misc/Dates.h"
#include "Misc/Error/report.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"
#include "Misc/unixproc.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ProcMgr.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ZELOO_DEFINE_ARRAY(CmdLine);
ZELOO_DEFINE_ARRAY(ProcInfo);

namespace {

// Room for a static object that ProcMgrQueues constructs and destroys: the references below are good from the start.
template <class T>
union Room {
    constexpr Room() : none() {}
    ~Room() {}
    char none;
    T object;
};

Room<CmdLineSafeArray> commandsRoom;
Room<ProcInfoSafeArray> processesRoom;
int users = 0; // the ProcMgrQueues there are

int MaxTimeExceeded = 0;  // commands killed because they ran too long
int MaxRetryExceeded = 0; // commands dropped because they could not be started

} // namespace

CmdLineSafeArray& ProcMgr::commands = commandsRoom.object;
ProcInfoSafeArray& ProcMgr::processes = processesRoom.object;
long ProcMgr::MaxActive = 8;
long ProcMgr::MaxRetry = 4;
long ProcMgr::MaxTime = 1800;

ProcMgrQueues::ProcMgrQueues()
{
    if (users++ == 0) {
        new (&commandsRoom.object) CmdLineSafeArray;
        new (&processesRoom.object) ProcInfoSafeArray;
    }
}

ProcMgrQueues::~ProcMgrQueues()
{
    if (--users == 0) {
        processesRoom.object.~ProcInfoSafeArray();
        commandsRoom.object.~CmdLineSafeArray();
    }
}

static long PendingCount() { return static_cast<long>(ProcMgr::commands.Quantity()); }

static long ActiveCount() { return static_cast<long>(ProcMgr::processes.Quantity()); }

// A new command, or null without memory for it or its text. An empty text is run all the same.
static CmdLine* NewCommand(const char* text, const FaultId& fault)
{
    auto* command = new (std::nothrow) CmdLine{text, 0, fault};
    if (command == nullptr || command->cmd.strlen() == std::strlen(zeloo::TextOrEmpty(text)))
        return command;
    delete command;
    return nullptr;
}

ProcMgr::ProcMgr(const char* Cmd, Fault* Cur_f)
{
    CountProcesses();
    CmdLine* command = NewCommand(Cmd, Cur_f != nullptr ? Cur_f->GetFaultId() : FaultId());
    if (command != nullptr && MonitoredObject::debug() >= 4)
        std::cout << "The Coming FaultId is " << command->Cur_fid << std::endl;
    Submit(command, "no memory for new command.");
}

ProcMgr::ProcMgr(const char** argv)
{
    ZELOO_REQUIRE(argv != NULL, "Misc/ProcMgr");
    CountProcesses();
    char* text = zeloo::NewJoinedText(argv);
    Submit(text != nullptr ? NewCommand(text, FaultId()) : nullptr, "no memory for new string.");
    delete[] text;
}

ProcMgr::~ProcMgr() = default;

// Appends `command`, which is null when there was no memory for it, and starts what can be started.
void ProcMgr::Submit(CmdLine* command, const char* noMemory)
{
    if (command != nullptr && commands.Quantity() < zeloo::MostElements) {
        commands.AddItem(command);
    } else {
        delete command;
        _ReportError(WARNING, OUT_OF_MEMORY, noMemory, ModuleId(), __LINE__);
    }
    RunProcesses();
}

void ProcMgr::CheckProcesses()
{
    CountProcesses();
    RunProcesses();
}

// Kills the process group of a command that has run too long.
static void KillGroup(const ProcInfo& process)
{
    if (kill(static_cast<pid_t>(-process.pid), SIGKILL) == -1) {
        zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, errno, ZELOO_HERE, "Unable to kill process");
        return;
    }
    FaultId fault; // its text is composed anew: that of a command without a fault is empty
    fault.concatNodenameId(process.AssociateFaultId.GetId(), process.AssociateFaultId.GetNodeName());
    zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, 0, ZELOO_HERE,
                  "Killed timed out process.Associated FaultId is %s", static_cast<const char*>(fault));
}

void ProcMgr::CountProcesses()
{
    if (MonitoredObject::debug() != 0)
        std::cout << "ProcMgr::Active Processes = " << ActiveCount() << std::endl;

    const bool inTheWay = ActiveCount() == MaxActive && PendingCount() >= 1;
    for (unsigned i = 0; i < processes.Quantity(); i++) {
        const ProcInfo& process = *processes[static_cast<int>(i)];
        if (!UnixProcess::ProcessExists(process.pid)) {
            processes.RemoveAt(i);
            return; // one a call: intended
        }
        if (inTheWay && Dates::CurrentTime() - process.timestamp > MaxTime) {
            KillGroup(process);
            processes.RemoveAt(i);
            MaxTimeExceeded++;
            return;
        }
    }
}

void ProcMgr::RunProcesses()
{
    if (MonitoredObject::debug() != 0)
        std::cout << "ProcMgr::Pending Processes = " << PendingCount() << std::endl;
    while (PendingCount() > 0 && ActiveCount() < MaxActive && StartFirst()) {
    }
}

// Counts a failed start of the first command, and drops the command when that was one too many.
static void NoteFailedStart()
{
    CmdLine& command = *ProcMgr::commands.first();
    if (++command.retry_count <= ProcMgr::MaxRetry)
        return;
    zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, errno, ZELOO_HERE, "Max retry of %ld exceeded for %s",
                  ProcMgr::MaxRetry, static_cast<const char*>(command.cmd));
    ProcMgr::commands.RemoveAt(0);
    MaxRetryExceeded++;
}

// Starts the first command that waits. False when the pass ends with it.
bool ProcMgr::StartFirst()
{
    const CmdLine& command = *commands.first();
    const UnixProcess child(command.cmd, UnixProcess::leave_alone_at_destruction, 0);
    if (child.pid() == -1) {
        NoteFailedStart();
        return false;
    }
    ProcInfo* process = new (std::nothrow) ProcInfo{command.Cur_fid, child.pid(), Dates::CurrentTime()};
    if (process == nullptr) { // the command runs and stays queued too: intended
        zeloo::Report(WARNING, OUT_OF_MEMORY, errno, ZELOO_HERE, "no memory for new process info.");
        return false;
    }
    processes.AddItem(process);
    commands.RemoveAt(0);
    return true;
}

void ProcMgr::dumpOn(std::ostream& out)
{
    out << "Dumping ProcMgr Object:" << std::endl;
    out << "Number of Pending Processes = " << PendingCount() << std::endl;
    for (unsigned i = 0; i < commands.Quantity(); i++) {
        const CmdLine& command = *commands[static_cast<int>(i)];
        out << "command: <" << command.cmd << "> Retry = " << command.retry_count << std::endl;
        out << " Comming FaultId is " << command.Cur_fid << std::endl;
    }
    out << "Number of Active Processes = " << ActiveCount() << std::endl;
    for (unsigned i = 0; i < processes.Quantity(); i++) {
        const ProcInfo& process = *processes[static_cast<int>(i)];
        out << "process: " << process.pid << ", timestamp: " << process.timestamp << std::endl;
        out << "AssociateFaultId is " << process.AssociateFaultId << std::endl;
    }
    out << "MaxActive = " << MaxActive << std::endl;
    out << "MaxRetry = " << MaxRetry << std::endl;
    out << "MaxTime = " << MaxTime << std::endl;
    out << "Number of timed out processes = " << MaxTimeExceeded << std::endl;
    out << "Number of retry exceeded processes = " << MaxRetryExceeded << std::endl;
}
