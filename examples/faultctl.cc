// SPDX-License-Identifier: BSD-2-Clause
// The command-line client of faultd, on its host or another. Each command is one event, sent with data and answered.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <strings.h>

#include "Misc/Dates.h"
#include "Misc/Error.h"
#include "Misc/ipcobject.h"
#include "Misc/proginfo.h"

#include "centrectl.h"
#include "ctl.h"

static const char Usage[] =
    "usage: faultctl [--host NAME] [--centre] COMMAND\n"
    "  --host NAME  the host of the server, which a relayd there makes accessible; without it the server is sought on\n"
    "               this host and then on the one named in /var/orv/data/orvdserver.host\n"
    "  --centre     asks a centre, which has the faults of many hosts; without --host one on this host, or on the one\n"
    "               named in /var/orv/data/orvcentreserver.host\n"
    "Commands:\n"
    "  raise NODE NUMBER TEXT [--attach FILE] [--option NAME=VALUE]...\n"
    "                                          raise a fault, or replace the one that is there\n"
    "  list                                    one fault a line: id, time, state, attached bytes, text, between tabs\n"
    "  show NODE NUMBER [--save FILE]          show a fault; save its attachment\n"
    "  move NODE NUMBER STATE                  move a fault to another state\n"
    "  moves NODE NUMBER                       the states that a fault can be moved to, and their titles\n"
    "  clear NODE NUMBER                       remove a fault\n"
    "  run NODE NUMBER COMMAND                 run a shell command for a fault on the server and print its output;\n"
    "                                          it finds the fault in FAULT_NODE and FAULT_NUMBER\n"
    "  start NODE NUMBER COMMAND               the same without waiting for it: at most eight run at once, the others\n"
    "                                          wait for their turn; the output goes to the log of the server\n"
    "  load FILE                               raise a fault on this node for each line of a log that tells of an\n"
    "                                          error, numbered by line; - reads standard input\n"
    "  changes [--since N] [--most M]          the changes that a server with a journal has kept, those behind the "
    "number\n"
    "                                          N, the first M of them; one a line: number, time, what (began, raised,\n"
    "                                          moved or cleared), id, state, text, between tabs\n"
    "  changes-done N                          on the server's host: the changes up to N need not be kept any more\n"
    "  status                                  print the state of the server\n"
    "  exit                                    end the server\n"
    "  batch                                   run the commands on standard input, one a line, over one connection;\n"
    "                                          words with blanks stand in double quotes; the exit code is that of the\n"
    "                                          last command that failed\n"
    "Commands with --centre, where HOST is the node name of a host:\n"
    "  list [HOST]                             its faults, or those of all hosts, one a line: host, id, time, state,\n"
    "                                          attached bytes, text, between tabs\n"
    "  watch                                   until it is interrupted, what happens to them, one a line: time, host,\n"
    "                                          what (raised, moved or cleared), id, state, text, between tabs; of\n"
    "                                          changes that follow each other closely only the last is shown\n"
    "  show HOST NODE NUMBER [--save FILE]     these ask the daemon of HOST, as above; its node list decides what "
    "this\n"
    "  move HOST NODE NUMBER STATE             host may do there\n"
    "  clear HOST NODE NUMBER\n"
    "  run HOST NODE NUMBER COMMAND\n"
    "  status                                  print the state of the server\n"
    "  exit                                    end the server\n"
    "Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 no server.\n";

// Reads "NAME=VALUE" into an option.
static bool ReadOption(const std::string& text, Option& option)
{
    const size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos || equals > FaultNodeLimit ||
        text.size() - equals - 1 > FaultTextLimit)
        return false;
    option.Name = text.substr(0, equals).c_str();
    option.Value = text.c_str() + equals + 1;
    return true;
}

