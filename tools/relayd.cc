// SPDX-License-Identifier: BSD-2-Clause
// The way from other hosts to the servers of this one: takes connections and passes their events to the local message
// queues. Every connection has a process of its own. SIGTERM ends them all.
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "Misc/ipctli.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "relayd/peer.h"
#include "relayd/serve.h"
#include "relayd/signals.h"

static const char* ModuleId() { return "$Id: relayd.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char Usage[] =
    "usage: relayd [--service NAME] [--object NUMBER SERVER]... [--max-connections NUMBER] [--keepalive SECONDS]\n"
    "              [--trust-node-names]\n"
    "Passes the events of clients on other hosts to the servers of this one, in the foreground, until SIGTERM.\n"
    "  --service NAME            the service to listen for (default orvd); also the server that gets the events\n"
    "  --object NUMBER SERVER    events for this object number go to another server\n"
    "  --max-connections NUMBER  connections beyond this number are refused (default 256)\n"
    "  --keepalive SECONDS       a connection ends when its host has not been heard of, or its client has not taken\n"
    "                            an answer, for so long (default 120)\n"
    "  --trust-node-names        believe what events say of the node that they come from\n"
    "An event is passed on only if the name of its node, looked up here, has the address that the connection comes\n"
    "from; this host's own name only if that is an address of this host. Hosts behind address translation need\n"
    "--trust-node-names, with which everybody who can reach the port may use any name.\n"
    "Exit codes: 0 ended as asked, 1 could not listen, 2 wrong usage.\n";

static const int LongestKeepAlive = 32767; // seconds; a limit of the host
static const time_t RefusalReports = 10;   // seconds from one to the next, however many are refused

/// The processes of the connections end with the one that listens. They are its process group.
class Connections : public MonitoredObject {
public:
    explicit Connections(int most) : listening(getpid()), most(most)
    {
        setpgid(0, 0);
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // it ends a wait
        sigaction(SIGCHLD, &action, nullptr);
    }
    void SigTermProc(int sig) override
    {
        if (getpid() != listening)
            return;
        signal(sig, SIG_IGN);
        kill(0, sig);
    }

    /// Gives a connection a process of its own, or refuses it.
    void Serve(IPCTli& connection, IPCTli& listener, const relayd::Settings& settings,
               const relayd::SignalsHeld& signals);
    /// Forgets those that have ended.
    void Reap()
    {
        while (waitpid(-1, nullptr, WNOHANG) > 0)
            open--;
    }

private:
    void ReportRefusal(const IPCTli& connection, short type, const std::string& reason);

    const pid_t listening;
    const int most;
    int open = 0;
    time_t nextReport = 0;
};

void Connections::Serve(IPCTli& connection, IPCTli& listener, const relayd::Settings& settings,
                        const relayd::SignalsHeld& signals)
{
    Reap();
    if (open >= most) {
        ReportRefusal(connection, ErrorReporter::OTHER, std::to_string(open) + " connections are open");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        listener.Tclose();
        relayd::Serve(connection, settings, signals);
        connection.Tshutdown();
        UnMonitor(); // a signal that found it in exit would call exit there once more, and wait for itself
        exit(0);
    }
    if (child < 0) {
        ReportRefusal(connection, ErrorReporter::FORK_FAILED, "no process for a connection");
        return;
    }
    open++;
    connection.Tclose(); // not by its destructor: that would end it for the child too
}

// Without a log record, for which this host's own name is looked up: clients wait meanwhile.
void Connections::ReportRefusal(const IPCTli& connection, short type, const std::string& reason)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec < nextReport)
        return;
    nextReport = now.tv_sec + RefusalReports;
    const std::string text = reason + ": refused one from " + relayd::Peer(connection.Descriptor()).Address();
    ErrorReporter()._ReportError(ErrorReporter::WARNING, type, text.c_str(), ModuleId(), __LINE__);
}

// Waits for a client and takes its request. False when the listening endpoint has failed, and is closed.
static bool Listen(IPCTli& listener, Connections& connections, const relayd::SignalsHeld& signals)
{
    do
        connections.Reap();
    while (!signals.Await(listener.Descriptor()));
    return listener.Tlisten() != 0;
}

// Reads a number from `least` to `most`.
template <class Number>
static bool ReadNumber(const char* text, Number least, Number most, Number* number)
{
    const char* end = text + std::strlen(text);
    const std::from_chars_result read = std::from_chars(text, end, *number);
    return read.ptr == end && read.ec == std::errc() && *number >= least && *number <= most;
}

// Reads the option at `argument`, behind which stand `left` - 1 others. The number of arguments that it takes, or 0
// when it is wrong.
static int ReadOption(char** argument, int left, relayd::Settings& settings)
{
    const auto is = [&](const char* name, int values) { return left > values && std::strcmp(*argument, name) == 0; };
    if (is("--trust-node-names", 0)) {
        settings.trustsNodeNames = true;
        return 1;
    }
    if (is("--service", 1)) {
        settings.service = argument[1];
        return 2;
    }
    if (is("--max-connections", 1))
        return ReadNumber(argument[1], 1, INT_MAX, &settings.mostConnections) ? 2 : 0;
    if (is("--keepalive", 1))
        return ReadNumber(argument[1], 1, LongestKeepAlive, &settings.keepAliveSeconds) ? 2 : 0;
    short object = 0;
    if (!is("--object", 2) || !ReadNumber<short>(argument[1], SHRT_MIN, SHRT_MAX, &object))
        return 0;
    settings.others[object] = argument[2];
    return 3;
}

static bool ReadOptions(int argc, char** argv, relayd::Settings& settings)
{
    int taken = 1;
    for (int i = 1; i < argc && taken > 0; i += taken)
        taken = ReadOption(argv + i, argc - i, settings);
    return taken > 0;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    relayd::Settings settings;
    if (!ReadOptions(argc, argv, settings)) {
        std::cerr << Usage;
        return 2;
    }
    Connections connections(settings.mostConnections);
    const relayd::SignalsHeld signals;
    for (;;) { // an endpoint that fails is closed
        IPCTli listener;
        if (!listener.Tprelisten(nullptr, settings.service.c_str())) {
            std::cerr << "relayd: cannot listen for service " << settings.service << std::endl;
            return 1;
        }
        while (Listen(listener, connections, signals)) {
            IPCTli connection;
            if (connection.Taccept(listener))
                connections.Serve(connection, listener, settings, signals);
        }
    }
}
