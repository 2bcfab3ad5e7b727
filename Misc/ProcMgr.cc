#include "Misc/ProcMgr.h"

#include <csignal>
#include <iostream>
#include <new>
#include <string>

#include <sys/types.h>

#include "Misc/Dates.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"
#include "Misc/unixproc.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ProcMgr.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static const unsigned MostCommands = 256000; // that an array holds

template <>
const char* SafeArray<CmdLine>::ElementName()
{
    return "CmdLine";
}

template class SafeArray<CmdLine>;

template <>
const char* SafeArray<ProcInfo>::ElementName()
{
    return "ProcInfo";
}

template class SafeArray<ProcInfo>;

namespace {

// Room for a static object that ProcMgrQueues constructs and destroys.
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

static void Report(const ErrorReporter& reporter, short type, const char* description, long line)
{
    reporter._ReportError(ErrorReporter::WARNING, type, description, ModuleId(), line);
}

static long PendingCount()
{
    return static_cast<long>(ProcMgr::commands.Quantity());
}

static long ActiveCount()
{
    return static_cast<long>(ProcMgr::processes.Quantity());
}

ProcMgr::ProcMgr(const char* Cmd, Fault* Cur_f)
{
    CountProcesses();
    CmdLine* line = new (std::nothrow) CmdLine{Cmd, 0, Cur_f != nullptr ? Cur_f->GetFaultId() : FaultId()};
    if (line != nullptr && MonitoredObject::debug() >= 4)
        std::cout << "The Coming FaultId is " << line->Cur_fid << std::endl;
    Submit(line, "no memory for new command.");
}

ProcMgr::ProcMgr(const char** argv)
{
    ZELOO_REQUIRE(argv != NULL, "Misc/ProcMgr");
    CountProcesses();
    char* text = zeloo::NewJoinedText(argv);
    Submit(text != nullptr ? new (std::nothrow) CmdLine{text, 0, FaultId()} : nullptr, "no memory for new string.");
    delete[] text;
}

ProcMgr::~ProcMgr() = default;

// Appends `line`, which is null when there was no memory for it, and starts what can be started.
void ProcMgr::Submit(CmdLine* line, const char* noMemory)
{
    if (line != nullptr && commands.Quantity() < MostCommands) {
        commands.AddItem(line);
    } else {
        delete line;
        Report(*this, OUT_OF_MEMORY, noMemory, __LINE__);
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
    ErrorReporter reporter; // made before the kill, as making it clears errno
    if (kill(static_cast<pid_t>(-process.pid), SIGKILL) == -1) {
        Report(reporter, ErrorReporter::OTHER, "Unable to kill process", __LINE__);
        return;
    }
    FaultId fault; // its text is composed anew: that of a command without a fault is empty
    fault.concatNodenameId(process.AssociateFaultId.GetId(), process.AssociateFaultId.GetNodeName());
    const CString text = CString("Killed timed out process.Associated FaultId is ") + fault;
    Report(reporter, ErrorReporter::OTHER, text, __LINE__);
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
static void NoteFailedStart(const ErrorReporter& reporter)
{
    CmdLine& line = *ProcMgr::commands.first();
    if (++line.retry_count <= ProcMgr::MaxRetry)
        return;
    const std::string limit = std::to_string(ProcMgr::MaxRetry);
    const CString text = CString("Max retry of ") + limit.c_str() + " exceeded for " + line.cmd;
    Report(reporter, ErrorReporter::OTHER, text, __LINE__);
    ProcMgr::commands.RemoveAt(0);
    MaxRetryExceeded++;
}

// Starts the first command that waits. False when the pass ends with it.
bool ProcMgr::StartFirst()
{
    const ErrorReporter reporter;
    const CmdLine& line = *commands.first();
    const UnixProcess child(line.cmd, UnixProcess::leave_alone_at_destruction, 0);
    if (child.pid() == -1) {
        NoteFailedStart(reporter);
        return false;
    }
    ProcInfo* process = new (std::nothrow) ProcInfo{line.Cur_fid, child.pid(), Dates::CurrentTime()};
    if (process == nullptr) { // the command runs and stays queued too: intended
        Report(reporter, OUT_OF_MEMORY, "no memory for new process info.", __LINE__);
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
        const CmdLine& line = *commands[static_cast<int>(i)];
        out << "command: <" << line.cmd << "> Retry = " << line.retry_count << std::endl;
        out << " Comming FaultId is " << line.Cur_fid << std::endl;
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
