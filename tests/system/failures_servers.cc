// SPDX-License-Identifier: BSD-2-Clause
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

// Children that are waited for, and one that is not.
bool Children(const std::string&)
{
    UnixProcess waited("exit 3", UnixProcess::wait_at_construction, 3);
    const short status = waited.wait();
    const bool isStandIn = status == 0 || status == 255; // a blank command, or nothing, in the place of the program
    CHILD_CHECK(status == 3 || status == -1 || isStandIn);
    static pid_t left = -1; // where it could not be ended
    if (left > 0 && kill(left, SIGKILL) == 0)
        waitpid(left, nullptr, 0);
    {
        UnixProcess sleeper("exec sleep 600", UnixProcess::terminate_at_destruction, 0);
        left = static_cast<pid_t>(sleeper.pid());
        CHILD_CHECK(left > 0 || sleeper.wait() == -1);
    }
    int end = 0;
    if (left > 0 && (nothingFails || kill(left, SIGKILL) == 0) && waitpid(left, &end, 0) == left)
        left = -1;
    return status == 3 && WTERMSIG(end) == SIGTERM;
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

// Sends an event to a server by TCP, and gets its answer.
bool Clients(const std::string&)
{
    static const RawRecord answer = MakeRecord(9, 0, 0, 4, "pong");
    static RawRecord record;
    RawSocket listener;
    if (!listener.Listen())
        return false;
    IPCTliClient client(1, "orvd", "127.0.0.1", 0);
    if (!client.Connected())
        return false;
    const RawSocket peer(listener.Accept());
    if (client.send_event_with_response(8, "ping", 4) != ErrorReporter::NO_ERRORS) {
        CHILD_CHECK(!client.Connected());
        return false;
    }
    if (!peer.Receive(&record) || !peer.Send(answer))
        return false;
    short event = 0;
    Buffer data;
    const short code = client.receive_response(event, data);
    if (code == ErrorReporter::NO_ERRORS)
        CHILD_CHECK(event == 9 && data.Size() == 4);
    std::ostringstream out;
    client.dumpOn(out);
    return code == ErrorReporter::NO_ERRORS && out.good();
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
