// A fault daemon: keeps the faults of many nodes, with attachments, and runs commands for them. It ends on an exit
// event and on SIGTERM; SIGUSR1 writes its state to a file, and a crash leaves the state in /var/orv/data/faultd.sig.
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/eventmgr.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "Misc/unixproc.h"

#include "fault.h"

static const char StateFile[] = "/var/orv/data/faultd.state";

static const char Usage[] =
    "usage: faultd [--debug LEVEL] [--time-limit SECONDS]\n"
    "Keeps faults for faultctl, in the foreground, until `faultctl exit` or SIGTERM.\n"
    "  --debug LEVEL         0 (the default) to 5; from 1 on every event is logged on standard error\n"
    "  --time-limit SECONDS  how long a command may run (default 30)\n"
    "Exit codes: 0 ended as asked, 1 could not start, 2 wrong usage.\n";

class FaultServer : public EventManager, public MonitoredObject {
public:
    explicit FaultServer(long commandSeconds)
        : EventManager(FaultServerName, &std::clog), commandSeconds(commandSeconds) {}

    const char* Event_to_Name(short event) override { return FaultEventName(event); }
    short Name_to_Event(const char* name) override { return FaultEventNumber(name); }
    short StatusEventCode() override { return StatusEvent; }
    short LastEventCode() override { return FaultEvents - 1; }
    short IsNullEvent(short event) override { return event == NoEvent; }
    short IsExitEvent(short event) override { return event == ExitEvent; }
    short Handle_NULL_event() override;
    short Handle_EXIT_event(short& exitnow) override;
    short HandleEvent(short event) override;
    void dumpOn(std::ostream& out) const override; // what `faultctl status`, SIGUSR1 and a crash show

private:
    typedef std::map<FaultKey, FaultRecord> Faults;

    short Status(Buffer& answer);
    short Raise();
    short List(Buffer& answer);
    short Fetch(Buffer& answer);
    short Clear();
    short Run(Buffer& answer);
    short Find(const FaultKey& key, Faults::iterator& at);
    void Answer(short status, const Buffer& data);

    Faults faults;
    const long commandSeconds;
};

short FaultServer::Handle_NULL_event()
{
    Answer(NO_ERRORS, Buffer());
    return NO_ERRORS;
}

short FaultServer::Handle_EXIT_event(short& exitnow)
{
    Answer(NO_ERRORS, Buffer());
    exitnow = 1;
    return NO_ERRORS;
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
    default: return Handle_UNSUPPORTED_event();
    }
    Answer(status, answer);
    return status;
}

// Answers the sender of the current event when it waits. The answer carries the event's own number.
void FaultServer::Answer(short status, const Buffer& data)
{
    if (!CurrentEventResponseRqd)
        return;
    const short sent = InBasket().send_response(CurrentEvent, status, data, static_cast<long>(data.Size()));
    if (sent == IPC_ERROR) // too much for a message; the sender need not wait for more
        InBasket().send_response(CurrentEvent, sent, nullptr, 0);
}

short FaultServer::Status(Buffer& answer)
{
    std::ostringstream text;
    dumpOn(text);
    answer.Append(text.str().c_str());
    return NO_ERRORS;
}

short FaultServer::Raise()
{
    FaultRecord fault;
    if (!Unpack(CurrentEventData, fault))
        return INVALID_DATA;
    FaultSummary& summary = fault.summary;
    if (summary.key.node.strlen() == 0 || summary.key.node.strlen() > FaultNodeLimit || summary.key.number < 0 ||
        summary.text.strlen() > FaultTextLimit)
        return INVALID_DATA;
    summary.key.node.flatten(); // a fault is listed on one line
    summary.text.flatten();
    summary.raised = Dates::CurrentTime();
    faults[summary.key] = fault;
    return NO_ERRORS;
}

short FaultServer::List(Buffer& answer)
{
    FaultList list;
    for (const auto& entry : faults)
        list.faults.push_back(entry.second.summary);
    Pack(list, answer);
    return NO_ERRORS;
}

short FaultServer::Fetch(Buffer& answer)
{
    FaultKey key;
    Faults::iterator at;
    if (!Unpack(CurrentEventData, key))
        return INVALID_DATA;
    const short status = Find(key, at);
    if (status == NO_ERRORS)
        Pack(at->second, answer);
    return status;
}

short FaultServer::Clear()
{
    FaultKey key;
    Faults::iterator at;
    if (!Unpack(CurrentEventData, key))
        return INVALID_DATA;
    const short status = Find(key, at);
    if (status == NO_ERRORS)
        faults.erase(at);
    return status;
}

// Runs the command with the fault in FAULT_NODE and FAULT_NUMBER; the server waits for it.
short FaultServer::Run(Buffer& answer)
{
    FaultCommand request;
    Faults::iterator at;
    if (!Unpack(CurrentEventData, request) || request.command.strlen() == 0)
        return INVALID_DATA;
    const short status = Find(request.key, at);
    if (status != NO_ERRORS)
        return status;

    setenv("FAULT_NODE", request.key.node, 1);
    setenv("FAULT_NUMBER", std::to_string(request.key.number).c_str(), 1);
    CommandResult result;
    UnixProcess process(static_cast<const char*>(request.command), result.output, commandSeconds);
    result.exitStatus = process.wait();
    Pack(result, answer);
    if (process.pid() < 0)
        return FORK_FAILED;
    if (result.exitStatus >= 0)
        return NO_ERRORS;
    // Killed for its time: what it started leads no life of its own, and it is reaped here.
    kill(static_cast<pid_t>(-process.pid()), SIGKILL);
    waitpid(static_cast<pid_t>(process.pid()), nullptr, 0);
    return WAIT_TIME_EXCEEDED;
}

short FaultServer::Find(const FaultKey& key, Faults::iterator& at)
{
    at = faults.find(key);
    return at == faults.end() ? ITEM_DOES_NOT_EXIST : NO_ERRORS;
}

void FaultServer::dumpOn(std::ostream& out) const
{
    EventManager::dumpOn(out);
    out << "Faults: " << faults.size() << std::endl;
    for (const auto& entry : faults) {
        const FaultSummary& fault = entry.second.summary;
        out << entry.first.Name() << ": " << fault.text << " (" << fault.attached << " bytes attached)" << std::endl;
    }
}

// Reads "--NAME VALUE" options into `debug` and `seconds`. False when the command line is wrong.
static bool ReadOptions(int argc, char** argv, short& debug, long& seconds)
{
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc)
            return false;
        const char* value = argv[i + 1];
        const char* end = value + std::strlen(value);
        std::from_chars_result read = {};
        if (std::strcmp(argv[i], "--debug") == 0)
            read = std::from_chars(value, end, debug);
        else if (std::strcmp(argv[i], "--time-limit") == 0)
            read = std::from_chars(value, end, seconds);
        if (read.ptr != end || read.ec != std::errc())
            return false;
    }
    return debug >= 0 && seconds > 0;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    short debug = 0;
    long seconds = 30;
    if (!ReadOptions(argc, argv, debug, seconds)) {
        std::cerr << Usage;
        return 2;
    }
    MonitoredObject::SetDebugLevel(debug);
    MonitoredObject::SetDumpStateFileName(StateFile);

    if (access(FaultKeyFile, F_OK) != 0) {
        std::cerr << "faultd: the key file " << FaultKeyFile << " is missing; create it with `touch`" << std::endl;
        return 1;
    }
    FaultServer server(seconds);
    if (!server.InBasket().Created()) {
        std::cerr << "faultd: no message queue: another faultd is running, or the host refuses one" << std::endl;
        return 1;
    }
    server.main();
    return 0;
}
