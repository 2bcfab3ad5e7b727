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

#include "fault.h"

static const char Usage[] =
    "usage: faultctl [--host NAME] COMMAND\n"
    "  --host NAME  the host of the server, which a relayd there makes accessible; without it the server is sought on\n"
    "               this host and then on the one named in /var/orv/data/orvdserver.host\n"
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
    "Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 no server.\n";

enum ExitCode { Done = 0, Failed = 1, WrongUsage = 2, NoServer = 3 };

typedef std::vector<std::string> Words;

/// What follows the command.
struct Arguments {
    Words words; // as many as the command takes
    std::map<std::string, std::string> once;
    Words options; // "NAME=VALUE"

    const std::string& operator[](size_t i) const { return words[i]; }
    // What was given behind an option that may be given once; empty when it was not.
    std::string Given(const char* option) const
    {
        const auto at = once.find(option);
        return at != once.end() ? at->second : "";
    }
};

static ExitCode Complain(ExitCode code, const std::string& message)
{
    std::cerr << "faultctl: " << message << std::endl;
    return code;
}

static ExitCode Misused(const std::string& message) { return Complain(WrongUsage, message + "; see faultctl --help"); }

/// The server. It is connected to when the first command needs it, and again when it was started again.
class Server {
public:
    CString host;         // empty: wherever it is
    bool patient = false; // waits a little for a server that is being started again

    ReconnectClient& Client()
    {
        if (client == nullptr) {
            client = std::make_unique<ReconnectClient>(0, FaultServerName, host);
            client->SetRetryCount(patient ? 3 : 1);
            client->SetRetryWaitTime(1);
        }
        return *client;
    }
    ExitCode Missing() const
    {
        if (host.strlen() > 0)
            return Complain(NoServer, "no server: none on " + std::string(host) + ", or no relay to it");
        return Complain(NoServer, "no server: faultd is not running here, and there is no relay to another host");
    }

private:
    std::unique_ptr<ReconnectClient> client;
};

// Sends `event` to the server and waits for its answer. Says on standard error what went wrong, if anything did; the
// answer's data may be of use even then.
static ExitCode Ask(Server& server, short event, const Buffer& request, Buffer& answer)
{
    ReconnectClient& client = server.Client();
    const bool wasThere = client.ServerConnected();
    const short code = client.SendEventWithResponse(event, answer, event, request, static_cast<long>(request.Size()));
    if (code == 0)
        return Done;
    if (!wasThere && !client.ServerConnected())
        return server.Missing();
    if (event == ExitEvent && code == ErrorReporter::SERVER_GONE) // it may go before the answer is read
        return Done;
    const bool gone = code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
    const std::string message = ErrorReporter::GetErrorType(code);
    return Complain(gone ? NoServer : Failed,
                    std::string(FaultEventName(event)) + ": " + message + " (" + std::to_string(code) + ")");
}

// Asks for an object, which may come with a failure too.
template <class Object>
static ExitCode AskFor(Server& server, short event, const Buffer& request, Object& object)
{
    Buffer answer;
    const ExitCode code = Ask(server, event, request, answer);
    if (answer.Size() == 0 && code != Done)
        return code;
    return Unpack(answer, object) ? code : Complain(Failed, "the server's answer cannot be read");
}

