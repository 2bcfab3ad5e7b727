// The command-line client of faultd, on its host or another. Each command is one event, sent with data and answered.
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
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
    "  raise NODE NUMBER TEXT [--attach FILE]  raise a fault, or replace the one that is there\n"
    "  list                                    one fault a line: id, time, attached bytes and text, between tabs\n"
    "  show NODE NUMBER [--save FILE]          show a fault; save its attachment\n"
    "  clear NODE NUMBER                       remove a fault\n"
    "  run NODE NUMBER COMMAND                 run a shell command for a fault on the server and print its output;\n"
    "                                          it finds the fault in FAULT_NODE and FAULT_NUMBER\n"
    "  load FILE                               raise a fault on this node for each line of a log that tells of an\n"
    "                                          error, numbered by line; - reads standard input\n"
    "  status                                  print the state of the server\n"
    "  exit                                    end the server\n"
    "  batch                                   run the commands on standard input, one a line, over one connection;\n"
    "                                          words with blanks stand in double quotes; the exit code is that of the\n"
    "                                          last command that failed\n"
    "Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 no server.\n";

enum ExitCode { Done = 0, Failed = 1, WrongUsage = 2, NoServer = 3 };

typedef std::vector<std::string> Arguments; // what follows the command, without its option

static ExitCode Complain(ExitCode code, const std::string& message)
{
    std::cerr << "faultctl: " << message << std::endl;
    return code;
}

static ExitCode Misused(const std::string& message)
{
    return Complain(WrongUsage, message + "; see faultctl --help");
}

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

// Reads NODE and NUMBER, the first two arguments.
static bool ReadKey(const Arguments& arguments, FaultKey& key)
{
    key.node = arguments[0].c_str();
    const char* end = arguments[1].data() + arguments[1].size();
    const std::from_chars_result read = std::from_chars(arguments[1].data(), end, key.number);
    return key.node.strlen() > 0 && key.node.strlen() <= FaultNodeLimit && read.ec == std::errc() && read.ptr == end &&
           key.number >= 0;
}

static ExitCode BadKey()
{
    return Misused("NODE must be 1 to " + std::to_string(FaultNodeLimit) + " characters, NUMBER a number from 0 on");
}

static void PrintBytes(const Buffer& bytes)
{
    std::cout.write(static_cast<const char*>(static_cast<const void*>(bytes)), bytes.Size());
}

static void PrintLine(const FaultSummary& fault)
{
    std::cout << fault.key.Name() << "\t" << Dates::GetDateTime(fault.raised) << "\t" << fault.attached << "\t"
              << fault.text << "\n";
}

static ExitCode Raise(Server& server, const Arguments& arguments, const std::string& file)
{
    FaultRecord fault;
    if (!ReadKey(arguments, fault.summary.key))
        return BadKey();
    if (arguments[2].size() > FaultTextLimit)
        return Misused("TEXT is longer than " + std::to_string(FaultTextLimit) + " characters");
    fault.summary.text = arguments[2].c_str();
    if (!file.empty() && !fault.attachment.LoadBufferFromFile(file.c_str()))
        return Complain(Failed, "cannot read " + file);
    fault.summary.attached = static_cast<int>(fault.attachment.Size());
    Buffer request, answer;
    Pack(fault, request);
    return Ask(server, RaiseEvent, request, answer);
}

static ExitCode List(Server& server, const Arguments&, const std::string&)
{
    FaultList list;
    const ExitCode code = AskFor(server, ListEvent, Buffer(), list);
    for (const FaultSummary& fault : list.faults)
        PrintLine(fault);
    return code;
}

static ExitCode Show(Server& server, const Arguments& arguments, const std::string& file)
{
    FaultKey key;
    if (!ReadKey(arguments, key))
        return BadKey();
    Buffer request;
    Pack(key, request);
    FaultRecord fault;
    const ExitCode code = AskFor(server, FetchEvent, request, fault);
    if (code != Done)
        return code;
    std::cout << "Fault:    " << fault.summary.key.Name() << "\n"
              << "Raised:   " << Dates::GetDateTime(fault.summary.raised) << "\n"
              << "Attached: " << fault.summary.attached << " bytes\n"
              << "Text:     " << fault.summary.text << "\n";
    if (!file.empty() && fault.attachment.SaveBufferToFile(file.c_str(), 0) != 0)
        return Complain(Failed, "cannot write " + file);
    return Done;
}

