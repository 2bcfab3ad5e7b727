// The way from other hosts to the servers of this one: takes connections and passes their events to the local message
// queues. Every connection has a process of its own. SIGTERM ends them all.
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include <unistd.h>

#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"

static const char Usage[] =
    "usage: relayd [--service NAME] [--object NUMBER SERVER]...\n"
    "Passes the events of clients on other hosts to the servers of this one, in the foreground, until SIGTERM.\n"
    "  --service NAME          the service to listen for (default orvd); also the server that gets the events\n"
    "  --object NUMBER SERVER  events for this object number go to another server\n"
    "Exit codes: 0 ended as asked, 1 could not listen, 2 wrong usage.\n";

static const short GoneEvent = -1; // 0xFFFF: tells a client that its server has gone

/// Where events go.
struct Servers {
    std::string service = "orvd";
    std::map<short, std::string> others; // by object number

    const char* Name(short object) const
    {
        const auto other = others.find(object);
        return other != others.end() ? other->second.c_str() : service.c_str();
    }
};

/// The processes of the connections end with the one that listens. They are its process group.
class Connections : public MonitoredObject {
public:
    Connections() : listening(getpid())
    {
        setpgid(0, 0);
        signal(SIGCHLD, SIG_IGN); // one that ends leaves no zombie
    }
    void SigTermProc(int sig) override
    {
        if (getpid() != listening)
            return;
        signal(sig, SIG_IGN);
        kill(0, sig);
    }

private:
    const pid_t listening;
};

// Sends a record of this program to the client. False when the connection is lost.
static bool Answer(IPCTli& connection, short object, short event, short status, const Buffer& data)
{
    TliMsgStruct record = {};
    std::snprintf(record.senders_version, sizeof record.senders_version, "%s", ProgInfo::GetVersion());
    std::snprintf(record.origprog, sizeof record.origprog, "%s", ProgInfo::GetFullProgramName());
    std::snprintf(record.orignode, sizeof record.orignode, "%s", ProgInfo::GetNodeName());
    record.object = object;
    record.event = event;
    record.result_code = status;
    return connection.send_block(&record, data, static_cast<long>(data.Size())) == ErrorReporter::NO_ERRORS;
}

static bool IsGone(short code)
{
    return code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
}

// Passes an event on, and back what was asked for: a response, an acknowledgement, or nothing. A server that was
// started again since the last event is found again. False when the connection is to end.
static bool PassOn(IPCTli& connection, const Servers& servers, const TliMsgStruct& record, const Buffer& data)
{
    const short object = record.object;
    const bool response = record.response_rqd != 0;
    const bool ack = record.ack_rqd != 0;
    IPCQClient server(object, servers.Name(object));
    short code = server.IPCSend(record.origprog, record.orignode, record.senders_version, server.GetServerPID(),
                                servers.Name(object), object, record.event, data, static_cast<long>(data.Size()),
                                response, ack, -1);
    for (int answers = response + ack; answers > 0 && !IsGone(code); answers--) {
        short event = 0;
        Buffer answer;
        const short status = code == ErrorReporter::NO_ERRORS ? server.receive_response(event, answer) : code;
        if (event == 0 && IsGone(status)) // with an event it is the status that a server gave
            code = status;
        else if (!Answer(connection, object, event, status, answer))
            return false;
    }
    if (!IsGone(code))
        return true;
    Answer(connection, object, GoneEvent, code, Buffer());
    return false;
}

// Waits for an event. A client may be silent for as long as it likes: the limit of a receive ends the connection only
// when it runs out in the middle of an event.
static bool Receive(IPCTli& connection, TliMsgStruct& record, Buffer& data)
{
    static const TliMsgStruct nothing = {};
    short code;
    do
        code = connection.recv_block(&record, data);
    while (code == ErrorReporter::IPC_RECV_TIME_OUT && std::memcmp(&record, &nothing, sizeof record) == 0);
    return code == ErrorReporter::NO_ERRORS;
}

static void Serve(IPCTli& connection, const Servers& servers)
{
    TliMsgStruct record;
    Buffer data;
    bool goesOn = true;
    while (goesOn && Receive(connection, record, data)) {
        if (record.QueueExistCheck) {
            const short lives = IPCQClient(record.object, servers.Name(record.object)).Connected();
            goesOn = Answer(connection, record.object, 0, lives, Buffer());
        } else {
            goesOn = PassOn(connection, servers, record, data);
        }
    }
}

// Gives the connection that a client asked for a process of its own.
static void Accept(IPCTli& listener, const Servers& servers)
{
    IPCTli connection;
    if (!connection.Taccept(listener))
        return;
    const pid_t child = fork();
    if (child == 0) {
        listener.Tclose();
        Serve(connection, servers);
        connection.Tshutdown();
        exit(0);
    }
    if (child < 0)
        std::cerr << "relayd: no process for a connection: " << std::strerror(errno) << std::endl;
    connection.Tclose(); // not Tshutdown: that would end it for the child too
}

static bool ReadOptions(int argc, char** argv, Servers& servers)
{
    for (int i = 1; i < argc;) {
        const int left = argc - i;
        if (left >= 2 && std::strcmp(argv[i], "--service") == 0) {
            servers.service = argv[i + 1];
            i += 2;
        } else if (left >= 3 && std::strcmp(argv[i], "--object") == 0) {
            short object = 0;
            const char* end = argv[i + 1] + std::strlen(argv[i + 1]);
            const std::from_chars_result read = std::from_chars(argv[i + 1], end, object);
            if (read.ptr != end || read.ec != std::errc())
                return false;
            servers.others[object] = argv[i + 2];
            i += 3;
        } else {
            return false;
        }
    }
    return true;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    Servers servers;
    if (!ReadOptions(argc, argv, servers)) {
        std::cerr << Usage;
        return 2;
    }
    const Connections connections;
    for (;;) { // a signal ends a wait for clients, and closes the listener
        IPCTli listener;
        if (!listener.Tprelisten(nullptr, servers.service.c_str())) {
            std::cerr << "relayd: cannot listen for service " << servers.service << std::endl;
            return 1;
        }
        while (listener.Tlisten())
            Accept(listener, servers);
    }
}
