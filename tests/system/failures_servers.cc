// The scenarios of what talks to other processes, or starts them.
#include <csignal>
#include <cstring>
#include <sstream>
#include <string_view>

#include <sys/wait.h>
#include <unistd.h>

#include "Misc/ProcMgr.h"
#include "Misc/eventmgr.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/unixproc.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;

namespace failures_testing {

bool Processes(const std::string&)
{
    Buffer output;
    UnixProcess process("echo some output", output, 3);
    const int status = process.wait();
    if (status == 0)
        CHILD_CHECK(output.Size() <= 12);
    return status == 0 && std::strcmp(output.GetCString(), "some output\n") == 0;
}

bool Queues(const std::string&)
{
    static const std::string text(5000, 'q');
    IPCQServer server("failures");
    if (!server.Created())
        return false;
    short event = 0, response, ack, status = 0;
    Buffer data;
    server.SetReceiveTimeOut(1);
    if (server.IPCSend("me", "here", "1", getpid(), "me", 1, 7, text.data(), 5000, 0, 0, 3) == 0) {
        status = server.receive_event(event, data, response, ack);
        CHILD_CHECK(event == 7 ? status == 3 && data.Size() == 5000 : event == 0);
    }
    const bool isWhole = event == 7;
    IPCQClient client(1, "failures");
    std::ostringstream out;
    server.dumpOn(out);
    client.dumpOn(out);
    return isWhole && client.Connected() && out.good();
}

bool Connections(const std::string&)
{
    static const RawRecord first = MakeRecord(5, 1, 0, 1800, std::string(1700, 'x'));
    static const RawRecord second = MakeRecord(5, 0, 1700, 1800, std::string(100, 'y'));
    IPCTli listener, end;
    RawSocket peer;
    if (!listener.Tprelisten(nullptr, "orvd") || !peer.Connect() || !listener.Tlisten() || !end.Taccept(listener) ||
        !peer.Send(first) || !peer.Send(second))
        return false;
    TliMsgStruct header = {};
    Buffer data;
    const short code = end.recv_block(&header, data);
    CHILD_CHECK(code == 0 ? data.Size() == 1800 : data.Size() == 0);
    static RawRecord answer;
    return code == 0 && end.send_block(&header, "answer", 6) == 0 && peer.Receive(&answer);
}

// Runs a command by a ProcMgr until it has ended, or can't be started or watched.
bool Commands(const std::string& directory)
{
    const PathIn file(directory, "ran");
    unlink(file);
    while (ProcMgr::processes.Quantity() > 0) // those of a run that could not watch them
        ProcMgr::processes.RemoveAt(0);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    char command[300];
    std::snprintf(command, sizeof command, ": > %s", static_cast<const char*>(file));
    const int reports = ErrorReporter::GetErrorCount();
    Fault fault;
    ProcMgr(command, &fault);
    bool isWatched = true;
    for (int i = 0; i < 20 && isWatched && ProcMgr::commands.Quantity() + ProcMgr::processes.Quantity() > 0; i++) {
        isWatched = ProcMgr::processes.Quantity() == 0 || waitpid(-1, nullptr, 0) > 0;
        ProcMgr::CheckProcesses();
    }
    CHILD_CHECK(ProcMgr::commands.Quantity() == 0 || !isWatched);
    std::ostringstream out;
    ProcMgr::dumpOn(out);
    const bool hasRun = access(file, F_OK) == 0;
    while (ProcMgr::commands.Quantity() > 0)
        ProcMgr::commands.RemoveAt(0);
    return hasRun && isWatched && ErrorReporter::GetErrorCount() == reports && ProcMgr::processes.Quantity() == 0;
}

namespace {

// Has events to itself: the first answers itself by the second, which starts a co-process; the third ends it.
class Server : public EventManager {
public:
    enum { Status, First, Second, Exit, Last };
    Server() : EventManager("failures", nullptr), handled(0)
    {
        InBasket().SetReceiveTimeOut(1);
        InBasket().SetReceiveTimeOutEvent(Exit);
    }
    bool Send(short event)
    {
        return InBasket().IPCSend("me", "here", "1", getpid(), "me", 1, event, "data", 4, 0, 0, 0) == NO_ERRORS;
    }
    int Handled() const { return handled; }

    const char* Event_to_Name(short) override { return "event"; }
    short Name_to_Event(const char*) override { return First; }
    short StatusEventCode() override { return Status; }
    short LastEventCode() override { return Last - 1; }
    short IsNullEvent(short event) override { return event == Status; }
    short IsExitEvent(short event) override { return event == Exit; }
    short AcceptEvent(short, const char*, const char*) override { return 1; }
    short HandleEvent(short event) override
    {
        const short next = event == First ? Second : Exit;
        const bool isStarted = event == First || RunCoprocess();
        handled += isStarted;
        if (InBasket().send_response(next, 0, "data", 4) != NO_ERRORS)
            ExitPending = 1;
        return isStarted ? NO_ERRORS : FORK_FAILED;
    }

private:
    bool RunCoprocess()
    {
        const coprocess_types side = InitiateCoprocess();
        if (side == childP)
            CoprocessExit(7);
        int status = 0;
        if (side == parentP)
            while (waitpid(-1, &status, 0) < 0 && errno == EINTR) {
            }
        return side == parentP && WEXITSTATUS(status) == 7;
    }

    int handled;
};

} // namespace

bool Events(const std::string&)
{
    Server server;
    if (!server.InBasket().Created() || !server.Send(Server::First))
        return false;
    const short result = server.main();
    std::ostringstream out;
    server.dumpOn(out);
    return result == 0 && server.Handled() == 2 && out.good();
}

} // namespace failures_testing
