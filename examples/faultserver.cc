// SPDX-License-Identifier: BSD-2-Clause
#include "faultserver.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "Misc/Dates.h"
#include "Misc/ProcMgr.h"
#include "Misc/proginfo.h"
#include "Misc/unixproc.h"

FaultServer::FaultServer(FaultStore& store, long commandSeconds, const char* remoteAccess, FaultJournal* journal)
    : NodeServer(FaultServerName, remoteAccess), store(store), journal(journal), commandSeconds(commandSeconds)
{
}

// Whether commands wait or run.
static bool HasCommands() { return ProcMgr::commands.Quantity() > 0 || ProcMgr::processes.Quantity() > 0; }

// Waits for an event. While there are commands, looks after them every second.
short FaultServer::GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error)
{
    do {
        if (HasCommands()) {
            while (waitpid(-1, nullptr, WNOHANG) > 0) { // one that ended while Run waited for another is a zombie
            }
            ProcMgr::CheckProcesses();
        }
        InBasket().SetReceiveTimeOut(HasCommands() ? 1 : 0);
        EventManager::GetNextEvent(event, data, responseRqd, AckRqd, error);
    } while (event == TickEvent && !responseRqd && !AckRqd);
    return error;
}

static bool OnlyAsks(short event)
{
    return event == NoEvent || event == StatusEvent || event == ListEvent || event == FetchEvent ||
           event == MovesEvent || event == ChangesEvent;
}

short FaultServer::AcceptEvent(short event, const char* program, const char* node)
{
    if (!EventManager::AcceptEvent(event, program, node))
        return 0;
    const bool isHere = std::strcmp(node, ProgInfo::GetNodeName()) == 0;
    if (event == ChangesDoneEvent && !isHere) // what is cut is gone for all who follow the changes
        return 0;
    return IsAllowed(node, OnlyAsks(event));
}

// A journal that nobody could read would fill a full file system for ever.
int FaultServer::FileSystemFull()
{
    const int full = EventManager::FileSystemFull();
    const bool makesRoom = CurrentEvent == ChangesEvent || CurrentEvent == ChangesDoneEvent;
    return journal != nullptr && makesRoom ? 0 : full;
}

short FaultServer::Handle_EXIT_event(short& exitnow)
{
    for (unsigned i = 0; i < ProcMgr::commands.Quantity(); i++)
        std::cout << "not started any more: " << ProcMgr::commands[static_cast<int>(i)]->cmd << std::endl;
    return NodeServer::Handle_EXIT_event(exitnow);
}

short FaultServer::HandleEvent(short event)
{
    Buffer answer;
    short status = NO_ERRORS;
    switch (event) {
    case StatusEvent: status = Status(answer); break;
    case RaiseEvent: status = Raise(); break;
    case ListEvent: status = List(answer); break;
    case FetchEvent: status = Fetch(answer); break;
    case ClearEvent: status = Clear(); break;
    case RunEvent: status = Run(answer); break;
    case StartEvent: status = Start(); break;
    case MoveEvent: status = Move(); break;
    case MovesEvent: status = Moves(answer); break;
    case ChangesEvent:
    case ChangesDoneEvent:
        if (journal == nullptr)
            return Handle_UNSUPPORTED_event();
        status = event == ChangesEvent ? Changes(answer) : ChangesAreDone();
        break;
    default: return Handle_UNSUPPORTED_event();
    }
    Answer(status, answer);
    return status;
}

void FaultServer::Tell(const char* happened, const FaultSummary& fault)
{
    std::cout << message.Text(happened, fault) << std::endl;
}

// Whether the options can be those of a fault. A fault is shown on lines, so line ends in them become blanks.
static bool TidyOptions(OptionSafeArray& options)
{
    for (unsigned i = 0; i < options.Quantity(); i++) {
        Option& option = *options[static_cast<int>(i)];
        if (option.Name.strlen() == 0 || option.Name.strlen() > FaultNodeLimit ||
            option.Value.strlen() > FaultTextLimit)
            return false;
        option.Name.flatten();
        option.Value.flatten();
    }
    return true;
}

short FaultServer::Raise()
{
    FaultRecord fault;
    FaultSummary& summary = fault.summary;
    if (!Unpack(CurrentEventData, fault))
        return errno == ENOMEM ? OUT_OF_MEMORY : INVALID_DATA;
    if (summary.text.strlen() > FaultTextLimit || !TidyOptions(summary.options))
        return INVALID_DATA;
    summary.text.flatten();
    summary.raised = Dates::CurrentTime();
    summary.state = FirstFaultState;
    if (errno == ENOMEM) // some text is not what it should be
        return OUT_OF_MEMORY;
    const short status = store.Put(fault);
    if (status == NO_ERRORS)
        Tell("raised", summary);
    return status;
}

short FaultServer::List(Buffer& answer)
{
    FaultList list;
    for (const auto& entry : store.All())
        list.faults.push_back(entry.second.summary);
    Pack(list, answer);
    return NO_ERRORS;
}

