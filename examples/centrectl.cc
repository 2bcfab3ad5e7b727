// SPDX-License-Identifier: BSD-2-Clause
#include "centrectl.h"

#include <algorithm>
#include <iostream>

#include <unistd.h>

#include "Misc/Dates.h"

static const useconds_t ShortestPause = 2000, LongestPause = 200000; // microseconds between two questions

static ExitCode List(Server& server, const Arguments& arguments)
{
    CentreListRequest wanted;
    if (!arguments.words.empty())
        wanted.node = arguments[0].c_str();
    do {
        Buffer request;
        Pack(wanted, request);
        CentreList list;
        const ExitCode code = AskFor(server, CentreListEvent, request, list);
        for (const CentreFault& fault : list.faults) {
            std::cout << fault.node << "\t";
            PrintLine(fault.fault);
        }
        if (code != Done)
            return code;
        wanted.after = list.after;
    } while (wanted.after.strlen() > 0);
    return Done;
}

static void PrintChange(const CentreFault& change)
{
    static const char* const kinds[FaultChange::Kinds] = {"began", "raised", "moved", "cleared"};
    std::cout << Dates::GetDateTime(change.time) << "\t" << change.node << "\t" << kinds[change.kind] << "\t"
              << change.fault.hdr.myId << "\t" << change.fault.state << "\t" << change.fault.text << "\n";
}

static ExitCode Watch(Server& server, const Arguments&)
{
    server.patient = true;
    for (CentreWatchRequest wanted;;) {
        Buffer request;
        Pack(wanted, request);
        CentreChanges changes;
        const ExitCode code = AskFor(server, CentreWatchEvent, request, changes);
        if (code != Done)
            return code;
        for (const CentreFault& change : changes.faults)
            PrintChange(change);
        std::cout.flush();
        if (!std::cout)
            return Failed;
        wanted.since = changes.since;
        if (changes.isAll)
            usleep(LongestPause);
    }
}

// Asks the daemon of a host. A server that knew nobody who waits could not tell a slow host from one that is not there:
// so it gives a number, with which its answer is asked for.
static ExitCode AskHost(Server& server, const std::string& host, short event, const Buffer& data, Buffer& answer)
{
    CentreRequest wanted;
    wanted.node = host.c_str();
    wanted.event = event;
    wanted.data = data;
    Buffer request;
    Pack(wanted, request);
    CentreTicket ticket;
    ExitCode code = AskFor(server, CentreRequestEvent, request, ticket);
    Buffer question;
    Pack(ticket, question);
    for (useconds_t pause = ShortestPause; code == Done; pause = std::min(2 * pause, LongestPause)) {
        CentreAnswer given;
        code = AskFor(server, CentreAnswerEvent, question, given);
        answer = given.data;
        if (code == Done && given.progress == CentreAnswer::NoGate)
            return Complain(NoServer, "no gate of " + host + " is there");
        if (code == Done && given.progress == CentreAnswer::Silent)
            return Complain(NoServer, "no answer from " + host + " in time; it may have done what was asked");
        if (code == Done && given.progress == CentreAnswer::Lost)
            return Complain(Failed, "a part of the answer of " + host + " was lost; it has done what was asked");
        if (code == Done && given.progress == CentreAnswer::Answered)
            return given.status == 0 ? Done : ComplainOf(FaultEventName(event), given.status);
        usleep(pause);
    }
    return code;
}

static ExitCode Show(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, 1, id))
        return BadId();
    Buffer request, answer;
    Pack(id, request);
    FaultRecord fault;
    ExitCode code = AskHost(server, arguments[0], FetchEvent, request, answer);
    code = ReadAnswer(code, answer, fault);
    return code == Done ? ShowFault(fault, arguments.Given("--save")) : code;
}

static ExitCode Run(Server& server, const Arguments& arguments)
{
    Buffer request, answer;
    ExitCode code = PackCommand(arguments, 1, request);
    if (code != Done)
        return code;
    CommandResult result;
    code = AskHost(server, arguments[0], RunEvent, request, answer);
    code = ReadAnswer(code, answer, result);
    return ShowResult(result, code);
}

static ExitCode Move(Server& server, const Arguments& arguments)
{
    FaultMove move;
    if (!ReadId(arguments, 1, move.id))
        return BadId();
    move.state = arguments[3].c_str();
    Buffer request, answer;
    Pack(move, request);
    return AskHost(server, arguments[0], MoveEvent, request, answer);
}

static ExitCode Clear(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, 1, id))
        return BadId();
    Buffer request, answer;
    Pack(id, request);
    return AskHost(server, arguments[0], ClearEvent, request, answer);
}

static ExitCode Status(Server& server, const Arguments&) { return ShowStatus(server, CentreStatusEvent); }

static ExitCode Exit(Server& server, const Arguments&) { return EndServer(server, CentreExitEvent); }

const std::vector<Command>& CentreCommands()
{
    static const std::vector<Command> commands = {
        {"list", "[HOST]", 0, {}, false, List, 1},
        {"watch", "no arguments", 0, {}, false, Watch},
        {"show", "HOST NODE NUMBER [--save FILE]", 3, {"--save"}, false, Show},
        {"move", "HOST NODE NUMBER STATE", 4, {}, false, Move},
        {"clear", "HOST NODE NUMBER", 3, {}, false, Clear},
        {"run", "HOST NODE NUMBER COMMAND", 4, {}, false, Run},
        {"status", "no arguments", 0, {}, false, Status},
        {"exit", "no arguments", 0, {}, false, Exit},
    };
    return commands;
}