static bool ReadNumber(const std::string& text, long& number)
{
    const char* end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

// Reads NODE and NUMBER, the first two arguments.
static bool ReadId(const Arguments& arguments, FaultId& id)
{
    long number = 0;
    if (arguments[0].empty() || !ReadNumber(arguments[1], number))
        return false;
    id = FaultId(number, arguments[0].c_str());
    return IsFaultId(id);
}

static ExitCode BadId()
{
    return Misused("NODE must be 1 to " + std::to_string(FaultNodeLimit) +
                   " visible characters without / and :, NUMBER from 0 to 2147483647");
}

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

static void PrintBytes(const Buffer& bytes)
{
    std::cout.write(static_cast<const char*>(static_cast<const void*>(bytes)), bytes.Size());
}

static void PrintLine(const FaultSummary& fault)
{
    std::cout << fault.hdr.myId << "\t" << Dates::GetDateTime(fault.raised) << "\t" << fault.state << "\t"
              << fault.attached << "\t" << fault.text << "\n";
}

static ExitCode Raise(Server& server, const Arguments& arguments)
{
    FaultRecord fault;
    FaultSummary& summary = fault.summary;
    if (!ReadId(arguments, summary.hdr.myId))
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
    if (!ReadId(arguments, id))
        return BadId();
    Buffer request;
    Pack(id, request);
    FaultRecord fault;
    const ExitCode code = AskFor(server, FetchEvent, request, fault);
    if (code != Done)
        return code;
    const FaultSummary& summary = fault.summary;
    std::cout << "Fault:    " << summary.hdr.myId << "\n"
              << "Raised:   " << Dates::GetDateTime(summary.raised) << "\n"
              << "State:    " << summary.state << "\n"
              << "Attached: " << summary.attached << " bytes\n"
              << "Text:     " << summary.text << "\n";
    for (unsigned i = 0; i < summary.options.Quantity(); i++) {
        const Option& option = *summary.options[static_cast<int>(i)];
        std::cout << "Option:   " << option.Name << "=" << option.Value << "\n";
    }
    const std::string file = arguments.Given("--save");
    if (!file.empty() && fault.attachment.SaveBufferToFile(file.c_str(), 0) != 0)
        return Complain(Failed, "cannot write " + file);
    return Done;
}

static ExitCode Move(Server& server, const Arguments& arguments)
{
    FaultMove move;
    if (!ReadId(arguments, move.id))
        return BadId();
    move.state = arguments[2].c_str();
    Buffer request, answer;
    Pack(move, request);
    return Ask(server, MoveEvent, request, answer);
}

static ExitCode Moves(Server& server, const Arguments& arguments)
{
    FaultId id;
    if (!ReadId(arguments, id))
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
    if (!ReadId(arguments, id))
        return BadId();
    Buffer request, answer;
    Pack(id, request);
    return Ask(server, ClearEvent, request, answer);
}

// Makes the request of a command for a fault.
static ExitCode PackCommand(const Arguments& arguments, Buffer& request)
{
    FaultCommand command;
    if (!ReadId(arguments, command.id))
        return BadId();
    if (arguments[2].empty() || arguments[2].size() > FaultTextLimit)
        return Misused("COMMAND must be 1 to " + std::to_string(FaultTextLimit) + " characters");
    command.command = arguments[2].c_str();
    Pack(command, request);
    return Done;
}

static ExitCode Run(Server& server, const Arguments& arguments)
{
    Buffer request;
    ExitCode code = PackCommand(arguments, request);
    if (code != Done)
        return code;
    CommandResult result;
    code = AskFor(server, RunEvent, request, result);
    PrintBytes(result.output);
    if (code == Done && result.exitStatus != 0)
        return Complain(Failed, "the command ended with status " + std::to_string(result.exitStatus));
    return code;
}

static ExitCode Start(Server& server, const Arguments& arguments)
{
    Buffer request, answer;
    const ExitCode code = PackCommand(arguments, request);
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

static ExitCode Status(Server& server, const Arguments&)
{
    Buffer answer;
    const ExitCode code = Ask(server, StatusEvent, Buffer(), answer);
    PrintBytes(answer);
    return code;
}

static ExitCode Exit(Server& server, const Arguments&)
{
    Buffer answer;
    return Ask(server, ExitEvent, Buffer(), answer);
}

static ExitCode Batch(Server& server, const Arguments&);

struct Command {
    const char* name;
    const char* takes;
    size_t count;        // of its words
    const char* once[2]; // options that may be given, once, with a value, or null
    bool hasOptions;     // --option may be given, several times
    ExitCode (*run)(Server& server, const Arguments& arguments);
};

static const Command Commands[] = {
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

// Sorts what follows the command. False when it is not what the command takes.
static bool ReadArguments(const Command& command, const Words& words, Arguments& arguments)
{
    if (words.size() < 1 + command.count)
        return false;
    const auto rest = words.begin() + 1 + static_cast<std::ptrdiff_t>(command.count);
    arguments.words.assign(words.begin() + 1, rest);
    for (auto word = rest; word != words.end(); word += 2) {
        if (word + 1 == words.end())
            return false;
        const bool isOnce = std::any_of(std::begin(command.once), std::end(command.once),
                                        [&](const char* option) { return option != nullptr && *word == option; });
        if (isOnce && arguments.once[*word].empty())
            arguments.once[*word] = word[1];
        else if (command.hasOptions && *word == "--option")
            arguments.options.push_back(word[1]);
        else
            return false;
    }
    return true;
}

// Runs the command in the first of the words.
static ExitCode Execute(Server& server, const Words& words)
{
    if (words.empty())
        return Misused("no command");
    for (const Command& command : Commands) {
        if (words[0] != command.name)
            continue;
        Arguments arguments;
        if (!ReadArguments(command, words, arguments))
            return Misused(std::string(command.name) + " takes " + command.takes);
        return command.run(server, arguments);
    }
    return Misused("unknown command " + words[0]);
}

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
        const ExitCode code = Execute(server, words);
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
    Server server;
    if (words.size() >= 2 && words[0] == "--host") {
        server.host = words[1].c_str();
        words.erase(words.begin(), words.begin() + 2);
    }
    return Execute(server, words);
}