short FaultServer::Fetch(Buffer& answer)
{
    const FaultRecord* fault = nullptr;
    const short status = FindFault(fault);
    if (status == NO_ERRORS)
        Pack(*fault, answer);
    return status;
}

short FaultServer::Clear()
{
    const FaultRecord* fault = nullptr;
    short status = FindFault(fault);
    if (status != NO_ERRORS)
        return status;
    const FaultSummary summary = fault->summary;
    status = store.Remove(summary.hdr.myId);
    if (status == NO_ERRORS)
        Tell("cleared", summary);
    return status;
}

// `text` as one word of the shell.
static CString Quoted(const char* text)
{
    std::string quoted = "'";
    for (; *text != '\0'; text++)
        quoted += *text == '\'' ? std::string("'\\''") : std::string(1, *text);
    return (quoted + "'").c_str();
}

// The command with the fault in FAULT_NODE and FAULT_NUMBER.
static CString ForFault(const FaultCommand& request)
{
    const std::string number = std::to_string(request.id.GetId());
    return CString("export FAULT_NODE=") + Quoted(request.id.GetNodeName()) + " FAULT_NUMBER=" + number.c_str() + "\n" +
           request.command;
}

// Runs the command while the client, and so the server, waits for it.
short FaultServer::Run(Buffer& answer)
{
    FaultCommand request;
    const FaultRecord* fault = nullptr;
    const short status = FindForCommand(request, fault);
    if (status != NO_ERRORS)
        return status;

    CommandResult result;
    UnixProcess process(static_cast<const char*>(ForFault(request)), result.output, commandSeconds);
    result.exitStatus = process.wait();
    Pack(result, answer);
    if (process.pid() < 0)
        return FORK_FAILED;
    if (result.exitStatus >= 0)
        return NO_ERRORS;
    kill(static_cast<pid_t>(-process.pid()), SIGKILL); // what it started leads no life of its own
    return WAIT_TIME_EXCEEDED;
}

// Puts the command behind those that wait. What it writes comes where the messages of this server do.
short FaultServer::Start()
{
    FaultCommand request;
    const FaultRecord* fault = nullptr;
    const short status = FindForCommand(request, fault);
    if (status != NO_ERRORS)
        return status;
    Fault cause = fault->summary;
    Tell("given a command", fault->summary); // before anything that the command writes
    ProcMgr(ForFault(request), &cause);
    return NO_ERRORS;
}

short FaultServer::Move()
{
    FaultMove request;
    if (!Unpack(CurrentEventData, request))
        return INVALID_DATA;
    const FaultRecord* fault = nullptr;
    short status = FindFault(request.id, fault);
    if (status != NO_ERRORS)
        return status;
    if (!life.IsValidState(request.state))
        return INVALID_STATE;
    if (!life.ValidTransition(life.GetState(fault->summary.state), life.GetState(request.state)))
        return INVALID_TRANSITION;
    status = store.SetState(request.id, request.state);
    if (status == NO_ERRORS)
        Tell("moved", fault->summary);
    return status;
}

short FaultServer::Moves(Buffer& answer)
{
    const FaultRecord* fault = nullptr;
    const short status = FindFault(fault);
    if (status != NO_ERRORS)
        return status;
    State& state = life.GetState(fault->summary.state);
    std::vector<char> list(life.GetVisibleTransitionListLength(state));
    life.GetVisibleTransitionList(state, list.data());
    answer.Append(list.data());
    return NO_ERRORS;
}

short FaultServer::Changes(Buffer& answer)
{
    ChangesRequest request;
    if (!Unpack(CurrentEventData, request))
        return INVALID_DATA;
    FaultChangeList list;
    const short status = journal->List(request, list);
    errno = 0;
    if (status == NO_ERRORS)
        Pack(list, answer);
    if (errno != ENOMEM)
        return status;
    answer.PurgeContents(); // it has room for a part only
    return OUT_OF_MEMORY;
}

short FaultServer::ChangesAreDone()
{
    ChangesDone done;
    return Unpack(CurrentEventData, done) ? journal->Remove(done.number) : static_cast<short>(INVALID_DATA);
}

// Finds the fault that the current event names.
short FaultServer::FindFault(const FaultRecord*& fault)
{
    FaultId id;
    return Unpack(CurrentEventData, id) && IsFaultId(id) ? FindFault(id, fault) : static_cast<short>(INVALID_DATA);
}

short FaultServer::FindFault(const FaultId& id, const FaultRecord*& fault)
{
    fault = store.Find(id);
    return fault != nullptr ? NO_ERRORS : ITEM_DOES_NOT_EXIST;
}

// Reads the command of the current event and finds its fault.
short FaultServer::FindForCommand(FaultCommand& request, const FaultRecord*& fault)
{
    if (!Unpack(CurrentEventData, request) || request.command.strlen() == 0)
        return INVALID_DATA;
    return FindFault(request.id, fault);
}

void FaultServer::dumpOn(std::ostream& out) const
{
    NodeServer::dumpOn(out);
    life.dumpOn(out);
    store.dumpOn(out);
    ProcMgr::dumpOn(out);
}