static ExitCode Raise(Server& server, const Arguments& arguments)
{
    FaultRecord fault;
    FaultSummary& summary = fault.summary;
    if (!ReadId(arguments, 0, summary.hdr.myId))
        return BadId();
    if (arguments[2].size() > FaultTextLimit)
        return Misused("TEXT is longer than " + std::to_string(FaultTextLimit) + " characters");
    if (arguments.options.size() > FaultOptionLimit)
        return Misused("a fault has up to " + std::to_string(FaultOptionLimit) + " options");
    summary.text = arguments[2].c_str();
    for (const std::string& text : arguments.options) {
        Option* option = new Option;
        summary.options.AddItem(option);
        if (!ReadOption(text, *option))
            return Misused("--option takes NAME=VALUE, not " + text);
    }
    const std::string file = arguments.Given("--attach");
    if (!file.empty() && !fault.attachment.LoadBufferFromFile(file.c_str()))
        return Complain(Failed, "cannot read " + file);
    summary.attached = static_cast<int>(fault.attachment.Size());
    Buffer request, answer;
    Pack(fault, request);
    return Ask(server, RaiseEvent, request, answer);
}

static ExitCode List(Server& server, const Arguments&)
{
    FaultList list;
    const ExitCode code = AskFor(server, ListEvent, Buffer(), list);
    for (const FaultSummary& fault : list.faults)
        PrintLine(fault);
    return code;
}

static ExitCode Show(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, 0, id))
        return BadId();
    Buffer request;
    Pack(id, request);
    FaultRecord fault;
    const ExitCode code = AskFor(server, FetchEvent, request, fault);
    return code == Done ? ShowFault(fault, arguments.Given("--save")) : code;
}

static ExitCode Move(Server& server, const Arguments& arguments)
{
    FaultMove move;
    if (!ReadId(arguments, 0, move.id))
        return BadId();
    move.state = arguments[2].c_str();
    Buffer request, answer;
    Pack(move, request);
    return Ask(server, MoveEvent, request, answer);
}

static ExitCode Moves(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, 0, id))
        return BadId();
    Buffer request, answer;
    Pack(id, request);
    const ExitCode code = Ask(server, MovesEvent, request, answer);
    std::istringstream list(answer.GetCString());
    for (std::string state, title; std::getline(list, state, '|') && std::getline(list, title, '|');)
        std::cout << state << "\t" << title << "\n";
    return code;
}

static ExitCode Clear(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, 0, id))
        return BadId();
    Buffer request, answer;
    Pack(id, request);
    return Ask(server, ClearEvent, request, answer);
}

static ExitCode Run(Server& server, const Arguments& arguments)
{
    Buffer request;
    ExitCode code = PackCommand(arguments, 0, request);
    if (code != Done)
        return code;
    CommandResult result;
    code = AskFor(server, RunEvent, request, result);
    return ShowResult(result, code);
}

static ExitCode Start(Server& server, const Arguments& arguments)
{
    Buffer request, answer;
    const ExitCode code = PackCommand(arguments, 0, request);
    return code == Done ? Ask(server, StartEvent, request, answer) : code;
}

// Whether a log line tells of an error: whether one of its words begins like these.
static bool TellsOfError(const std::string& line)
{
    for (size_t i = 0; i < line.size(); i++) {
        if (i > 0 && isalpha(static_cast<unsigned char>(line[i - 1])))
            continue;
        for (const char* stem : {"error", "fail", "panic", "fault", "segfault"})
            if (strncasecmp(line.c_str() + i, stem, strlen(stem)) == 0)
                return true;
    }
    return false;
}

static ExitCode Load(Server& server, const Arguments& arguments)
{
    std::ifstream file;
    if (arguments[0] != "-")
        file.open(arguments[0]);
    std::istream& log = arguments[0] == "-" ? std::cin : file;
    if (!log)
        return Complain(Failed, "cannot read " + arguments[0]);

    FaultRecord fault;
    long number = 0;
    for (std::string line; std::getline(log, line);) {
        number++;
        if (!TellsOfError(line))
            continue;
        fault.summary.hdr.myId = FaultId(number); // on this node
        fault.summary.text = line.substr(0, FaultTextLimit).c_str();
        fault.summary.text.flatten(); // as the server does
        fault.summary.raised = Dates::CurrentTime();
        fault.summary.state = FirstFaultState;
        Buffer request, answer;
        Pack(fault, request);
        const ExitCode code = Ask(server, RaiseEvent, request, answer);
        if (code != Done)
            return code;
        PrintLine(fault.summary);
    }
    if (log.bad())
        return Complain(Failed, "cannot read " + arguments[0]);
    return Done;
}