static ExitCode Clear(Server& server, const Arguments& arguments, const std::string&)
{
    FaultKey key;
    if (!ReadKey(arguments, key))
        return BadKey();
    Buffer request, answer;
    Pack(key, request);
    return Ask(server, ClearEvent, request, answer);
}

static ExitCode Run(Server& server, const Arguments& arguments, const std::string&)
{
    FaultCommand command;
    if (!ReadKey(arguments, command.key))
        return BadKey();
    if (arguments[2].empty() || arguments[2].size() > FaultTextLimit)
        return Misused("COMMAND must be 1 to " + std::to_string(FaultTextLimit) + " characters");
    command.command = arguments[2].c_str();
    Buffer request;
    Pack(command, request);
    CommandResult result;
    const ExitCode code = AskFor(server, RunEvent, request, result);
    PrintBytes(result.output);
    if (code == Done && result.exitStatus != 0)
        return Complain(Failed, "the command ended with status " + std::to_string(result.exitStatus));
    return code;
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

static ExitCode Load(Server& server, const Arguments& arguments, const std::string&)
{
    std::ifstream file;
    if (arguments[0] != "-")
        file.open(arguments[0]);
    std::istream& log = arguments[0] == "-" ? std::cin : file;
    if (!log)
        return Complain(Failed, "cannot read " + arguments[0]);

    FaultRecord fault;
    fault.summary.key.node = ProgInfo::GetNodeName();
    for (std::string line; std::getline(log, line);) {
        fault.summary.key.number++;
        if (!TellsOfError(line))
            continue;
        fault.summary.text = line.substr(0, FaultTextLimit).c_str();
        fault.summary.text.flatten(); // as the server does
        fault.summary.raised = Dates::CurrentTime();
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

static ExitCode Status(Server& server, const Arguments&, const std::string&)
{
    Buffer answer;
    const ExitCode code = Ask(server, StatusEvent, Buffer(), answer);
    PrintBytes(answer);
    return code;
}

static ExitCode Exit(Server& server, const Arguments&, const std::string&)
{
    Buffer answer;
    return Ask(server, ExitEvent, Buffer(), answer);
}

static ExitCode Batch(Server& server, const Arguments&, const std::string&);

struct Command {
    const char* name;
    const char* takes;
    size_t count;       // of its arguments
    const char* option; // that may be given with a file, or null
    ExitCode (*run)(Server& server, const Arguments& arguments, const std::string& file);
};

static const Command Commands[] = {
    {"raise", "NODE NUMBER TEXT [--attach FILE]", 3, "--attach", Raise},
    {"list", "no arguments", 0, nullptr, List},
    {"show", "NODE NUMBER [--save FILE]", 2, "--save", Show},
    {"clear", "NODE NUMBER", 2, nullptr, Clear},
    {"run", "NODE NUMBER COMMAND", 3, nullptr, Run},
    {"load", "FILE", 1, nullptr, Load},
    {"status", "no arguments", 0, nullptr, Status},
    {"exit", "no arguments", 0, nullptr, Exit},
    {"batch", "no arguments", 0, nullptr, Batch},
};

// Runs the command in the first of the words.
static ExitCode Execute(Server& server, Arguments words)
{
    if (words.empty())
        return Misused("no command");
    for (const Command& command : Commands) {
        if (words[0] != command.name)
            continue;
        words.erase(words.begin());
        std::string file;
        const size_t count = words.size();
        if (command.option != nullptr && count == command.count + 2 && words[count - 2] == command.option) {
            file = words[count - 1];
            words.resize(count - 2);
        }
        if (words.size() != command.count)
            return Misused(std::string(command.name) + " takes " + command.takes);
        return command.run(server, words, file);
    }
    return Misused("unknown command " + words[0]);
}

static ExitCode Batch(Server& server, const Arguments&, const std::string&)
{
    server.patient = true;
    ExitCode result = Done;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream text(line);
        Arguments words;
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
    Arguments words(argv + 1, argv + argc);
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