static void PrintLine(const FaultChange& change)
{
    static const char* const kinds[FaultChange::Kinds] = {"began", "raised", "moved", "cleared"};
    const FaultSummary& fault = change.fault.summary;
    std::cout << change.number << "\t" << Dates::GetDateTime(change.time) << "\t" << kinds[change.kind] << "\t"
              << fault.hdr.myId << "\t" << fault.state << "\t" << fault.text << "\n";
}

// Asks as long as there is more: an answer holds a part only.
static ExitCode Changes(Server& server, const Arguments& arguments)
{
    const std::string since = arguments.Given("--since"), most = arguments.Given("--most");
    ChangesRequest wanted;
    long left = LONG_MAX;
    if ((!since.empty() && !ReadNumber(since, wanted.since)) || wanted.since < 0)
        return Misused("--since takes the number of a change or 0, not " + since);
    if ((!most.empty() && !ReadNumber(most, left)) || left <= 0)
        return Misused("--most takes a number from 1 on, not " + most);
    for (;;) {
        wanted.most = static_cast<int>(std::min<long>(left, INT_MAX));
        Buffer request;
        Pack(wanted, request);
        FaultChangeList list;
        const ExitCode code = AskFor(server, ChangesEvent, request, list);
        for (const FaultChange& change : list.changes)
            PrintLine(change);
        left -= static_cast<long>(list.changes.size());
        if (code != Done || list.changes.empty() || left <= 0)
            return code;
        wanted.since = list.changes.back().number;
        if (wanted.since >= list.last)
            return Done;
    }
}

static ExitCode ChangesAreDone(Server& server, const Arguments& arguments)
{
    ChangesDone done;
    if (!ReadNumber(arguments[0], done.number) || done.number < 0)
        return Misused("N must be the number of a change");
    Buffer request, answer;
    Pack(done, request);
    return Ask(server, ChangesDoneEvent, request, answer);
}

static ExitCode Status(Server& server, const Arguments&) { return ShowStatus(server, StatusEvent); }

static ExitCode Exit(Server& server, const Arguments&) { return EndServer(server, ExitEvent); }

static ExitCode Batch(Server& server, const Arguments&);

static const std::vector<Command> Commands = {
    {"raise", "NODE NUMBER TEXT [--attach FILE] [--option NAME=VALUE]...", 3, {"--attach"}, true, Raise},
    {"list", "no arguments", 0, {}, false, List},
    {"show", "NODE NUMBER [--save FILE]", 2, {"--save"}, false, Show},
    {"move", "NODE NUMBER STATE", 3, {}, false, Move},
    {"moves", "NODE NUMBER", 2, {}, false, Moves},
    {"clear", "NODE NUMBER", 2, {}, false, Clear},
    {"run", "NODE NUMBER COMMAND", 3, {}, false, Run},
    {"start", "NODE NUMBER COMMAND", 3, {}, false, Start},
    {"load", "FILE", 1, {}, false, Load},
    {"changes", "[--since N] [--most M]", 0, {"--since", "--most"}, false, Changes},
    {"changes-done", "N", 1, {}, false, ChangesAreDone},
    {"status", "no arguments", 0, {}, false, Status},
    {"exit", "no arguments", 0, {}, false, Exit},
    {"batch", "no arguments", 0, {}, false, Batch},
};

static ExitCode Batch(Server& server, const Arguments&)
{
    server.patient = true;
    ExitCode result = Done;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream text(line);
        Words words;
        for (std::string word; text >> std::quoted(word);)
            words.push_back(word);
        if (words.empty())
            continue;
        const ExitCode code = Execute(server, Commands, words);
        std::cout.flush(); // whoever writes the next command may want to see what came of this one
        if (code != Done)
            result = code;
    }
    return result;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    Words words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--help") {
        std::cout << Usage;
        return Done;
    }
    bool isCentre = false;
    Server server;
    for (;;) {
        if (words.size() >= 2 && words[0] == "--host" && server.host.strlen() == 0) {
            server.host = words[1].c_str();
            words.erase(words.begin(), words.begin() + 2);
        } else if (!words.empty() && words[0] == "--centre" && !isCentre) {
            isCentre = true;
            words.erase(words.begin());
        } else {
            break;
        }
    }
    if (!isCentre)
        return Execute(server, Commands, words);
    server.name = CentreServerName;
    server.program = "faultcentre";
    server.eventName = CentreEventName;
    return Execute(server, CentreCommands(), words);
}
